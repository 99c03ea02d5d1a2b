// What becomes of the text of a mail on its way to the server.

#include "base/network/SMTPOutput.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "base/host/BufferedOutput.h"
#include "tests/support/MailDialogue.h"
#include "tests/support/MailTextModel.h"
#include "tests/support/RecordingOutput.h"
#include "tests/support/TestApplication.h"

namespace {

class MailText : public testing::Test {
 protected:
  // Sends the pieces as one text, through a buffer of that many bytes.
  std::string Send(const std::vector<std::string>& pieces, int buffer = 8192) {
    server = MailServer();
    MailServerConnection connection(&server, &application);
    SMTPOutput output(&page, &connection, buffer, 5);
    for (const std::string& piece : pieces) {
      EXPECT_EQ(output.Write(piece.data(), static_cast<int>(piece.size())),
                static_cast<int>(piece.size()));
    }
    EXPECT_TRUE(output.FlushAndTerminate());
    return server.Written();
  }

  MailServer server;
  TestApplication application;
  RecordingOutput page;
};

TEST_F(MailText, IsChangedAsFollows) {
  const struct {
    const char* label;
    std::string text;
    std::string sent;
  } cases[] = {
      {"every line break becomes CR LF", "a\nb\r\nc", "a\r\nb\r\nc\r\n.\r\n"},
      {"LF CR is one too", "a\n\rb\rc", "a\r\nb\r\nc\r\n.\r\n"},
      {"a line break at the very start is dropped", "\r\nHello", "Hello\r\n.\r\n"},
      {"one only", "\n\nHello", "\r\nHello\r\n.\r\n"},
      {"a CR alone at the start", "\rHello", "Hello\r\n.\r\n"},
      {"a line of a dot is doubled", "x\n.\ny", "x\r\n..\r\ny\r\n.\r\n"},
      {"a dot in front of other text is not", ".hidden", ".hidden\r\n.\r\n"},
      {"nor two dots", "x\n..\ny", "x\r\n..\r\ny\r\n.\r\n"},
      {"an empty text", "", ".\r\n"},
      {"a text of one line break", "\r\n", ".\r\n"},
      {"of two", "\n\n", "\r\n.\r\n"},
      {"a text of one dot", ".", "..\r\n.\r\n"},
      {"a dot at the end", "a\n.", "a\r\n..\r\n.\r\n"},
      {"a dot after the dropped line break", "\n.\n", "..\r\n.\r\n"},
      {"a text that ends in a line break", "a\n", "a\r\n.\r\n"},
      {"an empty line", "a\n\nb", "a\r\n\r\nb\r\n.\r\n"},
      {"CR CR LF is two", "a\r\r\nb", "a\r\n\r\nb\r\n.\r\n"},
      {"a NUL is a byte like others", std::string("a\0b", 3), std::string("a\0b\r\n.\r\n", 8)},
      {"and so is one above 127", "\xC3\xA9\xFF", "\xC3\xA9\xFF\r\n.\r\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(Send({c.text}), c.sent);
    EXPECT_EQ(MailTextModel::Sent(c.text), c.sent);
  }
}

TEST_F(MailText, TwoLineBreaksAroundADotAtTheStart) {
  EXPECT_EQ(Send({"\r\n.\r\n"}), "..\r\n.\r\n");
}

// All texts of up to seven bytes of the four kinds, each cut at every place.
TEST_F(MailText, AgreesWithTheTableHoweverItIsCut) {
  const char bytes[] = {'\n', '\r', '.', 'x'};
  for (int length = 0; length <= 7; length++) {
    for (int number = 0; number < 1 << (2 * length); number++) {
      std::string text;
      for (int i = 0; i < length; i++) text += bytes[number >> (2 * i) & 3];
      const std::string expected = MailTextModel::Sent(text);
      for (int cut = 0; cut <= length; cut++) {
        const size_t at = static_cast<size_t>(cut);
        ASSERT_EQ(Send({text.substr(0, at), text.substr(at)}), expected) << number << " " << cut;
      }
      std::vector<std::string> single;
      for (const char c : text) single.emplace_back(1, c);
      ASSERT_EQ(Send(single), expected) << number;
      ASSERT_EQ(Send({text}, 1), expected) << number;
    }
  }
}

TEST_F(MailText, LongTextsAgreeWithTheTable) {
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  const char bytes[] = {'\n', '\r', '.', 'x', 'y', ' ', '\0', '\xFF'};
  for (int round = 0; round < 200; round++) {
    std::string text;
    const size_t length = random() % 20000;
    while (text.size() < length) {
      if (random() % 8 == 0) {
        text.append(random() % 10000, 'l');
      } else {
        text += bytes[random() % sizeof bytes];
      }
    }
    std::vector<std::string> pieces;
    for (size_t at = 0; at < text.size();) {
      const size_t piece = 1 + random() % (random() % 2 == 0 ? 5 : 9000);
      pieces.push_back(text.substr(at, piece));
      at += piece;
    }
    ASSERT_EQ(Send(pieces, static_cast<int>(1 + random() % 10000)), MailTextModel::Sent(text))
        << "seed " << seed << " round " << round;
  }
}

TEST_F(MailText, ALengthOfMinusOneIsMeasured) {
  MailServerConnection connection(&server, &application);
  SMTPOutput output(&page, &connection, 100, 5);
  EXPECT_EQ(output.Write("a\nb", -1), 3);
  EXPECT_TRUE(output.FlushAndTerminate());
  EXPECT_EQ(server.Written(), "a\r\nb\r\n.\r\n");
}

TEST_F(MailText, AFlushOfTheBlockSendsNothing) {
  MailServerConnection connection(&server, &application);
  SMTPOutput output(&page, &connection, 100, 5);
  output.Write("a", 1);
  EXPECT_EQ(output.Flush(0), 0);
  EXPECT_EQ(output.Flush(1), 0);
  EXPECT_TRUE(server.transcript.empty());
  EXPECT_EQ(output.Flush(), 1);
  EXPECT_EQ(server.Written(), "a");
}

TEST_F(MailText, HeaderFieldsArePassedToThePageAndMessagesAreText) {
  MailServerConnection connection(&server, &application);
  SMTPOutput output(&page, &connection, 100, 5);
  EXPECT_EQ(output.Header("X", "y"), 1);
  EXPECT_EQ(page.headers, std::vector<std::string>{"X: y"});
  output.Write_Error("trouble\n", -1);
  EXPECT_EQ(server.Written(), "trouble");
  EXPECT_TRUE(output.FlushAndTerminate());
  EXPECT_EQ(server.Written(), "trouble\r\n.\r\n");
  EXPECT_EQ(page.text, "");
}

TEST_F(MailText, EachWriteHasTheTimeoutAndTheSizeOfTheBuffer) {
  MailServerConnection connection(&server, &application);
  SMTPOutput output(&page, &connection, 4, 5);
  output.Write("abcdefghij", 10);
  EXPECT_TRUE(output.FlushAndTerminate());
  EXPECT_EQ(server.transcript, (MailTranscript{"C: abcd", "C: efgh", "C: ij\r\n", "C: .\r\n"}));
  EXPECT_EQ(server.waits, std::vector<int>(4, 5));
}

// A mail with a hole in it would be worse than none.
TEST_F(MailText, AfterAFailedWriteNothingMoreIsSent) {
  for (int failing = 1; failing <= 4; failing++) {
    server = MailServer();
    server.failing_operation = failing;
    MailServerConnection connection(&server, &application);
    SMTPOutput output(&page, &connection, 4, 5);
    output.Write("abcdefghij", 10);
    output.Write("klm", 3);
    EXPECT_FALSE(output.FlushAndTerminate());
    EXPECT_EQ(server.operations, failing);
    EXPECT_STREQ(output.error().data, "Write Timeout");
  }
}

TEST_F(MailText, WithLessWhiteSpaceGoesThroughTheTableToo) {
  MailServerConnection connection(&server, &application);
  SMTPOutput output(&page, &connection, 100, 5);
  output.SetFlags(Output::CompressFull);
  output.Write_Compressed("a   b\n\n\n.\nc", -1);
  EXPECT_TRUE(output.FlushAndTerminate());
  EXPECT_EQ(server.Written(), "a b\r\n..\r\nc\r\n.\r\n");
}

// Ends, in any order, of a mail in a capture, a mail in that, and a capture on top.
TEST_F(MailText, LayersEndInAnyOrder) {
  std::vector<int> order = {0, 1, 2, 3};
  do {
    server = MailServer();
    MailServerConnection connection(&server, &application);
    auto* const lowest = new CaptureOutput(&page);
    auto* const first = new SMTPOutput(lowest, &connection, 100, 5);
    auto* const second = new SMTPOutput(first, &connection, 100, 5);
    auto* const highest = new CaptureOutput(second);
    bool over[4] = {};
    Output* const outputs[] = {lowest, first, second, highest};
    OutputLayer* const layers[] = {lowest, first, second, highest};
    for (const int ending : order) {
      Output* expected = &page;
      for (int i = 0; i < ending; i++) {
        if (!over[i]) expected = outputs[i];
      }
      EXPECT_EQ(layers[ending]->below(), expected);
      over[ending] = true;
      switch (ending) {
        case 0: lowest->Close(); break;
        case 1: first->Close(); break;
        case 2: second->Close(); break;
        default: highest->Close();
      }
      for (int i = 0; i < 4; i++) {
        if (over[i]) continue;
        EXPECT_EQ(outputs[i]->Header("X", "y"), 1);
      }
    }
  } while (std::next_permutation(order.begin(), order.end()));
}

// A message passes by captures and ends in a mail, unless that is over.
TEST_F(MailText, AMessageInACaptureInAMailIsTextOfTheMail) {
  MailServerConnection connection(&server, &application);
  auto* const mail = new SMTPOutput(&page, &connection, 100, 5);
  auto* const capture = new CaptureOutput(mail);
  capture->Write_Error("in the mail", -1);
  EXPECT_EQ(server.Written(), "in the mail");
  mail->Close();
  capture->Write_Error("in the page", -1);
  EXPECT_EQ(page.text, "in the page");
  EXPECT_EQ(server.Written(), "in the mail");
  EXPECT_EQ(capture->below(), &page);
  capture->Close();
}

}  // namespace

// The dialogue with a mailbox: what is sent, and what each reply means. Whole sessions are compared
// with a second reader.

#include <gtest/gtest.h>

#include <climits>
#include <random>

#include "base/core/RunLimit.h"
#include "tests/support/Machine.h"
#include "tests/support/Mails.h"
#include "tests/support/POP3Host.h"

namespace {

void ExpectLikeTheModel(POP3Host& host, const std::string& bytes, bool silent = false,
                        bool deletes = false) {
  const POP3Outcome expected = POP3Model(bytes, silent, deletes).Run();
  const POP3Outcome seen = host.Run(bytes, silent, deletes);
  EXPECT_EQ(seen.Text(), expected.Text());
  EXPECT_EQ(host.peer.deleted, 1);
  EXPECT_EQ(host.mail.open_now, 0);
}

const char kToList[] = "+OK ready\r\n+OK\r\n+OK\r\n";
const char kSent[] = "USER u\r\nPASS p\r\nSTAT\r\nLIST\r\n";

// --- Whole sessions ------------------------------------------------------------------------------

TEST(POP3, EachMailIsWhatASecondReaderFinds) {
  POP3Host host;
  const std::vector<Mail> mails = AllMails();
  ASSERT_GE(mails.size(), 40u);
  for (const Mail& mail : mails) {
    SCOPED_TRACE(mail.label);
    ExpectLikeTheModel(host, Session({mail.lines}));
    ExpectLikeTheModel(host, Session({mail.lines}, true), false, true);
    ExpectLikeTheModel(host, Session({"Subject: before\r\n\r\nx\r\n", mail.lines, mail.lines}));
  }
}

TEST(POP3, AllMailsInOneSessionAreWhatASecondReaderFinds) {
  POP3Host host;
  std::vector<std::string> lines;
  for (const Mail& mail : AllMails()) lines.push_back(mail.lines);
  for (const bool deletes : {false, true}) {
    ExpectLikeTheModel(host, Session(lines, deletes), false, deletes);
    EXPECT_EQ(host.mail.files.size(), lines.size());
  }
}

TEST(POP3, AServerThatEndsAtAnyByteIsWhatASecondReaderFinds) {
  POP3Host host;
  const std::string bytes =
      Session({"Subject: a\r\n\r\n..x\r\n", "From: b\r\nx\r\n"}, true) + "+OK bye\r\n";
  for (size_t length = 0; length <= bytes.size(); length++) {
    SCOPED_TRACE(length);
    ExpectLikeTheModel(host, bytes.substr(0, length), false, true);
    ExpectLikeTheModel(host, bytes.substr(0, length), true, true);
  }
}

TEST(POP3, AnyChangeOfAByteIsWhatASecondReaderFinds) {
  POP3Host host;
  const std::string bytes = Session({"Subject: a\r\n\r\n..0\r\n", "From: b\r\nx\r\n"}, true);
  for (size_t at = 0; at < bytes.size(); at++) {
    for (const char byte : {'-', '.', '0', ' ', ':', '\r', '\n', '\0', '\xFF'}) {
      SCOPED_TRACE(std::to_string(at) + " " + std::to_string(byte));
      std::string changed = bytes;
      changed[at] = byte;
      ExpectLikeTheModel(host, changed, false, true);
    }
  }
}

TEST(POP3, RandomRepliesAreWhatASecondReaderFinds) {
  POP3Host host;
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const char* const pieces[] = {"+OK", "-ERR", " ",  "\r\n",      "\n",         "\r",  ".",
                                "..",  "0",    "1",  "2",         "99999999",   "-1",  ":",
                                ": ",  "From", "To", "Subject: ", "Reply-To: ", "\0x", "a"};
  const std::vector<Mail> mails = AllMails();
  for (int round = 0; round < 3000; round++) {
    std::vector<std::string> lines;
    for (unsigned n = random() % 4; n > 0; n--) lines.push_back(mails[random() % 30].lines);
    std::string bytes = Session(lines, round % 2 != 0);
    for (unsigned n = random() % 4; n > 0 && !bytes.empty(); n--) {
      const size_t at = random() % bytes.size();
      const std::string piece = pieces[random() % std::size(pieces)];
      if (random() % 2 != 0) {
        bytes.insert(at, piece);
      } else {
        bytes.replace(at, piece.size(), piece);
      }
    }
    SCOPED_TRACE(bytes);
    ExpectLikeTheModel(host, bytes, random() % 2 != 0, round % 2 != 0);
    if (testing::Test::HasFailure()) return;
  }
}

TEST(POP3, WhatAClientSaysIsExactlyThis) {
  POP3Host host;
  const POP3Outcome seen = host.Run(Session({"a\r\n", "b\r\n"}, true), false, true);
  EXPECT_EQ(seen.written, std::string(kSent) + "RETR 1\r\nDELE 1\r\nRETR 2\r\nDELE 2\r\nQUIT\r\n");
  EXPECT_EQ(host.network.calls, std::vector<std::string>{"connect h 110 0"});
  for (const int wait : host.peer.waits) EXPECT_EQ(wait, 30);
  for (const int size : host.peer.buffers) EXPECT_EQ(size, 512);
}

TEST(POP3, TheLimitOfAWaitIsTheSettingForMail) {
  POP3Host host;
  host.application.config()->SetValue_Integer(Config_timeout_mail, 7);
  host.Run(Session({"a\r\n"}));
  EXPECT_FALSE(host.peer.waits.empty());
  for (const int wait : host.peer.waits) EXPECT_EQ(wait, 7);
}

TEST(POP3, UserAndPasswordGoOutAsTheyAre) {
  POP3Host host;
  host.peer.bytes = "+OK\r\n+OK\r\n+OK\r\n";
  {
    const auto mailbox = host.Mailbox();
    ASSERT_EQ(host.Connect(mailbox.get()), POP3::Done);
    EXPECT_EQ(mailbox->Login("a b\xC3\xA4", 5, " p\0 ", 4), POP3::Done);
  }
  EXPECT_EQ(host.peer.written,
            "USER a b\xC3\xA4\r\nPASS " + std::string(" p\0 ", 4) + "\r\nQUIT\r\n");
}

// --- Single replies ------------------------------------------------------------------------------

TEST(POP3, AStatusIsASuccessUnlessItBeginsWithAMinus) {
  const struct {
    const char* line;
    int result;
    const char* error;
  } cases[] = {
      {"+OK", POP3::Done, ""},
      {"+OK text", POP3::Done, ""},
      {"", POP3::Done, ""},
      {"anything", POP3::Done, ""},
      {" -ERR", POP3::Done, ""},
      {"\n", POP3::Done, ""},
      {"-ERR not here", POP3::Failed, "not here"},
      {"-ERR  two blanks", POP3::Failed, " two blanks"},
      {"-ERR ", POP3::Failed, ""},
      {"- x", POP3::Failed, "x"},
      {"-ERR", POP3::Failed, "Invalid response from server"},
      {"-", POP3::Failed, "Invalid response from server"},
      {"-ERR\n", POP3::Failed, "Invalid response from server"},
      {"-ERR a\n", POP3::Failed, "a\n"},
  };
  POP3Host host;
  for (const auto& row : cases) {
    SCOPED_TRACE(row.line);
    const auto mailbox = host.Mailbox();
    EXPECT_EQ(mailbox->ProcessResponse(row.line, static_cast<int>(strlen(row.line))), row.result);
    EXPECT_EQ(BytesOf(mailbox->error()), row.error);
  }
}

TEST(POP3, TheCountIsBetweenTwoBlanks) {
  const struct {
    const char* line;
    const char* error;
  } cases[] = {
      {"+OK 1 5", ""},
      {"+OK 1 ", ""},
      {"x 1 y z", ""},
      {" 1 5", ""},
      {"+OK  1 5", "More messages than expected returned from server"},
      {"+OK x 5", "More messages than expected returned from server"},
      {"+OK -1 5", "More messages than expected returned from server"},
      {"+OK -99999999999999999999 5", "More messages than expected returned from server"},
      {"+OK 0 0", "More messages than expected returned from server"},
      {"+OK 2147483647 5", ""},
      {"+OK 2147483648 5", ""},
      {"+OK 4294967296 5", ""},
      {"+OK 99999999999999999999999999 5", ""},
      {"+OK 2", "Invalid response from server"},
      {"+OK", "Invalid response from server"},
      {"", "Invalid response from server"},
      {"-ERR no", "no"},
      {"-ERR", "Invalid response from server"},
  };
  POP3Host host;
  for (const auto& row : cases) {
    SCOPED_TRACE(row.line);
    const std::string bytes =
        std::string(kToList) + row.line + "\r\n+OK\r\n1 5\r\n.\r\n-ERR end\r\n";
    const POP3Outcome seen = host.Run(bytes);
    const std::string error = row.error[0] ? row.error : "end";
    ASSERT_EQ(seen.errors.size(), 1u);
    EXPECT_EQ(seen.errors[0].substr(seen.errors[0].find(": ") + 2), error);
    ExpectLikeTheModel(host, bytes);
  }
}

// A count of 2147483647 messages would be 128 GB of them.
TEST(POP3, AHugeCountTakesNoMemoryByItself) {
  POP3Host host;
  const auto mailbox = host.Mailbox();
  host.peer.bytes = "+OK\r\n+OK 2147483647 1\r\n+OK\r\n1 1\r\n2 2\r\n.\r\n";
  ASSERT_EQ(host.Connect(mailbox.get()), POP3::Done);
  ASSERT_EQ(mailbox->GetStat(), POP3::Done);
  EXPECT_EQ(mailbox->BuildMessageList(), POP3::Done);
}

TEST(POP3, AListThatIsLongerThanTheCountIsRefused) {
  POP3Host host;
  const std::string list = "+OK\r\n1 1\r\n2 2\r\n3 3\r\n.\r\n";
  EXPECT_EQ(
      host.Run(kToList + std::string("+OK 2 9\r\n") + list).errors,
      std::vector<std::string>{"Error while retrieving list of messages from 'h': More messages "
                               "than expected returned from server"});
  EXPECT_EQ(host.peer.written, std::string(kSent) + "QUIT\r\n");
}

TEST(POP3, AListThatIsShorterThanTheCountIsTheWholeMailbox) {
  POP3Host host;
  const POP3Outcome seen =
      host.Run(std::string(kToList) + "+OK 3 9\r\n+OK\r\n7 1\r\n.\r\n+OK\r\nx\r\n.\r\n");
  EXPECT_TRUE(seen.errors.empty());
  ASSERT_EQ(seen.passes.size(), 1u);
  EXPECT_EQ(seen.written, std::string(kSent) + "RETR 7\r\nQUIT\r\n");
}

TEST(POP3, AnEmptyMailboxIsListedAndHasNoMessageAndNoError) {
  POP3Host host;
  const POP3Outcome seen = host.Run(std::string(kToList) + "+OK 0 0\r\n+OK\r\n.\r\n");
  EXPECT_TRUE(seen.errors.empty());
  EXPECT_TRUE(seen.passes.empty());
  EXPECT_EQ(seen.written, std::string(kSent) + "QUIT\r\n");
  EXPECT_TRUE(host.mail.files.empty());
}

TEST(POP3, AMessageOfTheNumber0IsTheEndOfTheMailbox) {
  POP3Host host;
  const std::string last = "+OK 3 9\r\n+OK\r\n1 1\r\nx 1\r\n3 1\r\n.\r\n+OK\r\na\r\n.\r\n";
  EXPECT_EQ(host.Run(kToList + last).passes.size(), 1u);
  EXPECT_EQ(host.Run(std::string(kToList) + "+OK 1 9\r\n+OK\r\n0 1\r\n.\r\n").passes.size(), 0u);
}

TEST(POP3, NumbersGoOutWithoutASign) {
  POP3Host host;
  const POP3Outcome seen = host.Run(std::string(kToList) +
                                    "+OK 2 9\r\n+OK\r\n-1 1\r\n99999999999 1\r\n.\r\n"
                                    "+OK\r\na\r\n.\r\n+OK\r\nb\r\n.\r\n");
  ASSERT_EQ(seen.passes.size(), 2u);
  EXPECT_EQ(seen.passes[0].body, "in/ZPPOPM.ffffffff.0");
  EXPECT_EQ(seen.passes[1].body, "in/ZPPOPM.7fffffff.0");
  EXPECT_EQ(seen.written, std::string(kSent) + "RETR 4294967295\r\nRETR 2147483647\r\nQUIT\r\n");
}

TEST(POP3, ARefusalOfEachCommandIsTheServersText) {
  POP3Host host;
  const char* const before[] = {
      "Error connecting to 'h': ",
      "Error logging into 'h': ",
      "Error logging into 'h': ",
      "Error while checking status from 'h': ",
      "Error while retrieving list of messages from 'h': ",
      "Error retrieving message: ",
      "Error deleting message #0: ",
      "Error retrieving message: ",
  };
  const char* const replies[] = {"+OK\r\n",
                                 "+OK\r\n",
                                 "+OK\r\n",
                                 "+OK 2 9\r\n",
                                 "+OK\r\n1 1\r\n2 2\r\n.\r\n",
                                 "+OK\r\nx\r\n.\r\n",
                                 "+OK\r\n",
                                 "+OK\r\ny\r\n.\r\n"};
  std::string bytes;
  for (size_t i = 0; i < std::size(before); i++) {
    SCOPED_TRACE(i);
    const std::string text = bytes + "-ERR [AUTH] it's no\r\n";
    const POP3Outcome seen = host.Run(text, false, true);
    ASSERT_FALSE(seen.errors.empty());
    EXPECT_EQ(seen.errors[0], before[i] + std::string("[AUTH] it's no"));
    ExpectLikeTheModel(host, text, false, true);
    bytes += replies[i];
  }
}

TEST(POP3, ACommandThatCannotBeSentIsAnError) {
  POP3Host host;
  const std::string bytes = Session({"x\r\n"}, true);
  for (int room = 0; room < 40; room++) {
    SCOPED_TRACE(room);
    host.peer = ScriptedPeer();
    host.peer.bytes = bytes;
    host.peer.write_room = room;
    const auto mailbox = host.Mailbox();
    ASSERT_EQ(host.Connect(mailbox.get()), POP3::Done);
    const int result = mailbox->Login("u", 1, "p", 1) != POP3::Done ? 1
                       : mailbox->GetStat() != POP3::Done           ? 2
                       : mailbox->BuildMessageList() != POP3::Done  ? 3
                       : mailbox->GetFirstMessage() != POP3::More   ? 4
                       : mailbox->DeleteMessage() != POP3::Done     ? 5
                                                                    : 6;
    EXPECT_EQ(result, room < 16 ? 1 : room < 22 ? 2 : room < 28 ? 3 : room < 36 ? 4 : 5);
    EXPECT_EQ(BytesOf(mailbox->error()), "Error sending data to server");
  }
}

TEST(POP3, AConnectionThatCannotBeMadeLeavesNoText) {
  POP3Host host;
  host.network.refuses = true;
  const auto mailbox = host.Mailbox();
  EXPECT_EQ(host.Connect(mailbox.get()), POP3::Failed);
  EXPECT_EQ(BytesOf(mailbox->error()), "");
  host.application.SetNetworkManager(nullptr);
  EXPECT_EQ(host.Connect(mailbox.get()), POP3::Failed);
  EXPECT_EQ(BytesOf(mailbox->error()), "");
  // Without a connection there is nothing to send to, and nothing to end.
  EXPECT_EQ(mailbox->GetStat(), POP3::Failed);
  EXPECT_EQ(BytesOf(mailbox->error()), "Error sending data to server");
}

TEST(POP3, TheNameOfTheHostIsAdoptedIfItIsOwned) {
  POP3Host host;
  host.peer.bytes = "+OK\r\n";
  int own = 1;
  EXPECT_EQ(host.Mailbox()->Connect(OwnedText("owned"), 5, 6, &own), POP3::Done);
  EXPECT_EQ(own, 0);
  own = 0;
  host.peer.at = 0;
  EXPECT_EQ(host.Mailbox()->Connect("borrowed, cut", 8, 0, &own), POP3::Done);
  EXPECT_EQ(host.network.calls,
            (std::vector<std::string>{"connect owned 110 0", "connect borrowed 110 0"}));
}

TEST(POP3, WithoutAMessageThereIsNothingToDelete) {
  POP3Host host;
  host.peer.bytes = Session({"x\r\n"});
  const auto mailbox = host.Mailbox();
  ASSERT_EQ(host.Connect(mailbox.get()), POP3::Done);
  ASSERT_EQ(mailbox->Login("u", 1, "p", 1), POP3::Done);
  EXPECT_EQ(mailbox->DeleteMessage(), POP3::Failed);
  EXPECT_EQ(BytesOf(mailbox->error()), "No messages exist");
  ASSERT_EQ(mailbox->GetStat(), POP3::Done);
  ASSERT_EQ(mailbox->BuildMessageList(), POP3::Done);
  ASSERT_EQ(mailbox->GetFirstMessage(), POP3::More);
  EXPECT_EQ(mailbox->CurrentMessageIndex(), 0);
  ASSERT_EQ(mailbox->GetNextMessage(), POP3::Done);
  EXPECT_EQ(mailbox->CurrentMessageIndex(), 1);
  EXPECT_EQ(mailbox->DeleteMessage(), POP3::Failed);
  EXPECT_EQ(BytesOf(mailbox->error()), "No messages exist");
  EXPECT_EQ(host.peer.written, std::string(kSent) + "RETR 1\r\n");
}

TEST(POP3, TheEndOfALongReplyIsALoneDot) {
  const std::string nul("\0", 1);
  const struct {
    std::string line;
    bool end;
    std::string text;
  } cases[] = {
      {".", true, ""},
      {"", false, ""},
      {".\n", false, ".\n"},
      {". ", false, ". "},
      {".a", false, ".a"},
      {"a", false, "a"},
      {"a..", false, "a.."},
      {"..", false, ""},
      {"...", false, ""},
      {"..\n", false, ""},
      {"..abc", false, ""},
      {"..0", false, "0"},
      {"..a0b", false, "0b"},
      {"..a0b0c", false, "0b0c"},
      {".0", false, ".0"},
      {"0..", false, "0.."},
      {"..1" + nul + "0", false, "0"},
      {".." + nul, false, ""},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.line);
    const char* text = nullptr;
    int length = -1;
    EXPECT_EQ(POP3::EOT(row.line.data(), static_cast<int>(row.line.size()), &text, &length),
              row.end);
    EXPECT_EQ(std::string(text, static_cast<size_t>(length)), row.text);
  }
}

// --- Variables -----------------------------------------------------------------------------------

POP3Pass Only(POP3Host& host, const std::string& mail) {
  const POP3Outcome seen = host.Run(Session({mail}));
  EXPECT_TRUE(seen.errors.empty()) << seen.Text();
  return seen.passes.size() == 1 ? seen.passes[0] : POP3Pass();
}

TEST(POP3, OfTwoSubjectsTheFirstCounts) {
  POP3Host host;
  EXPECT_EQ(Only(host, "Subject: one\r\nSUBJECT: two\r\n\r\n").subject, "one");
}

TEST(POP3, AMessageWithoutASubjectOrWithAnEmptyOneHasTheDefault) {
  POP3Host host;
  EXPECT_EQ(Only(host, "From: a\r\n\r\n").subject, "(no subject)");
  EXPECT_EQ(Only(host, "Subject: \r\n\r\n").subject, "(no subject)");
}

TEST(POP3, WithoutAnAddressForRepliesItIsTheSender) {
  POP3Host host;
  const POP3Pass pass = Only(host, "From: a@b\r\n\r\n");
  EXPECT_EQ(pass.sender, "a@b");
  EXPECT_EQ(pass.reply_to, "a@b");
  EXPECT_EQ(Only(host, "From: a@b\r\nReply-To: \r\n\r\n").reply_to, "a@b");
  EXPECT_EQ(Only(host, "From: a@b\r\nReply-To: c@d\r\n\r\n").reply_to, "c@d");
}

TEST(POP3, ALineOfThreeDotsComesOutEmpty) {
  POP3Host host;
  EXPECT_EQ(Only(host, "Subject: a\r\n\r\n...\r\nb\r\n").content, "Subject: a\n\n\nb\n");
}

TEST(POP3, TheVariablesOfAMessageReplaceThoseOfTheOneBefore) {
  POP3Host host;
  const POP3Outcome seen = host.Run(Session({"Subject: s\r\nFrom: f\r\nDate: d\r\n\r\n", "\r\n"}));
  ASSERT_EQ(seen.passes.size(), 2u);
  const POP3Pass& second = seen.passes[1];
  EXPECT_EQ(second.body, "in/ZPPOPM.2.0");
  EXPECT_EQ(second.subject, "(no subject)");
  EXPECT_EQ(second.sender, "");
  EXPECT_EQ(second.reply_to, "");
  EXPECT_EQ(second.date, "");
  EXPECT_EQ(second.content, "\n");
}

// The file that was begun stays.
TEST(POP3, AFailureWithinAMessageChangesNoVariable) {
  POP3Host host;
  const std::string whole = Session({"Subject: one\r\n\r\n", "Subject: two\r\n\r\nbody\r\n"});
  host.Run(whole.substr(0, whole.size() - 3));
  EXPECT_EQ(host.Value("messagesubject"), "one");
  EXPECT_EQ(host.mail.Contents("in/ZPPOPM.2.0"), "Subject: two\n\nbody\n");
}

// --- Time ----------------------------------------------------------------------------------------

// Has one reply for ever.
class EndlessConnection : public ScriptedConnection {
 public:
  EndlessConnection(ScriptedPeer* peer, ZephApplication* application, const char* text, int* left)
      : ScriptedConnection(peer, application), host(application), line(text), lines(left) {}
  int ReadLine(String& out, int timeout, int size) override {
    if (ScriptedConnection::ReadLine(out, timeout, size) >= 0) return out.length;
    if (--*lines <= 0) *host->timedoutflag() = 1;
    out.assign(line, -1);
    return out.length;
  }

 private:
  ZephApplication* host;
  const char* line;
  int* lines;
};
class EndlessManager : public ScriptedNetworkManager {
 public:
  EndlessManager(ZephApplication* application, ScriptedPeer* scripted, const char* text)
      : ScriptedNetworkManager(application, scripted), other(scripted), line(text) {}
  NetworkConnection* Connect(const char*, int, int) override {
    return new EndlessConnection(other, application, line, &left);
  }
  int left = 1000;

 private:
  ScriptedPeer* other;
  const char* line;
};

TEST(POP3, AReplyWithoutEndIsCutOffWithTheScript) {
  const struct {
    const char* label;
    std::string before;
    const char* line;
  } cases[] = {
      {"list", std::string(kToList) + "+OK 2147483647 1\r\n+OK\r\n", "1 1\r\n"},
      {"head", Session({"x\r\n"}).substr(0, Session({"x\r\n"}).size() - 3), "Name: value\r\n"},
      {"body", Session({"\r\n"}).substr(0, Session({"\r\n"}).size() - 3), "..\r\n"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.label);
    POP3Host host;
    EndlessManager manager(&host.application, &host.peer, row.line);
    host.application.SetNetworkManager(&manager);
    const RunLimit limit(host.application.timedoutflag());
    const POP3Outcome seen = host.Run(row.before);
    EXPECT_EQ(seen.errors.size(), 1u);
    EXPECT_EQ(manager.left, 0);
    EXPECT_TRUE(RunLimit::WasCut());
  }
}

}  // namespace

// The instructions of a mail, in scripts: the block, its ends, and its errors.

#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "base/core/ThreadMemory.h"
#include "base/host/Config.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/Machine.h"
#include "tests/support/MailDialogue.h"
#include "tests/support/ScriptFiles.h"
#include "tests/support/ScriptedConnection.h"

namespace {

const char kHeader[] =
    "C: Date: Sat, 21 Nov 2026 10:00:00 +0100\r\nFrom: f@x\r\nTo: t@x\r\n"
    "X-Mailer: Zeph v5.29 (0)\r\nSubject: s\r\n";

std::string Open(const std::string& instruction = "op_smtp done") {
  return "pushc \"t@x\"\npushc \"f@x\"\npushc \"h\"\npushc \"\"\npushc \"s\"\n" + instruction +
         "\n";
}
std::string OpenWith(const std::string& flags, const std::string& user,
                     const std::string& password) {
  return "pushc \"t@x\"\npushc \"f@x\"\npushc \"h\"\npushc \"\"\npushc \"s\"\npushi 25\npushc \"" +
         flags + "\"\npushc \"" + user + "\"\npushc \"" + password + "\"\nop_smtpn done, 9\n";
}
std::string Writes(const std::string& text) {
  return "pushc \"" + text + "\"\nout\n";
}
// Writes the mail "Hi" and then, on the page, "end" and the error.
std::string Mail(const std::string& open = Open()) {
  return "tagerror 11, 0\n" + open + Writes("\\nHi") + "op_smtp_end\ndone: pushc \"end:\"\nout\n" +
         "pushg ZpSMTP_Error\nout\n";
}

class MailBlock : public testing::Test {
 protected:
  MailBlock() { machine.application.SetNetworkManager(&manager); }
  ~MailBlock() override {
    machine.Close();
    EXPECT_EQ(machine.application.output(), &machine.output);
  }

  std::string Run(const std::string& source, int expected = 1) {
    machine.Assemble(source);
    EXPECT_EQ(machine.Go(), expected) << machine.Error();
    if (expected) {
      EXPECT_EQ(machine.StackText(), "");
    }
    return machine.Output();
  }
  // Replies to a whole mail without authentication.
  void SaysYes() { server.Says({"220 hi", "250 a", "250 b", "250 c", "354 d", "250 e", "221 f"}); }
  static MailTranscript Good(const std::string& text = "C: Hi\r\n.\r\n") {
    return {"connect h 25 30",
            "S: 220 hi",
            "C: HELO testhost.example.org\r\n",
            "S: 250 a",
            "C: MAIL FROM: f@x\r\n",
            "S: 250 b",
            "C: RCPT TO: t@x\r\n",
            "S: 250 c",
            "C: DATA\r\n",
            "S: 354 d",
            kHeader,
            text,
            "S: 250 e",
            "C: QUIT\r\n",
            "S: 221 f",
            "close"};
  }

  MailServer server;
  Machine machine;
  MailServerManager manager{&machine.application, &server};
};

TEST_F(MailBlock, TheOutputOfTheBlockIsTheMail) {
  SaysYes();
  EXPECT_EQ(Run(Writes("a") + Mail()), "aend:");
  EXPECT_EQ(server.transcript, Good());
}

TEST_F(MailBlock, TheTextFollowsTheHeaderSoThatAScriptAddsFields) {
  SaysYes();
  Run(Open() + Writes("X-More: 1\\n\\nHi\\n") + "op_smtp_end\ndone: noop\n");
  EXPECT_EQ(server.transcript, Good("C: X-More: 1\r\n\r\nHi\r\n.\r\n"));
}

// The header has no empty line at its end, and the first line break of the text is dropped: the
// text begins with two of them.
TEST_F(MailBlock, ATextWithoutFieldsBeginsWithTwoLineBreaks) {
  SaysYes();
  Run(Open() + Writes("\\n\\nHi") + "op_smtp_end\ndone: noop\n");
  EXPECT_EQ(server.transcript, Good("C: \r\nHi\r\n.\r\n"));
}

TEST_F(MailBlock, AnEmptyMailIsADotDirectlyAfterTheHeader) {
  SaysYes();
  Run(Open() + "op_smtp_end\ndone: noop\n");
  EXPECT_EQ(server.transcript, Good("C: .\r\n"));
}

TEST_F(MailBlock, EachCountTakesItsArguments) {
  const char* const arguments[] = {"pushc \"t@x\"", "pushc \"f@x\"", "pushc \"host\"",
                                   "pushc \"c@x\"", "pushc \"s\"",   "pushi 2525",
                                   "pushc \"tls\"", "pushc \"u\"",   "pushc \"p\"",
                                   "pushi 1",       "pushc \"more\""};
  for (int count = -1; count <= 11; count++) {
    SCOPED_TRACE(count);
    const bool authenticates = count >= 8;
    MailServer other;
    if (authenticates) {
      other.Says({"220 hi", "250-h", "250 AUTH PLAIN", "235 ok", "250 m", "250 r", "250 r", "354 d",
                  "250 e", "221 f"});
    } else if (count >= 4) {
      other.Says({"220 hi", "250 a", "250 m", "250 r", "250 r", "354 d", "250 e", "221 f"});
    } else {
      other.Says({"220 hi", "250 a", "250 m", "250 r", "354 d", "250 e", "221 f"});
    }
    Machine one;
    MailServerManager network(&one.application, &other);
    one.application.SetNetworkManager(&network);
    std::string source;
    for (int i = 0; i < count; i++) source += std::string(arguments[i]) + "\n";
    source += "op_smtpn done, " + std::to_string(count) + "\n" + Writes("\\nHi") +
              "op_smtp_end\ndone: pushc \"end\"\nout\n";
    one.Assemble(source);
    EXPECT_EQ(one.Go(), 1) << one.Error();
    EXPECT_EQ(one.Output(), "end");
    EXPECT_EQ(one.StackText(), "");
    const std::string to = count >= 1 ? "t@x" : "", from = count >= 2 ? "f@x" : "";
    const std::string host = count >= 3 ? "host" : "", subject = count >= 5 ? "s" : "";
    MailTranscript expected = {"connect " + host + " " + (count >= 6 ? "2525" : "25") + " 30"};
    if (count >= 7) expected.push_back("tls " + host + " 30");
    expected.push_back("S: 220 hi");
    if (authenticates) {
      for (const char* entry :
           {"C: EHLO testhost.example.org\r\n", "S: 250-h", "S: 250 AUTH PLAIN",
            count == 8 ? "C: AUTH PLAIN dQB1AA==\r\n" : "C: AUTH PLAIN dQB1AHA=\r\n",
            "S: 235 ok"}) {
        expected.push_back(entry);
      }
    } else {
      expected.push_back("C: HELO testhost.example.org\r\n");
      expected.push_back("S: 250 a");
    }
    expected.insert(expected.end(), {"C: MAIL FROM: " + from + "\r\n", "S: 250 m",
                                     "C: RCPT TO: " + to + "\r\n", "S: 250 r"});
    if (count >= 4) expected.insert(expected.end(), {"C: RCPT TO: c@x\r\n", "S: 250 r"});
    expected.insert(expected.end(),
                    {"C: DATA\r\n", "S: 354 d",
                     "C: Date: Sat, 21 Nov 2026 10:00:00 +0100\r\nFrom: " + from + "\r\nTo: " + to +
                         "\r\n" + (count >= 4 ? "CC: c@x\r\n" : "") +
                         "X-Mailer: Zeph v5.29 (0)\r\nSubject: " + subject + "\r\n",
                     "C: Hi\r\n.\r\n", "S: 250 e", "C: QUIT\r\n", "S: 221 f", "close"});
    EXPECT_EQ(other.transcript, expected);
  }
}

TEST_F(MailBlock, MissingArgumentsAreAStackUnderflow) {
  ExpectFailures({{"op_smtp x\nx: noop", "Stack underflow"},
                  {"pushi 1\nop_smtpn x, 9\nx: noop", "Stack underflow"},
                  {"pushi 1\nop_smtpn x, 2147483647\nx: noop", "Stack underflow"}});
}

TEST_F(MailBlock, AnEndWithoutAMailIsInvalid) {
  ExpectFailure({"op_smtp_end", "Invalid instruction"});
}

TEST_F(MailBlock, FlagsAreWordsInAnyCase) {
  const struct {
    const char* flags;
    const char* error;  // empty for flags that are taken
    bool tls;
    bool headers;
  } cases[] = {
      {"", "", false, true},
      {" ,\\t, ", "", false, true},
      {"tls", "", true, true},
      {"TLS", "", true, true},
      {"tls, noheaders", "", true, false},
      {"NoHeaders tls", "", true, false},
      {"noheaders", "", false, false},
      {"tls,tls tls", "", true, true},
      {"\\r\\ntls\\n", "", true, true},
      {"tlss", "Unsupported flag &quot;tlss&quot;", false, false},
      {"tl", "Unsupported flag &quot;tl&quot;", false, false},
      {"tls;noheaders", "Unsupported flag &quot;tls;noheaders&quot;", false, false},
      {"tls <b>", "Unsupported flag &quot;&lt;b&gt;&quot;", false, false},
      {"tls starttls",
       "Only one of the &quot;tls&quot; or &quot;starttls&quot; flags may be specified", false,
       false},
      {"starttls,noheaders,TLS",
       "Only one of the &quot;tls&quot; or &quot;starttls&quot; flags may be specified", false,
       false},
      {"tls starttls x", "Unsupported flag &quot;x&quot;", false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.flags);
    MailServer other;
    other.Says({"220 hi", "250 a", "250 b", "250 c", "354 d", "250 e", "221 f"});
    Machine one;
    MailServerManager network(&one.application, &other);
    one.application.SetNetworkManager(&network);
    one.Assemble(Mail(OpenWith(c.flags, "", "")));
    EXPECT_EQ(one.Go(), 1) << one.Error();
    EXPECT_EQ(one.Output(), "end:" + std::string(c.error));
    if (*c.error) {
      EXPECT_TRUE(other.transcript.empty());
      continue;
    }
    EXPECT_EQ(other.transcript.at(1) == "tls h 30", c.tls);
    EXPECT_EQ(other.Written().find("Subject: ") != std::string::npos, c.headers);
  }
}

// A mail in a dialogue of each kind: every reply is refused in turn, and then every read and every
// write fails in turn.
struct Dialogue {
  const char* label;
  std::string open;
  MailTranscript transcript;
};

std::vector<Dialogue> Dialogues() {
  const MailTranscript mail = {"C: MAIL FROM: f@x\r\n",
                               "S: 250 b",
                               "C: RCPT TO: t@x\r\n",
                               "S: 250 c",
                               "C: DATA\r\n",
                               "S: 354 d",
                               kHeader,
                               "C: Hi\r\n.\r\n",
                               "S: 250 e",
                               "C: QUIT\r\n",
                               "S: 221 f",
                               "close"};
  std::vector<Dialogue> dialogues = {
      {"plain",
       OpenWith("", "", ""),
       {"connect h 25 30", "S: 220-hi", "S: 220 there", "C: HELO testhost.example.org\r\n",
        "S: 250 a"}},
      {"LOGIN over TLS",
       OpenWith("tls", "user", "secret"),
       {"connect h 25 30", "tls h 30", "S: 220 hi", "C: EHLO testhost.example.org\r\n", "S: 250-h",
        "S: 250 AUTH LOGIN", "C: AUTH LOGIN\r\n", "S: 334 VXNlcm5hbWU6", "C: dXNlcg==\r\n",
        "S: 334 UGFzc3dvcmQ6", "C: c2VjcmV0\r\n", "S: 235 ok"}},
      {"CRAM-MD5 over STARTTLS",
       OpenWith("starttls", "tim", "tanstaaftanstaaf"),
       {"connect h 25 30", "S: 220 hi", "C: EHLO testhost.example.org\r\n", "S: 250-h",
        "S: 250 STARTTLS", "C: STARTTLS\r\n", "S: 220 go", "tls h 30",
        "C: EHLO testhost.example.org\r\n", "S: 250-h", "S: 250 AUTH CRAM-MD5",
        "C: AUTH CRAM-MD5\r\n", "S: 334 PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+",
        "C: dGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw\r\n", "S: 235 ok"}},
      {"PLAIN",
       OpenWith("", "u", "p"),
       {"connect h 25 30", "S: 220 hi", "C: EHLO testhost.example.org\r\n", "S: 250-h",
        "S: 250 AUTH PLAIN", "C: AUTH PLAIN dQB1AHA=\r\n", "S: 235 ok"}},
  };
  for (Dialogue& dialogue : dialogues) {
    dialogue.transcript.insert(dialogue.transcript.end(), mail.begin(), mail.end());
  }
  return dialogues;
}

std::vector<std::string> RepliesIn(const MailTranscript& transcript) {
  std::vector<std::string> replies;
  for (const std::string& entry : transcript) {
    if (entry.starts_with("S: ")) replies.push_back(entry.substr(3));
  }
  return replies;
}

class MailDialogue : public testing::Test {
 protected:
  // Returns what the page shows.
  static std::string Send(const Dialogue& dialogue, MailServer* server) {
    Machine one;
    MailServerManager network(&one.application, server);
    one.application.SetNetworkManager(&network);
    one.Assemble(Mail(dialogue.open));
    EXPECT_EQ(one.Go(), 1) << one.Error();
    EXPECT_EQ(one.application.output(), &one.output);
    return one.Output();
  }
};

TEST_F(MailDialogue, TheMailIsSent) {
  for (const Dialogue& dialogue : Dialogues()) {
    SCOPED_TRACE(dialogue.label);
    MailServer server;
    server.Says(RepliesIn(dialogue.transcript));
    EXPECT_EQ(Send(dialogue, &server), "end:");
    EXPECT_EQ(server.transcript, dialogue.transcript);
  }
}

// The refusal is the error. A dialogue that has begun is left with QUIT; a mail that was opened is
// ended first, which the server takes for an unknown command as long as it has not asked for text.
TEST_F(MailDialogue, ARefusalAtEachStepIsTheError) {
  for (const Dialogue& dialogue : Dialogues()) {
    const MailTranscript& good = dialogue.transcript;
    const size_t first_of_mail = static_cast<size_t>(
        std::find(good.begin(), good.end(), "C: MAIL FROM: f@x\r\n") - good.begin());
    for (size_t at = 0; at < good.size(); at++) {
      if (!good[at].starts_with("S: ") || good[at] == "S: 220-hi") continue;
      SCOPED_TRACE(std::string(dialogue.label) + " " + good[at]);
      MailTranscript expected(good.begin(), good.begin() + static_cast<long>(at));
      expected.push_back("S: 599 no <&>");
      std::string page = "end:no &lt;&amp;&gt;";
      if (good[at] == "S: 221 f") {
        page = "end:";
        expected.push_back("close");
      } else {
        if (at > first_of_mail && good[at] != "S: 250 e") {
          expected.insert(expected.end(), {"C: .\r\n", "S: 500 what"});
        }
        expected.insert(expected.end(), {"C: QUIT\r\n", "S: 221 f", "close"});
      }
      MailServer server;
      server.Says(RepliesIn(expected));
      EXPECT_EQ(Send(dialogue, &server), page);
      EXPECT_EQ(server.transcript, expected);
    }
  }
}

// Nothing more is sent on such a connection.
TEST_F(MailDialogue, AReadOrWriteThatFailsIsTheError) {
  for (const Dialogue& dialogue : Dialogues()) {
    const MailTranscript& good = dialogue.transcript;
    int operation = 0;
    for (size_t at = 0; at < good.size(); at++) {
      const bool read = good[at].starts_with("S: ");
      if (!read && !good[at].starts_with("C: ")) continue;
      SCOPED_TRACE(std::string(dialogue.label) + " " + good[at]);
      MailTranscript expected(good.begin(), good.begin() + static_cast<long>(at));
      expected.push_back(read ? "S: (nothing)" : "C: ");
      expected.push_back("close");
      MailServer server;
      server.Says(RepliesIn(good));
      server.failing_operation = ++operation;
      const bool farewell = at + 3 >= good.size();
      EXPECT_EQ(Send(dialogue, &server), farewell ? "end:"
                                         : read   ? "end:Read Timeout"
                                                  : "end:Write Timeout");
      EXPECT_EQ(server.transcript, expected);
    }
  }
}

TEST_F(MailDialogue, AFailedHandshakeIsTheErrorAndClosesTheConnection) {
  for (const Dialogue& dialogue : Dialogues()) {
    const auto tls = std::find(dialogue.transcript.begin(), dialogue.transcript.end(), "tls h 30");
    if (tls == dialogue.transcript.end()) continue;
    MailTranscript expected(dialogue.transcript.begin(), tls + 1);
    expected.push_back("close");
    MailServer server;
    server.refuses_tls = true;
    server.Says(RepliesIn(dialogue.transcript));
    EXPECT_EQ(Send(dialogue, &server), "end:No TLS");
    EXPECT_EQ(server.transcript, expected);
  }
}

// --- Errors --------------------------------------------------------------------------------------

TEST_F(MailBlock, AServerThatCannotBeReachedSkipsTheBlock) {
  server.refuses = true;
  EXPECT_EQ(Run(Mail()), "end:Error connecting to 'h': No connection");
}

TEST_F(MailBlock, SoDoesAHostWithoutANetwork) {
  machine.application.SetNetworkManager(nullptr);
  EXPECT_EQ(Run(Mail()), "end:Error connecting to 'h': No network");
}

// The message is the page's: the feature has given the output back before.
TEST_F(MailBlock, AnErrorIsShownOnThePageAndNotFatalByDefault) {
  server.Says({"220 hi", "250 a", "550 no", "500 what", "221 bye"});
  const std::string page = Run(Open() + Writes("text") + "op_smtp_end\ndone: pushc \"end\"\nout\n");
  EXPECT_TRUE(page.starts_with("Runtime error in dir/page.zpc"));
  EXPECT_TRUE(page.ends_with("ZpSMTP: no\nend")) << page;
  EXPECT_EQ(server.Written(), "HELO testhost.example.org\r\nMAIL FROM: f@x\r\n.\r\nQUIT\r\n");
}

TEST_F(MailBlock, AFatalErrorEndsTheScript) {
  server.Says({"554 no", "221 bye"});
  const std::string page =
      Run("tagerror 11, 3\n" + Open() + "op_smtp_end\ndone: pushc \"end\"\nout\n", 0);
  EXPECT_TRUE(page.ends_with("ZpSMTP: no\n")) << page;
}

TEST_F(MailBlock, ARefusedMailIsAnErrorOfTheEnd) {
  server.Says({"220 hi", "250 a", "250 b", "250 c", "354 d", "552 too large", "221 f"});
  EXPECT_EQ(Run(Mail()), "end:too large");
}

TEST_F(MailBlock, AnAddressWithALineBreakIsRefusedBeforeAConnectionIsMade) {
  const char* const texts[] = {
      "pushc \"a\\r\\nRCPT TO: b\"\npushc \"f\"\npushc \"h\"\npushc \"\"\n",
      "pushc \"t\"\npushc \"f\\n\"\npushc \"h\"\npushc \"\"\n",
      "pushc \"t\"\npushc \"f\\0\"\npushc \"h\"\npushc \"\"\n",
      "pushc \"t\"\npushc \"f\"\npushc \"h\"\npushc \"c,\\rd\"\n"};
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    Machine one;
    MailServerManager network(&one.application, &server);
    one.application.SetNetworkManager(&network);
    one.Assemble(Mail(std::string(text) + "pushc \"s\"\nop_smtp done\n"));
    EXPECT_EQ(one.Go(), 1);
    EXPECT_EQ(one.Output(), "end:An address must not contain line breaks or NUL bytes");
    EXPECT_TRUE(server.transcript.empty());
  }
}

std::string OpenWithSubject(const std::string& subject, const std::string& flags) {
  return "pushc \"t@x\"\npushc \"f@x\"\npushc \"h\"\npushc \"\"\npushc \"" + subject +
         "\"\npushi 25\npushc \"" + flags + "\"\nop_smtpn done, 7\n";
}

TEST_F(MailBlock, ASubjectThatWouldEndTheMailIsRefusedToo) {
  server.Says({"220 hi", "250 a", "500 e", "221 f"});
  EXPECT_EQ(Run(Mail(OpenWithSubject("a\\r\\n.\\r\\nQUIT", ""))),
            "end:A subject must not contain a line of a single dot");
  EXPECT_EQ(
      server.transcript,
      (MailTranscript{"connect h 25 30", "S: 220 hi", "C: HELO testhost.example.org\r\n",
                      "S: 250 a", "C: .\r\n", "S: 500 e", "C: QUIT\r\n", "S: 221 f", "close"}));
}

TEST_F(MailBlock, ASubjectThatIsNotSentMayBeAnything) {
  SaysYes();
  EXPECT_EQ(Run(Mail(OpenWithSubject("a\\r\\n.\\r\\nQUIT", "noheaders"))), "end:");
}

// A form field of that name would be shown as an error otherwise.
TEST_F(MailBlock, ASuccessClearsTheErrorVariable) {
  SaysYes();
  EXPECT_EQ(Run("pushc \"old\"\npopg ZpSMTP_Error\n" + Mail()), "end:");
}

// The last argument popped is the address, whose variable may be an array.
TEST_F(MailBlock, ArgumentsMayBeElementsAndNumbers) {
  SaysYes();
  Run("pushc \"t@x\"\npushg v\npushi 1\nelem\nstore\npushg v\npushc \"f@x\"\npushc \"h\"\n"
      "pushc \"\"\npushc \"s\"\npushc \"25\"\nop_smtpn done, 6\n" +
      Writes("\\nHi") + "op_smtp_end\ndone: noop\n");
  EXPECT_EQ(server.transcript, Good());
}

// --- The output ----------------------------------------------------------------------------------

TEST_F(MailBlock, AScriptThatEndsInTheBlockSendsTheMail) {
  for (const char* end : {"", "exit\n", "pop\n"}) {
    SCOPED_TRACE(end);
    MailServer other;
    other.Says({"220 hi", "250 a", "250 b", "250 c", "354 d", "250 e", "221 f"});
    Machine one;
    MailServerManager network(&one.application, &other);
    one.application.SetNetworkManager(&network);
    one.Assemble(Writes("page") + Open() + Writes("\\nHi") + end + "done: noop\n");
    one.Go();
    one.Close();
    EXPECT_EQ(one.application.output(), &one.output);
    EXPECT_EQ(one.Output(), "page");
    EXPECT_TRUE(other.Written().ends_with(".\r\nQUIT\r\n"));
    EXPECT_EQ(other.transcript.back(), "close");
  }
}

TEST_F(MailBlock, AFunctionThatReturnsInTheBlockSendsTheMail) {
  SaysYes();
  EXPECT_EQ(Run("call f\nout\n.segment 1\n.function f()\n" + Open() + Writes("\\nHi") +
                "pushc \"back\"\nret\ndone: retn\n"),
            "back");
  EXPECT_EQ(server.transcript, Good());
}

TEST_F(MailBlock, MailsNest) {
  server.Says({"220 hi", "250 a", "250 b", "250 c", "354 d", "220 hi", "250 a", "250 b", "250 c",
               "354 d", "250 e", "221 f", "250 e", "221 f"});
  EXPECT_EQ(Run(Open() + Writes("\\nouter") + Open("op_smtp done") + Writes("\\ninner") +
                "op_smtp_end\n" + Writes(" again") + "op_smtp_end\ndone: pushc \"end\"\nout\n"),
            "end");
  const MailTranscript& seen = server.transcript;
  EXPECT_EQ(std::count(seen.begin(), seen.end(), "C: inner\r\n.\r\n"), 1);
  EXPECT_EQ(std::count(seen.begin(), seen.end(), "C: outer again\r\n.\r\n"), 1);
}

TEST_F(MailBlock, ACaptureInTheBlockIsNotMail) {
  SaysYes();
  EXPECT_EQ(Run(Open() + Writes("\\nH") + "pushg kept\ncapture\n" + Writes("captured") +
                "capture_end\n" + Writes("i") + "op_smtp_end\ndone: pushg kept\nout\n"),
            "captured");
  EXPECT_EQ(server.transcript, Good());
}

TEST_F(MailBlock, AMailInACaptureIsNotCaptured) {
  SaysYes();
  EXPECT_EQ(Run("pushg kept\ncapture\n" + Writes("a") + Open() + Writes("\\nHi") +
                "op_smtp_end\ndone: pushc \"b\"\nout\ncapture_end\npushg kept\nout\n"),
            "ab");
  EXPECT_EQ(server.transcript, Good());
}

// The capture is still in front when the mail ends: the mail has its own output, and the captured
// text is lost with the capture.
TEST_F(MailBlock, ACaptureThatWasLeftOpenInTheBlockEndsWithIt) {
  SaysYes();
  EXPECT_EQ(Run(Open() + Writes("\\nHi") + "pushg kept\ncapture\n" + Writes("lost") +
                "op_smtp_end\ndone: pushc \"page\"\nout\n"),
            "page");
  EXPECT_EQ(server.transcript, Good());
}

// The capture takes the mail off the stack of features; it is sent at the end of the script.
TEST_F(MailBlock, AMailThatWasLeftOpenInACaptureIsSentAtTheEnd) {
  SaysYes();
  EXPECT_EQ(Run("pushg kept\ncapture\n" + Open() + Writes("\\nHi") +
                "capture_end\ndone: pushc \"page\"\nout\n"),
            "page");
  machine.Close();
  EXPECT_EQ(server.transcript, Good());
  EXPECT_EQ(machine.application.output(), &machine.output);
}

TEST_F(MailBlock, FlagsOfTheOutputGoToTheMailAndBack) {
  SaysYes();
  EXPECT_EQ(Run("stdoutput 2\n" + Open() +
                "pushc \"\\n\\n  H  i\"\nout_comp\nop_smtp_end\n"
                "done: pushc \"a  b\"\nout_comp\n"),
            "a b");
  EXPECT_EQ(server.transcript, Good("C: H i\r\n.\r\n"));
}

TEST_F(MailBlock, AMessageInTheBlockIsTextOfTheMail) {
  SaysYes();
  EXPECT_EQ(Run("tagerror 22, 1\n" + Open() + Writes("\\nHi ") +
                "pushc \"none.zpc\"\nop_do_file\nop_smtp_end\ndone: noop\n"),
            "");
  EXPECT_NE(server.Written().find("Subject: s\r\nHi Runtime error in dir/page.zpc"),
            std::string::npos)
      << server.Written();
}

// --- Time ----------------------------------------------------------------------------------------

TEST_F(MailBlock, TheTimeoutAndTheBufferAreSettings) {
  SaysYes();
  machine.application.config()->SetValue_Integer(Config_timeout_mail, 7);
  machine.application.config()->SetValue_Integer(Config_bufsz_smtp, 2);
  Run(Mail());
  EXPECT_EQ(server.transcript[0], "connect h 25 7");
  for (const int wait : server.waits) EXPECT_EQ(wait, 7);
  EXPECT_EQ(server.transcript[11], "C: Hi");
  EXPECT_EQ(server.transcript[12], "C: \r\n");
}

// A server that is silent until the script's time is over.
TEST_F(MailBlock, AScriptWhoseTimeIsOverHasNoErrorOfItsMail) {
  for (const int last : {1, 5}) {
    SCOPED_TRACE(last);
    MailServer other;
    Machine one;
    int lines = 0;
    other.talk = [&] {
      if (++lines < last) return std::string(lines == 4 ? "354 go" : "250 ok");
      *one.application.timedoutflag() = 1;
      return std::string("250-more");
    };
    MailServerManager network(&one.application, &other);
    one.application.SetNetworkManager(&network);
    one.Assemble(Mail());
    EXPECT_EQ(one.Go(), 0);
    EXPECT_NE(one.Output().find("Application timed out"), std::string::npos) << one.Output();
    EXPECT_EQ(one.Value("ZpSMTP_Error"), "(none)");
    one.Close();
    EXPECT_EQ(other.transcript.back(), "close");
  }
}

// --- The log -------------------------------------------------------------------------------------

TEST_F(MailBlock, TheTrafficIsLogged) {
  for (const unsigned level : {unsigned{0}, unsigned{Log_SMTP}}) {
    MailServer other;
    other.Says({"220 hi", "250 a", "250 b", "250 c", "354 d", "250 e", "221 f"});
    Machine one;
    MailServerManager network(&one.application, &other);
    one.application.SetNetworkManager(&network);
    one.application.config()->SetValue_Integer(Config_log_level, static_cast<int>(level));
    one.Assemble(Mail());
    EXPECT_EQ(one.Go(), 1) << one.Error();
    one.Close();
    EXPECT_EQ(other.transcript, Good());
    if (level == 0) {
      EXPECT_TRUE(one.application.log.empty());
      continue;
    }
    // Each read and each write, in base64.
    ASSERT_EQ(one.application.log.size(), 14u);
    EXPECT_EQ(one.application.log[0], "ZpSMTP|||0|h|25|Received|MjIwIGhpDQo=");
    EXPECT_EQ(one.application.log[9 + 1].substr(0, 24), "ZpSMTP|||0|h|25|Sent|SGk");
  }
}

// --- Memory --------------------------------------------------------------------------------------

TEST_F(MailBlock, WithoutMemoryNothingIsLost) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  const std::string source = Mail(OpenWith("", "u", "p"));
  const long blocks = ExpectNothingIsLost([&] {
    ScriptedPeer peer;
    peer.bytes =
        "220 hi\r\n250-h\r\n250 AUTH CRAM-MD5\r\n334 PGE+\r\n235 ok\r\n250 b\r\n250 c\r\n354 d\r\n"
        "250 e\r\n221 f\r\n";
    Machine one;
    ScriptedNetworkManager network(&one.application, &peer);
    one.application.SetNetworkManager(&network);
    {
      const FailingAllocator::Pause pause;
      one.Assemble(source);
    }
    try {
      one.Go();
    } catch (const std::bad_alloc&) {
    }
    one.Close();
    EXPECT_EQ(one.application.output(), &one.output);
    one.global.Dump();
  });
  EXPECT_GT(blocks, 20);
}

// --- Files that leave their output open ----------------------------------------------------------

class MailInFile : public MailBlock {
 protected:
  MailInFile() {
    machine.application.SetFileManager(&files);
    machine.application.config()->SetValue_Integer(Config_max_docache, -1);
  }
  static std::string Runs(const std::string& name) {
    return "pushc \"" + name + "\"\nop_do_file\n";
  }

  ScriptFiles files;
};

TEST_F(MailInFile, AMailThatAFileLeavesOpenGoesOnInThePage) {
  SaysYes();
  files.Script("dir/e.zpc", Open() + Writes("\\nH") + "done: noop\n");
  Run(Runs("e.zpc") + Writes("i"));
  machine.Close();
  EXPECT_EQ(server.transcript, Good());
}

// The capture was in front of the page when the file began its mail, and is gone at its end.
TEST_F(MailInFile, TheMailOfAFileOutlivesTheCaptureThatItFound) {
  SaysYes();
  files.Script("dir/e.zpc", Open() + Writes("\\nHi") + "done: noop\n");
  EXPECT_EQ(
      Run("pushg kept\ncapture\n" + Writes("a") + Runs("e.zpc") + "capture_end\n" + Writes("b") +
          "pushg kept\nout\npushg kept\ncapture\n" + Writes("c") + "capture_end\n"),
      "ba");
  machine.Close();
  EXPECT_EQ(server.transcript, Good());
}

// The capture has found the mail, which is gone when the capture ends.
TEST_F(MailInFile, TheCaptureOfAFileOutlivesTheMailThatItFound) {
  SaysYes();
  files.Script("dir/e.zpc", "pushg there\ncapture\n" + Writes("lost"));
  EXPECT_EQ(Run(Open() + Writes("\\nHi") + Runs("e.zpc") + "op_smtp_end\ndone: noop\n" +
                Writes("page") + "pushg kept\ncapture\n" + Writes("x") + "capture_end\n"),
            "page");
  EXPECT_EQ(server.transcript, Good());
}

TEST_F(MailInFile, TheMailOfAFileOutlivesTheMailThatItFound) {
  server.Says({"220 hi", "250 a", "250 b", "250 c", "354 d", "220 hi", "250 a", "250 b", "250 c",
               "354 d", "250 e", "221 f", "250 e", "221 f"});
  files.Script("dir/e.zpc", Open() + Writes("\\ninner") + "done: noop\n");
  EXPECT_EQ(Run(Open() + Writes("\\nouter") + Runs("e.zpc") + "op_smtp_end\ndone: noop\n" +
                Writes("page")),
            "page");
  machine.Close();
  const std::string sent = server.Written();
  EXPECT_NE(sent.find("outer\r\n.\r\nQUIT\r\ninner\r\n.\r\nQUIT\r\n"), std::string::npos) << sent;
}

// Pages and files that open and end mails and captures in every order, with what is written in
// between: the output is the page's at the end.
TEST_F(MailInFile, AnyOrderOfEndsGivesTheOutputBack) {
  const std::string steps[] = {Open("op_smtp next"), "op_smtp_end\n", "pushg kept\ncapture\n",
                               "capture_end\n",      Runs("a.zpc"),   Runs("b.zpc")};
  for (int number = 0; number < 6 * 6 * 6 * 6; number++) {
    SCOPED_TRACE(number);
    MailServer other;
    other.talk = [&] {
      return std::string(other.transcript.back() == "C: DATA\r\n" ? "354 go" : "250 ok");
    };
    Machine one;
    MailServerManager network(&one.application, &other);
    one.application.SetNetworkManager(&network);
    one.application.SetFileManager(&files);
    one.application.config()->SetValue_Integer(Config_max_docache, -1);
    files.Script("dir/a.zpc", "pushg there\ncapture\n" + Writes("in a"));
    files.Script("dir/b.zpc", Open() + Writes("in b") + "done: noop\n");
    std::string page;
    for (int i = 0, rest = number; i < 4; i++, rest /= 6) {
      std::string step = steps[rest % 6];
      const size_t label = step.find("next");
      if (label != std::string::npos) {
        step.replace(label, 4, "next" + std::to_string(i));
        step += "next" + std::to_string(i) + ": noop\n";
      }
      page += step + Writes("x");
    }
    one.Assemble(page);
    one.Go();
    one.Close();
    EXPECT_EQ(one.application.output(), &one.output);
    const MailTranscript& seen = other.transcript;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "C: QUIT\r\n"),
              std::count(seen.begin(), seen.end(), "close"));
  }
}

}  // namespace

// The instructions on mailboxes, in scripts: the loop, its ends, and its errors.

#include <gtest/gtest.h>

#include "base/host/Config.h"
#include "base/machine/Feature.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/Machine.h"
#include "tests/support/Mails.h"
#include "tests/support/POP3Host.h"
#include "tests/support/ScriptedConnection.h"

namespace {

std::string Open(const std::string& where, const std::string& directory = "in") {
  return "pushc \"h\"\npushc \"u\"\npushc \"p\"\npushc \"" + directory + "\"\npop3 " + where + "\n";
}

const char kShow[] = R"(
        pushg messagesubject
        out
        pushc "="
        out
        pushg messagebody
        out
        pushc ";"
        out
)";

// Writes "subject=file;" for each message, and "end" with the error after the loop.
std::string Loop(const std::string& in_body = "", const std::string& open = Open("done")) {
  return open + "body:\n" + kShow + in_body + R"(
        pop3loop body
  done: pushc "end"
        out
        pushg ZpPOP_Error
        out
)";
}

class POP3Instruction : public testing::Test {
 protected:
  POP3Instruction() {
    machine.application.SetNetworkManager(&network);
    machine.application.SetFileManager(&files);
  }
  ~POP3Instruction() override {
    machine.Close();
    EXPECT_EQ(files.open_now, 0);
  }

  // Runs the script and returns what it has written.
  std::string Run(const std::string& source, int expected = 1) {
    machine.Assemble(source);
    EXPECT_EQ(machine.Go(), expected) << machine.Error();
    if (expected) {
      EXPECT_EQ(machine.StackText(), "");
    }
    return machine.Output();
  }
  // What was sent after the login and the questions for the list.
  std::string Sent() const {
    const std::string start = "USER u\r\nPASS p\r\nSTAT\r\nLIST\r\n";
    EXPECT_EQ(peer.written.substr(0, start.size()), start);
    return peer.written.size() > start.size() ? peer.written.substr(start.size()) : "";
  }

  ScriptedPeer peer;
  Machine machine;
  ScriptedNetworkManager network{&machine.application, &peer};
  MailFiles files{&machine.application};
};

const char kOne[] = "Subject: one\r\n\r\n1\r\n";
const char kTwo[] = "Subject: two\r\n\r\n2\r\n";
const char kThree[] = "Subject: three\r\n\r\n3\r\n";

TEST_F(POP3Instruction, TheLoopRunsForEachMessage) {
  peer.bytes = Session({kOne, kTwo, kThree});
  EXPECT_EQ(Run(Loop()), "one=in/ZPPOPM.1.0;two=in/ZPPOPM.2.0;three=in/ZPPOPM.3.0;end");
  EXPECT_EQ(Sent(), "RETR 1\r\nRETR 2\r\nRETR 3\r\nQUIT\r\n");
  EXPECT_EQ(peer.deleted, 1);
  // The files are the script's.
  EXPECT_EQ(files.Contents("in/ZPPOPM.2.0"), "Subject: two\n\n2\n");
}

TEST_F(POP3Instruction, AnEmptyMailboxHasNoPassAndNoError) {
  peer.bytes = "+OK\r\n+OK\r\n+OK\r\n+OK 0 0\r\n+OK\r\n.\r\n";
  EXPECT_EQ(Run("pushc \"old\"\npopg ZpPOP_Error\n" + Loop()), "end");
  EXPECT_EQ(Sent(), "QUIT\r\n");
  EXPECT_EQ(peer.deleted, 1);
}

TEST_F(POP3Instruction, AListThatIsLongerThanTheCountSkipsTheLoopWithAnError) {
  peer.bytes = "+OK\r\n+OK\r\n+OK\r\n+OK 1 2\r\n+OK\r\n1 1\r\n2 1\r\n.\r\n";
  EXPECT_EQ(Run("tagerror 8, 0\n" + Loop()),
            "endError while retrieving list of messages from 'h': More messages than expected "
            "returned from server");
}

TEST_F(POP3Instruction, AMessageIsDeletedWhenTheServerIsToldToQuit) {
  peer.bytes = Session({kOne, kTwo}, true);
  EXPECT_EQ(Run(Loop("pop3delete\n")), "one=in/ZPPOPM.1.0;two=in/ZPPOPM.2.0;end");
  EXPECT_EQ(Sent(), "RETR 1\r\nDELE 1\r\nRETR 2\r\nDELE 2\r\nQUIT\r\n");
}

TEST_F(POP3Instruction, StopLeavesTheLoop) {
  peer.bytes = Session({kOne, kTwo}, true);
  EXPECT_EQ(Run(Open("done") + kShow +
                "pop3delete\npop3stop done\npushc \"not here\"\nout\n"
                "done: pushc \"end\"\nout\n"),
            "one=in/ZPPOPM.1.0;end");
  EXPECT_EQ(Sent(), "RETR 1\r\nDELE 1\r\nQUIT\r\n");
  EXPECT_EQ(peer.deleted, 1);
}

TEST_F(POP3Instruction, AFailedConnectionHasNoReason) {
  network.refuses = true;
  EXPECT_EQ(Run("tagerror 8, 0\n" + Loop()), "endError connecting to 'h': ");
  EXPECT_EQ(network.calls, std::vector<std::string>{"connect h 110 0"});
}

TEST_F(POP3Instruction, EachStepHasAnErrorOfItsOwn) {
  const struct {
    const char* bytes;
    const char* error;
  } cases[] = {
      {"-ERR no", "Error connecting to 'h': no"},
      {"+OK\r\n-ERR no", "Error logging into 'h': no"},
      {"+OK\r\n+OK\r\n-ERR no", "Error logging into 'h': no"},
      {"+OK\r\n+OK\r\n+OK\r\n-ERR no", "Error while checking status from 'h': no"},
      {"+OK\r\n+OK\r\n+OK\r\n+OK 1 1\r\n-ERR no",
       "Error while retrieving list of messages from 'h': no"},
      {"+OK\r\n+OK\r\n+OK\r\n+OK 1 1\r\n+OK\r\n1 1\r\n.\r\n-ERR no",
       "Error retrieving message: no"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.error);
    ScriptedPeer other;
    other.bytes = std::string(row.bytes) + "\r\n";
    Machine one;
    ScriptedNetworkManager manager(&one.application, &other);
    MailFiles memory(&one.application);
    one.application.SetNetworkManager(&manager);
    one.application.SetFileManager(&memory);
    one.Assemble("tagerror 8, 0\n" + Loop());
    EXPECT_EQ(one.Go(), 1);
    EXPECT_EQ(one.Output(), std::string("end") + row.error);
    EXPECT_EQ(one.StackText(), "");
    EXPECT_EQ(other.deleted, 1);
    EXPECT_EQ(other.written.substr(other.written.size() - 6), "QUIT\r\n");
    one.Close();
  }
}

TEST_F(POP3Instruction, AnErrorIsShownByDefaultAndTheScriptGoesOn) {
  peer.bytes = "+OK\r\n-ERR go <away>\r\n";
  const std::string output = Run(Loop());
  EXPECT_NE(output.find("ZpPOP: Error logging into 'h': go &lt;away&gt;\n"), std::string::npos)
      << output;
  EXPECT_NE(output.find("endError logging into 'h': go &lt;away&gt;"), std::string::npos) << output;
}

TEST_F(POP3Instruction, AFatalErrorEndsTheScript) {
  peer.bytes = "-ERR no\r\n";
  const std::string output = Run("tagerror 8, 3\n" + Loop(), 0);
  EXPECT_EQ(output.find("end"), std::string::npos);
  EXPECT_EQ(machine.Value("ZpPOP_Error"), "Error connecting to 'h': no");
}

TEST_F(POP3Instruction, AnErrorInTheLoopEndsIt) {
  peer.bytes = "+OK\r\n+OK\r\n+OK\r\n+OK 2 1\r\n+OK\r\n1 1\r\n2 1\r\n.\r\n+OK\r\n" +
               std::string(kOne) + ".\r\n-ERR locked\r\n";
  EXPECT_EQ(Run("tagerror 8, 0\n" + Loop()),
            "one=in/ZPPOPM.1.0;endError retrieving message: locked");
  EXPECT_EQ(Sent(), "RETR 1\r\nRETR 2\r\nQUIT\r\n");
  EXPECT_EQ(peer.deleted, 1);
}

TEST_F(POP3Instruction, ADeletionThatFailsIsAnErrorAndTheLoopGoesOn) {
  const std::string list = "+OK\r\n+OK\r\n+OK\r\n+OK 3 1\r\n+OK\r\n1 1\r\n2 1\r\n3 1\r\n.\r\n";
  peer.bytes = list + "+OK\r\n" + kOne + ".\r\n+OK\r\n+OK\r\n" + kTwo +
               ".\r\n-ERR kept\r\n+OK\r\n" + kThree + ".\r\n+OK\r\n";
  const std::string show = "pop3delete\npushg ZpPOP_Error\nout\npushc \"|\"\nout\n";
  EXPECT_EQ(Run("tagerror 8, 0\n" + Loop(show)),
            "one=in/ZPPOPM.1.0;|two=in/ZPPOPM.2.0;Error deleting message #1: kept|"
            "three=in/ZPPOPM.3.0;|end");
  EXPECT_EQ(Sent(), "RETR 1\r\nDELE 1\r\nRETR 2\r\nDELE 2\r\nRETR 3\r\nDELE 3\r\nQUIT\r\n");
}

// So a script can ask for it after the loop, too.
TEST_F(POP3Instruction, TheErrorOfADeletionOutlastsTheNextMessage) {
  peer.bytes = "+OK\r\n+OK\r\n+OK\r\n+OK 2 1\r\n+OK\r\n1 1\r\n2 1\r\n.\r\n+OK\r\n" +
               std::string(kOne) + ".\r\n-ERR kept\r\n+OK\r\n" + kTwo + ".\r\n";
  EXPECT_EQ(
      Run("tagerror 8, 0\npushi 0\npopg n\n" + Open("done") +
          "body: pushg n\npushi 1\nadd\npopg n\npushg n\npushi 1\ncmp\njmp_ne on\npop3delete\n"
          "on: pop3loop body\ndone: pushg ZpPOP_Error\nout\n"),
      "Error deleting message #0: kept");
}

TEST_F(POP3Instruction, ASuccessClearsTheErrorVariable) {
  peer.bytes = Session({kOne});
  EXPECT_EQ(Run("pushc \"old\"\npopg ZpPOP_Error\n" + Loop()), "one=in/ZPPOPM.1.0;end");
}

// The arguments are variables that are cleared and set while the mailbox is opened.
TEST_F(POP3Instruction, TheArgumentsMayBeTheVariablesOfAMessage) {
  peer.bytes = Session({kOne});
  EXPECT_EQ(Run("pushc \"h\"\npopg ZpPOP_Error\npushc \"u\"\npopg messagesubject\n"
                "pushc \"p\"\npopg messagesender\npushc \"in\"\npopg messagebody\n" +
                Loop("",
                     "pushg ZpPOP_Error\npushg messagesubject\npushg messagesender\n"
                     "pushg messagebody\npop3 done\n")),
            "one=in/ZPPOPM.1.0;end");
  EXPECT_EQ(network.calls, std::vector<std::string>{"connect h 110 0"});
  Sent();
}

TEST_F(POP3Instruction, ANULInTheDirectoryIsRemoved) {
  peer.bytes = Session({kOne});
  machine.Assemble(Loop("", "pushc \"h\"\npushc \"u\"\npushc \"p\"\npushg where\npop3 done\n"));
  machine.global.SetVariable("where", -1, "i\0n", 3);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "one=in/ZPPOPM.1.0;end");
}

TEST_F(POP3Instruction, MailboxesNest) {
  peer.bytes = Session({kOne, kTwo});
  // The inner session begins after the first message.
  const size_t place = peer.bytes.find("+OK follows", peer.bytes.find("+OK follows") + 1);
  peer.bytes.insert(place, Session({kThree}));
  const std::string inner = Open("out") + "inner:\n" + kShow + "pop3loop inner\nout: noop\n";
  EXPECT_EQ(Run("pushi 0\npopg n\n" +
                Loop("pushg n\npushi 0\ncmp\njmp_ne on\npushi 1\npopg n\n" + inner + "on: noop\n")),
            "one=in/ZPPOPM.1.0;three=in/ZPPOPM.1.1;two=in/ZPPOPM.2.0;end");
  EXPECT_EQ(peer.deleted, 2);
}

TEST_F(POP3Instruction, AFunctionThatReturnsOutOfALoopClosesTheMailbox) {
  peer.bytes = Session({kOne, kTwo});
  EXPECT_EQ(Run("call f\nout\npushc \"|\"\nout\npushg messagesubject\nout\n"
                ".segment 1\n.function f()\n" +
                Open("done") + "pushl messagesubject\nret\ndone: retn\n"),
            "one|");
  EXPECT_EQ(Sent(), "RETR 1\r\nQUIT\r\n");
}

TEST_F(POP3Instruction, TheVariablesAreLocalToTheFunction) {
  peer.bytes = Session({"Subject: s\r\nFrom: f\r\nReply-To: r\r\nDate: d\r\n\r\n"});
  EXPECT_EQ(
      Run("pushc \"mine\"\npopg messagesubject\ncall f\npop\npushg messagesubject\nout\n"
          ".segment 1\n.function f()\n" +
          Open("done") +
          "body: pushl messagebody\nout\npushl messagesubject\nout\npushl messagesender\nout\n"
          "pushl messagereplyto\nout\npushl messagedate\nout\n"
          "pop3loop body\ndone: retn\n"),
      "in/ZPPOPM.1.0sfrdmine");
}

TEST_F(POP3Instruction, AFunctionMayContinueTheLoopOfItsCaller) {
  peer.bytes = Session({kOne, kTwo}, true);
  peer.bytes.erase(peer.bytes.find("+OK gone\r\n"), 10);
  EXPECT_EQ(Run(Open("done") + "call f\npop\n" + kShow +
                "pop3stop done\ndone: noop\n"
                ".segment 1\n.function f()\npop3loop on\non: pop3delete\nretn\n"),
            "two=in/ZPPOPM.2.0;");
  EXPECT_EQ(Sent(), "RETR 1\r\nRETR 2\r\nDELE 2\r\nQUIT\r\n");
}

TEST_F(POP3Instruction, WithoutAMailboxTheInstructionsOfTheLoopAreInvalid) {
  ExpectFailures({{"pop3loop x\nx: noop", "Invalid instruction"},
                  {"pop3stop x\nx: noop", "Invalid instruction"},
                  {"pop3delete", "Invalid instruction"}});
}

TEST_F(POP3Instruction, AfterTheLoopThereIsNoMailbox) {
  peer.bytes = Session({kOne});
  Run(Loop() + "pop3delete\n", 0);
  EXPECT_EQ(machine.Failure(), "Invalid instruction");
}

TEST_F(POP3Instruction, MissingArgumentsAreAStackUnderflow) {
  ExpectFailures({{"pop3 x\nx: noop", "Stack underflow"},
                  {"pushi 1\npushi 2\npushi 3\npop3 x\nx: noop", "Stack underflow"}});
  EXPECT_TRUE(network.calls.empty());
}

// The variables of the function are gone when its mailbox is continued.
TEST_F(POP3Instruction, AMailboxThatARunWithinTheRunHasLeftOpenIsNotContinued) {
  peer.bytes = Session({kOne, kTwo});
  machine.Assemble("pop3loop x\nx: noop\n.segment 1\n.function f()\n" + Open("done") +
                   "exit\ndone: retn\n");
  EXPECT_EQ(machine.vm().RunFunction("f", -1, nullptr, nullptr), 1);
  ASSERT_NE(machine.vm().Lookup_Feature(Feature::Type_POP3), nullptr);
  *machine.application.exitflag() = 0;
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Failure(), "Invalid instruction");
}

// The marked messages are removed, as at the end of a loop.
TEST_F(POP3Instruction, AScriptThatEndsWithinTheLoopEndsTheSession) {
  peer.bytes = Session({kOne, kTwo}, true);
  EXPECT_EQ(Run(Open("done") + kShow + "pop3delete\nexit\ndone: noop\n"), "one=in/ZPPOPM.1.0;");
  EXPECT_EQ(peer.deleted, 0);
  machine.Close();
  EXPECT_EQ(Sent(), "RETR 1\r\nDELE 1\r\nQUIT\r\n");
  EXPECT_EQ(peer.deleted, 1);
}

// A peer that is silent until the script's time is over, after that many lines.
class LatePeer : public ScriptedConnection {
 public:
  LatePeer(ScriptedPeer* peer, ZephApplication* application, int lines)
      : ScriptedConnection(peer, application), host(application), left(lines) {}
  int ReadLine(String& line, int timeout, int size) override {
    if (left-- > 0) return ScriptedConnection::ReadLine(line, timeout, size);
    *host->timedoutflag() = 1;
    Error(String(kReadTimeout));
    return -1;
  }

 private:
  ZephApplication* host;
  int left;
};
class LateManager : public ScriptedNetworkManager {
 public:
  LateManager(ZephApplication* application, ScriptedPeer* peer, int lines)
      : ScriptedNetworkManager(application, peer), late(peer), count(lines) {}
  NetworkConnection* Connect(const char*, int, int) override {
    return new LatePeer(late, application, count);
  }

 private:
  ScriptedPeer* late;
  int count;
};

TEST_F(POP3Instruction, AScriptWhoseTimeIsOverHasNoErrorOfItsMailbox) {
  const std::string bytes = Session({kOne, kTwo}, true);
  for (int lines = 0; lines < 17; lines++) {
    SCOPED_TRACE(lines);
    ScriptedPeer other;
    other.bytes = bytes;
    Machine one;
    LateManager manager(&one.application, &other, lines);
    MailFiles memory(&one.application);
    one.application.SetNetworkManager(&manager);
    one.application.SetFileManager(&memory);
    one.Assemble(Loop("pop3delete\n"));
    EXPECT_EQ(one.Go(), 0);
    EXPECT_NE(one.Output().find("Application timed out"), std::string::npos) << one.Output();
    EXPECT_EQ(one.Output().find("ZpPOP"), std::string::npos) << one.Output();
    EXPECT_EQ(one.Value("ZpPOP_Error"), "(none)");
    one.Close();
    EXPECT_EQ(other.deleted, 1);
  }
}

}  // namespace

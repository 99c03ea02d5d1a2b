// The instructions on calls, in scripts: the loop, its ends, and its errors.

#include <gtest/gtest.h>

#include "base/host/Config.h"
#include "base/machine/Feature.h"
#include "tests/support/Machine.h"
#include "tests/support/ScriptedConnection.h"

namespace {

const char kHead[] = "HTTP/1.1 200 OK\r\n\r\n";

std::string Response(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string Get(const std::string& where) {
  return "pushc \"http://h/p\"\npushc \"GET\"\npushc \"\"\npushc \"\"\npushc \"\"\nop_http " +
         where + "\n";
}

const char kShow[] = R"(
        pushg callobjecttype
        out
        pushc ":"
        out
        pushg callvalue
        out
        pushc ";"
        out
)";

// Writes "type:value;" for each element, and "end" with the error after the loop.
std::string Loop(const std::string& open = Get("done")) {
  return open + "body:\n" + kShow + R"(
        op_http_loop body
  done: pushc "end"
        out
        pushg ZpCALL_Error
        out
)";
}

class CallInstruction : public testing::Test {
 protected:
  CallInstruction() { machine.application.SetNetworkManager(&network); }
  ~CallInstruction() override {
    machine.Close();
    EXPECT_EQ(static_cast<size_t>(peer.deleted), network.calls.size());
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

  ScriptedPeer peer;
  Machine machine;
  ScriptedNetworkManager network{&machine.application, &peer};
};

TEST_F(CallInstruction, TheLoopRunsForEachElement) {
  peer.bytes = std::string(kHead) + "a<b>c";
  EXPECT_EQ(Run(Loop()), "text:a;tag:<b>;text:c;end");
  // The end of the response closes the connection.
  EXPECT_EQ(peer.deleted, 1);
}

TEST_F(CallInstruction, AnEmptyResponseIsOnePass) {
  peer.bytes = kHead;
  EXPECT_EQ(Run(Loop()), ":;end");
}

TEST_F(CallInstruction, StopLeavesTheLoopAndCloses) {
  peer.bytes = std::string(kHead) + "a<b>c";
  EXPECT_EQ(Run(Get("done") + kShow +
                "op_http_stop done\npushc \"not here\"\nout\n"
                "done: pushc \"end\"\nout\n"),
            "text:a;end");
  EXPECT_EQ(peer.deleted, 1);
}

TEST_F(CallInstruction, AFailedConnectionSkipsTheLoopWithAnError) {
  network.refuses = true;
  EXPECT_EQ(Run("tagerror 14, 0\n" + Loop()), "endUnable to open URL 'http://h/p': No connection");
  network.calls.clear();
}

TEST_F(CallInstruction, AnErrorIsFatalAndShownByDefault) {
  network.refuses = true;
  const std::string output = Run(Loop(), 0);
  EXPECT_NE(output.find("ZpCALL: Unable to open URL 'http://h/p': No connection"),
            std::string::npos)
      << output;
  EXPECT_EQ(output.find("end"), std::string::npos);
  network.calls.clear();
}

TEST_F(CallInstruction, TheTextOfAnErrorIsEncoded) {
  const std::string url = "ftp://<h>/(x)";
  EXPECT_EQ(Run("tagerror 14, 0\npushc \"" + url +
                "\"\npushc \"GET\"\npushc \"\"\npushc \"\"\npushc \"\"\nop_http done\n"
                "done: pushg ZpCALL_Error\nout\n"),
            "Unable to open URL 'ftp://&lt;h&gt;/&#40;x&#41;': Unsupported protocol 'ftp'");
}

// That text has entities already.
TEST_F(CallInstruction, TheEntitiesInTheTextOfABadTagAreEncodedAgain) {
  peer.bytes = std::string(kHead) + "<a /b>";
  EXPECT_EQ(Run("tagerror 14, 0\n" + Loop()), "endFound &amp;quot;b&amp;quot; in tag following /");
  EXPECT_EQ(peer.deleted, 1);
}

TEST_F(CallInstruction, AnErrorInTheLoopEndsIt) {
  peer.bytes = std::string(kHead) + "a<b";
  EXPECT_EQ(Run("tagerror 14, 0\n" + Loop()), "text:a;endUnexpected EOF in tag");
  EXPECT_EQ(peer.deleted, 1);
}

TEST_F(CallInstruction, ASuccessClearsTheErrorVariable) {
  peer.bytes = std::string(kHead) + "a";
  EXPECT_EQ(Run("pushc \"old\"\npopg ZpCALL_Error\n" + Loop()), "text:a;end");
}

TEST_F(CallInstruction, CallsNest) {
  peer.bytes = Response("a<b>") + Response("1<2>3") + Response("4");
  const std::string inner = Get("out") + "inner:\n" + kShow + "op_http_loop inner\nout: noop\n";
  EXPECT_EQ(Run(Get("done") + "body:\n" + kShow + inner +
                "op_http_loop body\ndone: pushc \"end\"\n"
                "out\n"),
            "text:a;text:1;tag:<2>;text:3;tag:<b>;text:4;end");
  EXPECT_EQ(peer.deleted, 3);
}

TEST_F(CallInstruction, AFunctionThatReturnsOutOfALoopClosesTheCall) {
  peer.bytes = std::string(kHead) + "a<b>c";
  EXPECT_EQ(Run("call f\nout\npushc \"|\"\nout\npushg callvalue\nout\n"
                ".segment 1\n.function f()\n" +
                Get("done") + "pushl callvalue\nret\ndone: retn\n"),
            "a|");
  EXPECT_EQ(peer.deleted, 1);
}

TEST_F(CallInstruction, TheResultsAreLocalToTheFunction) {
  peer.bytes = std::string(kHead) + "a<b c=d>e";
  EXPECT_EQ(Run("pushc \"mine\"\npopg callvalue\ncall f\npop\npushg callvalue\nout\n"
                ".segment 1\n.function f()\n" +
                Get("done") +
                "body: pushl callvalue\nout\npushc \";\"\nout\n"
                "pushl callobjectattribute1\nout\npushl callobjectvalue\npushi 1\nelem\nout\n"
                "op_http_loop body\ndone: retn\n"),
            "a;<b c=d>;cde;mine");
}

TEST_F(CallInstruction, AFunctionMayContinueTheLoopOfItsCaller) {
  peer.bytes = std::string(kHead) + "a<b>c";
  EXPECT_EQ(Run(Get("done") + "call f\npop\n" + kShow +
                "op_http_stop done\ndone: noop\n"
                ".segment 1\n.function f()\nop_http_loop on\non: retn\n"),
            "tag:<b>;");
}

TEST_F(CallInstruction, WithoutACallTheInstructionsOfTheLoopAreInvalid) {
  ExpectFailures({{"op_http_loop x\nx: noop", "Invalid instruction"},
                  {"op_http_stop x\nx: noop", "Invalid instruction"}});
}

TEST_F(CallInstruction, TheCountOfArgumentsIsFiveOrEightToEleven) {
  for (const int count : {-1, 0, 4, 6, 7, 12, 1000000}) {
    ExpectFailure({("op_httpn x, " + std::to_string(count) + "\nx: noop").c_str(),
                   "Invalid number of parameters to HTTPN"});
  }
}

TEST_F(CallInstruction, MissingArgumentsAreAStackUnderflow) {
  ExpectFailures({{"op_http x\nx: noop", "Stack underflow"},
                  {"pushi 1\nop_http8 x\nx: noop", "Stack underflow"}});
}

TEST_F(CallInstruction, EachCountTakesItsArguments) {
  const char* const arguments[] = {"pushc \"https://h/p\"",
                                   "pushc \"post\"",
                                   "pushc \"a\"",
                                   "pushc \"\"",
                                   "pushc \"t/t\"",
                                   "pushc \"cert\"",
                                   "pushc \"PEM\"",
                                   "pushc \"X: y\\r\\n\"",
                                   "pushi 5",
                                   "pushc \"word\"",
                                   "pushc \"data\""};
  const struct {
    const char* instruction;
    int count;
    const char* tls;
  } cases[] = {
      {"op_http done", 5, "tls h null null null null 0"},
      {"op_httpn done, 5", 5, "tls h null null null null 0"},
      {"op_http8 done", 8, "tls h cert null PEM null 0"},
      {"op_httpn done, 8", 8, "tls h cert null PEM null 0"},
      {"op_httpn done, 9", 9, "tls h cert null PEM null 5"},
      {"op_httpn done, 10", 10, "tls h cert null PEM word 5"},
      {"op_httpn done, 11", 11, "tls h cert data PEM word 5"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.instruction);
    ScriptedPeer other;
    other.bytes = std::string(kHead) + "x";
    Machine one;
    ScriptedNetworkManager manager(&one.application, &other);
    one.application.SetNetworkManager(&manager);
    one.application.config()->SetValue_Integer(Config_timeout_call, 0);
    std::string source = "pushi 12\npopg a\n";
    for (int i = 0; i < row.count; i++) source += std::string(arguments[i]) + "\n";
    one.Assemble(Loop(source + row.instruction + "\n"));
    EXPECT_EQ(one.Go(), 1) << one.Error();
    EXPECT_EQ(one.Output(), "text:x;end");
    EXPECT_EQ(one.StackText(), "");
    EXPECT_EQ(manager.calls.back(), row.tls);
    EXPECT_EQ(other.written, std::string("POST /p HTTP/1.1\r\nHost: h\r\nContent-Type: "
                                         "application/x-www-form-urlencoded\r\nContent-Length: "
                                         "4\r\n") +
                                 (row.count >= 8 ? "X: y\r\n" : "") +
                                 "Connection: close\r\n\r\na=12");
  }
}

// The text of an array is made at each read, so it must be copied off the stack.
TEST_F(CallInstruction, TheURLMayBeAnArrayThatIsSentAsAField) {
  peer.bytes = std::string(kHead) + "x";
  Run("pushc \"http://h/p\"\npushg u\npushi 1\nelem\nstore\n"
      "pushg u\npushc \"GET\"\npushc \"u,u,u,u,u,u\"\npushc \"\"\npushc \"\"\nop_http done\n"
      "op_http_stop done\ndone: noop\n");
  EXPECT_EQ(peer.written.substr(0, 28), "GET /p?u=http%3A%2F%2Fh%2Fp&");
}

TEST_F(CallInstruction, ABadNameOfAFieldIsAFatalError) {
  const std::string output =
      Run("tagerror 14, 0\npushc \"http://h/p\"\npushc \"GET\"\npushc \"a[\"\npushc \"\"\n"
          "pushc \"\"\nop_http done\ndone: pushc \"end\"\nout\n",
          0);
  EXPECT_EQ(output.find("end"), std::string::npos);
  EXPECT_TRUE(network.calls.empty());
}

// A peer that is silent until the script's time is over.
class LatePeer : public ScriptedConnection {
 public:
  LatePeer(ScriptedPeer* peer, ZephApplication* application)
      : ScriptedConnection(peer, application), host(application) {}
  int Read(char*, int, int) override {
    *host->timedoutflag() = 1;
    Error(String(kReadTimeout));
    return -1;
  }

 private:
  ZephApplication* host;
};
class LateManager : public ScriptedNetworkManager {
 public:
  LateManager(ZephApplication* application, ScriptedPeer* peer)
      : ScriptedNetworkManager(application, peer), late(peer) {}
  NetworkConnection* Connect(const char*, int, int) override {
    return new LatePeer(late, application);
  }

 private:
  ScriptedPeer* late;
};

TEST_F(CallInstruction, AScriptWhoseTimeIsOverHasNoErrorOfItsCall) {
  LateManager manager(&machine.application, &peer);
  machine.application.SetNetworkManager(&manager);
  peer.bytes = kHead;
  const std::string output = Run(Loop(), 0);
  EXPECT_NE(output.find("Application timed out"), std::string::npos) << output;
  EXPECT_EQ(output.find("ZpCALL"), std::string::npos) << output;
  EXPECT_EQ(machine.Value("ZpCALL_Error"), "(none)");
  peer.deleted = 0;
}

// The variables of the function are gone when its call is continued.
TEST_F(CallInstruction, ACallThatARunWithinTheRunHasLeftOpenIsNotContinued) {
  peer.bytes = std::string(kHead) + "a<b>c";
  machine.Assemble("op_http_loop x\nx: noop\n.segment 1\n.function f()\n" + Get("done") +
                   "exit\ndone: retn\n");
  EXPECT_EQ(machine.vm().RunFunction("f", -1, nullptr, nullptr), 1);
  ASSERT_NE(machine.vm().Lookup_Feature(Feature::Type_Call), nullptr);
  *machine.application.exitflag() = 0;
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Failure(), "Invalid instruction");
}

// The traffic is logged if the log wants it at this place.
TEST_F(CallInstruction, TheTrafficIsLogged) {
  for (const unsigned level : {unsigned{0}, unsigned{Log_Call}}) {
    ScriptedPeer other;
    other.bytes = std::string(kHead) + "x";
    Machine one;
    ScriptedNetworkManager manager(&one.application, &other);
    one.application.SetNetworkManager(&manager);
    one.application.config()->SetValue_Integer(Config_log_level, static_cast<int>(level));
    one.Assemble(Loop());
    EXPECT_EQ(one.Go(), 1) << one.Error();
    EXPECT_EQ(one.Output(), "text:x;end");
    EXPECT_EQ(one.application.log.empty(), level == 0);
  }
}

}  // namespace

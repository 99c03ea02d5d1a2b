// Background tasks in the engine: what they see, what they do not change, how they are limited and
// ended. Tests follow a task by its files: a lock's file exists as long as its block runs.

#include <signal.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/e2e/Pages.h"
#include "tests/support/Paths.h"

namespace {

using testing::HasSubstr;

std::string Content(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

class Task : public testing::Test {
 protected:
  // Tests follow a task by the log: each line of a task is one of its records.
  Task() {
    engine.settings = "log_file = \"tasks.log\"\nlog_level = 268435520\n";
    engine.Script("page.zpc", Writes("page"));
  }

  // Code that writes a mark to the log: the parameter of a call. The function is in Functions().
  static std::string Notes(const std::string& push) { return push + "\ncall note\npop\n"; }
  static constexpr char functions[] = "exit\n.function note(text)\npushl text\nret\n.end\n";
  // A block that runs in a task.
  static std::string Async(const std::string& block) {
    const std::string behind = "behind" + std::to_string(++blocks);
    return "async " + behind + "\n" + block + "exit\n" + behind + ":\n";
  }

  // Code that waits until the data directory has a file of that name.
  static std::string WaitsFor(const std::string& file) {
    const std::string label = "wait" + std::to_string(++blocks);
    return "tagerror 2, 0\n" + label + ": pushc \"" + file +
           "\"\npushc \",\"\npushc \"record\"\nimport " + label + "\nimport_stop " + label +
           "on\n" + label + "on: noop\n";
  }

  std::string Log() { return Content(engine.Path("data/tasks.log")); }
  int CountInLog(const std::string& text) {
    const std::string log = Log();
    int count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) count++;
    return count;
  }
  template <typename Test>
  bool Eventually(Test test) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!test()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
  }
  // Waits until that many lines of the log contain the text.
  bool Noted(const std::string& text, int count = 1) {
    if (Eventually([&] { return CountInLog(text) >= count; })) return true;
    ADD_FAILURE() << text << " is missing in\n" << Log();
    return false;
  }
  int Idle() const { return 10 + EngineProcess::OtherThreads; }
  // Starts the engine and waits for all request threads, so that one more is a task's.
  void StartAll() {
    ASSERT_TRUE(engine.Start());
    ASSERT_EQ(engine.WaitForThreads(Idle()), Idle());
  }

  EngineProcess engine;
  static inline int blocks = 0;
};

TEST_F(Task, ABlockRunsWithTheValuesThatTheRequestHad) {
  engine.Script(
      "task.zpc",
      "pushi 1\npopg x\npushc \"a\"\npushg list\npushi 2\nelem\nstore\n" +
          Async(Notes("pushc \"task x \"\npushg x\ncat\npushg list\npushi 2\nelem\ncat") +
                "pushi 5\npopg x\npushc \"b\"\npushg list\npushi 2\nelem\nstore\n" +
                Notes("pushc \"then x \"\npushg x\ncat\npushg list\npushi 2\nelem\ncat")) +
          "pushi 3\npopg x\npushg x\nout\npushg list\npushi 2\nelem\nout\n" + functions);
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/task.zpc"), "3a");
  Noted("task x 1a");
  Noted("then x 5b");
  EXPECT_EQ(CountInLog("task x"), 1);
}

TEST_F(Task, ABlockInAFunctionHasItsLocalsAndItsCallers) {
  engine.Script("task.zpc",
                "pushc \"left \"\npushi 7\npushg held\ncall work\ncat\nout\n" +
                    Notes("pushc \"both are here\"") +
                    "exit\n.function work(number, other var)\n"
                    "pushc \"mine\"\npopl own\n"
                    "pushc \"by reference\"\npopl other\nasync on\n"
                    "pushc \"in \"\npushl own\ncat\npushl number\ncat\npushl other\ncat\n"
                    "pushi 8\npopl number\nret\non:\npushl number\nret\n.end\n" +
                    std::string(functions).substr(5));
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/task.zpc"), "left 7");
  // The task has also returned from the function, to a copy of the caller's stack.
  Noted("both are here", 2);
}

TEST_F(Task, ARequestMayStartOnlySoManyTasks) {
  engine.settings += "max_async_tasks = 2\n";
  engine.Script("task.zpc", Async(Notes("pushc \"first\"")) + Async(Notes("pushc \"second\"")) +
                                Async(Notes("pushc \"third\"")) + Writes("on") +
                                "pushg ZpASYNCHRONOUS_Error\nout\n" + functions);
  StartAll();
  const std::string page = engine.Get("/task.zpc").Body();
  EXPECT_THAT(page, HasSubstr("ZpASYNCHRONOUS: Maximum number of asynchronous tasks exceeded\n"));
  EXPECT_THAT(page, HasSubstr("onMaximum number of asynchronous tasks exceeded"));
  Noted("first");
  Noted("second");
  EXPECT_EQ(engine.WaitForThreads(Idle()), Idle());
  EXPECT_EQ(CountInLog("third"), 0);
  // The limit holds for each request.
  engine.Get("/task.zpc");
  Noted("first", 2);
}

TEST_F(Task, ATaskStartsNoTasks) {
  engine.Script(
      "task.zpc",
      Async(Async(Notes("pushc \"within\"")) + Notes("pushg ZpASYNCHRONOUS_Error")) + functions);
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/task.zpc"), "");
  Noted("Asynchronous tasks may not start additional asynchronous tasks", 2);
  EXPECT_EQ(CountInLog("within"), 0);
}

TEST_F(Task, ATaskHasAThreadOfItsOwnAndNoClient) {
  engine.Script("task.zpc", Async(Writes("nobody reads this") +
                                  Notes("pushc \"task \"\npushs thread_id\ncat\npushc \" \"\ncat\n"
                                        "pushs QUERY_STRING\ncat")) +
                                Notes("pushc \"request \"\npushs thread_id\ncat") + Writes("page") +
                                functions);
  StartAll();
  ExpectPage(engine.Get("/task.zpc", {{"QUERY_STRING", "q=1"}}), "page");
  Noted("request ");
  Noted(" q=1");
  EXPECT_EQ(engine.WaitForThreads(Idle()), Idle());
  std::istringstream log(Log());
  std::string line, task, request;
  while (std::getline(log, line)) {
    if (const size_t at = line.find("task "); at != std::string::npos) task = line.substr(at + 5);
    if (const size_t at = line.find("request "); at != std::string::npos) {
      request = line.substr(at + 8);
    }
  }
  EXPECT_GT(std::stoi(task), std::stoi(request)) << Log();
}

// Signals go to the main thread, also while a task runs.
TEST_F(Task, ATaskBlocksSignals) {
  engine.Script("task.zpc",
                Async(Notes("pushc \"begun\"") + WaitsFor("go.txt")) + Writes("page") + functions);
  StartAll();
  ExpectPage(engine.Get("/task.zpc"), "page");
  Noted("begun");
  // Signals are handled only after the last thread has started.
  int threads = 0, open = 0;
  const std::string tasks = "/proc/" + std::to_string(engine.pid()) + "/task";
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (open != 6 && std::chrono::steady_clock::now() < end) {
    threads = engine.WaitForThreads(Idle() + 1);
    open = 0;
    for (const auto& entry : std::filesystem::directory_iterator(tasks)) {
      const std::string status = Content(entry.path().string() + "/status");
      const size_t at = status.find("SigBlk:");
      ASSERT_NE(at, std::string::npos);
      const auto blocked = std::stoull(status.substr(at + 7), nullptr, 16);
      for (int signal : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM, SIGUSR1}) {
        if (blocked >> (signal - 1) & 1) continue;
        EXPECT_EQ(entry.path().filename(), std::to_string(engine.pid())) << signal;
        open++;
      }
    }
  }
  EXPECT_EQ(threads, Idle() + 1);
  EXPECT_EQ(open, 6);
  engine.Write("data/go.txt", "go\n");
  EXPECT_EQ(engine.WaitForThreads(Idle()), Idle());
}

TEST_F(Task, ErrorsOfATaskGoToTheLog) {
  engine.Script("task.zpc", Async("pushg a\npushi -1\nelem\n") + Writes("page") + functions);
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/task.zpc"), "page");
  Noted("Array index must be positive integer");
}

TEST_F(Task, ALockOfTheRequestIsNotTheTasks) {
  engine.Script("task.zpc", "pushc \"a\"\nlockfile\n" +
                                Async("pushc \"a\"\nlockfile\n" + Notes("pushc \"locked\"") +
                                      "lockfile_end\n" + Notes("pushc \"unlocked\"")) +
                                Writes("page") + "lockfile_end\n" + functions);
  StartAll();
  ExpectPage(engine.Get("/task.zpc"), "page");
  Noted("unlocked");
  EXPECT_EQ(engine.WaitForThreads(Idle()), Idle());
  EXPECT_FALSE(std::filesystem::exists(engine.Path("data/a.lck")));
}

TEST_F(Task, SixteenRequestsStartTasksAtOnce) {
  engine.arguments = {"-t", "16"};
  engine.Script("task.zpc",
                "pushi 1\npopg i\nagain: pushg i\npushi 200\ngt\njmp_ne filled\n"
                "pushc \"some text \"\npushg i\ncat\npushg list\npushg i\nelem\nstore\n"
                "incg i, 1\njmp again\nfilled:\n" +
                    Async(Notes("pushc \"ended \"\npushg list\npushi 200\nelem\ncat")) +
                    "pushg list\npushi 200\nelem\ncall note\nout\n" + functions);
  ASSERT_TRUE(engine.Start());
  const int rounds = 5;
  std::vector<std::thread> clients;
  for (int t = 0; t < 16; t++) {
    clients.emplace_back([&] {
      for (int i = 0; i < rounds; i++) ExpectPage(engine.Get("/task.zpc"), "some text 200");
    });
  }
  for (std::thread& client : clients) client.join();
  Noted("ended some text 200", 16 * rounds);
  EXPECT_EQ(engine.WaitForThreads(16 + EngineProcess::OtherThreads),
            16 + EngineProcess::OtherThreads);
}

// --- Extensions and other files ------------------------------------------------------------------

// Functions of the library TaskFunctions, as a script declares them.
constexpr char extension[] =
    ".function header(name, value) external\n.function sleep(seconds, file) external\n.end\n";
std::string RegistersTaskFunctions() {
  return "[[library]]\nkind = \"builtin\"\npath = \"" + InBuild("lib/test/TaskFunctions.so") +
         "\"\n";
}
std::string Header(const std::string& name, const std::string& value) {
  return "pushc \"" + name + "\"\npushc \"" + value + "\"\ncall header\n";
}

TEST_F(Task, HeaderFieldsOfATaskAreNobodys) {
  engine.settings += RegistersTaskFunctions();
  // The request sends its header after the task has tried to change it.
  engine.Script("task.zpc",
                extension + Header("X-Page", "of the page") + "pop\n" +
                    Async(Notes("pushc \"task \"\n" + Header("X-Page", "of the task") + "cat\n" +
                                Header("X-Task", "of the task") + "cat") +
                          "pushc \"done\"\npopg x\npushc \"done.txt\"\npushc \",\"\npushc \"x\"\n"
                          "export\n") +
                    WaitsFor("done.txt") +
                    Notes("pushc \"page \"\n" + Header("X-More", "of the page") + "cat") +
                    Writes("page") + functions);
  ASSERT_TRUE(engine.Start());
  const FastCGIResponse page = engine.Get("/task.zpc");
  ExpectPage(page, "page");
  EXPECT_EQ(page.Header("X-Page"), "of the page");
  EXPECT_EQ(page.Header("X-More"), "of the page");
  EXPECT_FALSE(page.HasHeader("X-Task"));
  Noted("task 00");
  Noted("page 1");
}

TEST_F(Task, AFileThatIsRunMayStartTasks) {
  engine.Script("page.zpc",
                "pushc \"page \"\npopg name\npushc \"library/go.zpc\"\nop_do_file\n"
                "pushg name\nout\n" +
                    Notes("pushc \"page ends\"") + functions);
  engine.Script("library/go.zpc", "jmp over\n" + std::string(functions).substr(5) +
                                      "over: " + "pushc \"part of \"\npopg part\n" +
                                      Async(Notes("pushc \"task: \"\npushg part\ncat\n"
                                                  "pushg name\ncat\npushs QUERY_STRING\ncat") +
                                            "pushc \"task\"\npopg name\n") +
                                      Notes("pushc \"file ends\""));
  StartAll();
  ExpectPage(engine.Get("/page.zpc", {{"QUERY_STRING", "q"}}), "page ");
  Noted("task: part of page q");
  Noted("page ends");
  EXPECT_EQ(engine.WaitForThreads(Idle()), Idle());
  EXPECT_EQ(CountInLog("file ends"), 1);
  EXPECT_EQ(CountInLog("page ends"), 1);
}

TEST_F(Task, ATaskRunsOtherFilesAndCallsTheirFunctions) {
  engine.Script("library/part.zpc",
                "incg runs, 1\njmp end\n.function twice(n)\npushl n\npushi 2\nmul\nret\n.end\n"
                "end: noop\n");
  const std::string uses =
      "pushc \"library/part.zpc\"\nop_do_file\npushc \"library/part.zpc\"\n"
      "pushc \"twice(runs)\"\nop_do_function\n";
  engine.Script("task.zpc", uses + "pop\n" + Async(uses + Notes("pushc \" in the task\"\ncat")) +
                                uses + "out\n" + functions);
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/task.zpc"), "4");
  Noted("4 in the task");
}

// --- With heartbeats -----------------------------------------------------------------------------

class SlowTask : public Task {};

constexpr char for_ever[] = "around: jmp around\n";

TEST_F(SlowTask, ATaskRunsOnWithoutItsRequestUntilItsOwnTimeIsOver) {
  engine.settings += "timeout_global = 1\n";
  // The script has read the setting, so the task has it too.
  engine.Script("task.zpc", "pushs zeph_config\npushc \"timeout_async\"\nmemb\npopg pinned\n" +
                                Async(Notes("pushc \"begun\"") + for_ever) + Writes("page") +
                                functions);
  engine.settings += "timeout_async = 8\n";
  engine.settings.replace(engine.settings.find("268435520"), 9, "402653248");
  StartAll();
  const auto start = std::chrono::steady_clock::now();
  ExpectPage(engine.Get("/task.zpc"), "page");
  Noted("begun");
  EXPECT_EQ(engine.WaitForThreads(Idle(), std::chrono::seconds(40)), Idle());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
}

TEST_F(SlowTask, AProcessThatEndsCancelsItsTasks) {
  engine.Script("task.zpc", "pushc \"a\"\n" +
                                Async("lockfile\n" + Notes("pushc \"begun\"") + for_ever) +
                                "pop\n" + Writes("page") + functions);
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/task.zpc"), "page");
  Noted("begun");
  EXPECT_TRUE(std::filesystem::exists(engine.Path("data/a.lck")));
  engine.Signal(SIGTERM);
  EXPECT_EQ(engine.Wait(), 0);
  EXPECT_FALSE(std::filesystem::exists(engine.Path("data/a.lck")));
}

TEST_F(SlowTask, ASleepEndsAtTheBeatAfterAChangeOfItsFile) {
  engine.settings += RegistersTaskFunctions();
  engine.Script("task.zpc",
                extension +
                    Async(Notes("pushc \"asleep\"") +
                          Notes("pushc \"slept \"\npushi 3600\npushc \"flag.txt\"\ncall sleep\n"
                                "cat\npushc \" and has \"\ncat\npushs dyn_time_remaining\ncat")) +
                    Writes("page") + functions);
  const std::string flag = engine.Write("data/flag.txt", "");
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/task.zpc"), "page");
  Noted("asleep");
  // The file's time that the task reads first may be one of these changes, but not the last.
  const auto now = std::filesystem::file_time_type::clock::now();
  int seconds = 0;
  EXPECT_TRUE(Eventually([&] {
    std::filesystem::last_write_time(flag, now + std::chrono::seconds(++seconds));
    return CountInLog("slept ") > 0;
  }));
  const std::string log = Log();
  int slept = 0, remaining = 0;
  ASSERT_EQ(sscanf(log.c_str() + log.find("slept "), "slept %d and has %d", &slept, &remaining), 2);
  // A beat takes five seconds at most; the rest is for a slow machine. The sleep takes one second
  // of the task's hour.
  EXPECT_LE(slept, 30);
  EXPECT_GE(remaining, 3600 - 1 - 30);
  EXPECT_LE(remaining, 3599);
}

}  // namespace

// Thousands of requests of all kinds at once. ZEPH_SOAK_REQUESTS sets another number of them.

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "base/core/Sanitizers.h"
#include "tests/e2e/Pages.h"
#include "tests/support/UploadMachine.h"

namespace {

// The thread sanitizer makes each request slower, and memory is not looked at there.
constexpr int standard_requests = kThreadSanitizer ? 6000 : 20000;
constexpr int connections = 16;

int Requests() {
  const char* given = getenv("ZEPH_SOAK_REQUESTS");
  return given ? atoi(given) : standard_requests;
}

// One kind of request: a script, the body that is sent with it, and the expected page. An expected
// page that ends in "..." is only a beginning; an empty one is not read, because the client leaves.
struct Kind {
  const char* name;
  std::string source;
  FastCGIParameters parameters;
  std::string page;
  std::string body = {};  // the request's body: a form in parts
  int cut = 0;            // the client leaves after so many bytes of the body
};

FastCGIParameters Form(const std::string& body) {
  return {{"CONTENT_TYPE", "multipart/form-data; boundary=B"},
          {"CONTENT_LENGTH", std::to_string(body.size())}};
}

std::vector<Kind> Kinds() {
  const std::string task_end = "exit\nbehind:\n";
  const std::string upload = Field("title", "Tea") +
                             FilePart("file", "tea.txt", "text/plain", std::string(20000, 't')) +
                             EndOfBody();
  const std::string takes_files =
      "pushg title\nout\nexit\n.function Zeph_ValidateFileUpload(field, name, type)\n"
      "pushi 100000\nret\n.end\n"
      ".function Zeph_ProcessFileUpload(field, name, status, path, type, size)\n"
      "pushl name\npushc \" \"\ncat\npushl status\ncat\npushc \" \"\ncat\npushl size\ncat\n"
      "pushc \" \"\ncat\nout\nretn\n.end\n";
  std::string refuses_files = takes_files;
  refuses_files.replace(refuses_files.find("pushi 100000"), 12, "pushi -1");
  const std::string languages =
      ".language \"en-US\"\n.message hello \"Hello, \" name \"!\"\n.message only \"English\"\n"
      ".language de\n.message hello \"Hallo \" name \"!\"\n";
  return {
      {"text.zpc", Writes("a text"), {}, "a text"},
      {"calls.zpc",
       "pushi 12\ncall sum\nout\nexit\n.function sum(n)\npushl n\njmp_eq "
       "nothing\npushl n\n"
       "pushl n\npushi 1\nsub\ncall sum\nadd\nret\nnothing: pushi "
       "0\nret\n.end\n",
       {},
       "78"},
      {"field.zpc", "pushg name\nout\n", {{"QUERY_STRING", "name=Ada"}}, "Ada"},
      {"captured.zpc",
       "pushg kept\ncapture\n" + Writes("la") + "capture_end\npushg kept\nout\n",
       {},
       "la"},
      {"array.zpc",
       "pushi 1\npopg i\nagain: pushg i\npushc \"x\"\ncat\npushg list\npushg "
       "i\nelem\nstore\n"
       "incg i, 1\npushg i\npushi 200\nle\njmp_ne again\npushg list\npushi "
       "150\nelem\nout\n",
       {},
       "150x"},
      {"circle.zpc",
       "pushi 1\npushg a\npushi 1\nelem\nstore\npushg a\npushg a\npushi "
       "2\nelem\n"
       "refer\n" +
           Writes("round"),
       {},
       "round"},
      {"lock.zpc", "pushc \"soak\"\nlockfile\n" + Writes("alone") + "lockfile_end\n", {}, "alone"},
      {"task.zpc",
       "pushc \"kept\"\npopg x\nasync behind\npushg x\npopg y\npushc "
       "\"nobody\"\nout\n" +
           task_end + "pushg x\nout\n",
       {},
       "kept"},
      {"failing_task.zpc", "async behind\npop\n" + task_end + Writes("well"), {}, "well"},
      {"failing.zpc",
       "pushc \"own\"\nlockfile\nlockfile_end\npushg a\npushi "
       "1\nelem\npop\npop\n",
       {},
       "Fatal error in ..."},
      {"do.zpc",
       "pushc \"library/part.zpc\"\nop_do_file\npushc \"library/part.zpc\"\n"
       "pushc \"twice(shared)\"\nop_do_function\nout\n",
       {},
       "part 42"},
      {"import.zpc",
       "pushc \"list.txt\"\npushc \";\"\npushc \"a,b\"\nimport done\nbody: pushg b\nout\n"
       "import_loop body\ndone: exit\n",
       {},
       "two\nlines4"},
      {"filter.zpc",
       "pushc \"list.txt\"\npushc \";\"\npushc \"a,b\"\npushc \"a EQ 3\"\nimportf done\n"
       "body: pushg b\nout\nimport_loop body\ndone: exit\n",
       {},
       "4"},
      {"export.zpc",
       "pushc \"a line\"\npopg a\npushc \"soak.txt\"\npushc \";\"\npushc \"a,a\"\nexport\n" +
           Writes("written"),
       {},
       "written"},
      {"upload.zpc", takes_files, Form(upload), "tea.txt COMPLETE 20000 Tea", upload},
      {"refused.zpc", refuses_files, Form(upload), "Tea", upload},
      {"cut.zpc", takes_files, Form(upload), "", upload, 12000},
      {"language.zpc",
       languages + "pushg language\npops zeph_language\npushc \"Ada\"\npoplvnc name\n"
                   "localize hello\nlocalizev only\nout\n",
       {{"QUERY_STRING", "language=de"}},
       "Hallo Ada!English"},
      {"default.zpc",
       languages + "pushc \"Zoe\"\npoplvnc name\nlocalize hello\n",
       {},
       "Hello, Zoe!"},
      // Locks of the thread's own, whose blocks are left before their ends.
      {"lock_exit.zpc", "pushs thread_id\nlockfile\n" + Writes("out") + "exit\n", {}, "out"},
      {"lock_failing.zpc", "pushs thread_id\nlockfile\npop\n", {}, "Fatal error in ..."},
      {"lock_function.zpc",
       "call f\nout\npushs thread_id\nlockfile\nlockfile_end\nexit\n.function f()\n"
       "pushs thread_id\nlockfile\npushc \"back\"\nret\n.end\n",
       {},
       "back"},
      {"missing.zpc", "", {}, "..."},
      {"leaving.zpc", Floods(40), {}, ""},
  };
}

// Requests that end by their time limit. Each takes a second and the rest of a beat, so there are
// only a few.
std::vector<Kind> SlowKinds() {
  const std::string for_ever = "around: jmp around\n";
  return {
      {"late/page.zpc", Writes("begun ") + for_ever, {}, "begun Application timed out"},
      {"late/lock.zpc", "pushs thread_id\nlockfile\n" + for_ever, {}, "Application timed out"},
      {"late/filter.zpc",
       "pushc \"list.txt\"\npushc \";\"\npushc \"a,b\"\npushc \"f()\"\nimportf done\n"
       "body: import_loop body\ndone: exit\n.function f()\n" +
           for_ever + ".end\n",
       {},
       "Application timed out"},
      {"late/do.zpc", "pushc \"page.zpc\"\nop_do_file\n", {}, "begun Application timed out"},
      // The page comes at once, and its task ends later.
      {"task/late.zpc",
       "pushs zeph_config\npushc \"timeout_async\"\nmemb\npop\nasync behind\n"
       "pushs thread_id\nlockfile\n" +
           for_ever + "exit\nbehind: noop\n" + Writes("page"),
       {},
       "page"},
  };
}
constexpr int slow_requests = 15;

long ResidentKilobytes(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/status");
  std::string line;
  while (std::getline(file, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return atol(line.c_str() + 6);
  }
  return 0;
}

// Sends a request of that kind. Returns the fault, empty if there is none.
std::string Try(const EngineProcess& engine, const Kind& kind) {
  FastCGIClient client;
  if (!client.Connect(engine.socket())) return "no connection";
  const FastCGIParameters parameters =
      engine.Parameters((std::string("/") + kind.name).c_str(), kind.parameters);
  if (kind.page.empty()) {
    client.Begin();
    client.Parameters(parameters);
    client.EndParameters();
    if (kind.cut > 0) {
      client.Input(std::string_view(kind.body).substr(0, static_cast<size_t>(kind.cut)));
      return "";
    }
    client.EndInput();
    client.ReadOutput(1);
    return "";
  }
  const FastCGIResponse response = client.Request(parameters, kind.body);
  if (!response.ended) return "no end: " + response.problem;
  const std::string body = response.Body();
  const size_t open = kind.page.find("...");
  const bool good = open == std::string::npos ? body == kind.page
                                              : body.substr(0, open) == kind.page.substr(0, open);
  return good ? "" : body;
}

TEST(SlowSoak, EveryResponseIsRightAndMemoryStaysAsItIs) {
  const std::vector<Kind> kinds = Kinds();
  const std::vector<Kind> slow_kinds = SlowKinds();
  EngineProcess engine;
  engine.settings =
      "[[script]]\nmatch = \"late/*\"\ntimeout_global = 1\n"
      "[[script]]\nmatch = \"task/*\"\ntimeout_async = 1\n";
  engine.arguments = {"-t", std::to_string(connections)};
  for (const Kind& kind : kinds) {
    if (!kind.source.empty()) engine.Script(kind.name, kind.source);
  }
  for (const Kind& kind : slow_kinds) engine.Script(kind.name, kind.source);
  engine.Script("library/part.zpc",
                "pushi 21\npopg shared\n" + Writes("part ") +
                    "jmp end\n.function twice(n)\npushl n\npushi 2\nmul\nret\n.end\nend: noop\n");
  engine.Write("data/list.txt", "1;two\\nlines\n3;4\n");
  // The address sanitizer keeps freed memory, 256 MB of it by default; a few megabytes are full
  // long before the first half ends. Its own copies of stack frames grow with the deepest call of
  // each thread, which may come late.
  if (const char* options = getenv("ASAN_OPTIONS"); kAddressSanitizer) {
    engine.environment["ASAN_OPTIONS"] =
        std::string(options ? options : "") +
        ":quarantine_size_mb=4:thread_local_quarantine_size_kb=64:detect_stack_use_after_return=0";
  }
  ASSERT_TRUE(engine.Start());
  const int all = Requests();
  std::atomic<int> next{0}, wrong{0};
  std::atomic<long> half{0};
  const int between = std::max(all / slow_requests, 1);
  const auto kind_of = [&](int i) -> const Kind& {
    if (i % between == 0) return slow_kinds[static_cast<size_t>(i / between) % slow_kinds.size()];
    return kinds[static_cast<size_t>(i) % kinds.size()];
  };
  std::vector<std::thread> clients;
  for (int c = 0; c < connections; c++) {
    clients.emplace_back([&] {
      for (int i = next++; i < all; i = next++) {
        if (i == all / 2) half = ResidentKilobytes(engine.pid());
        const Kind& kind = kind_of(i);
        const std::string problem = Try(engine, kind);
        if (!problem.empty() && wrong++ < 5) {
          ADD_FAILURE() << kind.name << ": " << problem.substr(0, 300);
        }
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(wrong, 0);
  // Tasks end after their requests.
  const int threads = connections + EngineProcess::OtherThreads;
  EXPECT_EQ(engine.WaitForThreads(threads), threads);
  const long end = ResidentKilobytes(engine.pid());
  // No lock remains. Files that were not sent to their ends do remain.
  for (const auto& entry : std::filesystem::directory_iterator(engine.Path("data"))) {
    EXPECT_NE(entry.path().extension(), ".lck") << entry.path();
  }
  RecordProperty("half_kilobytes", std::to_string(half));
  RecordProperty("end_kilobytes", std::to_string(end));
  printf("%d requests, resident %ld KB at half, %ld KB at the end\n", all, half.load(), end);
  // A leak of one kilobyte for each request would show. The thread sanitizer's shadow memory grows
  // by itself.
  if (!kThreadSanitizer) {
    EXPECT_LT(end, half + all / 2);
  }
  engine.Signal(SIGTERM);
  EXPECT_EQ(engine.Wait(), 0);
}

}  // namespace

// Thousands of requests of all kinds at once. ZEPH_SOAK_REQUESTS sets another number of them.

#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <thread>

#include "tests/e2e/Pages.h"

namespace {

constexpr int standard_requests = 20000;
constexpr int connections = 16;

int Requests() {
  const char* given = getenv("ZEPH_SOAK_REQUESTS");
  return given ? atoi(given) : standard_requests;
}

// One kind of request: a script, what is sent with it, and the page that has to
// come. A page that ends in "..." only has to begin so; one that is empty is
// not read: the client leaves.
struct Kind {
  const char* name;
  std::string source;
  FastCGIParameters parameters;
  std::string page;
};

std::vector<Kind> Kinds() {
  const std::string task_end = "exit\nbehind:\n";
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
      {"missing.zpc", "", {}, "..."},
      {"leaving.zpc", Floods(40), {}, ""},
  };
}

long ResidentKilobytes(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/status");
  std::string line;
  while (std::getline(file, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return atol(line.c_str() + 6);
  }
  return 0;
}

// Answers what is wrong with a request of that kind, empty if nothing.
std::string Try(const EngineProcess& engine, const Kind& kind) {
  FastCGIClient client;
  if (!client.Connect(engine.socket())) return "no connection";
  const FastCGIParameters parameters =
      engine.Parameters((std::string("/") + kind.name).c_str(), kind.parameters);
  if (kind.page.empty()) {
    client.Begin();
    client.Parameters(parameters);
    client.EndParameters();
    client.EndInput();
    client.ReadOutput(1);
    return "";
  }
  const FastCGIResponse response = client.Request(parameters);
  if (!response.ended) return "no end: " + response.problem;
  const std::string body = response.Body();
  const size_t open = kind.page.find("...");
  const bool good = open == std::string::npos ? body == kind.page
                                              : body.substr(0, open) == kind.page.substr(0, open);
  return good ? "" : body;
}

TEST(SlowSoak, EveryResponseIsRightAndMemoryStaysAsItIs) {
  const std::vector<Kind> kinds = Kinds();
  EngineProcess engine;
  engine.arguments = {"-t", std::to_string(connections)};
  for (const Kind& kind : kinds) {
    if (!kind.source.empty()) engine.Script(kind.name, kind.source);
  }
  engine.Script("library/part.zpc",
                "pushi 21\npopg shared\n" + Writes("part ") +
                    "jmp end\n.function twice(n)\npushl n\npushi 2\nmul\nret\n.end\nend: noop\n");
  engine.Write("data/list.txt", "1;two\\nlines\n3;4\n");
  // The address sanitizer keeps what was freed, 256 MB of it unless told otherwise; a few
  // megabytes are full long before the first half is over.
  if (const char* options = getenv("ASAN_OPTIONS"); AddressSanitizer) {
    engine.environment["ASAN_OPTIONS"] = std::string(options ? options : "") +
                                         ":quarantine_size_mb=4:thread_local_quarantine_size_kb=64";
  }
  ASSERT_TRUE(engine.Start());
  const int all = Requests();
  std::atomic<int> next{0}, wrong{0};
  std::atomic<long> half{0};
  std::vector<std::thread> clients;
  for (int c = 0; c < connections; c++) {
    clients.emplace_back([&] {
      for (int i = next++; i < all; i = next++) {
        if (i == all / 2) half = ResidentKilobytes(engine.pid());
        const Kind& kind = kinds[static_cast<size_t>(i) % kinds.size()];
        const std::string problem = Try(engine, kind);
        if (!problem.empty() && wrong++ < 5) {
          ADD_FAILURE() << kind.name << ": " << problem.substr(0, 300);
        }
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(wrong, 0);
  // Tasks end behind their requests.
  const int threads = connections + EngineProcess::OtherThreads;
  EXPECT_EQ(engine.WaitForThreads(threads), threads);
  const long end = ResidentKilobytes(engine.pid());
  RecordProperty("half_kilobytes", std::to_string(half));
  RecordProperty("end_kilobytes", std::to_string(end));
  printf("%d requests, resident %ld KB at half, %ld KB at the end\n", all, half.load(), end);
  // A request that lost one kilobyte would show. The thread sanitizer's shadow grows by itself.
  if (!ThreadSanitizer) {
    EXPECT_LT(end, half + all / 2);
  }
  engine.Signal(SIGTERM);
  EXPECT_EQ(engine.Wait(), 0);
}

}  // namespace

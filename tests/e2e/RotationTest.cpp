// The logs of an engine that serves, rotated by logrotate with the file of
// packaging/zeph.logrotate.

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/WebServers.h"

namespace {

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  EXPECT_NE(text.find(from), std::string::npos) << "the file has no " << from;
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

size_t Count(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) count++;
  return count;
}

class Rotation : public testing::Test {
 protected:
  Rotation() {
    engine.Script("fatal.zpc", "pop\n");
    engine.Folder("log");
    engine.settings = "error_log = \"" + engine.Path("log/error.log") +
                      "\"\nlog_file = \"zeph.log\"\nlog_level = 939524096\n";
    engine.arguments = {"--workers", "2", "-t", "2"};
  }

  // The file of the package with the folders and the user of the test.
  std::string Configuration() {
    std::ifstream file(InSource("packaging/zeph.logrotate"));
    std::stringstream content;
    content << file.rdbuf();
    const passwd* user = getpwuid(geteuid());
    const group* own = getgrgid(getegid());
    const std::string su =
        std::string("su ") + (user ? user->pw_name : "") + " " + (own ? own->gr_name : "");
    std::string text = Replaced(content.str(), "/var/log/zeph", engine.Path("log"));
    text = Replaced(text, "/var/lib/zeph/data", engine.Path("data"));
    text = Replaced(text, "su zeph adm", su);
    const std::string path = engine.Write("logrotate.conf", Replaced(text, "su zeph zeph", su));
    std::filesystem::permissions(path, std::filesystem::perms(0600));
    return path;
  }
  // All that a log and the renamed files before it have, whatever logrotate has named them.
  std::string All(const std::string& folder, const std::string& name) const {
    std::vector<std::string> words = {"/bin/zcat", "-f"};
    for (const auto& entry : std::filesystem::directory_iterator(engine.Path(folder))) {
      const std::string file = entry.path().filename();
      if (file.compare(0, name.size(), name) == 0) words.push_back(entry.path());
    }
    Command read(words);
    EXPECT_EQ(read.Run(), 0) << read.errors;
    return read.output;
  }

  EngineProcess engine;
};

TEST_F(Rotation, LosesNoLineWhileTheEngineServes) {
  REQUIRE_PROGRAM("/usr/sbin/logrotate");
  ASSERT_TRUE(engine.Start());
  const std::string configuration = Configuration();
  std::atomic<size_t> served{0};
  std::atomic<bool> ends{false};
  std::vector<std::thread> clients;
  for (int i = 0; i < 3; i++) {
    clients.emplace_back([&] {
      while (!ends) {
        EXPECT_TRUE(engine.Get("/fatal.zpc").ended);
        served++;
      }
    });
  }
  // The last of four would be the first that is removed.
  for (int round = 0; round < 4; round++) {
    const size_t wanted = served + 60;
    while (served < wanted) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    Command rotate({"/usr/sbin/logrotate", "--force", "--state", engine.Path("logrotate.state"),
                    configuration});
    EXPECT_EQ(rotate.Run(), 0) << rotate.errors;
    EXPECT_EQ(rotate.errors, "");
  }
  const size_t wanted = served + 60;
  while (served < wanted) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ends = true;
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(Count(All("log", "error.log"), "Stack underflow"), served);
  EXPECT_EQ(Count(All("data", "zeph.log"), "Stack underflow"), served);
  for (const char* file : {"log/error.log", "log/error.log.1", "log/error.log.4.gz",
                           "data/zeph.log", "data/zeph.log.1", "data/zeph.log.4.gz"}) {
    EXPECT_TRUE(std::filesystem::exists(engine.Path(file))) << file;
  }
  // The supervisor and the workers write to the file that is there.
  EXPECT_EQ(engine.Log(), "");
}

}  // namespace

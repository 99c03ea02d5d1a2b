// The log of an application: its file, its settings, and many threads that write to one.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "base/host/Config.h"
#include "base/systems/unix/UNIXApplication.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "base/values/Variable.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

// A host with settings of its own, and the cookies of a client.
class LoggingApplication : public UNIXApplication {
 public:
  LoggingApplication(const std::string& data, int thread)
      : UNIXApplication(0, nullptr, 0, nullptr, nullptr) {
    thread_id = thread;
    configuration = new Config;
    file_manager = new UNIXReentrantFileManager(this);
    EXPECT_TRUE(file_manager->InitializeDataDirectory(data.c_str()));
  }
  LoggingApplication& Set(int setting, const char* text) {
    configuration->SetValue(setting, text, -1, 0);
    return *this;
  }
  void SetCookies(const char* text) { cookie.reset(text ? zeph_strdup(text) : nullptr); }
};

class ApplicationLog : public testing::Test {
 protected:
  ApplicationLog() {
    directory.Directory("data");
    application = Make();
  }
  std::unique_ptr<LoggingApplication> Make(int thread = 3) {
    return std::make_unique<LoggingApplication>(directory.path() + "/data", thread);
  }
  std::string LogText(const std::string& name = "trace.log") {
    std::ifstream file(directory.path() + "/data/" + name);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
  }
  static void Write(LoggingApplication& from, unsigned type, std::vector<LogParameter> parameters) {
    parameters.push_back(LogParameter::OfEnd());
    from.Log(type, parameters.data());
  }

  TemporaryDirectory directory;
  std::unique_ptr<LoggingApplication> application;
};

TEST_F(ApplicationLog, RecordsAreLinesOfTheFile) {
  application->Set(Config_log_file, "trace.log").ProcessLogSettings();
  EXPECT_FALSE(application->logsuppressed());
  Write(*application, Log_Trace, {LogParameter::OfText("page.zpc", -1)});
  Write(*application, Log_FatalError, {LogParameter::OfInteger(7)});
  const std::regex lines(
      "[A-Z][a-z]{2} [0-9 ]{2} [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}\t" +
      std::to_string(getpid()) +
      "\\.3\tTrace\tpage\\.zpc\n"
      "[A-Z][a-z]{2} [^\t]*\t[^\t]*\tFatal Error\t7\n");
  EXPECT_TRUE(std::regex_match(LogText(), lines)) << LogText();
}

TEST_F(ApplicationLog, ItIsAppendedTo) {
  directory.File("data/trace.log", "before\n");
  application->Set(Config_log_file, "trace.log").ProcessLogSettings();
  Write(*application, Log_Trace, {});
  EXPECT_EQ(LogText().substr(0, 7), "before\n");
  EXPECT_NE(LogText().find("\tTrace\n"), std::string::npos);
}

TEST_F(ApplicationLog, WithoutAFileThereIsNone) {
  for (const char* name : {static_cast<const char*>(nullptr), "", "missing/trace.log", "."}) {
    SCOPED_TRACE(name ? name : "(null)");
    auto other = Make();
    if (name) other->Set(Config_log_file, name);
    other->ProcessLogSettings();
    EXPECT_TRUE(other->logsuppressed());
    Write(*other, Log_Trace, {});
  }
  EXPECT_EQ(LogText(), "");
}

TEST_F(ApplicationLog, AFifoThatNothingReadsIsNoLog) {
  ASSERT_EQ(0, mkfifo((directory.path() + "/data/trace.log").c_str(), 0600));
  application->Set(Config_log_file, "trace.log");
  application->ProcessLogSettings();
  EXPECT_NE(0, application->logsuppressed());
}

// The log is a file of the data directory, like those of scripts.
TEST_F(ApplicationLog, ItCannotLeaveTheDataDirectory) {
  for (const std::string& name : {std::string("../trace.log"), directory.path() + "/trace.log"}) {
    SCOPED_TRACE(name);
    auto other = Make();
    other->Set(Config_log_file, name.c_str()).ProcessLogSettings();
    Write(*other, Log_Trace, {});
    EXPECT_NE(access((directory.path() + "/trace.log").c_str(), F_OK), 0);
  }
}

TEST_F(ApplicationLog, TheFilterIsTakenFromTheSettings) {
  application->Set(Config_log_file, "trace.log")
      .Set(Config_log_filter, "a.zp:10-20, !a.zp:15")
      .ProcessLogSettings();
  EXPECT_EQ(application->logincludes()->Entries(), 1);
  EXPECT_EQ(application->logexcludes()->Entries(), 1);
  auto empty = Make();
  empty->Set(Config_log_file, "trace.log").Set(Config_log_filter, "  ").ProcessLogSettings();
  EXPECT_EQ(empty->logincludes()->Entries(), 0);
  EXPECT_EQ(empty->logexcludes()->Entries(), 0);
}

TEST_F(ApplicationLog, TheCookieHasToBeExactlyTheSettings) {
  const struct {
    const char* setting;
    const char* cookies;
    bool suppressed;
  } cases[] = {
      {"secret", nullptr, true},
      {"secret", "", true},
      {"secret", "zephlogcookie=secret", false},
      {"secret", "zephlogcookie=secret; other=1", false},
      {"secret", "other=1; zephlogcookie=secret", false},
      {"secret", "zephlogcookie=secrets", true},
      {"secret", "zephlogcookie=secre", true},
      {"secret", "zephlogcookie=SECRET", true},
      {"secret", "zephlogcookie=secret ; other=1", true},
      {"secret", "zephlogcookie=", true},
      {"secret", "zephlogcookie", true},
      {"secret", "Zephlogcookie=secret", true},
      {"secret", "zephlogcookie=x; zephlogcookie=secret", true},
      {"secret", "myzephlogcookie=secret", false},  // found anywhere in the text
      {"", nullptr, false},
      {"", "zephlogcookie=x", false},
      {nullptr, "zephlogcookie=x", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.setting ? c.setting : "-") + " " + (c.cookies ? c.cookies : "-"));
    auto other = Make();
    other->Set(Config_log_file, "trace.log");
    if (c.setting) other->Set(Config_log_cookie, c.setting);
    other->SetCookies(c.cookies);
    other->ProcessLogSettings();
    EXPECT_EQ(other->logsuppressed(), c.suppressed);
  }
}

// Eight threads, each with its own application, as in requests.
TEST_F(ApplicationLog, ManyThreadsLeaveWholeLines) {
  const int kThreads = 8;
  const int kRecords = 500;
  const auto padding = [](int thread, int i) {
    return std::string(static_cast<size_t>((thread * 131 + i * 17) % 9000),
                       static_cast<char>('a' + thread));
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([this, t, &padding] {
      auto mine = Make(t);
      mine->Set(Config_log_file, "trace.log").ProcessLogSettings();
      for (int i = 0; i < kRecords; i++) {
        const std::string text = padding(t, i);
        Write(*mine, Log_Trace,
              {LogParameter::OfInteger(t), LogParameter::OfInteger(i),
               LogParameter::OfText(text.data(), static_cast<int>(text.size()))});
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::istringstream text(LogText());
  std::vector<int> next(kThreads, 0);
  std::string line;
  while (std::getline(text, line)) {
    std::vector<std::string> fields;
    std::istringstream split(line + "\t");
    for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
    ASSERT_EQ(fields.size(), 6u) << line.substr(0, 200);
    const int thread = std::stoi(fields[3]);
    ASSERT_LT(thread, kThreads);
    EXPECT_EQ(fields[1], std::to_string(getpid()) + "." + std::to_string(thread));
    EXPECT_EQ(fields[2], "Trace");
    ASSERT_EQ(std::stoi(fields[4]), next[static_cast<size_t>(thread)]++) << "in their order";
    ASSERT_EQ(fields[5], padding(thread, std::stoi(fields[4])));
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kRecords));
}

}  // namespace

// What all hosts of scripts on this system have in common.

#include "base/systems/unix/UNIXApplication.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include "base/host/Config.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/RecordingOutput.h"

namespace {

class Host : public UNIXApplication {
 public:
  Host(int argc, char** argv, int copied_argc, char** copied_argv)
      : UNIXApplication(argc, argv, copied_argc, copied_argv, nullptr) {
    Prepare();
  }
  Host() : UNIXApplication(0, nullptr, 0, nullptr, nullptr) { Prepare(); }
  // The copy of a background task.
  explicit Host(Host& other) : UNIXApplication(other) {}

  void SetCookies(const char* text) { cookie.reset(zeph_strdup(text)); }

 private:
  void Prepare() {
    configuration = new Config;
    file_manager = new UNIXReentrantFileManager(this);
  }
};

TEST(UNIXApplication, IsNamedByItsArguments) {
  char title[] = "zeph: request 5";
  char program[] = "/usr/lib/zeph/engine";
  char plain[] = "engine";
  char* arguments[] = {title};
  char* copied[] = {program};
  char* copied_plain[] = {plain};
  Host host(1, arguments, 1, copied);
  EXPECT_STREQ(host.process_name(), "zeph: request 5");
  EXPECT_STREQ(host.basename(), "engine");
  EXPECT_STREQ(Host(1, arguments, 1, copied_plain).basename(), "engine");
  Host nameless;
  EXPECT_STREQ(nameless.process_name(), "");
  EXPECT_STREQ(nameless.basename(), "");
}

TEST(UNIXApplication, UserIsTheNumberOfTheEffectiveOne) {
  Host host;
  EXPECT_EQ(host.GetUserID(), std::to_string(geteuid()));
  EXPECT_EQ(host.GetUserID(), host.GetUserID()) << "the text is kept";
}

TEST(UNIXApplication, LocksExpireByTheSetting) {
  Host host;
  EXPECT_EQ(host.lockexpiration(), 90);
  host.config()->SetValue_Integer(Config_lock_expiration, 7);
  EXPECT_EQ(host.lockexpiration(), 7);
}

// Known from other systems.
TEST(UNIXApplication, HashesOnePasswordAfterAnother) {
  Host host;
  for (int i = 0; i < 3; i++) {
    int length, size;
    const std::unique_ptr<char[]> hash(host.Crypt("password", 8, "ab", &length, &size));
    EXPECT_STREQ(hash.get(), "abJnggxhB/yWI");
    EXPECT_EQ(length, 13);
    EXPECT_EQ(size, 14);
  }
}

TEST(UNIXApplication, AnotherOutputTakesTheFlags) {
  Host host;
  RecordingOutput first, second;
  first.SetFlags(Output::CompressFull);
  EXPECT_EQ(host.SetOutput(&first), nullptr);
  EXPECT_EQ(host.SetOutput(&second), &first);
  EXPECT_EQ(second.flags(), Output::CompressFull);
  EXPECT_EQ(host.output(), &second);
  EXPECT_EQ(host.SetOutput(nullptr), &second);
}

TEST(UNIXApplication, DaylightSavingIsAnHourToTheEast) {
  const char* const before = getenv("TZ");
  const std::string kept = before ? before : "";
  const struct {
    const char* zone;
    const char* suffix;
  } cases[] = {
      // Daylight saving on every day of the year.
      {"XST5XDT,0/0,J365/25", " -0400"},
      {"XST-1XDT,0/0,J365/25", " +0200"},
      {"XST0XDT,0/0,J365/25", " +0100"},
      {"XST1XDT,0/0,J365/25", " -0000"},
      {"XST5", " -0500"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.zone);
    setenv("TZ", c.zone, 1);
    tzset();
    Host host;
    const String date = host.currentdate();
    EXPECT_STREQ(date.data + date.length - 6, c.suffix);
  }
  if (before) {
    setenv("TZ", kept.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

// The task writes to the log if the client of the request that began it does.
TEST(UNIXApplication, ATaskHasTheCookiesOfItsRequest) {
  for (const char* value : {"me", "other"}) {
    SCOPED_TRACE(value);
    Host host;
    host.SetCookies("a=b; zephlogcookie=me");
    Host task(host);
    task.ProcessLogCookie(value);
    EXPECT_EQ(task.logsuppressed() != 0, std::string(value) != "me");
  }
}

// A host makes the network manager of its requests; a task has one of its own.
TEST(UNIXApplication, ATaskHasANetworkManager) {
  Host host;
  EXPECT_EQ(host.networkmanager(), nullptr);
  Host task(host);
  EXPECT_NE(task.networkmanager(), nullptr);
}

}  // namespace

#include "base/core/zptime.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "gtest/gtest.h"

namespace {

// Sets the zone of the process and restores it at the end.
class Zone {
 public:
  explicit Zone(const char* name) {
    const char* old = getenv("TZ");
    if (old) before = old;
    had_one = old != nullptr;
    setenv("TZ", name, 1);
    tzset();
  }
  ~Zone() {
    if (had_one) {
      setenv("TZ", before.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  std::string before;
  bool had_one;
};

constexpr const char* kZones[] = {
    "UTC0",     "EST5EDT,M3.2.0,M11.1.0",      "CET-1CEST,M3.5.0,M10.5.0/3",
    "IST-5:30", "NZST-12NZDT,M9.5.0,M4.1.0/3", "LHST-10:30LHDT-11,M10.1.0,M4.1.0",
};

TEST(ZPTime, DateReadAsUTCDoesNotDependOnTheZone) {
  const struct {
    int fields[6];
    time_t expected;
  } cases[] = {
      {{1970, 1, 1, 0, 0, 0}, 0},
      {{2000, 2, 29, 12, 30, 45}, 951827445},
      {{2024, 1, 15, 6, 0, 0}, 1705298400},
      {{2024, 7, 15, 6, 0, 0}, 1721023200},
      {{2038, 1, 19, 3, 14, 8}, 2147483648},
      {{1960, 6, 1, 0, 0, 0}, -302486400},
  };
  for (const char* zone : kZones) {
    Zone set(zone);
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(zone) + ' ' + std::to_string(c.expected));
      const int(&f)[6] = c.fields;
      EXPECT_EQ(zp_to_time_t(f[0], f[1], f[2], f[3], f[4], f[5]), c.expected);
    }
  }
}

// London's clocks were an hour ahead all through 1970, but that did not count as daylight saving.
TEST(ZPTime, DateReadAsUTCTakesTheOffsetOfItsDay) {
  if (!std::filesystem::exists("/usr/share/zoneinfo/Europe/London")) GTEST_SKIP();
  Zone set("Europe/London");
  EXPECT_EQ(zp_to_time_t(1970, 1, 1, 0, 0, 0), 0);
  EXPECT_EQ(zp_mktime_t(1970, 1, 1, 0, 0, 0), -3600);
}

TEST(ZPTime, DateReadAsLocalTimeGivesTheZonesOffset) {
  const time_t expected[] = {0, 18000, -3600, -19800, -46800, -39600};
  for (int i = 0; i < 6; ++i) {
    SCOPED_TRACE(kZones[i]);
    Zone set(kZones[i]);
    EXPECT_EQ(zp_mktime_t(1970, 1, 1, 0, 0, 0), expected[i]);
  }
}

TEST(ZPTime, LocalTimeFindsOutAboutDaylightSaving) {
  Zone set("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(zp_mktime_t(2024, 1, 15, 12, 0, 0), 1705316400);
  EXPECT_EQ(zp_mktime_t(2024, 7, 15, 12, 0, 0), 1721037600);
}

TEST(ZPTime, FieldsOutOfRangeAreNormalised) {
  Zone set("UTC0");
  EXPECT_EQ(zp_to_time_t(2023, 13, 1, 0, 0, 0), zp_to_time_t(2024, 1, 1, 0, 0, 0));
  EXPECT_EQ(zp_to_time_t(2024, 1, 32, 0, 0, 0), zp_to_time_t(2024, 2, 1, 0, 0, 0));
  EXPECT_EQ(zp_to_time_t(2024, 1, 1, 0, 0, -1), zp_to_time_t(2023, 12, 31, 23, 59, 59));
  EXPECT_EQ(zp_mktime_t(2024, 0, 1, 25, 60, 60), zp_mktime_t(2023, 12, 2, 2, 1, 0));
}

TEST(ZPTime, SecondBeforeTheEpochInLocalTimeCountsAsAFailure) {
  Zone set("EST5");
  EXPECT_EQ(zp_to_time_t(1969, 12, 31, 18, 59, 59), -1);
  EXPECT_EQ(zp_to_time_t(1969, 12, 31, 18, 59, 58), -18002);
}

TEST(ZPTime, ExtremeFieldsAreSafe) {
  Zone set("UTC0");
  zp_to_time_t(INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN);
  zp_mktime_t(INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX);
  EXPECT_GT(zp_to_time_t(INT32_MAX, 1, 1, 0, 0, 0), 0);
}

TEST(ZPTime, PresentMomentIsBrokenDownInLocalTime) {
  for (const char* zone : kZones) {
    SCOPED_TRACE(zone);
    Zone set(zone);
    time_t before = time(nullptr);
    ZPTIME now;
    zp_gettimevalues(&now);
    EXPECT_GE(now.seconds, before);
    EXPECT_LE(now.seconds, time(nullptr));
    EXPECT_GE(now.microseconds, 0);
    EXPECT_LT(now.microseconds, 1000000);
    struct tm local;
    localtime_r(&now.seconds, &local);
    EXPECT_EQ(now.second, local.tm_sec);
    EXPECT_EQ(now.minute, local.tm_min);
    EXPECT_EQ(now.hour, local.tm_hour);
    EXPECT_EQ(now.day, local.tm_mday);
    EXPECT_EQ(now.month, local.tm_mon + 1);
    EXPECT_EQ(now.year, local.tm_year + 1900);
    EXPECT_EQ(now.weekday, local.tm_wday + 1);
    EXPECT_EQ(now.yearday, local.tm_yday + 1);
    EXPECT_EQ(now.dst, local.tm_isdst);
    char names[32];
    strftime(names, sizeof names, "%a %b %Z", &local);
    EXPECT_EQ(std::string(now.weekday_name) + ' ' + now.month_name + ' ' + now.zone_name, names);
  }
}

// A zone that has daylight saving all year, and one that has none.
TEST(ZPTime, ZoneNameFollowsDaylightSaving) {
  ZPTIME now;
  {
    Zone set("AAA3BBB,0/0,J365/25");
    zp_gettimevalues(&now);
    EXPECT_GT(now.dst, 0);
    EXPECT_STREQ(now.zone_name, "BBB");
  }
  Zone set("AAA3");
  zp_gettimevalues(&now);
  EXPECT_EQ(now.dst, 0);
  EXPECT_STREQ(now.zone_name, "AAA");
}

// Another thread's local time in 1970, when "BST" was the name of London's standard time.
TEST(ZPTime, ZoneNameIsThatOfTheMomentWhateverOtherThreadsDo) {
  if (!std::filesystem::exists("/usr/share/zoneinfo/Europe/London")) GTEST_SKIP();
  Zone set("Europe/London");
  ZPTIME values;
  zp_settimevalues(&values, {0, 0});
  EXPECT_STREQ(values.zone_name, "BST");
  EXPECT_EQ(values.dst, 0);
  std::atomic<bool> stop{false};
  std::thread other([&stop] {
    while (!stop) {
      const time_t epoch = 0;
      struct tm local;
      localtime_r(&epoch, &local);
    }
  });
  for (int i = 0; i < 100'000 && !HasFailure(); i++) {
    zp_settimevalues(&values, {1705316400, 0});
    EXPECT_STREQ(values.zone_name, "GMT") << "after " << i;
  }
  stop = true;
  other.join();
}

TEST(ZPTime, YearOutOfRangeIsSafe) {
  ZPTIME values;
  zp_settimevalues(&values, {INT64_MAX, 0});
  EXPECT_NE(values.zone_name, nullptr);
}

}  // namespace

// The clock and the calendar. Tested in tests/base/core/ZPTimeTest.cpp.

#include "base/core/zptime.h"

namespace {

constexpr const char* kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr const char* kWeekdays[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

// Broken-down time for mktime, which sets the other fields and decides by itself whether daylight
// saving applies.
struct tm BrokenDown(int year, int month, int day, int hour, int minute, int second) {
  struct tm fields = {};
  fields.tm_sec = second;
  fields.tm_min = minute;
  fields.tm_hour = hour;
  fields.tm_mday = day;
  fields.tm_mon = month - 1;
  fields.tm_year = year - 1900;
  fields.tm_isdst = -1;
  return fields;
}

}  // namespace

void zp_gettimevalues(ZPTIME* values) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  zp_settimevalues(values, now);
}

void zp_settimevalues(ZPTIME* values, const struct timeval& moment) {
  struct tm local = {};
  local.tm_zone = "";  // for a year that is out of range
  localtime_r(&moment.tv_sec, &local);
  values->seconds = moment.tv_sec;
  values->microseconds = moment.tv_usec;
  values->second = local.tm_sec;
  values->minute = local.tm_min;
  values->hour = local.tm_hour;
  values->day = local.tm_mday;
  values->month = local.tm_mon + 1;
  values->month_name = kMonths[local.tm_mon];
  values->year = local.tm_year + 1900;
  values->weekday = local.tm_wday + 1;
  values->weekday_name = kWeekdays[local.tm_wday];
  values->yearday = local.tm_yday + 1;
  values->dst = local.tm_isdst;
  // Not tzname, which each call of localtime_r in any thread sets to the names of its own moment.
  // The text is never freed.
  values->zone_name = local.tm_zone;
}

time_t zp_to_time_t(int year, int month, int day, int hour, int minute, int second) {
  struct tm fields = BrokenDown(year, month, day, hour, minute, second);
  time_t local = mktime(&fields);
  // The offset at that date, not the zone's current one, because zones have changed theirs.
  return local == -1 ? -1 : local + fields.tm_gmtoff;
}

time_t zp_mktime_t(int year, int month, int day, int hour, int minute, int second) {
  struct tm fields = BrokenDown(year, month, day, hour, minute, second);
  return mktime(&fields);
}

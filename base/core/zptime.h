// The clock and the calendar as scripts see them: months and weekdays from 1, full years, names.

#ifndef ZEPH_BASE_ZPTIME_H
#define ZEPH_BASE_ZPTIME_H

#include <sys/time.h>

#include <ctime>

// One moment in local time. The texts are static and not owned. The order of the fields is fixed.
struct ZPTIME {
  time_t seconds;            // since the epoch
  long microseconds;         // 0 to 999999
  int second;                // 0 to 60
  int minute;                // 0 to 59
  int hour;                  // 0 to 23
  int day;                   // of the month, from 1
  int month;                 // 1 to 12
  const char* month_name;    // three letters, "Jan"
  int year;                  // in full
  int weekday;               // 1 to 7, Sunday is 1
  const char* weekday_name;  // three letters, "Sun"
  int yearday;               // 1 to 366
  int dst;                   // positive in daylight saving time
  const char* zone_name;     // the zone's abbreviation, of its standard or its daylight saving time
};

// Fills in the current time, or that moment.
void zp_gettimevalues(ZPTIME* values);
void zp_settimevalues(ZPTIME* values, const struct timeval& moment);

// The seconds since the epoch of a date and a time of day; zp_to_time_t reads them as UTC,
// zp_mktime_t as local time. Months count from 1. Nothing is range-checked: the 32nd is the 1st of
// the next month. -1 for a date that cannot be represented. zp_to_time_t converts through local
// time too, so a time of day that daylight saving skips in the local zone is moved by the skipped
// time.
time_t zp_to_time_t(int year, int month, int day, int hour, int minute, int second);
time_t zp_mktime_t(int year, int month, int day, int hour, int minute, int second);

#endif

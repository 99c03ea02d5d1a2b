// Days and times of the Gregorian calendar, which counts before its beginning, too. Years are -9999
// to 9999. Tested in tests/extensions/zephstd/TimeTest.cpp.

#ifndef ZEPH_EXTENSIONS_ZEPHSTD_CALENDAR_H
#define ZEPH_EXTENSIONS_ZEPHSTD_CALENDAR_H

namespace zephstd {

inline constexpr long long kDay = 86400;
// The first second of the year -9999, and the last one of 9999.
inline constexpr long long kFirstSecond = -377705116800;
inline constexpr long long kLastSecond = 253402300799;

// The fields of a time, of no zone.
struct Fields {
  long long year = 1970;
  int month = 1;  // 1 to 12
  int day = 1;    // from 1
  int hour = 0, minute = 0, second = 0;
};

constexpr bool IsLeapYear(long long year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

constexpr int DaysInMonth(long long year, int month) {
  return month == 2 ? 28 + IsLeapYear(year) : 30 + ((month + (month > 7)) & 1);
}

// Division that rounds down, and what it leaves.
constexpr long long FloorDivide(long long value, long long by) {
  return value / by - (value % by < 0);
}
constexpr long long FloorModulo(long long value, long long by) {
  return value - FloorDivide(value, by) * by;
}

// The day counted from 1970-01-01.
constexpr long long DayNumber(long long year, int month, int day) {
  // Years that begin in March have their leap day at the end.
  const long long of = month <= 2 ? year - 1 : year;
  const long long era = FloorDivide(of, 400);
  const long long year_of_era = of - era * 400;
  const long long day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const long long day_of_era =
      year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + day_of_era - 719468;
}

constexpr Fields FieldsOf(long long seconds) {
  const long long days = FloorDivide(seconds, kDay) + 719468;
  const auto rest = static_cast<int>(FloorModulo(seconds, kDay));
  const long long era = FloorDivide(days, 146097);
  const long long day_of_era = days - era * 146097;
  const long long year_of_era =
      (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  const long long day_of_year =
      day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const auto shifted = static_cast<int>((5 * day_of_year + 2) / 153);
  Fields fields;
  fields.day = static_cast<int>(day_of_year - (153 * shifted + 2) / 5 + 1);
  fields.month = shifted < 10 ? shifted + 3 : shifted - 9;
  fields.year = year_of_era + era * 400 + (fields.month <= 2);
  fields.hour = rest / 3600;
  fields.minute = rest / 60 % 60;
  fields.second = rest % 60;
  return fields;
}

constexpr long long SecondsOf(const Fields& fields) {
  return DayNumber(fields.year, fields.month, fields.day) * kDay + fields.hour * 3600 +
         fields.minute * 60 + fields.second;
}

// 1 for Monday to 7.
constexpr int WeekdayOf(long long day_number) {
  return static_cast<int>(FloorModulo(day_number + 3, 7)) + 1;
}

// The day of the year, from 1.
constexpr int YeardayOf(const Fields& fields) {
  return static_cast<int>(DayNumber(fields.year, fields.month, fields.day) -
                          DayNumber(fields.year, 1, 1)) +
         1;
}

// The week of ISO 8601, and the year that it belongs to: that of its Thursday.
struct Week {
  long long year;
  int week;
};
constexpr Week WeekOf(const Fields& fields) {
  const long long day = DayNumber(fields.year, fields.month, fields.day);
  const Fields thursday = FieldsOf((day - WeekdayOf(day) + 4) * kDay);
  return {thursday.year, (YeardayOf(thursday) - 1) / 7 + 1};
}

static_assert(DayNumber(1970, 1, 1) == 0);
static_assert(DayNumber(-9999, 1, 1) * kDay == kFirstSecond);
static_assert(DayNumber(10000, 1, 1) * kDay == kLastSecond + 1);

}  // namespace zephstd

#endif

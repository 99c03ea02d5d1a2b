// Functions for date and time. Tested in tests/extensions/zephstd/TimeTest.cpp.

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "extensions/zephstd/Calendar.h"
#include "extensions/zephstd/Call.h"
#include "extensions/zephstd/Zone.h"

namespace zephstd {

namespace {

constexpr const char* kMonths[] = {"January",   "February", "March",    "April",
                                   "May",       "June",     "July",     "August",
                                   "September", "October",  "November", "December"};
constexpr const char* kWeekdays[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                     "Thursday", "Friday", "Saturday"};
constexpr size_t kLongestPattern = 4096;

// --- Arguments -----------------------------------------------------------------------------------

bool InRange(long long seconds) {
  return seconds >= kFirstSecond && seconds <= kLastSecond;
}

// The whole seconds of an argument. False if the script has its error.
bool ReadTime(Call& call, int i, long long* seconds) {
  const double value = std::floor(call.number(i));
  if (!(value >= static_cast<double>(kFirstSecond) && value <= static_cast<double>(kLastSecond))) {
    return call.Fail(i, "is beyond the years -9999 to 9999");
  }
  *seconds = static_cast<long long>(value);
  return true;
}

bool ReadZone(Call& call, int i, const Zone** zone) {
  *zone = Zone::Find(call.text(i));
  if (*zone != nullptr) return true;
  return call.Fail(i, "is no known time zone", call.text(i));
}

bool ReturnTime(Call& call, long long seconds) {
  if (!InRange(seconds)) return call.Fail("the result is beyond the years -9999 to 9999");
  call.ReturnInteger(seconds);
  return true;
}

enum class Unit { Second, Minute, Hour, Day, Week, Month, Year };

bool ReadUnit(Call& call, int i, Unit* unit) {
  static constexpr std::string_view kUnits[] = {"second", "minute", "hour", "day",
                                                "week",   "month",  "year"};
  std::string_view text = call.text(i);
  if (text.ends_with('s')) text.remove_suffix(1);
  for (size_t n = 0; n < std::size(kUnits); n++) {
    if (text == kUnits[n]) {
      *unit = static_cast<Unit>(n);
      return true;
    }
  }
  return call.Fail(i, "is no unit of time");
}

// --- Writing -------------------------------------------------------------------------------------

// A time in a zone.
struct Local {
  long long seconds;
  Fields fields;
  Zone::Period period;
};

Local InZone(long long seconds, const Zone& zone) {
  const Zone::Period period = zone.At(seconds);
  return {seconds, FieldsOf(seconds + period.offset), period};
}

void AddPadded(Builder* to, long long value, size_t width, char with = '0') {
  char text[24];
  const auto size = static_cast<unsigned long long>(value < 0 ? -value : value);
  const auto length = static_cast<size_t>(std::to_chars(text, text + sizeof text, size).ptr - text);
  if (value < 0) to->Add('-');
  if (length < width) to->Add(width - length, with);
  to->Add({text, length});
}

void AddOffset(Builder* to, int offset, bool colon) {
  to->Add(offset < 0 ? '-' : '+');
  const int size = std::abs(offset);
  AddPadded(to, size / 3600, 2);
  if (colon) to->Add(':');
  AddPadded(to, size / 60 % 60, 2);
  if (size % 60 != 0) {
    if (colon) to->Add(':');
    AddPadded(to, size % 60, 2);
  }
}

// The longer pattern that a letter after % means; empty for one that is not of this kind.
std::string_view Expansion(char c) {
  switch (c) {
    case 'F': return "%Y-%m-%d";
    case 'T': return "%H:%M:%S";
    case 'R': return "%H:%M";
    case 'D': return "%m/%d/%y";
    default: return {};
  }
}

bool Write(std::string_view pattern, const Local& time, Builder* to);

bool WriteField(char c, const Local& time, Builder* to) {
  const Fields& fields = time.fields;
  const long long day = DayNumber(fields.year, fields.month, fields.day);
  const int weekday = WeekdayOf(day);
  const int hour = (fields.hour + 11) % 12 + 1;
  switch (c) {
    case 'Y': AddPadded(to, fields.year, 4); break;
    case 'y': AddPadded(to, FloorModulo(fields.year, 100), 2); break;
    case 'm': AddPadded(to, fields.month, 2); break;
    case 'd': AddPadded(to, fields.day, 2); break;
    case 'e': AddPadded(to, fields.day, 2, ' '); break;
    case 'H': AddPadded(to, fields.hour, 2); break;
    case 'I': AddPadded(to, hour, 2); break;
    case 'M': AddPadded(to, fields.minute, 2); break;
    case 'S': AddPadded(to, fields.second, 2); break;
    case 'p': to->Add(fields.hour < 12 ? "AM" : "PM"); break;
    case 'j': AddPadded(to, YeardayOf(fields), 3); break;
    case 'a': to->Add(std::string_view(kWeekdays[weekday % 7], 3)); break;
    case 'A': to->Add(kWeekdays[weekday % 7]); break;
    case 'b':
    case 'h': to->Add(std::string_view(kMonths[fields.month - 1], 3)); break;
    case 'B': to->Add(kMonths[fields.month - 1]); break;
    case 'u': AddPadded(to, weekday, 1); break;
    case 'w': AddPadded(to, weekday % 7, 1); break;
    case 'G': AddPadded(to, WeekOf(fields).year, 4); break;
    case 'V': AddPadded(to, WeekOf(fields).week, 2); break;
    case 's': AddPadded(to, time.seconds, 1); break;
    case 'z': AddOffset(to, time.period.offset, false); break;
    case 'Z': to->Add(time.period.name); break;
    case 'n': to->Add('\n'); break;
    case 't': to->Add('\t'); break;
    case '%': to->Add('%'); break;
    default: return !Expansion(c).empty() && Write(Expansion(c), time, to);
  }
  return true;
}

// False for a letter that is none.
bool Write(std::string_view pattern, const Local& time, Builder* to) {
  for (size_t i = 0; i < pattern.size(); i++) {
    if (pattern[i] != '%') {
      to->Add(pattern[i]);
    } else if (pattern.substr(i).starts_with("%:z")) {
      AddOffset(to, time.period.offset, true);
      i += 2;
    } else if (++i == pattern.size() || !WriteField(pattern[i], time, to)) {
      return false;
    }
  }
  return true;
}

// --- Reading -------------------------------------------------------------------------------------

// A text that is read by a pattern, and what it has said so far.
struct Reader {
  std::string_view rest;
  Fields fields;
  int yearday = 0;  // 0 if it is not given
  int half = -1;    // 1 after noon
  bool has_hour12 = false;
  bool has_offset = false;
  int offset = 0;
  bool has_seconds = false;
  long long seconds = 0;
};

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsBlank(char c) {
  return c == ' ' || (c >= 9 && c <= 13);
}

void SkipBlanks(std::string_view* text) {
  while (!text->empty() && IsBlank((*text)[0])) text->remove_prefix(1);
}

bool TakeNumber(std::string_view* text, size_t digits, long long least, long long most,
                long long* number) {
  size_t end = 0;
  *number = 0;
  while (end < digits && end < text->size() && IsDigit((*text)[end])) {
    *number = *number * 10 + ((*text)[end++] - '0');
  }
  text->remove_prefix(end);
  return end > 0 && *number >= least && *number <= most;
}

bool TakeInt(std::string_view* text, size_t digits, int least, int most, int* number) {
  long long value = 0;
  if (!TakeNumber(text, digits, least, most, &value)) return false;
  *number = static_cast<int>(value);
  return true;
}

bool StartsWith(std::string_view text, std::string_view with) {
  if (text.size() < with.size()) return false;
  for (size_t i = 0; i < with.size(); i++) {
    if ((text[i] | 0x20) != (with[i] | 0x20)) return false;
  }
  return true;
}

// One of several names, whole or its first three letters, in any case; its index or -1.
template <size_t N>
int TakeName(std::string_view* text, const char* const (&names)[N]) {
  for (size_t i = 0; i < N; i++) {
    const std::string_view name = names[i];
    for (const size_t length : {name.size(), size_t{3}}) {
      if (StartsWith(*text, name.substr(0, length))) {
        text->remove_prefix(length);
        return static_cast<int>(i);
      }
    }
  }
  return -1;
}

bool TakeChar(std::string_view* text, char c) {
  if (!text->starts_with(c)) return false;
  text->remove_prefix(1);
  return true;
}

// "Z", "+01", "+0100" or "+01:00".
bool TakeOffset(std::string_view* text, int* offset) {
  *offset = 0;
  if (TakeChar(text, 'Z') || TakeChar(text, 'z')) return true;
  const bool negative = text->starts_with('-');
  if (!negative && !text->starts_with('+')) return false;
  text->remove_prefix(1);
  int hours = 0, minutes = 0;
  const size_t before = text->size();
  if (!TakeInt(text, 2, 0, 23, &hours) || before - text->size() != 2) return false;
  if (TakeChar(text, ':') || (!text->empty() && IsDigit((*text)[0]))) {
    const size_t left = text->size();
    if (!TakeInt(text, 2, 0, 59, &minutes) || left - text->size() != 2) return false;
  }
  *offset = (hours * 3600 + minutes * 60) * (negative ? -1 : 1);
  return true;
}

enum class Match { Yes, No, Unknown };

Match Read(std::string_view pattern, Reader* reader);

Match Matches(bool condition) {
  return condition ? Match::Yes : Match::No;
}

Match ReadYear(Reader* reader, size_t digits) {
  const bool negative = digits == 4 && TakeChar(&reader->rest, '-');
  long long year = 0;
  if (!TakeNumber(&reader->rest, digits, 0, 9999, &year)) return Match::No;
  if (digits == 2) year += year < 69 ? 2000 : 1900;
  reader->fields.year = negative ? -year : year;
  return Match::Yes;
}

Match ReadField(char c, Reader* reader) {
  std::string_view* const rest = &reader->rest;
  Fields* const fields = &reader->fields;
  int number = 0;
  switch (c) {
    case 'Y': return ReadYear(reader, 4);
    case 'y': return ReadYear(reader, 2);
    case 'm': return Matches(TakeInt(rest, 2, 1, 12, &fields->month));
    case 'e': SkipBlanks(rest); [[fallthrough]];
    case 'd': return Matches(TakeInt(rest, 2, 1, 31, &fields->day));
    case 'H': return Matches(TakeInt(rest, 2, 0, 23, &fields->hour));
    case 'I': reader->has_hour12 = true; return Matches(TakeInt(rest, 2, 1, 12, &fields->hour));
    case 'M': return Matches(TakeInt(rest, 2, 0, 59, &fields->minute));
    // 60 is a leap second: the next minute.
    case 'S': return Matches(TakeInt(rest, 2, 0, 60, &fields->second));
    case 'p':
      reader->half = StartsWith(*rest, "pm") ? 1 : 0;
      if (reader->half == 0 && !StartsWith(*rest, "am")) return Match::No;
      rest->remove_prefix(2);
      return Match::Yes;
    case 'j': return Matches(TakeInt(rest, 3, 1, 366, &reader->yearday));
    case 'a':
    case 'A': return Matches(TakeName(rest, kWeekdays) >= 0);
    case 'b':
    case 'h':
    case 'B':
      number = TakeName(rest, kMonths);
      if (number < 0) return Match::No;
      fields->month = number + 1;
      return Match::Yes;
    case 'u': return Matches(TakeInt(rest, 1, 1, 7, &number));
    case 'w': return Matches(TakeInt(rest, 1, 0, 6, &number));
    case 's': {
      const bool negative = TakeChar(rest, '-');
      reader->has_seconds = true;
      if (!TakeNumber(rest, 12, 0, kLastSecond - kFirstSecond, &reader->seconds)) return Match::No;
      if (negative) reader->seconds = -reader->seconds;
      return Match::Yes;
    }
    case 'z': reader->has_offset = true; return Matches(TakeOffset(rest, &reader->offset));
    case 'n':
    case 't': SkipBlanks(rest); return Match::Yes;
    case '%': return Matches(TakeChar(rest, '%'));
    default: return Expansion(c).empty() ? Match::Unknown : Read(Expansion(c), reader);
  }
}

// Unknown is for a pattern that cannot be read; then it does not matter whether the text fits.
Match Read(std::string_view pattern, Reader* reader) {
  Match result = Match::Yes;
  for (size_t i = 0; i < pattern.size(); i++) {
    Match match = Match::Yes;
    if (IsBlank(pattern[i])) {
      SkipBlanks(&reader->rest);
    } else if (pattern[i] != '%') {
      match = Matches(TakeChar(&reader->rest, pattern[i]));
    } else {
      if (pattern.substr(i).starts_with("%:z")) i++;
      if (++i == pattern.size()) return Match::Unknown;
      match = ReadField(pattern[i], reader);
    }
    if (match == Match::Unknown) return match;
    if (match == Match::No) result = match;
  }
  return result;
}

// The time that a reader has found; false if there is no such day.
bool TimeOf(const Reader& reader, const Zone& zone, long long* seconds) {
  if (reader.has_seconds) {
    *seconds = reader.seconds;
    return InRange(*seconds);
  }
  Fields fields = reader.fields;
  if (reader.yearday > 0) {
    if (reader.yearday == 366 && !IsLeapYear(fields.year)) return false;
    const Fields day = FieldsOf((DayNumber(fields.year, 1, 1) + reader.yearday - 1) * kDay);
    fields.month = day.month;
    fields.day = day.day;
  }
  if (fields.day > DaysInMonth(fields.year, fields.month)) return false;
  if (reader.has_hour12 && reader.half >= 0) {
    fields.hour = fields.hour % 12 + 12 * reader.half;
  }
  const long long local = SecondsOf(fields);
  *seconds = reader.has_offset ? local - reader.offset : zone.FromLocal(local);
  return InRange(*seconds);
}

// --- Steps ---------------------------------------------------------------------------------------

// So many months later, at the same time of day of the zone.
long long AddMonths(const Local& from, long long months, const Zone& zone) {
  Fields fields = from.fields;
  // More than there are in all years are too many, whatever their number.
  constexpr long long kMostMonths = 12LL * 20000;
  const long long month =
      fields.year * 12 + fields.month - 1 + std::clamp(months, -kMostMonths, kMostMonths);
  fields.year = FloorDivide(month, 12);
  fields.month = static_cast<int>(FloorModulo(month, 12)) + 1;
  fields.day = std::min(fields.day, DaysInMonth(fields.year, fields.month));
  return zone.FromLocal(SecondsOf(fields));
}

// The times that functions take and return span less than so many seconds, so that no step past
// them overflows.
constexpr long long kMostSteps = kLastSecond - kFirstSecond;

long long AddUnits(long long seconds, long long count, Unit unit, const Zone& zone) {
  count = std::clamp(count, -kMostSteps, kMostSteps);
  const Local from = InZone(seconds, zone);
  switch (unit) {
    case Unit::Second: return seconds + count;
    case Unit::Minute: return seconds + count * 60;
    case Unit::Hour: return seconds + count * 3600;
    case Unit::Day:
    case Unit::Week: {
      const long long days = unit == Unit::Week ? count * 7 : count;
      return count == 0 ? seconds : zone.FromLocal(seconds + from.period.offset + days * kDay);
    }
    case Unit::Month: return count == 0 ? seconds : AddMonths(from, count, zone);
    case Unit::Year: return count == 0 ? seconds : AddMonths(from, count * 12, zone);
  }
  return seconds;
}

// How many whole units the second time is later, which is not earlier than the first.
long long WholeUnits(long long from, long long to, Unit unit, const Zone& zone) {
  const long long distance = to - from;
  long long count = 0;
  switch (unit) {
    case Unit::Second: return distance;
    case Unit::Minute: return distance / 60;
    case Unit::Hour: return distance / 3600;
    // Guesses that are never too small, because days may have 25 hours but not all of them.
    case Unit::Day: count = distance / kDay + 2; break;
    case Unit::Week: count = distance / (7 * kDay) + 2; break;
    case Unit::Month: count = distance / (28 * kDay) + 2; break;
    case Unit::Year: count = distance / (365 * kDay) + 2; break;
  }
  // The largest count that does not go too far.
  long long least = 0;
  while (least < count) {
    const long long middle = least + (count - least + 1) / 2;
    if (AddUnits(from, middle, unit, zone) <= to) {
      least = middle;
    } else {
      count = middle - 1;
    }
  }
  return least;
}

void SetMember(ZPVARIABLE structure, const char* name, long long value) {
  StoreNumber(zpVariable_Struct_Member(name, -1, structure, 1), static_cast<double>(value));
}

// --- ISO 8601 and HTTP ---------------------------------------------------------------------------

// Takes exactly so many digits.
bool TakeDigits(std::string_view* text, size_t digits, int least, int most, int* number) {
  const size_t before = text->size();
  return TakeInt(text, digits, least, most, number) && before - text->size() == digits;
}

// A date and, perhaps, a time of day, with or without separators.
bool ReadISO(std::string_view text, const Zone& zone, long long* seconds) {
  Reader reader;
  Fields* const fields = &reader.fields;
  int year = 0;
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  if (!TakeDigits(&text, 4, 0, 9999, &year)) return false;
  fields->year = negative ? -year : year;
  const bool dashes = TakeChar(&text, '-');
  if (!TakeDigits(&text, 2, 1, 12, &fields->month) || (dashes && !TakeChar(&text, '-')) ||
      !TakeDigits(&text, 2, 1, 31, &fields->day)) {
    return false;
  }
  if (!text.empty()) {
    if (!TakeChar(&text, 'T') && !TakeChar(&text, 't') && !TakeChar(&text, ' ')) return false;
    if (!TakeDigits(&text, 2, 0, 24, &fields->hour)) return false;
    const bool colons = TakeChar(&text, ':');
    if (!TakeDigits(&text, 2, 0, 59, &fields->minute)) return false;
    const bool has_second = colons ? TakeChar(&text, ':') : !text.empty() && IsDigit(text[0]);
    if (has_second) {
      if (!TakeDigits(&text, 2, 0, 60, &fields->second)) return false;
      if (TakeChar(&text, '.') || TakeChar(&text, ',')) {
        if (text.empty() || !IsDigit(text[0])) return false;
        while (!text.empty() && IsDigit(text[0])) text.remove_prefix(1);
      }
    }
    // 24:00 is the end of the day.
    if (fields->hour == 24 && (fields->minute != 0 || fields->second != 0)) return false;
    if (!text.empty()) {
      reader.has_offset = true;
      if (!TakeOffset(&text, &reader.offset) || !text.empty()) return false;
    }
  }
  return TimeOf(reader, zone, seconds);
}

}  // namespace

namespace functions {

void now(Call& call) {
  const auto since = std::chrono::system_clock::now().time_since_epoch();
  call.ReturnInteger(std::chrono::floor<std::chrono::seconds>(since).count());
}

void precisetime(Call& call) {
  const auto since = std::chrono::system_clock::now().time_since_epoch();
  const auto micros = std::chrono::floor<std::chrono::microseconds>(since).count();
  zpVariable_SetValue_Double(call.result(), static_cast<double>(micros) / 1e6);
}

void formattime(Call& call) {
  long long seconds = 0;
  const Zone* zone = nullptr;
  if (!ReadTime(call, 0, &seconds) || !ReadZone(call, 2, &zone)) return;
  if (call.text(1).size() > kLongestPattern) {
    call.Fail(1, "has more than 4096 bytes");
    return;
  }
  Builder to(call);
  if (!Write(call.text(1), InZone(seconds, *zone), &to)) {
    call.Fail(1, "has an unknown letter after %");
    return;
  }
  to.Return();
}

void parsetime(Call& call) {
  const Zone* zone = nullptr;
  if (!ReadZone(call, 2, &zone)) return;
  if (call.text(1).size() > kLongestPattern) {
    call.Fail(1, "has more than 4096 bytes");
    return;
  }
  Reader reader;
  reader.rest = call.text(0);
  const Match match = Read(call.text(1), &reader);
  if (match == Match::Unknown) {
    call.Fail(1, "has a letter after % that cannot be read");
    return;
  }
  long long seconds = 0;
  if (match == Match::Yes && reader.rest.empty() && TimeOf(reader, *zone, &seconds)) {
    call.ReturnInteger(seconds);
  }
}

void timeparts(Call& call) {
  long long seconds = 0;
  const Zone* zone = nullptr;
  if (!ReadTime(call, 0, &seconds) || !ReadZone(call, 1, &zone)) return;
  const Local time = InZone(seconds, *zone);
  const Fields& fields = time.fields;
  const Week week = WeekOf(fields);
  ZPVARIABLE const parts = call.result();
  SetMember(parts, "year", fields.year);
  SetMember(parts, "month", fields.month);
  SetMember(parts, "day", fields.day);
  SetMember(parts, "hour", fields.hour);
  SetMember(parts, "minute", fields.minute);
  SetMember(parts, "second", fields.second);
  SetMember(parts, "weekday", WeekdayOf(DayNumber(fields.year, fields.month, fields.day)));
  SetMember(parts, "yearday", YeardayOf(fields));
  SetMember(parts, "week", week.week);
  SetMember(parts, "weekyear", week.year);
  SetMember(parts, "offset", time.period.offset);
  SetMember(parts, "dst", time.period.dst);
  zpVariable_SetValue(zpVariable_Struct_Member("zone", -1, parts, 1), time.period.name.data(),
                      static_cast<int>(time.period.name.size()));
}

void maketime(Call& call) {
  const Zone* zone = nullptr;
  if (!ReadZone(call, 6, &zone)) return;
  // So that no sum overflows: what is larger is out of range in any case.
  const auto part = [&](int i) { return std::clamp(call.integer(i), -kMostSteps, kMostSteps); };
  const long long month = part(0) * 12 + part(1) - 1;
  const long long year = FloorDivide(month, 12);
  if (year < -100000 || year > 100000) {
    ReturnTime(call, kLastSecond + 1);
    return;
  }
  const long long day =
      DayNumber(year, static_cast<int>(FloorModulo(month, 12)) + 1, 1) + part(2) - 1;
  const long long local = day * kDay + part(3) * 3600 + part(4) * 60 + part(5);
  ReturnTime(call, zone->FromLocal(local));
}

void addtime(Call& call) {
  long long seconds = 0;
  Unit unit;
  const Zone* zone = nullptr;
  if (!ReadTime(call, 0, &seconds) || !ReadUnit(call, 2, &unit) || !ReadZone(call, 3, &zone))
    return;
  ReturnTime(call, AddUnits(seconds, call.integer(1), unit, *zone));
}

void difftime(Call& call) {
  long long from = 0, to = 0;
  Unit unit;
  const Zone* zone = nullptr;
  if (!ReadTime(call, 0, &from) || !ReadTime(call, 1, &to) || !ReadUnit(call, 2, &unit) ||
      !ReadZone(call, 3, &zone)) {
    return;
  }
  call.ReturnInteger(from <= to ? WholeUnits(from, to, unit, *zone)
                                : -WholeUnits(to, from, unit, *zone));
}

void starttime(Call& call) {
  long long seconds = 0;
  Unit unit;
  const Zone* zone = nullptr;
  if (!ReadTime(call, 0, &seconds) || !ReadUnit(call, 1, &unit) || !ReadZone(call, 2, &zone))
    return;
  const Local time = InZone(seconds, *zone);
  if (unit <= Unit::Hour) {
    // These are not moved by a change of the clocks: the hour that is there twice begins twice.
    const long long length = unit == Unit::Second ? 1 : unit == Unit::Minute ? 60 : 3600;
    ReturnTime(call, seconds - FloorModulo(seconds + time.period.offset, length));
    return;
  }
  Fields start = {time.fields.year, time.fields.month, time.fields.day, 0, 0, 0};
  if (unit == Unit::Week) {
    const long long day = DayNumber(start.year, start.month, start.day);
    start = FieldsOf((day - WeekdayOf(day) + 1) * kDay);
  }
  if (unit >= Unit::Month) start.day = 1;
  if (unit == Unit::Year) start.month = 1;
  ReturnTime(call, zone->FromLocal(SecondsOf(start)));
}

void isotime(Call& call) {
  long long seconds = 0;
  const Zone* zone = nullptr;
  if (!ReadTime(call, 0, &seconds) || !ReadZone(call, 1, &zone)) return;
  const Local time = InZone(seconds, *zone);
  Builder to(call);
  const bool is_utc = time.period.offset == 0 && time.period.name == "UTC";
  Write(is_utc ? "%Y-%m-%dT%H:%M:%SZ" : "%Y-%m-%dT%H:%M:%S%:z", time, &to);
  to.Return();
}

void fromisotime(Call& call) {
  const Zone* zone = nullptr;
  long long seconds = 0;
  if (!ReadZone(call, 1, &zone)) return;
  if (ReadISO(call.text(0), *zone, &seconds)) call.ReturnInteger(seconds);
}

void httptime(Call& call) {
  long long seconds = 0;
  if (!ReadTime(call, 0, &seconds)) return;
  Builder to(call);
  Write("%a, %d %b %Y %H:%M:%S GMT", InZone(seconds, Zone()), &to);
  to.Return();
}

void fromhttptime(Call& call) {
  static constexpr std::string_view kForms[] = {
      "%a, %d %b %Y %H:%M:%S GMT",
      "%a, %d-%b-%y %H:%M:%S GMT",
      "%a %b %e %H:%M:%S %Y",
  };
  for (const std::string_view form : kForms) {
    Reader reader;
    reader.rest = call.text(0);
    long long seconds = 0;
    if (Read(form, &reader) == Match::Yes && reader.rest.empty() &&
        TimeOf(reader, Zone(), &seconds)) {
      return call.ReturnInteger(seconds);
    }
  }
}

void isdate(Call& call) {
  const long long year = call.integer(0), month = call.integer(1), day = call.integer(2);
  call.ReturnInteger(year >= -9999 && year <= 9999 && month >= 1 && month <= 12 && day >= 1 &&
                     day <= DaysInMonth(year, static_cast<int>(month)));
}

void daysinmonth(Call& call) {
  const long long month = call.integer(1);
  if (month < 1 || month > 12) {
    call.Fail(1, "is not 1 to 12");
    return;
  }
  call.ReturnInteger(DaysInMonth(call.integer(0), static_cast<int>(month)));
}

void iszone(Call& call) {
  call.ReturnInteger(!call.text(0).empty() && Zone::Find(call.text(0)) != nullptr);
}

}  // namespace functions

}  // namespace zephstd

// Tested in tests/extensions/zephstd/ZoneTest.cpp.

#include "extensions/zephstd/Zone.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "extensions/zephstd/Calendar.h"

namespace zephstd {

namespace {

constexpr char kFolder[] = "/usr/share/zoneinfo/";
constexpr size_t kMostBytes = 1 << 20;  // of a file; the largest have 4 KB
constexpr size_t kMostZones = 64;       // that a thread keeps
constexpr int kMostOffset = 26 * 3600;

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsLetter(char c) {
  return (c | 0x20) >= 'a' && (c | 0x20) <= 'z';
}

// A name cannot lead out of the folder.
bool IsName(std::string_view name) {
  if (name.empty() || name.size() > 64 || !IsLetter(name[0])) return false;
  for (const char c : name) {
    if (!IsLetter(c) && !IsDigit(c) && c != '_' && c != '-' && c != '+' && c != '/') return false;
  }
  return true;
}

struct CloseFile {
  void operator()(FILE* file) const { fclose(file); }
};

bool ReadBytes(const std::string& path, std::string* bytes) {
  const std::unique_ptr<FILE, CloseFile> file(fopen(path.c_str(), "rbe"));
  if (!file) return false;
  char part[4096];
  bytes->clear();
  while (const size_t length = fread(part, 1, sizeof part, file.get())) {
    if (bytes->size() + length > kMostBytes) return false;
    bytes->append(part, length);
  }
  return ferror(file.get()) == 0;
}

// A big-endian number with a sign, of 4 or 8 bytes.
long long ReadBig(std::string_view bytes, size_t at, size_t wide) {
  uint64_t value = static_cast<unsigned char>(bytes[at]) >= 0x80 ? ~uint64_t{0} : 0;
  for (size_t i = 0; i < wide; i++) value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  return static_cast<long long>(value);
}

// --- Rules ---------------------------------------------------------------------------------------

bool Take(std::string_view* text, char c) {
  if (!text->starts_with(c)) return false;
  text->remove_prefix(1);
  return true;
}

bool TakeNumber(std::string_view* text, int most, int* number) {
  if (text->empty() || !IsDigit((*text)[0])) return false;
  *number = 0;
  while (!text->empty() && IsDigit((*text)[0])) {
    *number = *number * 10 + ((*text)[0] - '0');
    if (*number > most) return false;
    text->remove_prefix(1);
  }
  return true;
}

// "CET" or "<+03>".
bool TakeZoneName(std::string_view* text, std::string* name) {
  const bool quoted = Take(text, '<');
  size_t end = 0;
  while (end < text->size() &&
         (IsLetter((*text)[end]) ||
          (quoted && (IsDigit((*text)[end]) || strchr("+-", (*text)[end]) != nullptr)))) {
    end++;
  }
  *name = text->substr(0, end);
  text->remove_prefix(end);
  return name->size() >= 3 && (!quoted || Take(text, '>'));
}

// Hours with minutes and seconds, and a sign.
bool TakeTime(std::string_view* text, int most_hours, int* seconds) {
  const bool negative = Take(text, '-');
  if (!negative) Take(text, '+');
  int hours = 0, minutes = 0, rest = 0;
  if (!TakeNumber(text, most_hours, &hours)) return false;
  if (Take(text, ':')) {
    if (!TakeNumber(text, 59, &minutes)) return false;
    if (Take(text, ':') && !TakeNumber(text, 59, &rest)) return false;
  }
  *seconds = hours * 3600 + minutes * 60 + rest;
  if (negative) *seconds = -*seconds;
  return true;
}

// "+05:30", "-08" or "+0530".
bool ReadFixed(std::string_view text, int* offset) {
  const bool negative = text.starts_with('-');
  if (!negative && !text.starts_with('+')) return false;
  text.remove_prefix(1);
  // What follows can have a sign of its own in a rule, but not here.
  if (text.empty() || text[0] < '0' || text[0] > '9') return false;
  if (text.size() == 5 && text[2] == ':') {
    int seconds = 0;
    if (!TakeTime(&text, 24, &seconds) || !text.empty()) return false;
    *offset = negative ? -seconds : seconds;
    return true;
  }
  int number = 0;
  const bool with_minutes = text.size() == 4;
  if ((text.size() != 2 && !with_minutes) || !TakeNumber(&text, 2459, &number) || !text.empty()) {
    return false;
  }
  const int hours = with_minutes ? number / 100 : number;
  const int minutes = with_minutes ? number % 100 : 0;
  if (hours > 24 || minutes > 59) return false;
  *offset = (hours * 3600 + minutes * 60) * (negative ? -1 : 1);
  return true;
}

}  // namespace

Zone::Zone() {
  SetFixed(0, "UTC");
}

void Zone::SetFixed(int offset, std::string name) {
  types.assign(1, {offset, false, std::move(name)});
  changes.clear();
  types_after.clear();
  has_rule = false;
}

// Reads the first block or, with eight bytes for a time, the second one. rest is what follows it.
bool Zone::ReadBlock(std::string_view bytes, size_t wide, std::string_view* rest) {
  constexpr size_t kHead = 44;
  if (bytes.size() < kHead || !bytes.starts_with("TZif")) return false;
  long long counts[6];
  for (size_t i = 0; i < 6; i++) {
    counts[i] = ReadBig(bytes, 20 + 4 * i, 4);
    if (counts[i] < 0 || counts[i] > static_cast<long long>(kMostBytes)) return false;
  }
  const auto utc = static_cast<size_t>(counts[0]), std = static_cast<size_t>(counts[1]),
             leap = static_cast<size_t>(counts[2]), times = static_cast<size_t>(counts[3]),
             type_count = static_cast<size_t>(counts[4]), chars = static_cast<size_t>(counts[5]);
  const size_t at_types = kHead + times * wide, at_rows = at_types + times,
               at_names = at_rows + type_count * 6;
  const size_t size = at_names + chars + leap * (wide + 4) + std + utc;
  if (size > bytes.size() || type_count == 0 || type_count > 256) return false;
  *rest = bytes.substr(size);

  std::vector<Type> read_types;
  for (size_t i = 0; i < type_count; i++) {
    const size_t row = at_rows + i * 6;
    const long long offset = ReadBig(bytes, row, 4);
    const auto name = static_cast<size_t>(static_cast<unsigned char>(bytes[row + 5]));
    if (offset < -kMostOffset || offset > kMostOffset || name >= chars) return false;
    const std::string_view names = bytes.substr(at_names + name, chars - name);
    read_types.push_back({static_cast<int>(offset), bytes[row + 4] != 0,
                          std::string(names.substr(0, names.find('\0')))});
  }
  std::vector<long long> read_changes;
  std::vector<unsigned char> read_after;
  for (size_t i = 0; i < times; i++) {
    const long long change = ReadBig(bytes, kHead + i * wide, wide);
    const auto type = static_cast<unsigned char>(bytes[at_types + i]);
    if (type >= type_count || (i > 0 && change <= read_changes.back())) return false;
    read_changes.push_back(change);
    read_after.push_back(type);
  }
  types = std::move(read_types);
  changes = std::move(read_changes);
  types_after = std::move(read_after);
  has_rule = false;
  return true;
}

bool Zone::ReadFile(std::string_view bytes) {
  SetFixed(0, "UTC");
  std::string_view rest;
  Zone zone;
  if (!zone.ReadBlock(bytes, 4, &rest)) return false;
  if (bytes[4] >= '2') {
    // The same again with longer times, and a rule.
    const std::string_view second = rest;
    if (!zone.ReadBlock(second, 8, &rest) || !rest.starts_with('\n')) return false;
    const size_t end = rest.find('\n', 1);
    if (end == std::string_view::npos) return false;
    const std::string_view rule = rest.substr(1, end - 1);
    Zone after;
    if (!rule.empty()) {
      if (!after.ReadRule(rule)) return false;
      zone.has_rule = true;
      zone.standard = after.standard;
      zone.summer = after.summer;
      zone.has_summer = after.has_summer;
      zone.begin = after.begin;
      zone.end = after.end;
    }
  }
  *this = std::move(zone);
  return true;
}

bool Zone::ReadChange(std::string_view* rule, Change* change) {
  if (Take(rule, 'M')) {
    change->kind = 'M';
    if (!TakeNumber(rule, 12, &change->month) || !Take(rule, '.') ||
        !TakeNumber(rule, 5, &change->week) || !Take(rule, '.') ||
        !TakeNumber(rule, 6, &change->day) || change->month == 0 || change->week == 0) {
      return false;
    }
  } else {
    change->kind = Take(rule, 'J') ? 'J' : 'N';
    if (!TakeNumber(rule, 365, &change->day) || (change->kind == 'J' && change->day == 0)) {
      return false;
    }
  }
  change->second = 7200;
  return !Take(rule, '/') || TakeTime(rule, 167, &change->second);
}

bool Zone::ReadRule(std::string_view rule) {
  Zone zone;
  int offset = 0;
  SetFixed(0, "UTC");
  if (!TakeZoneName(&rule, &zone.standard.name) || !TakeTime(&rule, 24, &offset)) return false;
  zone.standard.offset = -offset;  // POSIX counts to the west
  zone.has_rule = true;
  if (!rule.empty()) {
    zone.has_summer = true;
    zone.summer.dst = true;
    zone.summer.offset = zone.standard.offset + 3600;
    if (!TakeZoneName(&rule, &zone.summer.name)) return false;
    if (!rule.starts_with(',')) {
      if (!TakeTime(&rule, 24, &offset)) return false;
      zone.summer.offset = -offset;
    }
    if (!Take(&rule, ',') || !ReadChange(&rule, &zone.begin) || !Take(&rule, ',') ||
        !ReadChange(&rule, &zone.end) || !rule.empty()) {
      return false;
    }
  }
  zone.types.assign(1, zone.standard);
  *this = std::move(zone);
  return true;
}

// When the change is in a year, by the clocks before it, as if they showed UTC.
long long Zone::SecondOf(const Change& change, long long year) {
  long long day = DayNumber(year, 1, 1);
  if (change.kind == 'M') {
    const long long first = DayNumber(year, change.month, 1);
    const int weekday = WeekdayOf(first) % 7;
    int in_month = (change.day - weekday + 7) % 7 + (change.week - 1) * 7;
    while (in_month >= DaysInMonth(year, change.month)) in_month -= 7;
    day = first + in_month;
  } else if (change.kind == 'J') {
    day += change.day - 1 + (IsLeapYear(year) && change.day >= 60);
  } else {
    day += change.day;
  }
  return day * kDay + change.second;
}

Zone::Period Zone::OfRule(long long seconds) const {
  if (!has_summer) return PeriodOf(standard);
  const long long year = FieldsOf(seconds + standard.offset).year;
  // Changes may be some days outside of their year, so its neighbours count, too: the last change
  // before the time decides.
  bool is_summer = false;
  long long latest = INT64_MIN;
  for (long long y = year - 1; y <= year + 1; y++) {
    const long long to_summer = SecondOf(begin, y) - standard.offset;
    const long long to_standard = SecondOf(end, y) - summer.offset;
    // Where both are at once, summer never ends: "all year" is written so.
    if (to_standard <= seconds && to_standard >= latest) {
      latest = to_standard;
      is_summer = false;
    }
    if (to_summer <= seconds && to_summer >= latest) {
      latest = to_summer;
      is_summer = true;
    }
  }
  return PeriodOf(is_summer ? summer : standard);
}

Zone::Period Zone::At(long long seconds) const {
  const auto after = std::upper_bound(changes.begin(), changes.end(), seconds);
  if (after == changes.end() && has_rule) return OfRule(seconds);
  if (after == changes.begin()) return PeriodOf(types[0]);
  return PeriodOf(types[types_after[static_cast<size_t>(after - changes.begin()) - 1]]);
}

long long Zone::FromLocal(long long local) const {
  // No zone is a day away from UTC, or changes twice in two days.
  const int before = At(local - kDay).offset, after = At(local + kDay).offset;
  const long long first = local - std::max(before, after), second = local - std::min(before, after);
  if (At(first).offset == std::max(before, after)) return first;
  if (At(second).offset == std::min(before, after)) return second;
  return local - before;
}

// --- Finding -------------------------------------------------------------------------------------

namespace {

void ReadLocal(Zone* zone) {
  std::string bytes;
  const char* const setting = getenv("TZ");
  if (setting == nullptr) {
    if (ReadBytes("/etc/localtime", &bytes)) zone->ReadFile(bytes);
    return;
  }
  const char* const name = *setting == ':' ? setting + 1 : setting;
  if (*name == '\0') return;
  if (zone->ReadRule(name)) return;
  const bool absolute = *name == '/';
  if (!absolute && !IsName(name)) return;
  if (ReadBytes(absolute ? name : kFolder + std::string(name), &bytes)) zone->ReadFile(bytes);
}

bool ReadNamed(std::string_view name, Zone* zone) {
  int offset = 0;
  if (ReadFixed(name, &offset)) {
    const int minutes = std::abs(offset) / 60;
    char rule[32];
    // The signs are the other way round in a rule.
    snprintf(rule, sizeof rule, "<%s>%c%d:%02d", std::string(name.substr(0, 3)).c_str(),
             offset < 0 ? '+' : '-', minutes / 60, minutes % 60);
    return zone->ReadRule(rule);
  }
  std::string bytes;
  return IsName(name) && ReadBytes(kFolder + std::string(name), &bytes) && zone->ReadFile(bytes);
}

}  // namespace

const Zone* Zone::Find(std::string_view name) {
  static thread_local std::map<std::string, Zone, std::less<>> known;
  if (name == "local") name = {};
  const auto found = known.find(name);
  if (found != known.end()) return &found->second;
  Zone zone;
  if (name.empty()) {
    ReadLocal(&zone);
  } else if (name != "UTC" && !ReadNamed(name, &zone)) {
    return nullptr;
  }
  if (known.size() >= kMostZones) known.clear();
  return &known.emplace(name, std::move(zone)).first->second;
}

}  // namespace zephstd

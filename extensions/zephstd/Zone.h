// Time zones, from the files of the system (RFC 8536) and from rules such as
// "CET-1CEST,M3.5.0,M10.5.0/3" (POSIX). The process's own TZ is read and never set, because that is
// not safe with threads. Tested in tests/extensions/zephstd/ZoneTest.cpp.

#ifndef ZEPH_EXTENSIONS_ZEPHSTD_ZONE_H
#define ZEPH_EXTENSIONS_ZEPHSTD_ZONE_H

#include <string>
#include <string_view>
#include <vector>

namespace zephstd {

class Zone {
 public:
  // What holds in a zone for some time.
  struct Period {
    int offset = 0;  // seconds east of UTC
    bool dst = false;
    std::string_view name;  // such as CET; the zone's
  };

  // UTC.
  Zone();

  // Returns the zone of a name, or null if there is none. "" and "local" are the server's, "UTC" is
  // UTC, "+05:30" a fixed difference; others are files of the system. It belongs to the thread, and
  // is valid until the next call on it.
  static const Zone* Find(std::string_view name);

  // Read a zone from the bytes of a file, or from a rule. False if they are wrong; the zone is then
  // UTC.
  bool ReadFile(std::string_view bytes);
  bool ReadRule(std::string_view rule);

  Period At(long long seconds) const;
  // The time at which the zone's clocks show local, which is in seconds as if it were UTC. If they
  // show it twice, the first one; if never, the time as much later as they were put forward.
  long long FromLocal(long long local) const;

 private:
  struct Type {
    int offset = 0;
    bool dst = false;
    std::string name;
  };
  // The day of a rule, and its second, which may be of another day.
  struct Change {
    char kind = 0;  // 'M', 'J', or 'N' for days from 0
    int month = 0, week = 0, day = 0;
    int second = 7200;
  };

  bool ReadBlock(std::string_view bytes, size_t wide, std::string_view* rest);
  static bool ReadChange(std::string_view* rule, Change* change);
  static long long SecondOf(const Change& change, long long year);
  Period OfRule(long long seconds) const;
  static Period PeriodOf(const Type& type) { return {type.offset, type.dst, type.name}; }
  void SetFixed(int offset, std::string name);

  std::vector<Type> types;  // never empty
  std::vector<long long> changes;
  std::vector<unsigned char> types_after;  // of each change
  // After the last change.
  bool has_rule = false;
  Type standard, summer;
  bool has_summer = false;
  Change begin, end;
};

}  // namespace zephstd

#endif

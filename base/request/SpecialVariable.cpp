// The system variables: the table of their names, and how each gets its value. Tested in
// tests/base/request/SpecialVariableTest.cpp.

#include "base/request/SpecialVariable.h"

#include <sys/time.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

#include "base/core/memcmpi.h"
#include "base/core/zptime.h"
#include "base/extensions/CommerceLibrary.h"
#include "base/extensions/ExternalDatabaseLibrary.h"
#include "base/extensions/SystemLibrary.h"
#include "base/host/Config.h"
#include "base/host/Version.h"
#include "base/values/Aggregate.h"
#include "base/values/VariableRef.h"

namespace {

bool IsTextOfTime(DynamicTimeVariableType what) {
  return what == dyn_stm_mon || what == dyn_stm_wday || what == dyn_stm_zone;
}

ZPTIME Now() {
  ZPTIME now;
  zp_gettimevalues(&now);
  return now;
}

// --- All of them ---------------------------------------------------------------------------------

// The values from which the variables are made. The fields of the time are computed when the first
// of them is looked up: it takes a lock of the C library, and most scripts look up none.
struct StartOfRun {
  ZephApplication* application;
  timeval moment;
  int timeout;
  mutable bool has_time = false;
  mutable ZPTIME time{};

  const ZPTIME& Time() const {
    if (!has_time) zp_settimevalues(&time, moment);
    has_time = true;
    return time;
  }
};

using Maker = Variable* (*)(const char* name, const StartOfRun& start);

Variable* MakeConstant(const char* name, long value) {
  return new ImmutableVariable(name, -1, static_cast<int>(value));
}
Variable* MakeConstant(const char* name, const char* value) {
  return new ImmutableVariable(name, -1, value, -1);
}
template <auto field>
Variable* MakeMoment(const char* name, const StartOfRun& start) {
  return MakeConstant(name, start.Time().*field);
}
Variable* MakeTimeout(const char* name, const StartOfRun& start) {
  return MakeConstant(name, start.timeout);
}
Variable* MakeVersion(const char* name, const StartOfRun&) {
  return MakeConstant(name, kZephVersion);
}
template <DynamicTimeVariableType what>
Variable* MakeTime(const char* name, const StartOfRun&) {
  return new DynamicTimeVariable(name, what);
}
template <typename Special>
Variable* Make(const char* name, const StartOfRun& start) {
  return new Special(name, start.application);
}

struct SystemName {
  std::string_view name;  // NUL-terminated
  Maker make;
};

// The order is that in which scripts list the variables.
constexpr SystemName system_names[] = {
    {"time_t", MakeMoment<&ZPTIME::seconds>},
    {"tm_usec", MakeMoment<&ZPTIME::microseconds>},
    {"tm_sec", MakeMoment<&ZPTIME::second>},
    {"tm_min", MakeMoment<&ZPTIME::minute>},
    {"tm_hour", MakeMoment<&ZPTIME::hour>},
    {"tm_mday", MakeMoment<&ZPTIME::day>},
    {"tm_mon", MakeMoment<&ZPTIME::month>},
    {"stm_mon", MakeMoment<&ZPTIME::month_name>},
    {"tm_year", MakeMoment<&ZPTIME::year>},
    {"tm_wday", MakeMoment<&ZPTIME::weekday>},
    {"stm_wday", MakeMoment<&ZPTIME::weekday_name>},
    {"tm_yday", MakeMoment<&ZPTIME::yearday>},
    {"tm_isdst", MakeMoment<&ZPTIME::dst>},
    {"stm_zone", MakeMoment<&ZPTIME::zone_name>},
    {"globaltimeout", MakeTimeout},
    {"zephversion", MakeVersion},
    {"dyn_time_t", MakeTime<dyn_time_t>},
    {"dyn_tm_usec", MakeTime<dyn_tm_usec>},
    {"dyn_tm_sec", MakeTime<dyn_tm_sec>},
    {"dyn_tm_min", MakeTime<dyn_tm_min>},
    {"dyn_tm_hour", MakeTime<dyn_tm_hour>},
    {"dyn_tm_mday", MakeTime<dyn_tm_mday>},
    {"dyn_tm_mon", MakeTime<dyn_tm_mon>},
    {"dyn_stm_mon", MakeTime<dyn_stm_mon>},
    {"dyn_tm_year", MakeTime<dyn_tm_year>},
    {"dyn_tm_wday", MakeTime<dyn_tm_wday>},
    {"dyn_stm_wday", MakeTime<dyn_stm_wday>},
    {"dyn_tm_yday", MakeTime<dyn_tm_yday>},
    {"dyn_tm_isdst", MakeTime<dyn_tm_isdst>},
    {"dyn_stm_zone", MakeTime<dyn_stm_zone>},
    {"dyn_time_remaining", Make<TimeRemainingVariable>},
    {"zeph_language", Make<LanguageVariable>},
    {"zeph_defaultlanguage", Make<DefaultLanguageVariable>},
    {"zeph_defaultdatabase", Make<DefaultDatabaseVariable>},
    {"zeph_charset", Make<CharacterSetVariable>},
    {"zeph_sslavailable", Make<SSLAvailableVariable>},
    {"zeph_config", Make<ConfigurationAggregateVariable>},
    {"process_name", Make<ProcessNameVariable>},
};

// For each length, a bit set of the first letters of the names with that length. Only the low five
// bits of a letter count, so upper and lower case are the same.
constexpr int LetterBits = 31;
constexpr auto letters_by_length = [] {
  std::array<uint32_t, 32> letters{};
  for (const SystemName& row : system_names) {
    letters[row.name.size()] |= 1u << (row.name[0] & LetterBits);
  }
  return letters;
}();

class SystemVariables : public LateVariables {
 public:
  explicit SystemVariables(const StartOfRun& run) : start(run) {}

  // Called first for every name of a script without a scope, so most must be rejected quickly. No
  // name has length 0.
  int Number(const char* name, int length) override {
    if (static_cast<size_t>(length) >= letters_by_length.size()) return -1;
    const uint32_t letters = letters_by_length[static_cast<size_t>(length)];
    if (letters == 0 || (letters >> (*name & LetterBits) & 1) == 0) return -1;
    for (int i = 0; i < Count(); i++) {
      const std::string_view known = system_names[i].name;
      if (static_cast<int>(known.size()) == length &&
          memcmpi(known.data(), name, known.size()) == 0) {
        return i;
      }
    }
    return -1;
  }
  int Count() override { return static_cast<int>(std::size(system_names)); }
  const char* Name(int number, int* length) override {
    const std::string_view name = system_names[number].name;
    *length = static_cast<int>(name.size());
    return name.data();
  }
  Variable* Make(int number) override {
    return system_names[number].make(system_names[number].name.data(), start);
  }
  // A task gets the start time of the run that started it.
  LateVariables* Clone(ZephApplication* owner) override {
    return new SystemVariables({owner, start.moment, start.timeout});
  }

 private:
  StartOfRun start;
};

}  // namespace

LateVariables* NewSystemVariables(ZephApplication* application) {
  const int timeout = application->config()->value_integer(Config_timeout_global);
  timeval now;
  gettimeofday(&now, nullptr);
  return new SystemVariables({application, now, timeout});
}

// --- Values that are computed --------------------------------------------------------------------

ComputedVariable::ComputedVariable(const char* name, int type)
    : ImmutableVariable(name, -1), computed_type(type) {}

// The text is scratch: no form is marked valid, so that no reader uses it as the value.
String& ComputedVariable::value() {
  if (redirected()) return ImmutableVariable::value();
  if (is_text()) {
    const char* text = Text();
    string_value.assign(text ? text : "", -1);
  } else {
    char digits[24];
    const int length = snprintf(digits, sizeof digits, "%ld", Number());
    string_value.assign(digits, length);
  }
  return string_value;
}

int ComputedVariable::value_integer() {
  if (redirected()) return ImmutableVariable::value_integer();
  return is_text() ? 0 : static_cast<int>(Number());
}

double ComputedVariable::value_double() {
  return value_integer();
}

double ComputedVariable::value_compare(int* not_numeric) {
  if (redirected()) return ImmutableVariable::value_compare(not_numeric);
  *not_numeric = is_text();
  return is_text() ? 0.0 : static_cast<double>(Number());
}

int ComputedVariable::type() {
  return redirected() ? ImmutableVariable::type() : computed_type;
}

int ComputedVariable::IsNULL() {
  return redirected() ? ImmutableVariable::IsNULL() : value().length == 0;
}

DynamicTimeVariable::DynamicTimeVariable(const char* name, DynamicTimeVariableType what)
    : ComputedVariable(name, IsTextOfTime(what) ? VariableComputedText : VariableComputedInteger),
      what(what) {}

Variable* DynamicTimeVariable::Clone(ZephApplication* application) {
  if (redirected()) return Variable::Clone(application);
  return new DynamicTimeVariable(name().data, what);
}

long DynamicTimeVariable::Number() {
  const ZPTIME now = Now();
  switch (what) {
    case dyn_time_t: return now.seconds;
    case dyn_tm_usec: return now.microseconds;
    case dyn_tm_sec: return now.second;
    case dyn_tm_min: return now.minute;
    case dyn_tm_hour: return now.hour;
    case dyn_tm_mday: return now.day;
    case dyn_tm_mon: return now.month;
    case dyn_tm_year: return now.year;
    case dyn_tm_wday: return now.weekday;
    case dyn_tm_yday: return now.yearday;
    case dyn_tm_isdst: return now.dst;
    default: return 0;  // never: a read of a text calls Text()
  }
}

const char* DynamicTimeVariable::Text() {
  const ZPTIME now = Now();
  switch (what) {
    case dyn_stm_mon: return now.month_name;
    case dyn_stm_wday: return now.weekday_name;
    default: return now.zone_name;
  }
}

TimeRemainingVariable::TimeRemainingVariable(const char* name, ZephApplication* application)
    : ComputedVariable(name, VariableComputedInteger), application(application) {}

Variable* TimeRemainingVariable::Clone(ZephApplication* application) {
  if (redirected()) return Variable::Clone(application);
  return new TimeRemainingVariable(name().data, application);
}

long TimeRemainingVariable::Number() {
  return application->TimeRemaining();
}

const char* TimeRemainingVariable::Text() {
  return nullptr;
}

// --- Values that are kept and refreshed ----------------------------------------------------------

String& RefreshedVariable::value() {
  RefreshOwn();
  return ImmutableVariable::value();
}
int RefreshedVariable::value_integer() {
  RefreshOwn();
  return ImmutableVariable::value_integer();
}
double RefreshedVariable::value_double() {
  RefreshOwn();
  return ImmutableVariable::value_double();
}
double RefreshedVariable::value_compare(int* not_numeric) {
  RefreshOwn();
  return ImmutableVariable::value_compare(not_numeric);
}
int RefreshedVariable::type() {
  RefreshOwn();
  return ImmutableVariable::type();
}
int RefreshedVariable::primary_type() {
  RefreshOwn();
  return ImmutableVariable::primary_type();
}
int RefreshedVariable::IsTrue() {
  RefreshOwn();
  return ImmutableVariable::IsTrue();
}
int RefreshedVariable::IsNULL() {
  RefreshOwn();
  return ImmutableVariable::IsNULL();
}
AggregateElementTree* RefreshedVariable::aggregateelements() {
  RefreshOwn();
  return ImmutableVariable::aggregateelements();
}
AggregateType RefreshedVariable::aggregatetype() {
  RefreshOwn();
  return ImmutableVariable::aggregatetype();
}
Variable* RefreshedVariable::Element(const AggregateIndex& index, int create) {
  RefreshOwn();
  return ImmutableVariable::Element(index, create);
}
Variable* RefreshedVariable::Element(List<AggregateIndex>* path, int create) {
  RefreshOwn();
  return ImmutableVariable::Element(path, create);
}
int RefreshedVariable::Max() {
  RefreshOwn();
  return ImmutableVariable::Max();
}
int RefreshedVariable::Min() {
  RefreshOwn();
  return ImmutableVariable::Min();
}
int RefreshedVariable::Next(int position) {
  RefreshOwn();
  return ImmutableVariable::Next(position);
}
int RefreshedVariable::Previous(int position) {
  RefreshOwn();
  return ImmutableVariable::Previous(position);
}
int RefreshedVariable::ElementsUsed() {
  RefreshOwn();
  return ImmutableVariable::ElementsUsed();
}

void RefreshedVariable::StoreText(const char* text, int length) {
  string_value.assign(text, length);
  SetForms(TextForm);
  primary = PrimaryText;
}

// --- Settings of the script ----------------------------------------------------------------------

ApplicationTextVariable::ApplicationTextVariable(const char* name, ZephApplication* application)
    : RefreshedVariable(name, -1), application(application) {}

void ApplicationTextVariable::Refresh() {
  const int changes = Changes();
  if (changes == changes_seen) return;
  const String& text = Setting();
  StoreText(text.data, text.length);
  changes_seen = changes;
}

// Change has increased the count, so the next read copies the text from the application again.
int ApplicationTextVariable::SetValue(const char* text, int length) {
  if (redirected()) return ImmutableVariable::SetValue(text, length);
  Change(String(text, length));
  return Variable::SetValue(text, length);
}

int ApplicationTextVariable::SetValue(Variable& source) {
  if (redirected()) return ImmutableVariable::SetValue(source);
  const String& text = source.value();
  return SetValue(text.data ? text.data : "", -1);
}

int ApplicationTextVariable::SetValue_Nocopy(char* buffer, int length, int allocated) {
  if (redirected()) return ImmutableVariable::SetValue_Nocopy(buffer, length, allocated);
  std::unique_ptr<char[]> owned(buffer);
  Change(String(buffer, length));
  return Variable::SetValue_Nocopy(owned.release(), length, allocated);
}

int ApplicationTextVariable::SetValue_Integer(int value) {
  int length, size;
  char* text = ZephApplication::itos(value, &length, &size);
  return SetValue_Nocopy(text, length, size);
}

int ApplicationTextVariable::SetValue_Double(double value) {
  int length, size;
  char* text = ZephApplication::dtos(value, &length, &size, -1);
  return SetValue_Nocopy(text, length, size);
}

// --- Facts of the process ------------------------------------------------------------------------

SSLAvailableVariable::SSLAvailableVariable(const char* name, ZephApplication* application)
    : RefreshedVariable(name, -1), application(application) {}

Variable* SSLAvailableVariable::Clone(ZephApplication* application) {
  if (redirected()) return Variable::Clone(application);
  return new SSLAvailableVariable(name().data, application);
}

void SSLAvailableVariable::Refresh() {
  if (valid_forms() != 0) return;
  integer_value = application->SSL_Available(nullptr);
  SetForms(IntegerForm);
  primary = PrimaryInteger;
}

ProcessNameVariable::ProcessNameVariable(const char* name, ZephApplication* application)
    : RefreshedVariable(name, -1), application(application) {}

Variable* ProcessNameVariable::Clone(ZephApplication* application) {
  if (redirected()) return Variable::Clone(application);
  return new ProcessNameVariable(name().data, application);
}

void ProcessNameVariable::Refresh() {
  const char* text = application->process_name();
  StoreText(text ? text : "", -1);
}

// --- Settings ------------------------------------------------------------------------------------

namespace {

int TypeOfSetting(int identifier) {
  return identifier & ConfigKind_Integer ? VariableComputedInteger : VariableComputedText;
}

// Calls visit(name) for each library of a manager, in the order of registration. A host without
// such libraries has no manager.
template <typename Manager, typename Visit>
void ForEachLibrary(Manager* manager, Visit visit) {
  if (!manager) return;
  auto& libraries = manager->libraries();
  for (auto* library = libraries.First(); library; library = libraries.Next()) {
    visit(library->name());
  }
}

}  // namespace

ConfigurationVariable::ConfigurationVariable(const char* name, ZephApplication* application,
                                             int identifier)
    : ComputedVariable(name, TypeOfSetting(identifier)),
      application(application),
      identifier(identifier) {}

Variable* ConfigurationVariable::Clone(ZephApplication* application) {
  if (redirected()) return Variable::Clone(application);
  return new ConfigurationVariable(name().data, application, identifier);
}

long ConfigurationVariable::Number() {
  return application->config()->value_integer(identifier);
}

const char* ConfigurationVariable::Text() {
  return application->config()->value_string(identifier);
}

ConfigurationLibraryListVariable::ConfigurationLibraryListVariable(const char* name,
                                                                   ZephApplication* application,
                                                                   _ConfigurationLibrary_Type kind)
    : RefreshedVariable(name, -1), application(application), kind(kind) {}

Variable* ConfigurationLibraryListVariable::Clone(ZephApplication* application) {
  if (redirected()) return Variable::Clone(application);
  return new ConfigurationLibraryListVariable(name().data, application, kind);
}

void ConfigurationLibraryListVariable::Refresh() {
  if (loaded) return;
  loaded = true;
  Convert_Aggregate(AggregateArray);
  int position = 0;
  const auto add = [&](const char* library) {
    const VariableRef item(new ImmutableVariable("", 0, library, -1));
    Variable::SetElement(AggregateIndex(++position), item.get());
  };
  switch (kind) {
    case ConfigurationLibrary_Commerce: ForEachLibrary(application->commercemanager(), add); break;
    case ConfigurationLibrary_Database: ForEachLibrary(application->databasemanager(), add); break;
    case ConfigurationLibrary_System:
      ForEachLibrary(application->systemlibrarymanager(), add);
      break;
  }
}

ConfigurationLibraryLookupVariable::ConfigurationLibraryLookupVariable(
    const char* name, ZephApplication* application, _ConfigurationLibrary_Type kind)
    : ImmutableVariable(name, -1), application(application), kind(kind) {}

Variable* ConfigurationLibraryLookupVariable::Clone(ZephApplication* application) {
  if (redirected()) return Variable::Clone(application);
  return new ConfigurationLibraryLookupVariable(name().data, application, kind);
}

Variable* ConfigurationLibraryLookupVariable::Element(const AggregateIndex& index, int create) {
  if (redirected() || index.kind() != AggregateStructure) {
    return ImmutableVariable::Element(index, create);
  }
  if (Variable* known = Variable::Element(index, 0)) return known;
  const char* library = index.key.data ? index.key.data : "";
  const VariableRef answer(
      new ImmutableVariable(library, index.key.length, LibraryIsThere(library, index.key.length)));
  Variable::SetElement(index, answer.get());
  return answer.get();
}

bool ConfigurationLibraryLookupVariable::LibraryIsThere(const char* name, int length) {
  switch (kind) {
    case ConfigurationLibrary_Commerce: {
      auto* manager = application->commercemanager();
      return manager && manager->Lookup_Commerce_Library(name, length);
    }
    case ConfigurationLibrary_Database: {
      auto* manager = application->databasemanager();
      return manager && manager->Lookup_DB(name, length);
    }
    case ConfigurationLibrary_System: {
      auto* manager = application->systemlibrarymanager();
      return manager && manager->Lookup_System_Library(name, length);
    }
  }
  return false;
}

ConfigurationAggregateVariable::ConfigurationAggregateVariable(const char* name,
                                                               ZephApplication* application)
    : RefreshedVariable(name, -1), application(application) {}

Variable* ConfigurationAggregateVariable::Clone(ZephApplication* application) {
  if (redirected()) return Variable::Clone(application);
  return new ConfigurationAggregateVariable(name().data, application);
}

void ConfigurationAggregateVariable::AddMember(const char* name, Variable* adopted) {
  const VariableRef held(adopted);
  Variable::SetElement(AggregateIndex(name, -1), adopted);
}

void ConfigurationAggregateVariable::Refresh() {
  if (loaded) return;
  loaded = true;
  Convert_Aggregate(AggregateStructure);
  for (const ConfigSetting& setting : config_settings) {
    if (setting.id & ConfigKind_Hidden) continue;
    AddMember(setting.name, new ConfigurationVariable(setting.name, application, setting.id));
  }
  static const struct {
    const char* list;
    const char* lookup;
    _ConfigurationLibrary_Type kind;
  } libraries[] = {
      {"commerce_list", "commerce_lookup", ConfigurationLibrary_Commerce},
      {"database_list", "database_lookup", ConfigurationLibrary_Database},
      {"systemlib_list", "systemlib_lookup", ConfigurationLibrary_System},
  };
  for (const auto& row : libraries) {
    AddMember(row.list, new ConfigurationLibraryListVariable(row.list, application, row.kind));
  }
  for (const auto& row : libraries) {
    AddMember(row.lookup,
              new ConfigurationLibraryLookupVariable(row.lookup, application, row.kind));
  }
}

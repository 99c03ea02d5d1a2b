// The store of settings and its table. Tested in tests/base/host/ConfigTest.cpp.
#include "base/host/Config.h"

#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "base/core/CopyText.h"
#include "base/core/MeasuredLength.h"

namespace {

constexpr int default_buffer_size = 8192;

bool IsInteger(int id) {
  return (id & ConfigKind_Integer) != 0;
}

bool IsText(int id) {
  return (id & ConfigKind_Text) != 0;
}

int IdentifierOf(const char* key) {
  int id;
  memcpy(&id, key, sizeof id);
  return id;
}

int Order(int a, int b) {
  return a < b ? -1 : a > b;
}

// The place of a setting in the list, by the low bits of its identifier: one row for each of the
// kinds that the other bits tell apart.
constexpr int kNumbers = 64;
constexpr int kKinds[] = {ConfigKind_Integer, ConfigKind_Text,
                          ConfigKind_Integer | ConfigKind_Hidden,
                          ConfigKind_Text | ConfigKind_Hidden};
using Places = std::array<std::array<signed char, kNumbers>, std::size(kKinds)>;

constexpr Places PlacesOfSettings() {
  Places places{};
  for (auto& row : places) row.fill(-1);
  for (size_t i = 0; i < std::size(config_settings); i++) {
    const int id = config_settings[i].id;
    for (size_t kind = 0; kind < std::size(kKinds); kind++) {
      if ((id & ~(kNumbers - 1)) == kKinds[kind]) {
        places[kind][static_cast<size_t>(id & (kNumbers - 1))] = static_cast<signed char>(i);
      }
    }
  }
  return places;
}
constexpr Places kPlaces = PlacesOfSettings();

// -1 for a setting that is not in the list.
constexpr int PlaceOf(int id) {
  const auto number = static_cast<size_t>(id & (kNumbers - 1));
  switch (id & ~(kNumbers - 1)) {
    case kKinds[0]: return kPlaces[0][number];
    case kKinds[1]: return kPlaces[1][number];
    case kKinds[2]: return kPlaces[2][number];
    case kKinds[3]: return kPlaces[3][number];
    default: return -1;
  }
}

constexpr bool EachSettingHasItsPlace() {
  for (size_t i = 0; i < std::size(config_settings); i++) {
    if (PlaceOf(config_settings[i].id) != static_cast<int>(i)) return false;
  }
  return true;
}
static_assert(EachSettingHasItsPlace());

}  // namespace

ConfigValue::ConfigValue(int id, int value)
    : identifier(id), value_text(nullptr), text_length(0), text_owned(0), value_integer(value) {}

ConfigValue::ConfigValue(int id, const char* text, int length, int owned)
    : identifier(id),
      value_text(const_cast<char*>(text)),
      text_length(length),
      text_owned(owned),
      value_integer(0) {
  // Configuration libraries may give any negative length for a terminated text.
  if (length < 0) text_length = MeasuredLength(text, -1);
}

ConfigValue::ConfigValue(const ConfigValue& other)
    : identifier(other.identifier),
      value_text(nullptr),
      text_length(other.text_length),
      text_owned(1),
      value_integer(other.value_integer) {
  if (other.value_text == nullptr) return;
  value_text = NewTextCopy(other.value_text, text_length);
}

ConfigValue::ConfigValue(int id, const ConfigReading& reading)
    : ConfigValue(id, reading.text, reading.length, reading.owned) {
  value_integer = reading.integer;
}

ConfigReading ConfigValue::TakeReading() {
  return {value_text, text_length, std::exchange(text_owned, 0), value_integer};
}

ConfigValue::~ConfigValue() {
  if (text_owned) delete[] value_text;
}

int ConfigTable::hash(ConfigValue* item) {
  int id = item->id();
  return hash(reinterpret_cast<const char*>(&id), sizeof id);
}

int ConfigTable::Compare(ConfigValue* a, ConfigValue* b) {
  return Order(a->id(), b->id());
}

int ConfigTable::Compare(ConfigValue* item, const char* key, int) {
  return Order(item->id(), IdentifierOf(key));
}

void ConfigTable::Put(ConfigValue* value) {
  int id = value->id();
  std::unique_ptr<ConfigValue> owned(value);
  delete Remove(reinterpret_cast<const char*>(&id), sizeof id);
  InsertOwned(*this, std::move(owned));
}

Config::Config() = default;

Config::Config(Config& other) : Config() {
  for (const ConfigValue* value : other.kept) {
    if (value != nullptr) Copy(*value);
  }
  for (int i = 0; i < other.others.Entries(); i++) {
    if (ConfigValue* value = other.others.Index(i)) Copy(*value);
  }
}

void Config::Copy(const ConfigValue& value) {
  ConfigValue copied(value);
  const ConfigReading reading = copied.TakeReading();
  std::unique_ptr<const char[]> text(reading.text);
  Keep(PlaceOf(value.id()), value.id(), reading);
  (void)text.release();
}

Config::~Config() {
  const bool all_in_room = in_room < kRoom;
  for (int i = 0; i < in_room; i++) Room()[i].ConfigValue::~ConfigValue();
  if (all_in_room) return;
  for (ConfigValue* value : kept) {
    if (value != nullptr && (value < Room() || value >= Room() + kRoom)) delete value;
  }
}

// The value that was read or set, or null.
const ConfigValue* Config::Kept(int place, int id) {
  return place >= 0 ? kept[place] : others.Lookup(id);
}

// Replaces the value of that identifier. Throws std::bad_alloc before it changes anything.
const ConfigValue* Config::Keep(int place, int id, const ConfigReading& reading) {
  if (place < 0) {
    others.Put(new ConfigValue(id, reading));
    return others.Lookup(id);
  }
  ConfigValue*& at = kept[place];
  if (at != nullptr) {
    at->~ConfigValue();
    return new (at) ConfigValue(id, reading);
  }
  if (in_room == kRoom) return at = new ConfigValue(id, reading);
  return at = new (Room() + in_room++) ConfigValue(id, reading);
}

// The value that is kept, or else read now; null if there is none. A configuration library that
// sets a value while it is asked for it has the last word.
const ConfigValue* Config::Value(int id) {
  const int place = PlaceOf(id);
  const ConfigValue* value = Kept(place, id);
  if (value != nullptr) return value;
  ConfigReading reading;
  if (!Read(id, &reading)) return nullptr;
  std::unique_ptr<const char[]> owned(reading.owned ? reading.text : nullptr);
  value = Kept(place, id);
  if (value != nullptr) return value;
  // Keep would do the same, with more tests.
  if (place >= 0 && in_room < kRoom) [[likely]] {
    value = kept[place] = new (Room() + in_room++) ConfigValue(id, reading);
  } else {
    value = Keep(place, id, reading);
  }
  (void)owned.release();
  return value;
}

int Config::value_integer(int id) {
  if (!IsInteger(id)) return -1;
  const ConfigValue* value = Value(id);
  return value != nullptr ? value->integer() : -1;
}

const char* Config::value_string(int id) {
  if (!IsText(id)) return nullptr;
  const ConfigValue* value = Value(id);
  return value != nullptr ? value->text() : nullptr;
}

int Config::SetValue(int id, const char* text, int length, int owned) {
  if (!IsText(id)) return 0;
  // An owned text is freed also if there is no memory for the value.
  std::unique_ptr<const char[]> owned_text(owned ? text : nullptr);
  Keep(PlaceOf(id), id, {text, length, owned, 0});
  (void)owned_text.release();
  return 1;
}

int Config::SetValue_Integer(int id, int value) {
  if (!IsInteger(id)) return 0;
  Keep(PlaceOf(id), id, {nullptr, 0, 0, value});
  return 1;
}

ConfigValue* Config::default_value(int id) {
  ConfigReading reading;
  return BuiltIn(id, &reading) ? new ConfigValue(id, reading) : nullptr;
}

// Asks default_value, because a store of another kind may have its own.
bool Config::Read(int id, ConfigReading* reading) {
  const std::unique_ptr<ConfigValue> value(default_value(id));
  if (value == nullptr) return false;
  *reading = value->TakeReading();
  return true;
}

bool Config::BuiltIn(int id, ConfigReading* reading) {
  const int place = PlaceOf(id);
  if (place < 0) return false;
  const ConfigSetting& setting = config_settings[place];
  if (IsText(id) && setting.default_text == nullptr) return false;
  *reading = {setting.default_text, -1, 0, setting.default_integer};
  return true;
}

int Config::buffer_size(int id) {
  int size = value_integer(id);
  return size > 0 ? size : default_buffer_size;
}

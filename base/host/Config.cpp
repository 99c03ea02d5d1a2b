// The store of settings and its table. Tested in tests/base/host/ConfigTest.cpp.
#include "base/host/Config.h"

#include <algorithm>
#include <cstring>
#include <memory>
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

Config::Config(Config& other) {
  for (int i = 0; i < other.values.Entries(); i++) {
    if (ConfigValue* value = other.values.Index(i)) {
      InsertOwned(values, std::make_unique<ConfigValue>(*value));
    }
  }
}

Config::~Config() = default;

// The cached value, read at the first call; null if there is none.
ConfigValue* Config::Value(int id) {
  ConfigValue* value = values.Lookup(id);
  if (value != nullptr) return value;
  std::unique_ptr<ConfigValue> read(default_value(id));
  value = read.get();
  if (value != nullptr) InsertOwned(values, std::move(read));
  return value;
}

int Config::value_integer(int id) {
  if (!IsInteger(id)) return -1;
  ConfigValue* value = Value(id);
  return value != nullptr ? value->integer() : -1;
}

const char* Config::value_string(int id) {
  if (!IsText(id)) return nullptr;
  ConfigValue* value = Value(id);
  return value != nullptr ? value->text() : nullptr;
}

int Config::SetValue(int id, const char* text, int length, int owned) {
  if (!IsText(id)) return 0;
  // An owned text is freed also if there is no memory for the value.
  std::unique_ptr<const char[]> owned_text(owned ? text : nullptr);
  auto value = std::make_unique<ConfigValue>(id, text, length, owned);
  (void)owned_text.release();
  values.Put(value.release());
  return 1;
}

int Config::SetValue_Integer(int id, int value) {
  if (!IsInteger(id)) return 0;
  values.Put(new ConfigValue(id, value));
  return 1;
}

ConfigValue* Config::default_value(int id) {
  const ConfigSetting* setting =
      std::find_if(std::begin(config_settings), std::end(config_settings),
                   [id](const ConfigSetting& each) { return each.id == id; });
  if (setting == std::end(config_settings)) return nullptr;
  if (IsInteger(id)) return new ConfigValue(id, setting->default_integer);
  if (setting->default_text == nullptr) return nullptr;
  return new ConfigValue(id, setting->default_text, -1, 0);
}

int Config::buffer_size(int id) {
  int size = value_integer(id);
  return size > 0 ? size : default_buffer_size;
}

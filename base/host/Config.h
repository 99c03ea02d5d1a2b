// The settings of one request or task: a small store of values under fixed numeric identifiers. A
// value is read once, from the configuration library or the built-in defaults, and then kept until
// the request ends, unless SetValue replaces it.

#ifndef ZEPH_BASE_CONFIG_H
#define ZEPH_BASE_CONFIG_H

#include <iterator>

#include "base/core/BaseTemplates.h"
#include "base/host/Settings.h"

// What a setting was read as: a text with the arguments of ConfigValue, or an integer.
struct ConfigReading {
  const char* text = nullptr;
  int length = 0;
  int owned = 0;
  int integer = 0;
};

// One cached setting. Belongs to the Config that holds it.
class ConfigValue {
 public:
  ConfigValue(int id, int value);
  // Keeps the text pointer itself. If owned is set, the text was made with new[] and is deleted
  // with the value. A length of -1 means strlen. A null text means that the setting is known to be
  // unset.
  ConfigValue(int id, const char* text, int length, int owned);
  // Copies the text and appends a NUL.
  ConfigValue(const ConfigValue& other);
  ConfigValue(int id, const ConfigReading& reading);
  virtual ~ConfigValue();
  ConfigValue& operator=(const ConfigValue&) = delete;

  int id() const { return identifier; }
  const char* text() const { return value_text; }
  int length() const { return text_length; }
  int integer() const { return value_integer; }
  // The value for another owner: an owned text is the caller's from here on.
  ConfigReading TakeReading();

 private:
  int identifier;
  char* value_text;  // null for an integer setting
  int text_length;
  int text_owned;
  int value_integer;
};

// Keyed on the identifier. For settings that are not in the list of Settings.def.
class ConfigTable final : public HashTable<ConfigValue> {
 public:
  ConfigTable() : HashTable<ConfigValue>(1, 0, 12, 512) {}

  using HashTable<ConfigValue>::hash;
  int hash(ConfigValue* item) override;
  int Compare(ConfigValue* a, ConfigValue* b) override;
  int Compare(ConfigValue* item, const char* key, int length) override;

  // The cached value, or null.
  ConfigValue* Lookup(int id) { return Find(reinterpret_cast<const char*>(&id), sizeof id); }
  // Adopts the value and deletes one of the same identifier.
  void Put(ConfigValue* value);
};

// A store with the built-in defaults only. A background task has one as a copy of its request's
// settings. One thread at a time. The order of the virtual operations is fixed.
class Config {
 public:
  Config();
  // Copies every value that the source has read or been given so far. Other settings of the copy
  // come from the built-in defaults.
  Config(Config& other);
  virtual ~Config();
  Config& operator=(const Config&) = delete;

  // The integer setting; -1 for a text identifier and for an unknown integer identifier.
  virtual int value_integer(int id);
  // The text setting, NUL-terminated, owned by the store and valid until SetValue or the end of the
  // store. Null for an integer identifier and for a setting without a value; a setting that is
  // present but empty gives an empty text.
  virtual const char* value_string(int id);
  // Replaces a setting. The text pointer itself is kept and must stay valid for the life of the
  // store; with owned set it was made with new[] and passes to the store. Returns 1; or 0 if the
  // identifier is of the other kind, and the text stays the caller's.
  virtual int SetValue(int id, const char* text, int length, int owned);
  virtual int SetValue_Integer(int id, int value);
  // A new value for a setting that is not cached, owned by the caller; null if there is none.
  virtual ConfigValue* default_value(int id);

  // A bufsz_ setting as a count of bytes to allocate; 8192 if it is 0 or less.
  int buffer_size(int id);

 protected:
  // Like default_value, without making a block. Returns false, and changes nothing, if there is no
  // value.
  virtual bool Read(int id, ConfigReading* reading);
  // Reads the value of the list. Returns false if the list has none.
  static bool BuiltIn(int id, ConfigReading* reading);

 private:
  // A request reads about 20 settings. Their values are in `room`, in the order in which they came;
  // those that no longer fit are blocks of their own.
  static constexpr int kRoom = 24;

  const ConfigValue* Value(int id);
  const ConfigValue* Kept(int place, int id);
  const ConfigValue* Keep(int place, int id, const ConfigReading& reading);
  void Copy(const ConfigValue& value);
  ConfigValue* Room() { return reinterpret_cast<ConfigValue*>(room); }

  ConfigValue* kept[std::size(config_settings)] = {};  // by their place in the list; null if unread
  int in_room = 0;
  alignas(ConfigValue) char room[kRoom * sizeof(ConfigValue)];
  ConfigTable others;
};

#endif

// The configuration library of the engine: gives it settings from a TOML file. The engine loads it
// once and calls the functions of the table below for every request, from all its threads. Tested
// in tests/config/LibraryTest.cpp.

#include "api/zeph.h"
#include "base/host/Settings.h"
#include "base/host/TagLookup.h"
#include "config/Glob.h"
#include "config/Snapshot.h"
#include "config/SnapshotStore.h"

#include <pthread.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace {

// The data word of a request. It keeps the snapshot alive: a change of the file in the middle of a
// request has no effect on that request, and texts can be returned without a copy.
struct Request {
  SnapshotStore::View view;
};

const Snapshot& SnapshotOf(void** data) {
  return *static_cast<Request*>(*data)->view.snapshot;
}

// The last request that has ended on this thread, kept with its snapshot for the next one. A key
// and no thread_local: the registration of a destructor may need memory, and without any it ends
// the process.
class SpareRequest {
 public:
  SpareRequest() : made(pthread_key_create(&key, Delete) == 0) {}
  // The requests of other threads go with these threads, which have ended by now.
  ~SpareRequest() {
    if (!made) return;
    Delete(pthread_getspecific(key));
    pthread_key_delete(key);
  }
  SpareRequest(const SpareRequest&) = delete;
  SpareRequest& operator=(const SpareRequest&) = delete;

  // Null if there is none.
  Request* Take() {
    void* const spare = made ? pthread_getspecific(key) : nullptr;
    if (spare != nullptr) pthread_setspecific(key, nullptr);
    return static_cast<Request*>(spare);
  }
  void Keep(Request* request) {
    if (made && pthread_getspecific(key) == nullptr && pthread_setspecific(key, request) == 0)
      return;
    delete request;
  }

 private:
  static void Delete(void* request) { delete static_cast<Request*>(request); }

  pthread_key_t key;
  bool made;
};

SpareRequest spare_request;

// The actions on tag errors belong to the process, not to a request. So a snapshot is applied once,
// by the first request that has it. A tag that the last snapshot set and this one does not goes
// back to its shipped value.
class AppliedErrorSettings {
 public:
  void Apply(ZPCONFIG config, const Snapshot& snapshot) {
    if (generation.load(std::memory_order_acquire) >= snapshot.generation) return;
    std::lock_guard<std::mutex> lock(mutex);
    // This also stops a late request with an older snapshot.
    if (generation.load(std::memory_order_relaxed) >= snapshot.generation) return;
    for (const TagKeyword& keyword : tag_keywords) {
      int value = snapshot.error_settings[size_t(keyword.tag)];
      if (value == applied[size_t(keyword.tag)]) continue;
      zpConfig_Set_DefaultErrorSetting(config, keyword.text, keyword.length, value);
    }
    applied = snapshot.error_settings;
    generation.store(snapshot.generation, std::memory_order_release);
  }

 private:
  std::atomic<uint64_t> generation{0};
  std::mutex mutex;  // guards applied
  ErrorSettings applied = ShippedErrorSettings();
};

void RegisterLibrary(ZPCONFIG config, const LibrarySection& library) {
  const char* name = library.name.c_str();
  const char* path = library.path.c_str();
  switch (library.kind) {
    case LibraryKind::Builtin: zpConfig_Register_Library_Builtin(config, path); break;
    case LibraryKind::Commerce: zpConfig_Register_Library_Commerce(config, name, path); break;
    case LibraryKind::Database: zpConfig_Register_Library_Database(config, name, path); break;
    case LibraryKind::System: zpConfig_Register_Library_System(config, name, path); break;
  }
}

void NameVariables(ZPCONFIG config, const Snapshot& snapshot) {
  for (const NamedValue& variable : snapshot.system_variables) {
    zpConfig_SetVariable_System(config, variable.name.c_str(), int(variable.name.size()),
                                variable.value.c_str(), int(variable.value.size()));
  }
  for (const NamedValue& variable : snapshot.global_variables) {
    zpConfig_SetVariable_Global(config, variable.name.c_str(), int(variable.name.size()),
                                variable.value.c_str(), int(variable.value.size()));
  }
}

int Initialize(ZPCONFIG config, void** data, int, void*, int) {
  static SnapshotStore store;
  static AppliedErrorSettings error_settings;
  Request* request = spare_request.Take();
  if (request == nullptr) request = new Request;
  *data = request;
  store.Update(&request->view);
  const Snapshot& snapshot = SnapshotOf(data);
  if (!snapshot.error.empty()) return 1;
  error_settings.Apply(config, snapshot);
  for (const LibrarySection& library : snapshot.libraries) RegisterLibrary(config, library);
  NameVariables(config, snapshot);
  return 0;
}

int GetInteger(ZPCONFIG, void** data, int id, int* value) {
  const Setting* setting = SnapshotOf(data).Find(id);
  if (setting == nullptr) return 1;
  *value = setting->integer;
  return 0;
}

int GetString(ZPCONFIG, void** data, int id, const char** text, int* length, int* owned) {
  const Setting* setting = SnapshotOf(data).Find(id);
  if (setting == nullptr) return 1;
  *text = setting->text.c_str();
  *length = int(setting->text.size());
  *owned = 0;
  return 0;
}

const char* GetError(ZPCONFIG, void** data) {
  return SnapshotOf(data).error.c_str();
}

void Shutdown(ZPCONFIG, void** data) {
  spare_request.Keep(static_cast<Request*>(*data));
  *data = nullptr;
}

// The values are written into the request's settings, so that they also replace those that were
// read before the script was known. Of two sections that match, the later one in the file wins.
int LoadScriptConfig(ZPCONFIG config, void** data, const char* path, File*) {
  const Snapshot& snapshot = SnapshotOf(data);
  if (snapshot.scripts.empty()) return 0;
  std::string script = NormalizedPath(path);
  for (const ScriptSection& section : snapshot.scripts) {
    if (!MatchesGlob(section.match, script)) continue;
    for (const Setting& setting : section.settings) {
      if ((setting.id & ConfigKind_Text) != 0) {
        zpConfig_SetValue(config, setting.id, setting.text.c_str(), int(setting.text.size()), 0);
      } else {
        zpConfig_SetValue_Integer(config, setting.id, setting.integer);
      }
    }
  }
  return 0;
}

_ZP_EL_Config descriptor = {
    2,  // version
    Initialize,
    nullptr,  // load_script_v1
    GetInteger, GetString, GetError, Shutdown, LoadScriptConfig,
};

}  // namespace

extern "C" __attribute__((visibility("default"))) _ZP_EL_Config* zeph_config_library(void) {
  return &descriptor;
}

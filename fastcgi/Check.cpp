// Checks an installation. Tested in tests/e2e/ShellOptionsTest.cpp.

#include "fastcgi/Check.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <set>
#include <utility>

#include "base/host/Settings.h"
#include "base/systems/unix/UNIXApplication.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "config/SettingsFile.h"
#include "config/Snapshot.h"
#include "fastcgi/StatusServer.h"

namespace {

std::string TextOf(const String& text) {
  return {text.data ? text.data : "", static_cast<size_t>(text.length)};
}

// A host for a file manager, which finds directories exactly as a request does.
class CheckApplication : public UNIXApplication {
 public:
  CheckApplication() : UNIXApplication(0, nullptr, 0, nullptr, nullptr) {}
  FileManager* filemanager() override { return &files; }

  UNIXReentrantFileManager files{this};
};

class Check {
 public:
  explicit Check(std::ostream& out) : out(out) {}

  bool Run(const std::string& path) {
    CheckUser();
    CheckConfigurationLibrary();
    const std::string file = path.empty() ? Found() : path;
    if (!file.empty()) CheckFile(file);
    if (problems > 0) {
      out << problems << (problems == 1 ? " problem\n" : " problems\n");
    } else {
      out << "ok\n";
    }
    return problems == 0;
  }

 private:
  void Problem(const std::string& text) {
    problems++;
    out << "problem: " << text << "\n";
  }
  void Note(const std::string& text) { out << "note: " << text << "\n"; }

  // The rights below are those of this user.
  void CheckUser() {
    const passwd* user = getpwuid(geteuid());
    out << "user      " << (user ? user->pw_name : std::to_string(geteuid())) << "\n";
  }

  // The engine takes the one of its working directory, and otherwise one that a request names.
  void CheckConfigurationLibrary() {
    const char kLibrary[] = "libzephconfig.so";
    struct stat status;
    if (stat(kLibrary, &status) != 0) {
      return Note(std::string(kLibrary) +
                  " is not in the working directory: the web server has to send ZpCONFIG_LIBRARY");
    }
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
      return Problem(std::string(kLibrary) +
                     ": UID mismatch: it belongs neither to root nor to "
                     "this user");
    }
    CheckLoading(std::string("./") + kLibrary, {"zeph_config_library"});
  }

  // The file that the shipped configuration library would read. Empty, with the problem told, if
  // there is none.
  std::string Found() {
    const FoundSettings found = FindSettings();
    if (*found.path) return found.path;
    Problem(std::string("no settings: ") + config_file_variable + " is not set, and neither " +
            config_file_local + " nor " + config_file_system + " exists");
    return "";
  }

  void CheckFile(const std::string& path) {
    out << "settings  " << path << "\n";
    std::string text;
    struct stat status;
    const std::string reason = ReadSettings(path.c_str(), &status, &text);
    if (!reason.empty()) return Problem(path + ": " + reason);
    const Snapshot snapshot = Snapshot::Parse(path, text);
    for (const std::string& error : snapshot.errors) Problem(error);
    for (const std::string& warning : snapshot.warnings) Note(warning);
    // The rest of a file with mistakes may not be what its author means.
    if (!snapshot.errors.empty()) return;
    CheckProcess(snapshot.process);
    CheckOperatorLogs(snapshot);
    CheckDirectories(snapshot);
    for (const LibrarySection& library : snapshot.libraries) CheckLibrary(library);
  }

  void CheckProcess(const ProcessSection& process) {
    if (process.status_listen.empty()) return;
    StatusAddress address;
    std::string problem;
    if (!StatusAddress::Parse(process.status_listen, &address, &problem)) {
      Problem("process.status_listen: " + problem);
    }
  }

  void CheckOperatorLogs(const Snapshot& snapshot) {
    const auto check = [this](const char* name, const std::string& path) {
      if (!path.empty() && path[0] == '/') CheckWritable(name, path, false);
    };
    check("error_log", TextSetting(snapshot.settings, Config_error_log));
    check("slow_log", TextSetting(snapshot.settings, Config_slow_log));
    for (const ScriptSection& section : snapshot.scripts) {
      check("script.slow_log", TextSetting(section.settings, Config_slow_log));
    }
  }

  static std::string TextSetting(const std::vector<Setting>& settings, int id) {
    for (const Setting& setting : settings) {
      if (setting.id == id) return setting.text;
    }
    return "";
  }

  void CheckDirectories(const Snapshot& snapshot) {
    const Setting* flags = snapshot.Find(Config_flags_security);
    application.files.SecurityOptions(flags ? flags->integer : 0);
    const auto script = [this](const char* path) {
      return application.files.InitializeScriptDirectory(path, nullptr);
    };
    const auto data = [this](const char* path) {
      return application.files.InitializeDataDirectory(path);
    };
    const auto temporary = [this](const char* path) {
      return application.files.InitializeTempDirectory(path);
    };
    CheckDirectory("dir_zeph", Config_dir_zeph, snapshot, R_OK | X_OK, true, script);
    const bool has_data =
        CheckDirectory("dir_data", Config_dir_data, snapshot, R_OK | W_OK | X_OK, true, data);
    CheckDirectory("dir_temp", Config_dir_temp, snapshot, R_OK | W_OK | X_OK, false, temporary);
    if (const std::string ca = TextSetting(snapshot.settings, Config_dir_ca); !ca.empty()) {
      CheckRights("dir_ca", ca, R_OK | X_OK);
    }
    if (!has_data) return;
    const std::string place = TextSetting(snapshot.settings, Config_dir_data);
    CheckLog(place, TextSetting(snapshot.settings, Config_log_file));
    for (const ScriptSection& section : snapshot.scripts) {
      const std::string own = TextSetting(section.settings, Config_dir_data);
      if (!own.empty() && (!CheckRights("script.dir_data", own, R_OK | W_OK | X_OK) ||
                           !CheckOpens("script.dir_data", own, data))) {
        continue;
      }
      CheckLog(own.empty() ? place : own, TextSetting(section.settings, Config_log_file));
    }
  }

  template <typename Initialize>
  bool CheckDirectory(const char* name, int id, const Snapshot& snapshot, int rights, bool required,
                      const Initialize& initialize) {
    const Setting* setting = snapshot.Find(id);
    if (!setting) {
      if (required) Problem(std::string(name) + ": missing");
      return false;
    }
    out << name << "  " << setting->text << "\n";
    return CheckOpens(name, setting->text, initialize) && CheckRights(name, setting->text, rights);
  }

  template <typename Initialize>
  bool CheckOpens(const char* name, const std::string& path, const Initialize& initialize) {
    if (initialize(path.c_str())) return true;
    Problem(name + (": " + path) + ": " + TextOf(application.files.error()));
    return false;
  }

  bool CheckRights(const char* name, const std::string& path, int rights) {
    const std::string subject = name + (": " + path) + ": ";
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
      Problem(subject + strerror(errno));
      return false;
    }
    if (!S_ISDIR(status.st_mode)) {
      Problem(subject + "is no directory");
      return false;
    }
    const struct {
      int right;
      const char* what;
    } rows[] = {{R_OK, "read"}, {W_OK, "write"}, {X_OK, "search"}};
    std::string missing;
    for (const auto& row : rows) {
      if (!(rights & row.right) || faccessat(AT_FDCWD, path.c_str(), row.right, AT_EACCESS) == 0) {
        continue;
      }
      missing += (missing.empty() ? "" : ", ") + std::string(row.what);
    }
    if (missing.empty()) return true;
    Problem(subject + "this user has no right to " + missing);
    return false;
  }

  void CheckLog(const std::string& directory, const std::string& log) {
    if (log.empty() || !logs.emplace(directory, log).second) return;
    CheckWritable("log_file", log[0] == '/' ? log : directory + "/" + log, true);
  }

  // A log that cannot be written is no error of a request, so no page tells. Other logs than those
  // that must be files may be devices.
  void CheckWritable(const char* name, const std::string& path, bool must_be_file) {
    out << name << "  " << path << "\n";
    const std::string subject = name + (": " + path) + ": ";
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
      if (errno != ENOENT) return Problem(subject + strerror(errno));
      // It is made by the first line.
      CheckRights(name, path.substr(0, std::max<size_t>(path.rfind('/'), 1)), W_OK | X_OK);
    } else if (S_ISDIR(status.st_mode) || (must_be_file && !S_ISREG(status.st_mode))) {
      Problem(subject + "is no regular file");
    } else if (faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0) {
      Problem(subject + "this user has no right to write");
    }
  }

  void CheckLibrary(const LibrarySection& library) {
    out << "library   " << library.path << "\n";
    switch (library.kind) {
      case LibraryKind::Builtin: return CheckLoading(library.path, {"zeph_function_table"});
      case LibraryKind::Commerce:
        return CheckLoading(library.path, {"zeph_commerce_library", "zeph_commerce_init"});
      case LibraryKind::Database: return CheckLoading(library.path, {"zeph_database_library"});
      case LibraryKind::System: return CheckLoading(library.path, {});
    }
  }

  // Loads a library with all its symbols, which the engine binds only when they are called. One of
  // the entries has to be there. The library stays loaded, as it does in the engine.
  void CheckLoading(const std::string& path, std::initializer_list<const char*> entries) {
    struct stat status;
    if (path.find('/') != std::string::npos && stat(path.c_str(), &status) == 0 &&
        !S_ISREG(status.st_mode)) {
      return Problem("library " + path + ": is no regular file");
    }
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) return Problem("library " + std::string(dlerror()));
    if (entries.size() == 0) return;
    for (const char* entry : entries) {
      if (dlsym(handle, entry)) return;
    }
    Problem("library " + path + ": has no function '" + *entries.begin() +
            "', so it is none of this kind");
  }

  std::ostream& out;
  CheckApplication application;
  std::set<std::pair<std::string, std::string>> logs;  // directory and name of those looked at
  int problems = 0;
};

}  // namespace

bool CheckInstallation(const std::string& path, std::ostream& out) {
  return Check(out).Run(path);
}

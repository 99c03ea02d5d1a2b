// The stages of a request that find, open and load its script.

#include <fcgiapp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "base/extensions/ExternalConfig.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "fastcgi/FastCGIApplication.h"

namespace {

// The home directory of a user. Returns false if the system does not know the name.
bool HomeDirectory(const char* user, String* home) {
  long room = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(static_cast<size_t>(room > 0 ? room : 1024));
  passwd entry;
  passwd* found = nullptr;
  while (getpwnam_r(user, &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (!found) return false;
  home->assign(entry.pw_dir, -1);
  return true;
}

}  // namespace

// Whether the file manager's text is of a failure that is not about the name, so that the script
// may well exist.
bool FastCGIApplication::IsShortage(const String& text) {
  for (const int error : {EACCES, EIO, EMFILE, ENFILE, ENOMEM, EPERM}) {
    errno = error;
    const String words = lasterror();
    if (text.length == words.length && memcmp(text.data, words.data, size_t(text.length)) == 0) {
      return true;
    }
  }
  return false;
}

// "Unable to execute 'path': text". A path that comes from the request is shown encoded, and is
// then that of a script that cannot be opened.
bool FastCGIApplication::ExecuteError(const String& path, const String& text, bool encode) {
  String message("Unable to execute '", -1);
  String plain(message);
  plain.cat(path.data, path.length);
  plain.cat("': ", -1);
  if (text.length > 0) plain.cat(text.data, text.length);
  using Cause = RequestWatch::Cause;
  watch.StageFails(encode && !IsShortage(text) ? Cause::Missing : Cause::Unreadable, path, plain);
  if (encode) {
    int length, size;
    char* encoded = EncodeEntities(path.data, path.length, &length, &size);
    String shown(encoded, length, size);
    message.cat(shown.data, shown.length);
  } else {
    message.cat(path.data, path.length);
  }
  message.cat("': ", -1);
  if (text.length > 0) message.cat(text.data, text.length);
  Error(message);
  return false;
}

// From here on the request is one with a PATH_INFO, if the operator wants that. The variable of
// this name stays as the web server has sent it.
void FastCGIApplication::TakeScriptName() {
  if (parameters.path_info && *parameters.path_info) return;
  if (!parameters.script_name || !*parameters.script_name) return;
  if (configuration->value_integer(Config_path_from_script_name) == 0) return;
  parameters.path_info = parameters.script_name;
}

bool FastCGIApplication::GetScriptInformation(File** file, TaggedFile* tagged, String& path) {
  const char* text;
  String query;
  if (parameters.path_info) {
    text = *parameters.path_info == '/' ? parameters.path_info + 1 : parameters.path_info;
  } else if (copied_argument_count >= 2) {
    text = copied_arguments[1];
  } else if (parameters.query_string) {
    query.assign(parameters.query_string, static_cast<int>(strcspn(parameters.query_string, "+")));
    text = query.data;
  } else {
    text = configuration->value_string(Config_default_file);
    if (!text) text = "";
  }
  String root;
  bool has_root;
  if (!ScriptRoot(&text, &root, &has_root)) return false;
  path.assign(text, -1);
  if (has_root && user_name.length == 0) {
    *file = file_manager->OpenScript(&root, text, tagged);
    if (*file) return true;
  }
  if (!file_manager->InitializeScriptDirectory(has_root ? root.data : nullptr,
                                               user_name.length > 0 ? user_name.data : nullptr)) {
    ConfigurationError(file_manager->error());
    return false;
  }
  return OpenScript(file, path);
}

// The directory that the script is looked up in: dir_zeph, or a user's own directory if the path
// begins with "~name/"; *path then points to the text after that. A "~" path without a "/" has no
// root.
bool FastCGIApplication::ScriptRoot(const char** path, String* root, bool* has_root) {
  *has_root = true;
  if ((*path)[0] != '~' || (*path)[1] == '\0') {
    *root = std::move(script_root);
    return true;
  }
  const char* slash = strchr(*path, '/');
  if (!slash) {
    *has_root = false;
    return true;
  }
  user_name.assign(*path + 1, static_cast<int>(slash - *path) - 1);
  if (!HomeDirectory(user_name.data, root)) {
    String message("Invalid user '", -1);
    message.cat(user_name.data, user_name.length);
    message.cat('\'');
    watch.StageFails(RequestWatch::Cause::Missing, String(), message);
    ConfigurationError(message);
    return false;
  }
  root->cat('/');
  if (user_directory.length > 0) root->cat(user_directory.data, user_directory.length);
  *path = slash + 1;
  return true;
}

// Opens the file that the path names. In a directory that is its default file, which may be a
// directory again.
bool FastCGIApplication::OpenScript(File** file, String& path) {
  for (;;) {
    // An empty path means the script directory itself.
    const char* name = path.length > 0 ? path.data : ".";
    std::unique_ptr<File> opened(file_manager->Open(ZephPath_Script, name, FileMode_Read));
    if (!opened) return ExecuteError(path, file_manager->error(), true);
    bool directory;
    if (!opened->IsDirectory(&directory)) return ExecuteError(path, opened->error(), true);
    if (!directory) {
      *file = opened.release();
      return true;
    }
    const int before = path.length;
    if (path.length == 0 || path.data[path.length - 1] != '/') path.cat('/');
    const char* default_file = configuration->value_string(Config_default_file);
    if (default_file) path.cat(default_file, -1);
    // A default file that is empty or names the directory itself would be followed without end.
    if (path.length >= PATH_MAX || path.length == before) {
      errno = path.length == before ? EISDIR : ENAMETOOLONG;
      return ExecuteError(path, lasterror(), true);
    }
  }
}

bool FastCGIApplication::LoadScript(File* file, TaggedFile* tagged, const String& path) {
  std::unique_ptr<File> owned(file);
  if (!tables.config->LoadScriptConfig(path.data, file)) {
    owned.reset();
    ConfigurationError(tables.config->error());
    return false;
  }
  String reason;
  return ReadScript(&tables, owned.release(), tagged, path, &reason) ||
         ExecuteError(path, reason, false);
}

// The stages of a run.
// Tested in tests/e2e/CommandLineTest.cpp and tests/e2e/ZprunTest.cpp.

#include "commandline/CommandLineApplication.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>

#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/TaggedFile.h"
#include "base/compiled/VariableHash.h"
#include "base/core/ascii.h"
#include "base/extensions/ExternalConfig.h"
#include "base/host/Config.h"
#include "base/machine/ZephVM.h"
#include "base/request/URLEncodedParser.h"
#include "base/systems/unix/UNIXNetworkManager.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "base/values/VariableKinds.h"
#include "commandline/CommandLineOutput.h"
#include "commandline/Options.h"
#include "compiler/Compiler.h"
#include "compiler/PageFiles.h"
#include "config/SnapshotStore.h"

namespace {

const char kLibrary[] = "libzephconfig.so";
const char kStandardInput[] = "-";

bool Exists(const char* path) {
  return access(path, F_OK) == 0;
}

// An environment variable; null if it is not set or empty.
const char* Environment(const char* name) {
  const char* value = getenv(name);
  return value && *value ? value : nullptr;
}

// Whether libzephconfig.so would find a file to read.
bool HasConfigurationFile() {
  return Environment(config_file_variable) || Exists(config_file_local) ||
         Exists(config_file_system);
}

// Fields "name=value" as a browser sends them, joined by "&". Names are paths of arrays and
// structures, whose marks the reader of forms expects as they are or encoded.
std::string Encoded(const std::vector<const char*>& fields) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (const char* field : fields) {
    if (!text.empty()) text += '&';
    bool in_name = true;
    for (const char* p = field; *p; p++) {
      const auto c = static_cast<unsigned char>(*p);
      if (in_name && c == '=') {
        in_name = false;
        text += '=';
      } else if (zp_isalpha(c) || zp_isdigit(c) || strchr("-._~", c)) {
        text += *p;
      } else {
        text += {'%', kDigits[c >> 4], kDigits[c & 15]};
      }
    }
  }
  return text;
}

// The resolved path; empty, with errno set, if there is no such file.
std::string Resolved(const char* path) {
  std::unique_ptr<char, decltype(&free)> full(realpath(path, nullptr), free);
  return full ? full.get() : "";
}

}  // namespace

std::string ShippedConfigurationLibrary() {
  std::string folder = Resolved("/proc/self/exe");
  folder.resize(folder.rfind('/') == std::string::npos ? 0 : folder.rfind('/') + 1);
  for (const char* place : {"", "../lib/", "../lib/zeph/"}) {
    std::string path = folder + place + kLibrary;
    if (Exists(path.c_str())) return path;
  }
  return "";
}

CommandLineApplication::CommandLineApplication(int argc, char** argv,
                                               ExternalLibraryManager* library_manager)
    : UNIXApplication(argc, argv, argc, argv, library_manager) {
  thread_id = 1;
  network_manager = new UNIXNetworkManager(this);
  file_manager = new UNIXReentrantFileManager(this);
}

int CommandLineApplication::Go(const Options& options) {
  TaggedFile tagged(file_manager);
  SeedRandom();
  BuildTables(&tables, &tagged);
  MachineScope scope(this);
  String path;
  if (!Prepare(options, &tagged, &path)) return 1;
  if (options.check) return 0;
  LimitMemory();
  ProcessLogSettings();
  // On a terminal the user sees each write at once.
  auto* standard_output = new CommandLineOutput(this, isatty(STDOUT_FILENO) ? 0 : 1,
                                                configuration->buffer_size(Config_bufsz_output));
  current_output = standard_output;
  if (options.headers) standard_output->ShowHeaders();
  if (!options.errors_in_page) standard_output->SeparateErrors();
  MakeMachine(&tables, &tagged, path);
  AddSystemVariables(&tables);
  AddArguments(options);
  if (options.is_request && !AddRequest(options, path)) return 1;
  ResetGlobalTimeout();
  const bool ran = vm->Go() != 0;
  // The machine ends first, because a mail that the script left open is sent then. Standard output
  // itself is flushed, in case the script left a capture open.
  DeleteMachine();
  standard_output->Flush();
  const int failure = standard_output->failure();
  if (failure == 0 && ran) return standard_output->has_errors() ? kEndedWithErrors : 0;
  if (failure == 0) return 1;
  // EPIPE is not reported: the reader has closed the pipe because it needs no more.
  errno = failure;
  if (failure != EPIPE) Fail("standard output", lasterror());
  return 1;
}

void CommandLineApplication::Interrupt() {
  interrupted.store(true);
  Cancelled();
}

void CommandLineApplication::ResetGlobalTimeout() {
  UNIXApplication::ResetGlobalTimeout();
  if (interrupted.load()) Cancelled();
}

bool CommandLineApplication::Fail(const char* subject, const String& text) {
  fprintf(stderr, "zprun: %s%s%.*s\n", subject, *subject ? ": " : "", text.length,
          text.data ? text.data : "");
  return false;
}

// --- Stages --------------------------------------------------------------------------------------

bool CommandLineApplication::Prepare(const Options& options, TaggedFile* tagged, String* path) {
  if (!LoadConfiguration(options)) return false;
  file_manager->MaxFiles(configuration->value_integer(Config_max_files));
  file_manager->SecurityOptions(configuration->value_integer(Config_flags_security));
  if (!options.script && !options.text) return CheckDirectories();
  File* file = nullptr;
  const bool is_file = options.script && strcmp(options.script, kStandardInput) != 0;
  const bool opened =
      is_file ? OpenScript(options.script, &file, path) : OpenImage(options, &file, path);
  return opened && LoadScript(is_file ? options.script : path->data, file, tagged, *path) &&
         InitializeDirectories();
}

// Looks for the library where the engine does, with the process's environment instead of the
// request's parameters. If it is not there, the library that was shipped with the program is used,
// if there is a file for it to read; without such a file all settings keep their defaults.
bool CommandLineApplication::LoadConfiguration(const Options& options) {
  if (Exists(kLibrary)) return LoadLibrary(kLibrary);
  if (const char* named = Environment("ZpCONFIG_LIBRARY")) return LoadLibrary(named);
  if (!options.config && !HasConfigurationFile()) return true;
  const std::string shipped = ShippedConfigurationLibrary();
  if (!shipped.empty()) return LoadLibrary(shipped.c_str());
  return Fail("Error loading configuration library", "Unable to locate/load libzephconfig.so");
}

bool CommandLineApplication::LoadLibrary(const char* path) {
  const char kLoading[] = "Error loading configuration library";
  // dlopen looks up a plain name in the system's folders only, so the path is resolved.
  const std::string full = Resolved(path);
  if (full.empty()) {
    String text(path, -1);
    const String reason = lasterror();
    text.cat(": ", -1);
    text.cat(reason.data, reason.length);
    return Fail(kLoading, text);
  }
  if (LookAtLibrary(full.c_str()) != LibraryFile::Usable) {
    return Fail(kLoading, "UID mismatch");
  }
  has_library = tables.config->Load(full.c_str(), 0, copied_arguments, copied_argument_count);
  return has_library || Fail(kLoading, tables.config->error());
}

// Finds the directory that confines the script, and the script's path in it. A script below
// dir_zeph has the same path as for requests; for any other script the directory is its own folder.
bool CommandLineApplication::Place(const char* named, String* directory, String* path) {
  const std::string full = Resolved(named);
  if (full.empty()) return Fail(named, lasterror());
  const char* root = configuration->value_string(Config_dir_zeph);
  const std::string scripts = root ? Resolved(root) + "/" : "";
  if (scripts.size() > 1 && full.compare(0, scripts.size(), scripts) == 0) {
    directory->assign(root, -1);
    path->assign(full.c_str() + scripts.size(), -1);
    return true;
  }
  const size_t slash = full.rfind('/');
  directory->assign(full.c_str(), slash == 0 ? 1 : static_cast<int>(slash));
  path->assign(full.c_str() + slash + 1, -1);
  return true;
}

bool CommandLineApplication::CheckDirectories() {
  const char* scripts = configuration->value_string(Config_dir_zeph);
  if (scripts && !file_manager->InitializeScriptDirectory(scripts, nullptr)) {
    return Fail("", file_manager->error());
  }
  return InitializeDirectories();
}

bool CommandLineApplication::OpenScript(const char* named, File** file, String* path) {
  String directory;
  if (!Place(named, &directory, path)) return false;
  if (!file_manager->InitializeScriptDirectory(directory.data, nullptr)) {
    return Fail(named, file_manager->error());
  }
  const char* name = path->length > 0 ? path->data : ".";
  std::unique_ptr<File> opened(file_manager->Open(ZephPath_Script, name, FileMode_Read));
  if (!opened) return Fail(named, file_manager->error());
  bool is_directory;
  if (!opened->IsDirectory(&is_directory)) return Fail(named, opened->error());
  if (is_directory) {
    errno = EISDIR;
    return Fail(named, lasterror());
  }
  *file = opened.release();
  return true;
}

// Its directory is the working one, and its path the word of the command line, - or -e.
bool CommandLineApplication::OpenImage(const Options& options, File** file, String* path) {
  path->assign(options.text ? "-e" : kStandardInput, -1);
  char directory[PATH_MAX];
  if (!getcwd(directory, sizeof directory)) return Fail(path->data, lasterror());
  if (!file_manager->InitializeScriptDirectory(directory, nullptr)) {
    return Fail(path->data, file_manager->error());
  }
  if (!(options.text ? Compile(options.text) : ReadInput())) return false;
  *file = images.Open(path->data, FileMode_Read);
  return *file || Fail(path->data, images.error());
}

bool CommandLineApplication::ReadInput() {
  std::string& image = images.files[kStandardInput];
  char buffer[16384];
  while (const ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer)) {
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Fail(kStandardInput, lasterror());
    image.append(buffer, static_cast<size_t>(count));
    if (image.size() > kLargestFile) {
      errno = EFBIG;
      return Fail(kStandardInput, lasterror());
    }
  }
  return true;
}

bool CommandLineApplication::Compile(const char* text) {
  const std::vector<std::string> no_folders;
  PageIncludes includes("", no_folders);
  CompileOptions options;
  options.reader = [&includes](const std::string& name, const std::string& from, std::string* found,
                               std::string* content) {
    return includes.Read(name, from, found, content);
  };
  CompileResult result = CompilePage(text, "-e", options);
  fputs(result.formatted.c_str(), stderr);
  images.files["-e"] = std::move(result.image);
  return result.succeeded;
}

bool CommandLineApplication::LoadScript(const char* named, File* file, TaggedFile* tagged,
                                        const String& path) {
  std::unique_ptr<File> owned(file);
  if (has_library && !tables.config->LoadScriptConfig(path.data, file)) {
    return Fail("configuration", tables.config->error());
  }
  String reason;
  return ReadScript(&tables, owned.release(), tagged, path, &reason) || Fail(named, reason);
}

// Runs after the script is loaded, so that settings for this script alone count. Without dir_data a
// script works on the files of the working directory, as other command line programs do.
bool CommandLineApplication::InitializeDirectories() {
  const char* temporary = configuration->value_string(Config_dir_temp);
  if (temporary && !file_manager->InitializeTempDirectory(temporary)) {
    return Fail("", file_manager->error());
  }
  if (const char* data = configuration->value_string(Config_dir_data)) {
    return file_manager->InitializeDataDirectory(data) || Fail("", file_manager->error());
  }
  // Failure is ignored: no setting names this directory, and a script that needs no files runs
  // without it.
  char working_directory[PATH_MAX];
  if (getcwd(working_directory, sizeof working_directory)) {
    static_cast<void>(file_manager->InitializeDataDirectory(working_directory));
  }
  return true;
}

void CommandLineApplication::AddArguments(const Options& options) {
  char name[16];
  char count[16];
  for (int i = 0; i < options.argument_count; i++) {
    snprintf(name, sizeof name, "arg%d", i + 1);
    tables.global_variables->SetVariable(name, -1, options.arguments[i], -1);
  }
  snprintf(count, sizeof count, "%d", options.argument_count);
  tables.global_variables->SetVariable("nargs", -1, count, -1);
}

// The names and values that the engine has for a request of this page from this machine. Fields of
// the query come before those of the form, as they do there.
bool CommandLineApplication::AddRequest(const Options& options, const String& path) {
  const std::string query = Encoded(options.query);
  const std::string form = Encoded(options.form);
  const std::string page = "/" + std::string(path.data, static_cast<size_t>(path.length));
  std::string cookies;
  for (const char* cookie : options.cookies)
    cookies += (cookies.empty() ? "" : "; ") + std::string(cookie);
  AddSystemText("REQUEST_METHOD", options.form.empty() ? "GET" : "POST");
  AddSystemText("REQUEST_URI", page + (query.empty() ? "" : "?" + query));
  AddSystemText("PATH_INFO", page);
  AddSystemText("SCRIPT_NAME", "");
  AddSystemText("QUERY_STRING", query);
  AddSystemText("SERVER_NAME", "localhost");
  AddSystemText("SERVER_PORT", "80");
  AddSystemText("SERVER_PROTOCOL", "HTTP/1.1");
  AddSystemText("HTTP_HOST", "localhost");
  AddSystemText("REMOTE_ADDR", "127.0.0.1");
  if (!cookies.empty()) AddSystemText("HTTP_COOKIE", cookies);
  if (!options.form.empty()) {
    AddSystemText("CONTENT_TYPE", "application/x-www-form-urlencoded");
    AddSystemText("CONTENT_LENGTH", std::to_string(form.size()));
  }
  AddSystemText("apitype", "Redirect");
  AddSystemText("documenturl", "http://localhost" + page + "?");
  AddCaller(cookies);
  current_output->Header("Content-Type", "text/html");
  return AddFields(query) && AddFields(form);
}

// The visitor's id: that of the cookie, or one that is made as the engine makes it.
void CommandLineApplication::AddCaller(const std::string& cookies) {
  const std::string name = "zixcallerid=";
  const size_t at = cookies.find(name);
  std::string id;
  if (at != std::string::npos) {
    const size_t begin = at + name.size();
    id = cookies.substr(begin, cookies.find(';', begin) - begin);
  }
  if (id.empty()) {
    int length;
    const std::unique_ptr<char[]> made(MakeSessionID(&length));
    id.assign(made.get(), static_cast<size_t>(length));
  }
  AddSystemText("callerid", id);
}

void CommandLineApplication::AddSystemText(const char* name, const std::string& text) {
  tables.system_variables->SetVariable(
      new ImmutableVariable(name, -1, text.c_str(), static_cast<int>(text.size())));
}

bool CommandLineApplication::AddFields(const std::string& fields) {
  if (fields.empty()) return true;
  URLEncodedParser parser(tables.global_variables, 0);
  if (parser.Parse(fields.data(), static_cast<int>(fields.size())) && parser.Finalize())
    return true;
  return Fail("request", parser.error());
}

// The stages of a request that find, load and apply the configuration.

#include <string>

#include "base/extensions/ExternalConfig.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "fastcgi/FastCGIApplication.h"
#include "fastcgi/FastCGIConnection.h"
#include "fastcgi/FastCGIOutput.h"
#include "fastcgi/FastCGIThreads.h"
#include "fastcgi/OperatorSettings.h"

namespace {

const char kLoading[] = "Error loading configuration library: ";

String LoadingError(const char* text, int length) {
  String message(kLoading, -1);
  if (length != 0) message.cat(text, length);
  return message;
}

// Leaves the copy null if the setting is not set.
void CopySetting(Config* settings, int id, String* copy) {
  if (const char* text = settings->value_string(id)) copy->assign(text, -1);
}

}  // namespace

bool FastCGIApplication::LoadConfiguration() {
  // The process never changes its working directory.
  static const std::string path = std::string(working_directory) + "/libzephconfig.so";
  const char* library = path.c_str();
  // The relative name finds the same file as the path, without a walk through its folders.
  LibraryFile found = LookAtLibrary("libzephconfig.so");
  if (found == LibraryFile::Missing) {
    library = parameters.config_library;
    if (library) found = LookAtLibrary(library);
  }
  if (found == LibraryFile::Missing) {
    ConfigurationError(LoadingError("Unable to locate/load libzephconfig.so", -1));
    return false;
  }
  if (found == LibraryFile::Foreign) {
    ConfigurationError(LoadingError("UID mismatch", -1));
    return false;
  }
  const bool loaded = tables.config->Load(library, 0, copied_arguments, copied_argument_count);
  if (OperatorSettings::AreDue()) OperatorSettings::Read(tables.config, loaded);
  if (loaded) {
    watch.SetConfigured();
    return true;
  }
  const String& text = tables.config->error();
  ConfigurationError(LoadingError(text.data, text.length));
  return false;
}

bool FastCGIApplication::CheckConfiguration() {
  CopySetting(configuration, Config_dir_zeph, &script_root);
  CopySetting(configuration, Config_dir_temp, &temp_directory);
  CopySetting(configuration, Config_dir_user, &user_directory);
  if (!script_root.data) {
    SettingIsMissing("dir_zeph", "zephroot is not defined");
    return false;
  }
  if (temp_directory.data && !file_manager->InitializeTempDirectory(temp_directory.data)) {
    ConfigurationError(file_manager->error());
    return false;
  }
  return true;
}

// The page has the text alone, and the line of the log the name that the settings have.
void FastCGIApplication::SettingIsMissing(const char* name, const char* text) {
  String told("Configuration Error: ", -1);
  for (const char* part : {text, ", because ", name, " is not set"}) told.cat(part, -1);
  watch.StageFails(RequestWatch::Cause::Configuration, String(), told);
  ConfigurationError(text);
}

// Runs after the script is loaded, so that settings for this script alone count.
bool FastCGIApplication::ProcessConfiguration() {
  const char* const data_directory = configuration->value_string(Config_dir_data);
  if (!data_directory) {
    SettingIsMissing("dir_data", "No data directory is defined");
    return false;
  }
  if (!file_manager->InitializeDataDirectory(data_directory)) {
    ConfigurationError(file_manager->error());
    return false;
  }
  file_manager->KeepDescriptors(thread_manager->DescriptorReserve());
  LimitMemory();
  ProcessLogSettings();
  if (FastCGIConnection* connection = FastCGIConnection::Current()) {
    connection->LimitWrites(configuration->value_integer(Config_timeout_global));
  }
  response->SetBlockSize(configuration->buffer_size(Config_bufsz_output));
  response->SetFlushThreshold(configuration->buffer_size(Config_bufsz_output_flush));
  return true;
}

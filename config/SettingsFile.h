// Where the file of settings is, and its text: one rule for requests, for the start of the engine
// and for its check.

#ifndef ZEPH_CONFIG_SETTINGSFILE_H
#define ZEPH_CONFIG_SETTINGSFILE_H

#include <sys/stat.h>

#include <string>

// The file is the one that this environment variable names, or else the first of the two that
// exists.
inline constexpr char config_file_variable[] = "ZEPH_CONFIG";
inline constexpr char config_file_local[] = "zeph.toml";
inline constexpr char config_file_system[] = "/etc/zeph/zeph.toml";

// The file that was found, or the errno of looking for it.
struct FoundSettings {
  const char* path;  // empty when no file was named or found; valid as long as the environment
  int error;         // 0 when it exists
  struct stat status;
};

// A file that exists and cannot be reached is found, with its error: the next one is not meant.
FoundSettings FindSettings();
// "no configuration file", or what the system says of the one that was found. REQUIRES: error is
// not 0.
std::string WhyNoSettings(const FoundSettings& found);

// Reads a regular file of at most 16 MB whole. Returns the error text, empty on success. *status is
// that of the file that was read, which may have been replaced since it was found; it stays as it
// was if no file could be opened. On failure *text may have a part of the file. *may_pass, if not
// null, is set to true if a system call failed, and to false otherwise: a later call may then
// succeed although the status of the file is the same, because this does not show who may read it
// or how many descriptors the process has left.
std::string ReadSettings(const char* path, struct stat* status, std::string* text,
                         bool* may_pass = nullptr);

#endif

// One run of a script from the command line, from its settings to the exit status.

#ifndef ZEPH_COMMANDLINE_COMMANDLINEAPPLICATION_H
#define ZEPH_COMMANDLINE_COMMANDLINEAPPLICATION_H

#include <atomic>
#include <string>

#include "base/request/ScriptTables.h"
#include "base/systems/unix/UNIXApplication.h"
#include "tools/MemoryFile.h"

struct Options;

// Made, run and deleted on the script's thread; another thread calls Heartbeat and Interrupt.
// Failures before the script runs go to standard error, and so do the messages of the running
// script unless the options want them in its output, as on a page.
class CommandLineApplication : public UNIXApplication {
 public:
  // The arguments of the process; all pointers are borrowed.
  CommandLineApplication(int argc, char** argv, ExternalLibraryManager* library_manager);

  // Runs the script, once. Returns the exit status: 0 if it ran to its end, kEndedWithErrors if it
  // did and there were messages of errors, and 1 otherwise. If the options ask for a check, returns
  // 0 if the script could be run, or if there is none, and 1 otherwise.
  static constexpr int kEndedWithErrors = 3;
  int Go(const Options& options);
  // Ends the script for good. Any thread.
  void Interrupt();

  void ResetGlobalTimeout() override;

 private:
  // Stages. One that fails has reported its failure and returns false.
  bool Prepare(const Options& options, TaggedFile* tagged, String* path);
  bool LoadConfiguration(const Options& options);
  bool LoadLibrary(const char* path);
  bool InitializeDirectories();
  // The stages of a check without a script.
  bool CheckDirectories();
  bool OpenScript(const char* named, File** file, String* path);
  // A script that is no file: of standard input, or of the text of a page.
  bool OpenImage(const Options& options, File** file, String* path);
  bool ReadInput();
  bool Compile(const char* text);
  bool LoadScript(const char* named, File* file, TaggedFile* tagged, const String& path);
  bool Place(const char* named, String* directory, String* path);
  void AddArguments(const Options& options);
  // Adds what a request would bring. Returns false if the fields cannot be stored.
  bool AddRequest(const Options& options, const String& path);
  bool AddFields(const std::string& fields);
  void AddSystemText(const char* name, const std::string& text);
  void AddCaller(const std::string& cookies);

  // Writes "zprun: subject: text" to standard error; an empty subject is left out. Returns false.
  bool Fail(const char* subject, const String& text);

  bool has_library = false;
  // Has the script that is no file, as long as it runs.
  MemoryFileManager images;
  std::atomic<bool> interrupted{false};
  ScriptTables tables;
};

// The configuration library that was shipped with zprun: it is looked for beside the program and in
// the library folders of the program's tree. Empty if it is not there.
std::string ShippedConfigurationLibrary();

#endif

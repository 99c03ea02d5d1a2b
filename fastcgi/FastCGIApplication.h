// One request, from its parameters to its response. Go reads as a table of contents of the stages
// in between.

#ifndef ZEPH_FASTCGI_FASTCGIAPPLICATION_H
#define ZEPH_FASTCGI_FASTCGIAPPLICATION_H

#include <memory>

#include "base/request/ScriptTables.h"
#include "fastcgi/FastCGIBaseApplication.h"
#include "fastcgi/HostParameters.h"
#include "fastcgi/RequestVariables.h"

class FastCGIOutput;
class FastCGIThread;
class HTTPContentParser;
struct FCGX_Request;

// A request thread makes one for each request and deletes it after the response; nothing of a
// script outlives it. A stage that fails sends its message to the client and returns false.
class FastCGIApplication : public FastCGIBaseApplication {
 public:
  // Arguments as in _FastCGIMainArgs; all pointers are borrowed. The request and its parameters
  // must outlive the application.
  FastCGIApplication(int argc, char** argv, int copied_argc, char** copied_argv,
                     FastCGIThreadManager* thread_manager, ExternalLibraryManager* library_manager,
                     FCGX_Request* request);

  // Runs the request. Returns 0 if the script ran, 1 if the request ended in an earlier stage.
  int Go(FastCGIThread* thread);

  void OutputError(const char* text, int length) override;
  int BeginAsynchronousTask(ZephVM* machine) override;
  // Sends a failure of the configuration, followed by the setting info_serveradmin if there is one.
  virtual void ConfigurationError(const String& text);

 private:
  // How many bytes of a body, or of a query, are parsed between two looks at the time limit.
  static constexpr int kInputBlock = 8192;

  int Run(TaggedFile* tagged);
  int RunStages(TaggedFile* tagged, String* path);
  bool Prepare(TaggedFile* tagged, String* path);

  // Stages. The configuration (fastcgi/FastCGIConfiguration.cpp):
  bool LoadConfiguration();
  bool CheckConfiguration();
  bool ProcessConfiguration();
  void SettingIsMissing(const char* name, const char* text);
  // The script and its environment (fastcgi/FastCGIEnvironment.cpp):
  void TakeScriptName();
  bool GetScriptInformation(File** file, TaggedFile* tagged, String& path);
  bool ScriptRoot(const char** path, String* root, bool* has_root);
  bool OpenScript(File** file, String& path);
  bool LoadScript(File* file, TaggedFile* tagged, const String& path);
  // The header fields of every response; false if they were set already. OutputHeaders adds the
  // cookie.
  bool BeginHeaders();
  void OutputHeaders();
  void OutputCookie();
  // The variables of the request (fastcgi/FastCGIVariables.cpp):
  bool AddVariables();
  // Also adds the system variables, which replace parameters of the same names.
  void AddEnvironmentVariables();
  void AddQueryArguments();
  bool AddQueryVariables();
  void AddAPIVariables();
  String DocumentURL() const;
  // The input (fastcgi/FastCGIInput.cpp):
  bool ProcessPOSTedData();
  std::unique_ptr<HTTPContentParser> ContentHandler(const char* type, int length);
  bool EndsForShutdown();
  bool ReadInput(HTTPContentParser* handler, int length);
  bool ContentError(HTTPContentParser* handler);

  bool ExecuteError(const String& path, const String& text, bool encode);
  bool IsShortage(const String& text);

  FCGX_Request* request;
  FastCGIOutput* response;  // below all captures of current_output
  HostParameters parameters;
  String first_argument;                                // names the script in documenturl
  std::unique_ptr<RequestVariables> request_variables;  // null once the table has them
  const char* working_directory;
  char cookie_room[160];  // the usual cookie's header field
  int started_tasks = 0;  // including those that have ended
  // Copies, because a library may set a setting again, which frees its old text. Null if not set.
  String script_root;
  String temp_directory;
  String user_directory;
  String user_name;  // of a ~name request
  ScriptTables tables;
};

#endif

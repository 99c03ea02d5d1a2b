// The common part of the applications of all hosts on a POSIX system, whether they serve a request,
// run a background task or a script of the command line: services, identity, clock, cancellation,
// and the stages from an opened script to its machine.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXAPPLICATION_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXAPPLICATION_H

#include <memory>

#include "base/core/Mutex.h"
#include "base/host/ZephApplication.h"

class File;
class TaggedFile;
class UFCrypt;
class UNIXReentrantFileManager;
struct ScriptTables;

// Belongs to one thread. Only Heartbeat and Cancelled are called from another one, the thread that
// gives the time, and the application mutex guards the data that they use. The virtual operations
// continue those of ZephApplication in a stated order, and those of a host follow. The order must
// not change, and no other virtual operation may come in between.
class UNIXApplication : public ZephApplication {
 public:
  // The arguments of the process: first as the system shows them, then the copies that scripts and
  // the configuration library see. All are borrowed, like the library manager.
  UNIXApplication(int argc, char** argv, int copied_argc, char** copied_argv,
                  ExternalLibraryManager* library_manager);
  // For a background task; called on the thread of the request. Services, identity and settings are
  // copies of the other's. The settings are those that have been read, without a configuration
  // library. The output discards everything. Clock, flags, mutex and log are its own.
  explicit UNIXApplication(UNIXApplication& other);
  ~UNIXApplication() override;

  NetworkManager* networkmanager() override;
  FileManager* filemanager() override;
  ExternalLibraryManager* librarymanager() override;
  CommerceLibraryManager* commercemanager() override;
  ExternalDatabaseLibraryManager* databasemanager() override;
  SystemLibraryManager* systemlibrarymanager() override;
  Config* config() override;
  const char* basename() override;
  const char* hostname() override;
  String currentdate() override;
  String lasterror() override;
  Output* output() override;
  Output* SetOutput(Output* output) override;
  char* Crypt(const char* key, int keylength, const char* salt, int* length, int* size) override;
  char* MakeSessionID(int* length) override;
  void ResetGlobalTimeout() override;
  void ResetPOSTTimeout() override;
  void ClearPOSTTimeout() override;
  int processid() override;
  int threadid() override;
  const char* lockhostname() override;
  int lockexpiration() override;
  void Sleep(int milliseconds) override;
  const char* GetUserID() override;
  void Heartbeat(long now) override;
  int SSL_Initialize(String* error) override;
  void* SSL_GetFunction(const char* name) override;
  const char* process_name() override;

  void Log(unsigned type, LogParameter* parameters) override;

  // Applies the settings of the log: filter, cookie, and the file, which it opens. Called once,
  // when the data directory is open. If the file cannot be opened, that is no failure: there is no
  // log then, and the operator is told (ReportOnce).
  virtual void ProcessLogSettings();
  // Leaves the run out of the log, unless the client has sent the cookie "zephlogcookie" with
  // exactly this value.
  virtual void ProcessLogCookie(const char* text);
  // Sets the time-out flag, so that the script that runs here ends at its next instruction, and so
  // does its sleep. Any thread may call it. This is the order; cancelled() asks.
  virtual void Cancelled();
  // Loads the TLS libraries of those names, once in the life of the process, with the file of
  // settings unless that is null or empty. *error, which may be null, receives the text of a
  // failure, which only the first call can have.
  virtual void SSL_Configure(const char* libssl, const char* libcrypto, const char* config_file,
                             String* error);

 protected:
  // --- Stages of a run, in this order ------------------------------------------------------------
  // Makes the empty tables, the managers of libraries and the settings.
  void BuildTables(ScriptTables* tables, TaggedFile* tagged);

  // Seeds rand() with the time in whole seconds, on every call.
  static void SeedRandom();

  // A configuration library runs inside the process, so it must belong to root or to the user that
  // the process runs as.
  enum class LibraryFile { Missing, Foreign, Usable };
  static LibraryFile LookAtLibrary(const char* path);

  // Opens the file as a compiled script and reads it into the tables. Adopts the file in any case.
  // On failure returns false with the text in *reason.
  [[nodiscard]] bool ReadScript(ScriptTables* tables, File* file, TaggedFile* tagged,
                                const String& path, String* reason);

  // Applies the memory limit of the settings to the current run of this thread.
  void LimitMemory();

  // Makes the machine of the loaded script and adds the variables of the configuration. From here
  // on the file holds no descriptor while the script runs, but can still be read on demand.
  void MakeMachine(ScriptTables* tables, TaggedFile* tagged, const String& path);
  void DeleteMachine();

  // Adds the system variables that every script finds: the time of this call, and facts about the
  // host that runs it.
  void AddSystemVariables(ScriptTables* tables);

  // Deletes the machine at the end of a scope, before the tables and the file that it runs on.
  class MachineScope {
   public:
    explicit MachineScope(UNIXApplication* owner) : application(owner) {}
    ~MachineScope() { application->DeleteMachine(); }
    MachineScope(const MachineScope&) = delete;
    MachineScope& operator=(const MachineScope&) = delete;

   private:
    UNIXApplication* application;
  };

  // Parts of SSL_Initialize (base/systems/unix/UNIXOpenSSL.cpp). The first resolves the functions
  // of the TLS library; the names are those of the settings, for its text.
  [[nodiscard]] bool ResolveOpenSSL(const char* libssl, const char* libcrypto, String* error);
  void SeedOpenSSL();
  void FreeTLS();

  Config* configuration = nullptr;  // owned; an ExternalConfig, except for a background task
  NetworkManager* network_manager = nullptr;  // owned; made by the host
  UNIXReentrantFileManager* file_manager = nullptr;
  ExternalLibraryManager* library_manager;  // belongs to the process
  CommerceLibraryManager* commerce_manager = nullptr;
  ExternalDatabaseLibraryManager* database_manager = nullptr;
  SystemLibraryManager* system_manager = nullptr;
  UFCrypt* password_hash = nullptr;  // made on first use
  int argument_count;
  char** arguments;
  int copied_argument_count;
  char** copied_arguments;
  int process_id;
  int thread_id = 0;
  // Outlives all objects that may still call Heartbeat, Cancelled or Sleep while the application is
  // destroyed.
  Mutex application_mutex;
  Condition application_condition;
  const char* base_name;
  const char* host_name;
  std::unique_ptr<char[]> user_id;
  // A copy of the cookies as the client has sent them; null without any. A run without a client has
  // none.
  std::unique_ptr<char[]> cookie;
  std::unique_ptr<File> log_file;  // deleted before the file manager; null without a log
  ZephVM* vm = nullptr;
};

#endif

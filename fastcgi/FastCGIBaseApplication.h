// What the applications of this host have in common, whether they answer a request or run a
// background task: services, identity, clock and cancellation.

#ifndef ZEPH_FASTCGI_FASTCGIBASEAPPLICATION_H
#define ZEPH_FASTCGI_FASTCGIBASEAPPLICATION_H

#include <memory>

#include "base/Mutex.h"
#include "base/ZephApplication.h"

class FastCGIThread;
class FastCGIThreadManager;
class UFCrypt;
class UNIXReentrantFileManager;
class ZephVM;

// Belongs to one thread. Only Heartbeat and Cancelled are called from another one, the heartbeat
// thread, and what they touch is guarded by the application mutex.
class FastCGIBaseApplication : public ZephApplication {
 public:
  // Arguments as in _FastCGIMainArgs, borrowed like both managers.
  FastCGIBaseApplication(int argc, char** argv, int copied_argc, char** copied_argv,
                         FastCGIThreadManager* thread_manager,
                         ExternalLibraryManager* library_manager);
  ~FastCGIBaseApplication() override;

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
  int SSL_Initialize() override;
  void* SSL_GetFunction(const char* name) override;
  const char* process_name() override;

  // Ends the script that runs here at its next instruction, and its sleep. Any thread.
  virtual void Cancelled();

 protected:
  FastCGIThreadManager* thread_manager;
  Config* configuration = nullptr;  // owned; an ExternalConfig in a request
  NetworkManager* network_manager = nullptr;
  UNIXReentrantFileManager* file_manager = nullptr;
  ExternalLibraryManager* library_manager;  // the process's
  CommerceLibraryManager* commerce_manager = nullptr;
  ExternalDatabaseLibraryManager* database_manager = nullptr;
  SystemLibraryManager* system_manager = nullptr;
  Output* current_output = nullptr;
  UFCrypt* password_hash = nullptr;  // made at first use
  int argument_count;
  char** arguments;
  int copied_argument_count;
  char** copied_arguments;
  int process_id;
  int thread_id = 0;
  // Outlives whatever may still call Heartbeat, Cancelled or Sleep while the application goes.
  Mutex application_mutex;
  Condition application_condition;
  const char* base_name;
  char host_name[256];
  std::unique_ptr<char[]> user_id;
  int header_stage_done = 0;
  std::unique_ptr<char[]> cookie;  // a copy of HTTP_COOKIE, null without one
  ZephVM* vm = nullptr;
};

#endif

// A host for tests: an application whose services and results a test sets.

#ifndef ZEPH_TESTS_SUPPORT_TESTAPPLICATION_H
#define ZEPH_TESTS_SUPPORT_TESTAPPLICATION_H

#include <atomic>
#include <memory>
#include <string>

#include "base/host/ZephApplication.h"

// Starts with process id 1000, thread id 2, the lock host name "testhost", a lock expiration of 0,
// settings of its own with the built-in defaults, and no other services. Everything that a test
// sets is borrowed: it must outlive the application.
class TestApplication : public ZephApplication {
 public:
  TestApplication();
  ~TestApplication() override;

  void SetNetworkManager(NetworkManager* manager) { network_manager = manager; }
  void SetFileManager(FileManager* manager) { file_manager = manager; }
  void SetLibraryManager(ExternalLibraryManager* manager) { library_manager = manager; }
  void SetCommerceManager(CommerceLibraryManager* manager) { commerce_manager = manager; }
  void SetDatabaseManager(ExternalDatabaseLibraryManager* manager) { database_manager = manager; }
  void SetSystemLibraryManager(SystemLibraryManager* manager) { system_manager = manager; }
  // Null restores the application's own settings.
  void SetConfig(Config* config) { other_config = config; }
  void SetProcessID(int id) { process_id = id; }
  void SetThreadID(int id) { thread_id = id; }
  void SetLockHostName(const std::string& name) { lock_host_name = name; }
  void SetLockExpiration(int seconds) { lock_expiration = seconds; }
  void SetObserver(RunObserver* observer) { run_observer = observer; }
  // Any thread may set it.
  void SetCancelled(int value) { cancel_flag = value; }

  NetworkManager* networkmanager() override { return network_manager; }
  FileManager* filemanager() override { return file_manager; }
  ExternalLibraryManager* librarymanager() override { return library_manager; }
  CommerceLibraryManager* commercemanager() override { return commerce_manager; }
  ExternalDatabaseLibraryManager* databasemanager() override { return database_manager; }
  SystemLibraryManager* systemlibrarymanager() override { return system_manager; }
  Config* config() override;
  const char* basename() override { return "zeph-test"; }
  const char* hostname() override { return "testhost.example.org"; }
  // Always "Sat, 21 Nov 2026 10:00:00 +0100".
  String currentdate() override;
  String lasterror() override;
  Output* output() override { return current_output; }
  Output* SetOutput(Output* output) override;
  // Null; a test that needs one derives from this class.
  char* Crypt(const char* key, int keylength, const char* salt, int* length, int* size) override;
  // 32 digits that count up from 1.
  char* MakeSessionID(int* length) override;
  int cancelled() override { return cancel_flag || ZephApplication::cancelled(); }
  int processid() override { return process_id; }
  int threadid() override { return thread_id; }
  const char* lockhostname() override { return lock_host_name.c_str(); }
  int lockexpiration() override { return lock_expiration; }
  // Does not wait; the milliseconds add up in slept.
  void Sleep(int milliseconds) override { slept += milliseconds; }
  const char* GetUserID() override { return "0"; }
  int SSL_Initialize(String*) override { return 0; }
  void* SSL_GetFunction(const char* name) override;

  long slept = 0;

 private:
  NetworkManager* network_manager = nullptr;
  FileManager* file_manager = nullptr;
  ExternalLibraryManager* library_manager = nullptr;
  CommerceLibraryManager* commerce_manager = nullptr;
  ExternalDatabaseLibraryManager* database_manager = nullptr;
  SystemLibraryManager* system_manager = nullptr;
  std::unique_ptr<Config> own_config;
  Config* other_config = nullptr;
  int process_id = 1000;
  int thread_id = 2;
  std::string lock_host_name = "testhost";
  int lock_expiration = 0;
  std::atomic<int> cancel_flag{0};
  int sessions = 0;
};

#endif

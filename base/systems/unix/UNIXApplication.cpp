// The application of a POSIX host: identity, clock, cancellation, and the stages of a run.

#include "base/systems/unix/UNIXApplication.h"

#include <sys/random.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/Segment.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/TaggedFile.h"
#include "base/compiled/VariableHash.h"
#include "base/core/CLocale.h"
#include "base/core/MD5.h"
#include "base/core/Output.h"
#include "base/core/ThreadMemory.h"
#include "base/core/UFCrypt.h"
#include "base/extensions/CommerceLibrary.h"
#include "base/extensions/ExternalCall.h"
#include "base/extensions/ExternalConfig.h"
#include "base/extensions/ExternalDatabaseLibrary.h"
#include "base/extensions/SystemLibrary.h"
#include "base/host/BufferedOutput.h"
#include "base/host/File.h"
#include "base/machine/ZephVM.h"
#include "base/request/ScriptTables.h"
#include "base/request/SpecialVariable.h"
#include "base/systems/unix/UNIXNetworkManager.h"
#include "base/systems/unix/UNIXReentrantFile.h"

namespace {

// A session id is the digest of a host name, four numbers and random bytes. Its 16 bytes can hold
// no more chance than kSessionRandom has.
const size_t kSessionHostName = 255;
const size_t kSessionNumbers = 4 * 4;
const size_t kSessionRandom = 32;

void AppendBigEndian(unsigned char** p, unsigned value) {
  for (int shift = 24; shift >= 0; shift -= 8) *(*p)++ = static_cast<unsigned char>(value >> shift);
}

// Random bytes of the system, fetched for several ids at once, because the kernel takes about as
// long to begin as to make the bytes of one id. Bytes that were handed out are wiped.
class RandomPool {
 public:
  // Returns false if the system gives none.
  bool Take(unsigned char* bytes, size_t length) {
    if (length > sizeof pool) return false;
    if (length > left && !Fill()) return false;
    left -= length;
    memcpy(bytes, pool + left, length);
    explicit_bzero(pool + left, length);
    return true;
  }

 private:
  bool Fill() {
    left = 0;
    size_t done = 0;
    while (done < sizeof pool) {
      const ssize_t n = getrandom(pool + done, sizeof pool - done, 0);
      if (n > 0) {
        done += static_cast<size_t>(n);
      } else if (errno != EINTR) {
        return false;
      }
    }
    left = done;
    return true;
  }

  size_t left = 0;
  unsigned char pool[1024];
};

void FillRandom(unsigned char* bytes, size_t length) {
  static thread_local RandomPool pool;
  if (pool.Take(bytes, length)) return;
  for (size_t i = 0; i < length; i++) bytes[i] = static_cast<unsigned char>(rand());
}

// The state of rand(), which the C library changes with each number that is drawn. A state of this
// size is of the kind that it begins with. Its first word describes the kind.
const size_t kRandomState = 128;
const size_t kRandomNumbers = sizeof(int32_t);
alignas(int32_t) char random_state[kRandomState];

// Facts that are the same for the whole process, fetched once.
struct ProcessIdentity {
  ProcessIdentity() : id(getpid()) {
    if (gethostname(host_name, sizeof host_name - 1) != 0) host_name[0] = '\0';
  }

  int id;
  char host_name[256] = {};
};

const ProcessIdentity& ThisProcess() {
  static const ProcessIdentity identity;
  return identity;
}

}  // namespace

UNIXApplication::UNIXApplication(int argc, char** argv, int copied_argc, char** copied_argv,
                                 ExternalLibraryManager* library_manager)
    : library_manager(library_manager),
      argument_count(argc),
      arguments(argv),
      copied_argument_count(copied_argc),
      copied_arguments(copied_argv),
      process_id(ThisProcess().id),
      host_name(ThisProcess().host_name) {
  const char* program = copied_argc > 0 ? copied_argv[0] : "";
  const char* slash = strrchr(program, '/');
  base_name = slash ? slash + 1 : program;
}

// Once the delegated constructor has finished, the destructor runs even if this body throws, and
// frees the plain pointers.
UNIXApplication::UNIXApplication(UNIXApplication& other)
    : UNIXApplication(other.argument_count, other.arguments, other.copied_argument_count,
                      other.copied_arguments, other.library_manager) {
  thread_id = other.thread_id;
  if (other.cookie) cookie.reset(zeph_strdup(other.cookie.get()));
  configuration = new Config(*other.configuration);
  current_output = new NullOutput(nullptr);
  network_manager = new UNIXNetworkManager(this);
  file_manager = new UNIXReentrantFileManager(this, *other.file_manager);
  if (other.commerce_manager) {
    commerce_manager = new CommerceLibraryManager(this, *other.commerce_manager);
  }
  if (other.database_manager) {
    database_manager = new ExternalDatabaseLibraryManager(this, *other.database_manager);
  }
  if (other.system_manager) {
    system_manager = new SystemLibraryManager(this, *other.system_manager);
  }
  SetLanguage(other.language());
  SetDefaultLanguage(other.defaultlanguage());
  SetDefaultDatabase(other.defaultdatabase());
  SetCharacterSet(other.charset());
}

// The managers of libraries are deleted first and the settings last, because a configuration
// library may still read its own private state while it shuts down. Files and network are deleted
// before the output, through which they might report.
UNIXApplication::~UNIXApplication() {
  delete commerce_manager;
  delete database_manager;
  delete system_manager;
  log_file.reset();
  delete file_manager;
  file_manager = nullptr;
  delete network_manager;
  network_manager = nullptr;
  delete current_output;
  current_output = nullptr;
  delete configuration;
  configuration = nullptr;
  delete password_hash;
  FreeTLS();
}

NetworkManager* UNIXApplication::networkmanager() {
  return network_manager;
}
FileManager* UNIXApplication::filemanager() {
  return file_manager;
}
ExternalLibraryManager* UNIXApplication::librarymanager() {
  return library_manager;
}
CommerceLibraryManager* UNIXApplication::commercemanager() {
  return commerce_manager;
}
SystemLibraryManager* UNIXApplication::systemlibrarymanager() {
  return system_manager;
}
Config* UNIXApplication::config() {
  return configuration;
}
const char* UNIXApplication::basename() {
  return base_name;
}
const char* UNIXApplication::hostname() {
  return host_name;
}
Output* UNIXApplication::output() {
  return current_output;
}
int UNIXApplication::processid() {
  return process_id;
}
int UNIXApplication::threadid() {
  return thread_id;
}

ExternalDatabaseLibraryManager* UNIXApplication::databasemanager() {
  return database_manager;
}

String UNIXApplication::currentdate() {
  time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char text[64];
  size_t length = strftime_l(text, sizeof text, "%a, %d %b %Y %H:%M:%S ", &local, CLocale());
  // Whole hours west of Greenwich, daylight saving counting as an hour to the east.
  long west = timezone / 3600 - (local.tm_isdst > 0 ? 1 : 0);
  snprintf(text + length, sizeof text - length, west < 0 ? "+%04ld" : "-%04ld",
           (west < 0 ? -west : west) * 100);
  return String(text, -1);
}

String UNIXApplication::lasterror() {
  char buffer[256];
  const char* text = strerror_r(errno, buffer, sizeof buffer);
  return String(text && *text ? text : "Unknown error", -1);
}

Output* UNIXApplication::SetOutput(Output* output) {
  Output* old = current_output;
  if (old && output) output->SetFlags(old->flags());
  current_output = output;
  return old;
}

char* UNIXApplication::Crypt(const char* key, int keylength, const char* salt, int* length,
                             int* size) {
  if (!password_hash) password_hash = new UFCrypt;
  *length = 13;
  *size = 14;
  char* result = new char[14];
  password_hash->crypt(key, keylength, salt, result);
  return result;
}

char* UNIXApplication::MakeSessionID(int* length) {
  unsigned char seed[kSessionHostName + kSessionNumbers + kSessionRandom];
  unsigned char* p = seed;
  if (const char* host = lockhostname()) {
    size_t bytes = strnlen(host, kSessionHostName);
    memcpy(p, host, bytes);
    p += bytes;
  }
  timeval now;
  gettimeofday(&now, nullptr);
  AppendBigEndian(&p, static_cast<unsigned>(processid()));
  AppendBigEndian(&p, static_cast<unsigned>(threadid()));
  AppendBigEndian(&p, static_cast<unsigned>(now.tv_sec));
  AppendBigEndian(&p, static_cast<unsigned>(now.tv_usec));
  FillRandom(p, kSessionRandom);
  p += kSessionRandom;
  unsigned char digest[16];
  MD5Encoder encoder;
  encoder.Encode(seed, static_cast<unsigned>(p - seed), digest);
  char* text = new char[33];
  encoder.Make_Printable(digest, text);
  text[32] = '\0';
  *length = 32;
  return text;
}

// Read the settings before taking the mutex: a slow configuration library would hold up the
// heartbeat, and all other threads with it.
void UNIXApplication::ResetGlobalTimeout() {
  const int seconds = config()->value_integer(Config_timeout_global);
  MutexGuard guard(application_mutex);
  StartGlobalClock(seconds);
}

void UNIXApplication::ResetPOSTTimeout() {
  const int seconds = config()->value_integer(Config_timeout_post);
  MutexGuard guard(application_mutex);
  StartPOSTClock(seconds);
}

void UNIXApplication::ClearPOSTTimeout() {
  MutexGuard guard(application_mutex);
  ZephApplication::ClearPOSTTimeout();
}

const char* UNIXApplication::lockhostname() {
  const char* name = configuration->value_string(Config_lock_hostname);
  if (name) return name;
  // The name is the process's own, so the store need not own it.
  configuration->SetValue(Config_lock_hostname, host_name, -1, 0);
  return host_name;
}

int UNIXApplication::lockexpiration() {
  return configuration->value_integer(Config_lock_expiration);
}

void UNIXApplication::Sleep(int milliseconds) {
  Condition::Time end = std::chrono::system_clock::now() + std::chrono::milliseconds(milliseconds);
  application_mutex.Lock();
  while (!cancelled() && application_condition.WaitUntil(application_mutex, end)) {
    if (!vm) continue;
    // A feature's heartbeat may wait for the network; the heartbeat thread must not wait for it.
    application_mutex.Unlock();
    vm->Heartbeat();
    application_mutex.Lock();
  }
  application_mutex.Unlock();
}

const char* UNIXApplication::GetUserID() {
  if (!user_id) user_id.reset(itos(static_cast<int>(geteuid()), nullptr, nullptr));
  return user_id.get();
}

void UNIXApplication::Heartbeat(long now) {
  MutexGuard guard(application_mutex);
  ZephApplication::Heartbeat(now);
  application_condition.Broadcast();
}

void UNIXApplication::Cancelled() {
  MutexGuard guard(application_mutex);
  if (cancelled()) return;
  std::atomic_ref<int>(timedout_flag).store(1, std::memory_order_relaxed);
  application_condition.Broadcast();
}

const char* UNIXApplication::process_name() {
  return argument_count > 0 ? arguments[0] : "";
}

// --- Stages of a run -----------------------------------------------------------------------------

void UNIXApplication::BuildTables(ScriptTables* tables, TaggedFile* tagged) {
  tables->Make(this, tagged);
  commerce_manager = new CommerceLibraryManager(this);
  database_manager = new ExternalDatabaseLibraryManager(this);
  system_manager = new SystemLibraryManager(this);
  tables->config =
      new ExternalConfig(this, tables->external_calls, commerce_manager, database_manager,
                         system_manager, tables->system_variables, tables->global_variables);
  configuration = tables->config;
}

// Every run is seeded, even within the same second: the first number that a script draws must not
// depend on the requests before it. But srand computes hundreds of numbers and takes a lock, and
// most scripts draw none. So it is called only if the state is not the one that it would make.
void UNIXApplication::SeedRandom() {
  // The state of rand() as the second's seed makes it, computed once a second in each thread.
  struct Seeded {
    time_t second;
    random_data data;
    char state[kRandomState];
  };
  static constinit thread_local Seeded seeded{};
  static const char* const own_state = initstate(1, random_state, sizeof random_state);
  (void)own_state;
  const time_t now = time(nullptr);
  const auto seed = static_cast<unsigned>(now);
  if (seeded.second != now) {
    seeded.data = {};
    initstate_r(seed, seeded.state, sizeof seeded.state, &seeded.data);
    seeded.second = now;
  }
  if (memcmp(random_state + kRandomNumbers, seeded.state + kRandomNumbers,
             kRandomState - kRandomNumbers) != 0) {
    srand(seed);
  }
}

UNIXApplication::LibraryFile UNIXApplication::LookAtLibrary(const char* path) {
  struct stat status;
  if (stat(path, &status) != 0) return LibraryFile::Missing;
  const bool trusted = status.st_uid == 0 || status.st_uid == geteuid();
  return trusted ? LibraryFile::Usable : LibraryFile::Foreign;
}

bool UNIXApplication::ReadScript(ScriptTables* tables, File* file, TaggedFile* tagged,
                                 const String& path, String* reason) {
  std::unique_ptr<File> owned(file);
  if (!tagged->Open(path.data, file)) {
    *reason = tagged->error();
    return false;
  }
  static_cast<void>(owned.release());  // the container owns it from here on
  if (tables->Read(tagged)) return true;
  reason->assign("File is either corrupt or not a valid compiled Zeph Script file", -1);
  return false;
}

void UNIXApplication::LimitMemory() {
  ThreadMemory::SetLimit(configuration->value_integer(Config_memory_limit));
}

void UNIXApplication::MakeMachine(ScriptTables* tables, TaggedFile* tagged, const String& path) {
  vm = new ZephVM(path.data, path.length, this, tables->dictionary, tables->system_variables,
                  tables->global_variables, tables->segments, tables->functions,
                  tables->external_calls, commerce_manager, database_manager, tables->languages,
                  tables->localized, heartbeatcounter(), timedoutflag(), exitflag(), nullptr);
  tagged->Deactivate();
  tables->config->AddVariables();
}

void UNIXApplication::DeleteMachine() {
  // Destructors of the machine's objects may sleep, and Sleep passes heartbeats to the machine:
  // clear `vm` before the machine is deleted.
  ZephVM* const ending = vm;
  vm = nullptr;
  delete ending;
}

void UNIXApplication::AddSystemVariables(ScriptTables* tables) {
  tables->system_variables->SetLateVariables(NewSystemVariables(this));
}

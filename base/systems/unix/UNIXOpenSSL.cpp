// Loads OpenSSL and resolves its functions. The engine knows them by their names of version 1.0;
// of those, later versions lack some, which have successors of the same form, of another form, or
// none because nothing is needed any more.
// Tested in tests/base/systems/unix/UNIXOpenSSLTest.cpp and UNIXTLSTest.cpp.

#include "base/systems/unix/UNIXOpenSSL.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/core/StringClass.h"
#include "base/host/Config.h"
#include "base/network/NetworkManager.h"
#include "base/network/OpenSSL.h"
#include "base/systems/unix/UNIXApplication.h"

std::atomic<int> FastCGIApplication_OpenSSL_Available{-1};
void* FastCGIApplication_libssl_handle = nullptr;
void* FastCGIApplication_libcrypto_handle = nullptr;
void* FastCGIApplication_libcrypto_use = nullptr;
Mutex FastCGIApplication_OpenSSL_Configure_Lock;
Mutex* FastCGIApplication_OpenSSL_Locks = nullptr;
int FastCGIApplication_OpenSSL_Lock_Count = 0;

namespace {

// --- Names ---------------------------------------------------------------------------------------

// Successors that take the same arguments and give the same result.
const struct {
  const char* name;
  const char* successor;
} kSuccessors[] = {
    {"SSLeay", "OpenSSL_version_num"},
    {"SSLv23_client_method", "TLS_client_method"},
    {"SSL_get_peer_certificate", "SSL_get1_peer_certificate"},
    {"sk_num", "OPENSSL_sk_num"},
    {"sk_value", "OPENSSL_sk_value"},
    {"sk_free", "OPENSSL_sk_free"},
    {"sk_pop_free", "OPENSSL_sk_pop_free"},
    {"ASN1_STRING_data", "ASN1_STRING_get0_data"},
};

// The function of that name or of a successor; null without one, and then dlerror() tells about the
// name itself.
void* LookUp(void* handle, const char* name) {
  if (void* found = dlsym(handle, name)) return found;
  for (const auto& row : kSuccessors) {
    if (strcmp(row.name, name) != 0) continue;
    if (void* found = dlsym(handle, row.successor)) return found;
  }
  dlerror();
  return dlsym(handle, name);
}

template <class Function>
bool Resolve(void* handle, const char* name, Function** pointer) {
  if (!*pointer) *pointer = reinterpret_cast<Function*>(LookUp(handle, name));
  return *pointer != nullptr;
}

// --- Set-up and clean-up of the process ----------------------------------------------------------

// Of versions before 1.1, and null in later ones, apart from the last group.
struct ProcessFunctions {
  int (*SSL_library_init)() = nullptr;
  void (*SSL_load_error_strings)() = nullptr;
  void (*OpenSSL_add_all_ciphers)() = nullptr;
  void (*OpenSSL_add_all_digests)() = nullptr;
  int (*CRYPTO_num_locks)() = nullptr;
  void (*CRYPTO_set_locking_callback)(void (*)(int mode, int number, const char*, int)) = nullptr;
  // Their successors.
  int (*OPENSSL_init_ssl)(uint64_t, const void*) = nullptr;
  int (*OPENSSL_init_crypto)(uint64_t, const void*) = nullptr;
  // Not in every library.
  void (*OPENSSL_load_builtin_modules)() = nullptr;
  void (*ENGINE_load_builtin_engines)() = nullptr;
  int (*CONF_modules_load_file)(const char*, const char*, unsigned long) = nullptr;
  void (*ERR_free_strings)() = nullptr;
  void (*ERR_remove_thread_state)(const void*) = nullptr;
  void (*EVP_cleanup)() = nullptr;
  void (*CRYPTO_cleanup_all_ex_data)() = nullptr;
  void (*sk_free)(void*) = nullptr;
  void* (*SSL_COMP_get_compression_methods)() = nullptr;
};

ProcessFunctions process;

// Options of OPENSSL_init_ssl and OPENSSL_init_crypto.
constexpr uint64_t kLoadSSLStrings = 0x200000;
constexpr uint64_t kLoadCryptoStrings = 0x2;
constexpr uint64_t kAddAllCiphers = 0x4;
constexpr uint64_t kAddAllDigests = 0x8;

// By their own names only: a successor has a life of its own. The list of compression methods, for
// one, belongs to the library in later versions, which would crash after it is freed here.
template <class Function>
void ResolveOwn(void* handle, const char* name, Function** pointer) {
  *pointer = reinterpret_cast<Function*>(dlsym(handle, name));
}

bool ResolveProcessFunctions() {
  void* const ssl = FastCGIApplication_libssl_handle;
  void* const crypto = FastCGIApplication_libcrypto_use;
#define RESOLVE(handle, name) ResolveOwn(handle, #name, &process.name)
  RESOLVE(ssl, SSL_library_init);
  RESOLVE(ssl, SSL_load_error_strings);
  RESOLVE(ssl, OPENSSL_init_ssl);
  RESOLVE(crypto, OpenSSL_add_all_ciphers);
  RESOLVE(crypto, OpenSSL_add_all_digests);
  RESOLVE(crypto, CRYPTO_num_locks);
  RESOLVE(crypto, CRYPTO_set_locking_callback);
  RESOLVE(crypto, OPENSSL_init_crypto);
  RESOLVE(crypto, OPENSSL_load_builtin_modules);
  RESOLVE(crypto, ENGINE_load_builtin_engines);
  RESOLVE(crypto, CONF_modules_load_file);
  RESOLVE(crypto, ERR_free_strings);
  RESOLVE(crypto, ERR_remove_thread_state);
  RESOLVE(crypto, EVP_cleanup);
  RESOLVE(crypto, CRYPTO_cleanup_all_ex_data);
  RESOLVE(crypto, sk_free);
  RESOLVE(ssl, SSL_COMP_get_compression_methods);
#undef RESOLVE
  const bool has_ssl =
      process.OPENSSL_init_ssl || (process.SSL_library_init && process.SSL_load_error_strings);
  const bool has_crypto = process.OPENSSL_init_crypto ||
                          (process.OpenSSL_add_all_ciphers && process.OpenSSL_add_all_digests &&
                           process.CRYPTO_num_locks && process.CRYPTO_set_locking_callback);
  return has_ssl && has_crypto;
}

// Called by the library; bit 0 of the mode says whether it takes the lock. clang's analysis wants a
// lock that is taken and given back in one function.
ZEPH_THREAD_ANNOTATION(no_thread_safety_analysis)
void LockingCallback(int mode, int number, const char*, int) {
  if (number < 0 || number >= FastCGIApplication_OpenSSL_Lock_Count) return;
  Mutex& lock = FastCGIApplication_OpenSSL_Locks[number];
  if (mode & 1) {
    lock.Lock();
  } else {
    lock.Unlock();
  }
}

void SetUpLibrary(const char* config_file) {
  if (process.CRYPTO_num_locks && process.CRYPTO_set_locking_callback) {
    FastCGIApplication_OpenSSL_Lock_Count = process.CRYPTO_num_locks();
    FastCGIApplication_OpenSSL_Locks =
        new Mutex[static_cast<size_t>(FastCGIApplication_OpenSSL_Lock_Count)];
    process.CRYPTO_set_locking_callback(LockingCallback);
  }
  if (process.SSL_library_init && process.SSL_load_error_strings) {
    process.SSL_library_init();
    process.SSL_load_error_strings();
  } else {
    process.OPENSSL_init_ssl(0, nullptr);
    process.OPENSSL_init_ssl(kLoadSSLStrings | kLoadCryptoStrings, nullptr);
  }
  if (process.OpenSSL_add_all_ciphers && process.OpenSSL_add_all_digests) {
    process.OpenSSL_add_all_ciphers();
    process.OpenSSL_add_all_digests();
  } else {
    process.OPENSSL_init_crypto(kAddAllCiphers, nullptr);
    process.OPENSSL_init_crypto(kAddAllDigests, nullptr);
  }
  if (config_file && *config_file && process.OPENSSL_load_builtin_modules &&
      process.ENGINE_load_builtin_engines && process.CONF_modules_load_file) {
    process.OPENSSL_load_builtin_modules();
    process.ENGINE_load_builtin_engines();
    process.CONF_modules_load_file(config_file, nullptr, 0);
  }
}

// --- Libraries -----------------------------------------------------------------------------------

void* Open(const char* path) {
  return path && *path ? dlopen(path, RTLD_NOW | RTLD_GLOBAL) : nullptr;
}

void LoadFailed(const char* name, String* error) {
  const char* const reason = dlerror();
  if (!error) return;
  error->assign("Unable to load '");
  error->cat(name);
  error->cat("': ");
  error->cat(reason);
}

void CloseLibraries() {
  if (FastCGIApplication_libssl_handle) dlclose(FastCGIApplication_libssl_handle);
  if (FastCGIApplication_libcrypto_handle) dlclose(FastCGIApplication_libcrypto_handle);
  FastCGIApplication_libssl_handle = nullptr;
  FastCGIApplication_libcrypto_handle = nullptr;
  FastCGIApplication_libcrypto_use = nullptr;
}

// A libssl may need its libcrypto to be loaded first.
bool OpenPair(const char* libssl, const char* libcrypto) {
  FastCGIApplication_libssl_handle = Open(libssl);
  if (FastCGIApplication_libssl_handle) return true;
  FastCGIApplication_libcrypto_handle = Open(libcrypto);
  if (FastCGIApplication_libcrypto_handle) FastCGIApplication_libssl_handle = Open(libssl);
  if (FastCGIApplication_libssl_handle) return true;
  CloseLibraries();
  return false;
}

// The names without a number exist only where programs are built, so the default names are looked
// for with the numbers of their releases, too. No pattern is used: other libraries have names like
// these.
std::string OpenLibraries(const char* libssl, const char* libcrypto, String* error) {
  dlerror();
  FastCGIApplication_libssl_handle = Open(libssl);
  if (FastCGIApplication_libssl_handle) return libcrypto;
  String first;
  LoadFailed(libssl, &first);
  if (OpenPair(libssl, libcrypto)) return libcrypto;
  if (strcmp(libssl, "libssl.so") == 0) {
    for (const char* number : {".3", ".1.1", ".1.0.2", ".1.0.0", ".10"}) {
      const std::string numbered = std::string("libcrypto.so") + number;
      if (OpenPair((std::string(libssl) + number).c_str(), numbered.c_str())) return numbered;
    }
  }
  if (error) *error = first;
  return "";
}

bool LoadLibraries(const char* libssl, const char* libcrypto, String* error) {
  const std::string crypto_name = OpenLibraries(libssl, libcrypto, error);
  if (!FastCGIApplication_libssl_handle) return false;
  if (dlsym(FastCGIApplication_libssl_handle, "ERR_get_error")) {
    FastCGIApplication_libcrypto_use = FastCGIApplication_libssl_handle;
    return true;
  }
  if (!FastCGIApplication_libcrypto_handle) {
    FastCGIApplication_libcrypto_handle = Open(crypto_name.c_str());
  }
  if (!FastCGIApplication_libcrypto_handle) {
    LoadFailed(libcrypto, error);
    return false;
  }
  FastCGIApplication_libcrypto_use = FastCGIApplication_libcrypto_handle;
  return true;
}

}  // namespace

void FastCGIApplication_OpenSSL_Initialize() {
  MutexGuard guard(FastCGIApplication_OpenSSL_Configure_Lock);
  FastCGIApplication_OpenSSL_Available.store(-1);
}

void FastCGIApplication_OpenSSL_Cleanup() {
  MutexGuard guard(FastCGIApplication_OpenSSL_Configure_Lock);
  if (FastCGIApplication_OpenSSL_Available.exchange(0) != 1) return;
  if (process.CRYPTO_set_locking_callback) process.CRYPTO_set_locking_callback(nullptr);
  delete[] FastCGIApplication_OpenSSL_Locks;
  FastCGIApplication_OpenSSL_Locks = nullptr;
  FastCGIApplication_OpenSSL_Lock_Count = 0;
  if (process.ERR_free_strings) process.ERR_free_strings();
  if (process.ERR_remove_thread_state) process.ERR_remove_thread_state(nullptr);
  if (process.EVP_cleanup) process.EVP_cleanup();
  if (process.CRYPTO_cleanup_all_ex_data) process.CRYPTO_cleanup_all_ex_data();
  if (process.sk_free && process.SSL_COMP_get_compression_methods) {
    process.sk_free(process.SSL_COMP_get_compression_methods());
  }
  process = {};
  CloseLibraries();
}

void FastCGIApplication_OpenSSL_Thread_Cleanup() {
  if (FastCGIApplication_OpenSSL_Available.load() != 1) return;
  if (process.ERR_remove_thread_state) process.ERR_remove_thread_state(nullptr);
}

// --- The application -----------------------------------------------------------------------------

void UNIXApplication::SSL_Configure(const char* libssl, const char* libcrypto,
                                    const char* config_file, String* error) {
  MutexGuard guard(FastCGIApplication_OpenSSL_Configure_Lock);
  if (FastCGIApplication_OpenSSL_Available.load() != -1) return;
  const bool loaded = LoadLibraries(libssl, libcrypto, error) && ResolveProcessFunctions();
  if (loaded) {
    SetUpLibrary(config_file);
  } else {
    process = {};
    CloseLibraries();
  }
  FastCGIApplication_OpenSSL_Available.store(loaded ? 1 : 0);
}

bool UNIXApplication::ResolveOpenSSL(const char* libssl, const char* libcrypto, String* error) {
  if (!ssl_functions) ssl_functions = new OpenSSLFunctions;
  void* const ssl = FastCGIApplication_libssl_handle;
  void* const crypto = FastCGIApplication_libcrypto_use;
  const char* const ssl_name = libssl;
  const char* const crypto_name = libcrypto;
  const char* missing = nullptr;
  const char* from = nullptr;
#define OPENSSL_FUNCTION(library, name, result, arguments)          \
  if (!missing && !Resolve(library, #name, &ssl_functions->name)) { \
    missing = #name;                                                \
    from = library##_name;                                          \
  }
#include "base/network/OpenSSL.def"
#undef OPENSSL_FUNCTION
  if (missing) {
    const char* const reason = dlerror();
    if (!error) return false;
    error->assign("Error loading function '");
    error->cat(missing);
    error->cat("' from '");
    error->cat(from);
    error->cat("': ");
    error->cat(reason);
    return false;
  }
  Resolve(crypto, "X509_NAME_ENTRY_get_data", &ssl_functions->X509_NAME_ENTRY_get_data);
  Resolve(ssl, "SSL_CTX_set_options", &ssl_functions->SSL_CTX_set_options);
  return true;
}

// While the library has too little entropy of its own, it gets some, but only so much: a library
// that is never content must not hold up the script.
void UNIXApplication::SeedOpenSSL() {
  const int most = 4096;
  for (int i = 0; i < most && ssl_functions->RAND_status() == 0; i++) {
    const unsigned number = static_cast<unsigned>(rand());
    const unsigned char bytes[] = {
        static_cast<unsigned char>(number >> 24), static_cast<unsigned char>(number >> 16),
        static_cast<unsigned char>(number >> 8), static_cast<unsigned char>(number)};
    ssl_functions->RAND_seed(bytes, sizeof bytes);
  }
}

int UNIXApplication::SSL_Initialize(String* error) {
  // A library of settings may set them again and free the texts.
  const String libssl(config()->value_string(Config_ssl_openssl));
  const String libcrypto(config()->value_string(Config_ssl_crypto));
  const String config_file(config()->value_string(Config_ssl_config));
  SSL_Configure(libssl.data, libcrypto.data, config_file.data, error);
  if (FastCGIApplication_OpenSSL_Available.load() != 1) return 0;
  if (!ResolveOpenSSL(libssl.data, libcrypto.data, error)) return 0;
  const OpenSSLFunctions& ssl = *ssl_functions;
  ssl.ClearErrors();
  ssl_ctx_st* const context = ssl.SSL_CTX_new(ssl.SSLv23_client_method());
  if (!context) {
    if (error) *error = ssl.Reason("Error allocating SSL context: ");
    return 0;
  }
  // Many servers close the connection without a word when they have sent everything. Version 3
  // counts that as a broken stream unless it is told otherwise.
  const unsigned long version3 = 0x30000000;
  if (ssl.SSL_CTX_set_options && ssl.SSLeay() >= version3) {
    ssl.SSL_CTX_set_options(context, OpenSSL_IgnoreMissingEnd);
  }
  const char* const authorities = config()->value_string(Config_dir_ca);
  if (authorities) ssl.SSL_CTX_load_verify_locations(context, nullptr, authorities);
  const bool lax = config()->value_integer(Config_flags_security) & TLSSecurity_NoChain;
  ssl.SSL_CTX_set_verify(context, lax ? OpenSSL_VerifyNone : OpenSSL_VerifyPeer, nullptr);
  SeedOpenSSL();
  ssl_context = context;
  return 1;
}

void* UNIXApplication::SSL_GetFunction(const char* name) {
  if (!SSL_Available(nullptr) || !name) return nullptr;
  if (void* found = LookUp(FastCGIApplication_libssl_handle, name)) return found;
  return FastCGIApplication_libcrypto_handle ? LookUp(FastCGIApplication_libcrypto_handle, name)
                                             : nullptr;
}

void UNIXApplication::FreeTLS() {
  if (ssl_context) ssl_functions->SSL_CTX_free(ssl_context);
  delete ssl_functions;
  ssl_context = nullptr;
  ssl_functions = nullptr;
}

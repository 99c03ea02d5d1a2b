// The TLS libraries: which are loaded, what is called in them, and what is told when they fail.

#include "base/systems/unix/UNIXOpenSSL.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/network/NetworkManager.h"
#include "base/network/OpenSSL.h"
#include "tests/support/Paths.h"
#include "tests/support/TLSHost.h"

namespace {

std::string Text(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}

// Each test has the process as it is before the first connection.
class UNIXOpenSSLTest : public testing::Test {
 protected:
  UNIXOpenSSLTest() {
    FastCGIApplication_OpenSSL_Cleanup();
    FastCGIApplication_OpenSSL_Initialize();
  }
  ~UNIXOpenSSLTest() override {
    FastCGIApplication_OpenSSL_Cleanup();
    FastCGIApplication_OpenSSL_Initialize();
  }

  static std::string Library(const char* name) { return InBuild(std::string("lib/test/") + name); }
};

// The old library stays loaded for the test, so that the calls at the end can be read.
class OldTLSTest : public UNIXOpenSSLTest {
 protected:
  OldTLSTest() : path(Library("OldTLS.so")), handle(dlopen(path.c_str(), RTLD_NOW)) {
    EXPECT_NE(handle, nullptr) << dlerror();
    calls().clear();
    entropy() = 0;
  }
  ~OldTLSTest() override { dlclose(handle); }

  std::string& calls() {
    return *reinterpret_cast<std::string* (*)()>(dlsym(handle, "old_tls_calls"))();
  }
  int& entropy() { return *static_cast<int*>(dlsym(handle, "old_tls_without_entropy")); }
  std::string Taken() { return std::exchange(calls(), ""); }

  const std::string path;
  void* handle;
};

TEST_F(UNIXOpenSSLTest, TheInstalledLibraryIsFoundByTheDefaultName) {
  TLSHost host;
  String error;
  EXPECT_EQ(FastCGIApplication_OpenSSL_Available.load(), -1);
  EXPECT_EQ(host.sslcontext(), nullptr);
  EXPECT_EQ(host.SSL_Available(&error), 1) << Text(error);
  EXPECT_EQ(Text(error), "(null)");
  EXPECT_EQ(FastCGIApplication_OpenSSL_Available.load(), 1);
  EXPECT_EQ(FastCGIApplication_libcrypto_use, FastCGIApplication_libssl_handle);
  ssl_ctx_st* const context = host.sslcontext();
  EXPECT_NE(context, nullptr);
  EXPECT_EQ(host.SSL_Available(&error), 1);
  EXPECT_EQ(host.sslcontext(), context) << "it is made once";
}

// Where programs are only run, the name without a number is missing.
TEST_F(UNIXOpenSSLTest, TheNumberedLibraryServesByItsName) {
  TLSHost host;
  host.Set(Config_ssl_openssl, "libssl.so.3").Set(Config_ssl_crypto, "libcrypto.so.3");
  String error;
  EXPECT_EQ(host.SSL_Available(&error), 1) << Text(error);
}

TEST_F(UNIXOpenSSLTest, AMissingLibraryIsToldOnce) {
  TLSHost host, other;
  host.Set(Config_ssl_openssl, "libnone.so").Set(Config_ssl_crypto, "libnocrypto.so");
  String error;
  EXPECT_EQ(host.SSL_Available(&error), 0);
  EXPECT_EQ(Text(error),
            "Unable to load 'libnone.so': libnone.so: cannot open shared object file: No such file "
            "or directory");
  String later;
  EXPECT_EQ(other.SSL_Available(&later), 0) << "it is not tried again";
  EXPECT_EQ(Text(later), "(null)");
  EXPECT_EQ(host.SSL_Available(nullptr), 0);
  EXPECT_EQ(host.SSL_GetFunction("SSL_new"), nullptr);
  EXPECT_FALSE(other.networkmanager()->SSL_Connect(nullptr, "localhost", nullptr, nullptr, nullptr,
                                                   nullptr, 1));
}

TEST_F(UNIXOpenSSLTest, ALibraryOfAnotherKindMakesNoneAvailable) {
  TLSHost host;
  host.Set(Config_ssl_openssl, Library("FakeEmpty.so"));
  host.Set(Config_ssl_crypto, Library("FakeEmpty.so"));
  EXPECT_EQ(host.SSL_Available(nullptr), 0);
  EXPECT_EQ(FastCGIApplication_OpenSSL_Available.load(), 0);
  EXPECT_EQ(FastCGIApplication_libssl_handle, nullptr);
}

TEST_F(UNIXOpenSSLTest, AMissingLibcryptoIsToldByItsName) {
  TLSHost host;
  host.Set(Config_ssl_openssl, Library("FakeEmpty.so")).Set(Config_ssl_crypto, "libnocrypto.so");
  String error;
  EXPECT_EQ(host.SSL_Available(&error), 0);
  EXPECT_EQ(Text(error).rfind("Unable to load 'libnocrypto.so': ", 0), 0u) << Text(error);
}

TEST_F(UNIXOpenSSLTest, ExtensionLibrariesFindFunctionsOfBothLibraries) {
  TLSHost host;
  for (const char* name : {"SSL_new", "ERR_get_error", "SSLeay", "sk_num"}) {
    EXPECT_NE(host.SSL_GetFunction(name), nullptr) << name;
  }
  EXPECT_EQ(host.SSL_GetFunction("no_such_function"), nullptr);
  EXPECT_EQ(host.SSL_GetFunction(nullptr), nullptr);
  EXPECT_NE(host.sslcontext(), nullptr) << "asking initialises";
}

TEST_F(UNIXOpenSSLTest, ThreadsMayBeginAtOnce) {
  std::vector<std::thread> threads;
  std::atomic<int> available{0};
  for (int i = 0; i < 8; i++) {
    threads.emplace_back([&] {
      TLSHost host;
      available += host.SSL_Available(nullptr);
      FastCGIApplication_OpenSSL_Thread_Cleanup();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(available.load(), 8);
}

TEST_F(OldTLSTest, AnOldLibraryIsSetUpAndCleanedUp) {
  {
    TLSHost host;
    host.Set(Config_ssl_openssl, path).Set(Config_ssl_config, "/etc/tls.cnf");
    host.Set(Config_dir_ca, "/authorities");
    String error;
    EXPECT_EQ(host.SSL_Available(&error), 1) << Text(error);
    EXPECT_EQ(Taken(),
              "locks SSL_library_init SSL_load_error_strings OpenSSL_add_all_ciphers "
              "OpenSSL_add_all_digests OPENSSL_load_builtin_modules ENGINE_load_builtin_engines "
              "config:/etc/tls.cnf SSL_CTX_new authorities:/authorities verify:1 ");
    EXPECT_EQ(FastCGIApplication_OpenSSL_Lock_Count, 3);
    reinterpret_cast<void (*)()>(dlsym(handle, "old_tls_use_locks"))();
    TLSHost other;
    other.Set(Config_flags_security, TLSSecurity_NoChain);
    EXPECT_EQ(other.SSL_Available(nullptr), 1);
    EXPECT_EQ(Taken(), "SSL_CTX_new verify:0 ") << "only the context is made again";
  }
  EXPECT_EQ(Taken(), "SSL_CTX_free SSL_CTX_free ");
  FastCGIApplication_OpenSSL_Thread_Cleanup();
  EXPECT_EQ(Taken(), "ERR_remove_thread_state ");
  FastCGIApplication_OpenSSL_Cleanup();
  EXPECT_EQ(Taken(),
            "unlocks ERR_free_strings ERR_remove_thread_state EVP_cleanup "
            "CRYPTO_cleanup_all_ex_data sk_free ");
  FastCGIApplication_OpenSSL_Cleanup();
  FastCGIApplication_OpenSSL_Thread_Cleanup();
  EXPECT_EQ(Taken(), "");
}

TEST_F(OldTLSTest, ALibraryWithoutEntropyIsSeeded) {
  entropy() = 2;
  TLSHost host;
  host.Set(Config_ssl_openssl, path);
  EXPECT_EQ(host.SSL_Available(nullptr), 1);
  EXPECT_NE(Taken().find("verify:1 seed:4 seed:4 "), std::string::npos);
}

TEST_F(OldTLSTest, SeedingIsGivenUpAtLast) {
  entropy() = 2147483647;
  TLSHost host;
  host.Set(Config_ssl_openssl, path);
  EXPECT_EQ(host.SSL_Available(nullptr), 1);
}

TEST_F(UNIXOpenSSLTest, AMissingFunctionIsToldByItsName) {
  TLSHost host;
  const std::string path = Library("OldTLSIncomplete.so");
  host.Set(Config_ssl_openssl, path);
  for (int i = 0; i < 2; i++) {
    String error;
    EXPECT_EQ(host.SSL_Available(&error), 0);
    const std::string begin =
        "Error loading function 'SSL_use_PrivateKey' from '" + path + "': " + path;
    EXPECT_EQ(Text(error).substr(0, begin.size()), begin);
    EXPECT_NE(Text(error).find("undefined symbol: SSL_use_PrivateKey"), std::string::npos);
  }
}

}  // namespace

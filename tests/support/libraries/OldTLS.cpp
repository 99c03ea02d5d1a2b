// A TLS library with the names of version 1.0 of the real one and of none later. It knows its calls
// and does nothing else.

#include <string>

namespace {
int context;
void (*locking)(int, int, const char*, int);
}  // namespace

// The library that this stands for is in C: its functions carry no type that a sanitizer could
// compare.
#ifdef __clang__
#pragma clang attribute push(__attribute__((no_sanitize("function"))), apply_to = function)
#endif

// What a test reads: the calls in their order, and how often RAND_status says no.
extern "C" {
std::string* old_tls_calls() {
  static std::string calls;
  return &calls;
}
int old_tls_without_entropy = 0;

#define CALL(name)                 \
  void name() {                    \
    *old_tls_calls() += #name " "; \
  }
int SSL_library_init() {
  *old_tls_calls() += "SSL_library_init ";
  return 1;
}
CALL(SSL_load_error_strings)
CALL(OpenSSL_add_all_ciphers)
CALL(OpenSSL_add_all_digests)
CALL(OPENSSL_load_builtin_modules)
CALL(ENGINE_load_builtin_engines)
CALL(ERR_free_strings)
CALL(EVP_cleanup)
CALL(CRYPTO_cleanup_all_ex_data)
int CRYPTO_num_locks() {
  return 3;
}
void CRYPTO_set_locking_callback(void (*callback)(int, int, const char*, int)) {
  *old_tls_calls() += callback ? "locks " : "unlocks ";
  locking = callback;
}
// Takes and gives back each lock, as the library would.
void old_tls_use_locks() {
  for (int number = 0; number < 3; number++) locking(1 | 4, number, "file", 1);
  for (int number = 0; number < 3; number++) locking(2 | 4, number, "file", 1);
}
int CONF_modules_load_file(const char* file, const char*, unsigned long) {
  *old_tls_calls() += std::string("config:") + file + " ";
  return 1;
}
void ERR_remove_thread_state(const void*) {
  *old_tls_calls() += "ERR_remove_thread_state ";
}
void sk_free(void* list) {
  *old_tls_calls() += list ? "sk_free " : "sk_free:null ";
}
void* SSL_COMP_get_compression_methods() {
  return &context;
}
unsigned long SSLeay() {
  return 0x1000207f;
}
const void* SSLv23_client_method() {
  return &context;
}
void* SSL_CTX_new(const void*) {
  *old_tls_calls() += "SSL_CTX_new ";
  return &context;
}
void SSL_CTX_free(void*) {
  *old_tls_calls() += "SSL_CTX_free ";
}
void SSL_CTX_set_verify(void*, int mode, void*) {
  *old_tls_calls() += "verify:" + std::to_string(mode) + " ";
}
int SSL_CTX_load_verify_locations(void*, const char* file, const char* directory) {
  *old_tls_calls() += std::string("authorities:") + (file ? file : "") + directory + " ";
  return 1;
}
int RAND_status() {
  return old_tls_without_entropy-- > 0 ? 0 : 1;
}
void RAND_seed(const void*, int length) {
  *old_tls_calls() += "seed:" + std::to_string(length) + " ";
}
unsigned long ERR_get_error() {
  return 0;
}
const char* ERR_reason_error_string(unsigned long) {
  return nullptr;
}

// Never called by the tests.
#define UNUSED(name) \
  int name() {       \
    return 0;        \
  }
UNUSED(SSL_new)
UNUSED(SSL_set_fd)
UNUSED(SSL_connect)
UNUSED(SSL_read)
UNUSED(SSL_write)
UNUSED(SSL_get_error)
UNUSED(SSL_get_peer_certificate)
UNUSED(SSL_ctrl)
UNUSED(SSL_free)
UNUSED(RAND_bytes)
UNUSED(BIO_new_mem_buf)
UNUSED(BIO_ctrl)
UNUSED(PEM_read_bio_X509)
UNUSED(PEM_read_bio_PrivateKey)
UNUSED(d2i_X509_bio)
UNUSED(d2i_PrivateKey_bio)
UNUSED(BIO_free)
UNUSED(X509_get_ext_d2i)
UNUSED(sk_num)
UNUSED(sk_value)
UNUSED(GENERAL_NAME_free)
UNUSED(sk_pop_free)
UNUSED(ASN1_STRING_data)
UNUSED(ASN1_STRING_length)
UNUSED(X509_get_subject_name)
UNUSED(X509_NAME_get_index_by_NID)
UNUSED(X509_NAME_get_entry)
UNUSED(X509_free)
UNUSED(EVP_PKEY_free)
UNUSED(SSL_use_certificate)
#ifndef WITHOUT_PRIVATE_KEYS
UNUSED(SSL_use_PrivateKey)
#endif
}

#ifdef __clang__
#pragma clang attribute pop
#endif

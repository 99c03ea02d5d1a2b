// What the engine knows of OpenSSL. The library is not linked and its headers are not used: the
// functions are resolved by name when the first secure connection needs them, so that a server
// without the library works until then.

#ifndef ZEPH_BASE_OPENSSL_H
#define ZEPH_BASE_OPENSSL_H

#include "base/core/StringClass.h"

// The library's objects, known by their addresses only.
struct ssl_st;
struct ssl_ctx_st;
struct ssl_method_st;
struct x509_st;
struct evp_pkey_st;
struct bio_st;
struct X509_name_st;
struct X509_name_entry_st;
struct asn1_string_st;

// Writes a password of at most `size` bytes to the buffer and returns its length.
using OpenSSLPasswordCallback = int (*)(char* buffer, int size, int writing, void* data);

// Numbers that the library's headers define.
enum OpenSSLNumber : int {
  OpenSSL_VerifyNone = 0,
  OpenSSL_VerifyPeer = 1,
  OpenSSL_ErrorSSL = 1,  // results of SSL_get_error
  OpenSSL_ErrorWantRead = 2,
  OpenSSL_ErrorWantWrite = 3,
  OpenSSL_ErrorSystem = 5,
  OpenSSL_ErrorClosed = 6,
  OpenSSL_ControlHostName = 55,     // SSL_ctrl: the host name to ask the server for
  OpenSSL_ControlReset = 1,         // BIO_ctrl: back to the start of the buffer
  OpenSSL_SubjectAltName = 85,      // an extension: the names of a certificate
  OpenSSL_CommonName = 13,          // an entry of a subject name
  OpenSSL_IgnoreMissingEnd = 0x80,  // SSL_CTX_set_options, from version 3 on
};

// A name of a certificate, as the library lays it out.
struct OpenSSLGeneralName {
  enum Type : int { DNS = 2, Address = 7 };

  int type;
  asn1_string_st* value;  // of the two types above
};

// One application's pointers. All in the list are set once the application's SSL_Available has
// returned 1.
struct OpenSSLFunctions {
// The parameter list keeps its own parentheses. NOLINTNEXTLINE(bugprone-macro-parentheses)
#define OPENSSL_FUNCTION(library, name, result, arguments) result(*name) arguments = nullptr;
#include "base/network/OpenSSL.def"
#undef OPENSSL_FUNCTION

  // Not in the library of every version; null then.
  asn1_string_st* (*X509_NAME_ENTRY_get_data)(const X509_name_entry_st*) = nullptr;
  unsigned long (*SSL_CTX_set_options)(ssl_ctx_st*, unsigned long) = nullptr;

  // Empties this thread's queue of errors, so that the next reason is that of the next call.
  void ClearErrors() const {
    while (ERR_get_error() != 0) {
    }
  }
  // The prefix followed by the library's reason for the oldest error in the queue, which may be
  // none.
  String Reason(const char* prefix) const {
    String text(prefix);
    text.cat(ERR_reason_error_string(ERR_get_error()));
    return text;
  }
};

#endif

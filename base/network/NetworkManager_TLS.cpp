// Secure connections: the handshake, client certificates, and whether a server's certificate is one
// for the name or the address that the script has asked for.
// Tested in tests/base/network/CompareX509HostnameTest.cpp and
// tests/base/systems/unix/UNIXTLSTest.cpp.

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/core/ascii.h"
#include "base/core/memcmpi.h"
#include "base/host/Config.h"
#include "base/host/File.h"
#include "base/host/ZephApplication.h"
#include "base/network/NetworkManager.h"
#include "base/network/OpenSSL.h"

namespace {

// From this version on the library can ask a server for a host name.
constexpr unsigned long kFirstWithHostNames = 0x10000000;

// Far more than a certificate and its key need. A script names the file, which may be any of its
// data files.
constexpr long kLongestCertificate = 16L << 20;

// Enough for the text of any address.
constexpr int kAddressText = 64;

bool IsGiven(const char* text) {
  return text && *text;
}

int CopyPassword(char* buffer, int size, int, void* data) {
  const char* password = static_cast<const char*>(data);
  if (!password || size < 1) return 0;
  const size_t length = strnlen(password, static_cast<size_t>(size));
  memcpy(buffer, password, length);
  return static_cast<int>(length);
}

// A certificate and its key, freed at the end of a scope unless they were released.
class CertificateAndKey {
 public:
  explicit CertificateAndKey(const OpenSSLFunctions& ssl) : ssl(ssl) {}
  ~CertificateAndKey() { reset(); }
  CertificateAndKey(const CertificateAndKey&) = delete;
  CertificateAndKey& operator=(const CertificateAndKey&) = delete;

  void reset() {
    if (certificate) ssl.X509_free(certificate);
    if (key) ssl.EVP_PKEY_free(key);
    release();
  }
  void release() {
    certificate = nullptr;
    key = nullptr;
  }

  x509_st* certificate = nullptr;
  evp_pkey_st* key = nullptr;

 private:
  const OpenSSLFunctions& ssl;
};

// A buffer of the caller's that the library reads from.
class MemoryReader {
 public:
  MemoryReader(const OpenSSLFunctions& ssl, const char* data, int length) : ssl(ssl) {
    ssl.ClearErrors();
    bio = ssl.BIO_new_mem_buf(data, length);
  }
  ~MemoryReader() {
    if (bio) ssl.BIO_free(bio);
  }
  MemoryReader(const MemoryReader&) = delete;
  MemoryReader& operator=(const MemoryReader&) = delete;

  bool is_open() const { return bio != nullptr; }
  void Rewind() { ssl.BIO_ctrl(bio, OpenSSL_ControlReset, 0, nullptr); }

  x509_st* Certificate(bool pem, void* password) {
    ssl.ClearErrors();
    return pem ? ssl.PEM_read_bio_X509(bio, nullptr, CopyPassword, password)
               : ssl.d2i_X509_bio(bio, nullptr);
  }
  evp_pkey_st* Key(bool pem, void* password) {
    ssl.ClearErrors();
    return pem ? ssl.PEM_read_bio_PrivateKey(bio, nullptr, CopyPassword, password)
               : ssl.d2i_PrivateKey_bio(bio, nullptr);
  }

 private:
  const OpenSSLFunctions& ssl;
  bio_st* bio;
};

// The alternative names of a certificate, freed at the end of a scope.
class AlternativeNames {
 public:
  AlternativeNames(const OpenSSLFunctions& ssl, const x509_st* certificate)
      : ssl(ssl),
        names(ssl.X509_get_ext_d2i(certificate, OpenSSL_SubjectAltName, nullptr, nullptr)) {}
  ~AlternativeNames() {
    if (names) ssl.sk_pop_free(names, ssl.GENERAL_NAME_free);
  }
  AlternativeNames(const AlternativeNames&) = delete;
  AlternativeNames& operator=(const AlternativeNames&) = delete;

  // Whether matches(bytes, length) holds for a name of the type.
  template <class Matches>
  bool Any(OpenSSLGeneralName::Type type, Matches matches) const {
    // In certificates the number of a type has the bit of a context-specific tag.
    const int tag = 128;
    const int count = names ? ssl.sk_num(names) : 0;
    for (int i = 0; i < count; i++) {
      const auto* name = static_cast<const OpenSSLGeneralName*>(ssl.sk_value(names, i));
      if (!name || (name->type & ~tag) != type || !name->value) continue;
      const unsigned char* bytes = ssl.ASN1_STRING_data(name->value);
      if (bytes && matches(bytes, ssl.ASN1_STRING_length(name->value))) return true;
    }
    return false;
  }

 private:
  const OpenSSLFunctions& ssl;
  void* names;
};

}  // namespace

bool NetworkManager::SSL_Connect(NetworkConnection* connection, const char* hostname,
                                 const char* certificate_file, const char* certificate_data,
                                 const char* certificate_type, const char* password, int timeout) {
  String text;
  if (!application->SSL_Available(&text)) {
    Error(text);
    return false;
  }
  const OpenSSLFunctions& ssl = *application->sslfunctions();
  CertificateAndKey client(ssl);
  if (IsGiven(certificate_type)) {
    if (IsGiven(certificate_file) &&
        !Load_Client_Certificate(certificate_file, certificate_type, password, &client.certificate,
                                 &client.key)) {
      return false;
    }
    if (IsGiven(certificate_data)) {
      client.reset();
      const size_t length = strnlen(certificate_data, INT_MAX);
      if (!Populate_Client_Certificate(certificate_data, static_cast<int>(length), certificate_type,
                                       password, &client.certificate, &client.key)) {
        return false;
      }
    }
  }
  const bool by_address = IsIPAddress(hostname);
  const int wish = application->config()->value_integer(Config_ssl_sni);
  const bool ask = !by_address && wish != 0 && (wish == 1 || ssl.SSLeay() >= kFirstWithHostNames);
  x509_st* const certificate = client.certificate;
  evp_pkey_st* const key = client.key;
  client.release();
  if (!connection->EstablishTLSConnection(ask ? hostname : nullptr, certificate, key, timeout)) {
    Error(connection->error());
    return false;
  }
  x509_st* const sent = connection->Server_Certificate();
  if (by_address ? Verify_Certificate_IP(sent, hostname)
                 : Verify_Certificate_Hostname(sent, hostname)) {
    return true;
  }
  Error("Unable to verify server identity");
  return false;
}

// --- Client certificates -------------------------------------------------------------------------

// The file is mapped, which fails for what is no file with content, but its bytes are read: if a
// script cuts the file meanwhile, an access to the mapping would end the process.
bool NetworkManager::Load_Client_Certificate(const char* file, const char* type,
                                             const char* password, x509_st** certificate,
                                             evp_pkey_st** key) {
  *certificate = nullptr;
  *key = nullptr;
  FileManager* const files = application->filemanager();
  const std::unique_ptr<File> opened(files->Open(ZephPath_Data, file, FileMode_Read));
  if (!opened) {
    String text("Unable to load client certificate: ");
    text.cat(files->error().data, files->error().length);
    Error(text);
    return false;
  }
  const bool mapped = opened->Map(0, -1) != nullptr;
  if (mapped) opened->Release();
  const long length = mapped ? opened->Length() : -1;
  std::unique_ptr<char[]> bytes;
  int count = -1;
  if (length > kLongestCertificate) {
    opened->Error("File too large");
  } else if (length >= 0) {
    bytes.reset(new char[static_cast<size_t>(length) + 1]);
    count = opened->Read(bytes.get(), static_cast<int>(length));
  }
  if (count < 0) {
    String text("Unable to read from client certificate file: ");
    text.cat(opened->error().data, opened->error().length);
    Error(text);
    return false;
  }
  return Populate_Client_Certificate(bytes.get(), count, type, password, certificate, key);
}

bool NetworkManager::Populate_Client_Certificate(const char* data, int length, const char* type,
                                                 const char* password, x509_st** certificate,
                                                 evp_pkey_st** key) {
  *certificate = nullptr;
  *key = nullptr;
  const OpenSSLFunctions& ssl = *application->sslfunctions();
  MemoryReader reader(ssl, data, length);
  if (!reader.is_open()) {
    Error(ssl.Reason("Unable to read from client certificate buffer: "));
    return false;
  }
  const char letter = static_cast<char>(zp_tolower(type[0]));
  if (letter != 'a' && letter != 'p') {
    String text("Unsupported certificate type '");
    text.cat(type);
    text.cat("'");
    Error(text);
    return false;
  }
  const bool pem = letter == 'p';
  void* const callback_data = const_cast<char*>(password);
  CertificateAndKey read(ssl);
  read.certificate = reader.Certificate(pem, callback_data);
  if (!read.certificate) {
    Error(ssl.Reason("Error reading client certificate: "));
    return false;
  }
  // The key may come first in the text: the reader skips what is not a key.
  reader.Rewind();
  read.key = reader.Key(pem, callback_data);
  if (!read.key) {
    const String text = ssl.Reason("Error reading client key: ");
    // DER has no marks by which a reader could skip the certificate, so it is read once more.
    if (!pem) {
      reader.Rewind();
      if (x509_st* skipped = reader.Certificate(pem, callback_data)) {
        ssl.X509_free(skipped);
        read.key = reader.Key(pem, callback_data);
      }
    }
    if (!read.key) {
      Error(text);
      return false;
    }
  }
  *certificate = read.certificate;
  *key = read.key;
  read.release();
  return true;
}

// --- The server's identity -----------------------------------------------------------------------

bool NetworkManager::Verify_Certificate_Hostname(x509_st* certificate, const char* hostname) {
  if (application->config()->value_integer(Config_flags_security) & TLSSecurity_NoHostname) {
    return true;
  }
  if (!certificate) return false;
  const OpenSSLFunctions& ssl = *application->sslfunctions();
  const auto matches = [&](const unsigned char* bytes, int length) {
    return CompareX509Hostname(hostname, reinterpret_cast<const char*>(bytes), length);
  };
  if (AlternativeNames(ssl, certificate).Any(OpenSSLGeneralName::DNS, matches)) return true;
  X509_name_st* const subject = ssl.X509_get_subject_name(certificate);
  if (!subject || !ssl.X509_NAME_ENTRY_get_data) return false;
  const int place = ssl.X509_NAME_get_index_by_NID(subject, OpenSSL_CommonName, -1);
  if (place < 0) return false;
  X509_name_entry_st* const entry = ssl.X509_NAME_get_entry(subject, place);
  asn1_string_st* const value = entry ? ssl.X509_NAME_ENTRY_get_data(entry) : nullptr;
  const unsigned char* const bytes = value ? ssl.ASN1_STRING_data(value) : nullptr;
  return bytes && matches(bytes, ssl.ASN1_STRING_length(value));
}

bool NetworkManager::Verify_Certificate_IP(x509_st* certificate, const char* address) {
  if (!(application->config()->value_integer(Config_flags_security) & TLSSecurity_CompareAddress)) {
    return true;
  }
  if (!certificate) return false;
  return AlternativeNames(*application->sslfunctions(), certificate)
      .Any(OpenSSLGeneralName::Address, [&](const unsigned char* bytes, int length) {
        void* const binary = const_cast<unsigned char*>(bytes);
        char text[kAddressText];
        if (length == 16) {
          return ConvertIPv6ToString(binary, text, kAddressText) &&
                 CompareIPv6Addresses(text, address);
        }
        return length == 4 && ConvertIPv4ToString(binary, text, kAddressText) &&
               strlen(text) == strlen(address) && memcmpi(text, address, strlen(text)) == 0;
      });
}

namespace {

// The position of the '*' of a pattern, or -1 if there is none, or none in a place where it may be:
// at the end of the first label, with two more labels after it.
int Wildcard(const char* pattern, int length) {
  int star = -1;
  int labels = 0;          // without a '*', counted from the end
  int label_end = length;  // of the label that is being read
  for (int i = length - 1; i >= 0; i--) {
    if (pattern[i] == '.') {
      if (star >= 0) return -1;
      if (i + 1 < label_end) labels++;
      label_end = i;
    } else if (pattern[i] == '*') {
      if (star >= 0 || labels < 2 || i + 1 != label_end) return -1;
      star = i;
    }
  }
  return star;
}

}  // namespace

bool NetworkManager::CompareX509Hostname(const char* hostname, const char* pattern,
                                         int pattern_length) {
  if (pattern_length < 0) return false;
  const size_t host_length = strlen(hostname);
  const size_t length = static_cast<size_t>(pattern_length);
  if (host_length == length && memcmpi(hostname, pattern, length) == 0) return true;
  const int star = Wildcard(pattern, pattern_length);
  if (star < 0) return false;
  const size_t prefix = static_cast<size_t>(star);
  // The bytes of an encoded label are not those that its owner sees, so a part of them proves
  // nothing.
  if (prefix != 0 && host_length >= 4 && memcmpi(hostname, "xn--", 4) == 0) return false;
  const char* const dot = strchr(hostname, '.');
  if (!dot) return false;
  const size_t label = static_cast<size_t>(dot - hostname);
  const size_t rest = length - prefix - 1;
  if (host_length - label != rest || memcmpi(dot, pattern + prefix + 1, rest) != 0) return false;
  return label >= prefix && memcmpi(hostname, pattern, prefix) == 0;
}

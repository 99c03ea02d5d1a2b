// Authentication by DIGEST-MD5, RFC 2831. Tested in tests/base/network/SMTPDigestTest.cpp.

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/core/MD5.h"
#include "base/core/ascii.h"
#include "base/core/memcmpi.h"
#include "base/host/ZephApplication.h"
#include "base/network/OpenSSL.h"
#include "base/network/SMTPService.h"

namespace {

// The count of uses of the server's nonce. Each mail gets a nonce of its own.
const char kFirstUse[] = "00000001";

constexpr int kDigits = 32;  // of a hash in hexadecimal
const char kProof[] = "rspauth=";
constexpr int kProofPrefix = 8;

// Random bits of the client's nonce.
constexpr int kNonceBits = 128;

void Append(String* text, const String& more) {
  text->cat(more.data, more.length);
}

void Hash(const String& text, uchar* digest) {
  MD5Encoder().Encode(reinterpret_cast<const uchar*>(text.data ? text.data : ""),
                      static_cast<unsigned>(text.length), digest);
}

void HashToHex(const String& text, char* hex) {
  uchar digest[16];
  Hash(text, digest);
  MD5Encoder().Make_Printable(digest, hex);
}

void AppendQuoted(String* text, const char* name, const String& value) {
  text->cat(name);
  text->cat("=\"");
  Append(text, value);
  text->cat("\"");
}

std::string_view View(const String& text) {
  return {text.data ? text.data : "", static_cast<size_t>(text.length)};
}

String StringOf(std::string_view text) {
  return String(text.data(), static_cast<int>(text.size()));
}

std::string_view Stripped(std::string_view text) {
  while (!text.empty() && zp_isspace(text.front())) text.remove_prefix(1);
  while (!text.empty() && zp_isspace(text.back())) text.remove_suffix(1);
  return text;
}

bool HasWord(std::string_view list, std::string_view wanted) {
  for (;;) {
    const size_t comma = list.find(',');
    if (Stripped(list.substr(0, comma)) == wanted) return true;
    if (comma == std::string_view::npos) return false;
    list.remove_prefix(comma + 1);
  }
}

// The pairs of a challenge, one after the other.
class ChallengeReader {
 public:
  explicit ChallengeReader(const String& challenge) : rest(View(challenge)) {}

  // Returns false at the end. What is no pair is skipped up to the next comma.
  bool Next() {
    for (;; SkipEntry()) {
      while (!rest.empty() && (zp_isspace(rest.front()) || rest.front() == ',')) Skip(1);
      if (rest.empty()) return false;
      name = Take([](char c) { return c == '=' || c == ',' || zp_isspace(c); });
      SkipSpace();
      if (rest.empty() || rest.front() != '=') continue;
      Skip(1);
      SkipSpace();
      const bool quoted = !rest.empty() && rest.front() == '"';
      if (quoted) {
        Skip(1);
        text = Take([](char c) { return c == '"'; });
        Skip(1);
      } else {
        text = Take([](char c) { return c == ',' || zp_isspace(c); });
      }
      SkipEntry();
      return true;
    }
  }
  bool Is(std::string_view key) const {
    return name.size() == key.size() && memcmpi(name.data(), key.data(), key.size()) == 0;
  }
  std::string_view value() const { return text; }

 private:
  void Skip(size_t count) { rest.remove_prefix(count < rest.size() ? count : rest.size()); }
  void SkipSpace() {
    while (!rest.empty() && zp_isspace(rest.front())) Skip(1);
  }
  void SkipEntry() {
    Take([](char c) { return c == ','; });
  }
  template <class Ends>
  std::string_view Take(Ends ends) {
    size_t length = 0;
    while (length < rest.size() && !ends(rest[length])) length++;
    const std::string_view taken = rest.substr(0, length);
    Skip(length);
    return taken;
  }

  std::string_view rest;
  std::string_view name;
  std::string_view text;
};

}  // namespace

bool SMTPService::Parse_Digest_Challenge(const String& challenge, String& realm, String& nonce,
                                         String& charset) {
  realm.destroy();
  nonce.destroy();
  charset.destroy();
  String qop;
  bool has_algorithm = false;
  ChallengeReader pair(challenge);
  while (pair.Next()) {
    if (pair.Is("realm")) {
      if (!realm.data) realm = StringOf(pair.value());
    } else if (pair.Is("nonce")) {
      if (nonce.data) {
        return Fail("Server returned multiple nonce values during DIGEST-MD5 authentication");
      }
      nonce = StringOf(pair.value());
    } else if (pair.Is("qop")) {
      qop = StringOf(pair.value());
    } else if (pair.Is("charset")) {
      charset = StringOf(pair.value());
    } else if (pair.Is("algorithm")) {
      if (has_algorithm) {
        return Fail(
            "Server returned multiple algorithm values in challenge during DIGEST-MD5 "
            "authentication");
      }
      has_algorithm = true;
      if (pair.value() != "md5-sess") {
        return Fail("Server returned an unrecognized algorithm during DIGEST-MD5 authentication");
      }
    }
  }
  if (nonce.length == 0) {
    return Fail("Unable to determine nonce during DIGEST-MD5 authentication");
  }
  if (charset.data && View(charset) != "utf-8") {
    return Fail("Server specified unrecognized charset during DIGEST-MD5 authentication");
  }
  if (qop.length > 0 && !HasWord(View(qop), "auth")) {
    return Fail("Server does not support required qop \"auth\" during DIGEST-MD5 authentication");
  }
  return true;
}

void SMTPService::Generate_Digest_Nonce(int bits, String& nonce) {
  const int count = static_cast<int>((static_cast<int64_t>(bits > 0 ? bits : 0) + 7) / 8);
  const std::unique_ptr<uchar[]> bytes(new uchar[static_cast<size_t>(count) + 1]);
  const bool random = application->SSL_Available(nullptr) &&
                      application->sslfunctions()->RAND_bytes(bytes.get(), count) == 1;
  for (int i = 0; i < count && !random; i++) bytes[static_cast<size_t>(i)] = rand() & 0xFF;
  nonce = String(reinterpret_cast<const char*>(bytes.get()), count).Base64_Encode();
}

void SMTPService::Generate_Digest_Response_A1(const String& realm, const String& nonce,
                                              const String& cnonce, char* hex) {
  String text(user);
  text.cat(':');
  Append(&text, realm);
  text.cat(':');
  Append(&text, password);
  uchar digest[16];
  Hash(text, digest);
  text.assign(reinterpret_cast<const char*>(digest), sizeof digest);
  text.cat(':');
  Append(&text, nonce);
  text.cat(':');
  Append(&text, cnonce);
  HashToHex(text, hex);
}

void SMTPService::Generate_Digest_Response_A2(const String& uri, char* hex) {
  String text("AUTHENTICATE:");
  Append(&text, uri);
  HashToHex(text, hex);
}

void SMTPService::Generate_Digest_Response_Auth_A2(const String& uri, char* hex) {
  HashToHex(uri, hex);
}

void SMTPService::Generate_Digest_Response_Value(const char* a1, const String& nonce,
                                                 const String& count, const String& cnonce,
                                                 const char* a2, char* hex) {
  String text(a1, kDigits);
  text.cat(':');
  Append(&text, nonce);
  text.cat(':');
  Append(&text, count);
  text.cat(':');
  Append(&text, cnonce);
  text.cat(":auth:");
  text.cat(a2, kDigits);
  HashToHex(text, hex);
}

bool SMTPService::AUTH_DIGEST_MD5() {
  String challenge, realm, nonce, charset, cnonce;
  if (!Write("AUTH DIGEST-MD5", "", 0) || !Expect(334, &challenge) ||
      !Parse_Digest_Challenge(challenge, realm, nonce, charset)) {
    return false;
  }
  const String count(kFirstUse);
  String uri("smtp/");
  Append(&uri, host);
  Generate_Digest_Nonce(kNonceBits, cnonce);
  char a1[kDigits], a2[kDigits], response[kDigits];
  Generate_Digest_Response_A1(realm, nonce, cnonce, a1);
  Generate_Digest_Response_A2(uri, a2);
  Generate_Digest_Response_Value(a1, nonce, count, cnonce, a2, response);

  String text;
  AppendQuoted(&text, "username", user);
  if (realm.length > 0) AppendQuoted(&text, ",realm", realm);
  AppendQuoted(&text, ",nonce", nonce);
  AppendQuoted(&text, ",cnonce", cnonce);
  text.cat(",nc=");
  Append(&text, count);
  text.cat(",qop=\"auth\"");
  AppendQuoted(&text, ",digest-uri", uri);
  if (charset.data) {
    text.cat(",charset=");
    Append(&text, charset);
  }
  AppendQuoted(&text, ",response", String(response, kDigits));
  String proof;
  if (!WriteBase64(text) || !Expect(334, &proof)) return false;

  if (proof.length != kProofPrefix + kDigits || memcmp(proof.data, kProof, kProofPrefix) != 0) {
    return Fail("Invalid rspauth during DIGEST-MD5 authentication");
  }
  uri.prepend(':');
  char expected[kDigits];
  Generate_Digest_Response_Auth_A2(uri, a2);
  Generate_Digest_Response_Value(a1, nonce, count, cnonce, a2, expected);
  if (memcmp(proof.data + kProofPrefix, expected, kDigits) != 0) {
    return Fail("rspauth mismatch during DIGEST-MD5 authentication");
  }
  return Write("", "", 0) && Expect(235, nullptr);
}

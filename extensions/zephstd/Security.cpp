// Random texts, hashes and passwords. libsodium does the work. Tested in
// tests/extensions/zephstd/SecurityTest.cpp.

#include <sodium.h>

#include <charconv>
#include <cstring>
#include <string>

#include "extensions/zephstd/Call.h"
#include "extensions/zephstd/Encoding.h"

namespace zephstd {

namespace {

constexpr long long kMostRandom = 1024;
constexpr size_t kMostPassword = 1024;
// A stored hash says how much work it is to verify it. A hash that says more than this was not made
// by a site that wants to go on serving.
constexpr int kMostMemory = 1 << 20;  // in KB
constexpr int kMostRounds = 64;

const unsigned char* Bytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

void ReturnHex(Call& call, const unsigned char* bytes, size_t length) {
  Builder to(call);
  AddHex({reinterpret_cast<const char*>(bytes), length}, &to);
  to.Return();
}

bool ReadCount(Call& call, long long count) {
  return (count >= 1 && count <= kMostRandom) || call.Fail(0, "is not 1 to 1024");
}

// The number after a mark such as "m="; -1 if there is none.
int NumberAfter(std::string_view text, std::string_view mark) {
  const size_t at = text.find(mark);
  if (at == std::string_view::npos) return -1;
  text.remove_prefix(at + mark.size());
  int number = 0;
  const auto [stop, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
  return problem == std::errc() ? number : -1;
}

// Copies a hash with a NUL, if it is one that may be verified.
bool CopyHash(std::string_view hash, char (&copy)[crypto_pwhash_STRBYTES]) {
  if (hash.size() >= sizeof copy || hash.find('\0') != std::string_view::npos) return false;
  if (!hash.starts_with("$argon2id$") && !hash.starts_with("$argon2i$")) return false;
  const int memory = NumberAfter(hash, "$m="), rounds = NumberAfter(hash, ",t=");
  if (memory < 0 || memory > kMostMemory || rounds < 0 || rounds > kMostRounds) return false;
  // The rest is zero: libsodium reads the whole array.
  memset(copy, 0, sizeof copy);
  hash.copy(copy, hash.size());
  return true;
}

}  // namespace

namespace functions {

void randomtoken(Call& call) {
  const long long count = call.given(0) ? call.integer(0) : 32;
  if (!ReadCount(call, count)) return;
  unsigned char bytes[kMostRandom];
  randombytes_buf(bytes, static_cast<size_t>(count));
  char text[sodium_base64_ENCODED_LEN(sizeof bytes, sodium_base64_VARIANT_URLSAFE_NO_PADDING)];
  sodium_bin2base64(text, sizeof text, bytes, static_cast<size_t>(count),
                    sodium_base64_VARIANT_URLSAFE_NO_PADDING);
  call.Return(std::string_view(text));
}

void randomhex(Call& call) {
  const long long count = call.integer(0);
  if (!ReadCount(call, count)) return;
  unsigned char bytes[kMostRandom];
  randombytes_buf(bytes, static_cast<size_t>(count));
  ReturnHex(call, bytes, static_cast<size_t>(count));
}

void sha256(Call& call) {
  unsigned char hash[crypto_hash_sha256_BYTES];
  crypto_hash_sha256(hash, Bytes(call.text(0)), call.text(0).size());
  ReturnHex(call, hash, sizeof hash);
}

void sha512(Call& call) {
  unsigned char hash[crypto_hash_sha512_BYTES];
  crypto_hash_sha512(hash, Bytes(call.text(0)), call.text(0).size());
  ReturnHex(call, hash, sizeof hash);
}

void hmacsha256(Call& call) {
  unsigned char hash[crypto_auth_hmacsha256_BYTES];
  crypto_auth_hmacsha256_state state;
  crypto_auth_hmacsha256_init(&state, Bytes(call.text(1)), call.text(1).size());
  crypto_auth_hmacsha256_update(&state, Bytes(call.text(0)), call.text(0).size());
  crypto_auth_hmacsha256_final(&state, hash);
  sodium_memzero(&state, sizeof state);
  ReturnHex(call, hash, sizeof hash);
}

void passwordhash(Call& call) {
  const std::string_view password = call.text(0);
  if (password.size() > kMostPassword) {
    call.Fail(0, "has more than 1024 bytes");
    return;
  }
  char hash[crypto_pwhash_STRBYTES];
  if (crypto_pwhash_str(hash, password.data(), password.size(), crypto_pwhash_OPSLIMIT_INTERACTIVE,
                        crypto_pwhash_MEMLIMIT_INTERACTIVE) != 0) {
    call.Fail("there are no 64 MB of memory");
    return;
  }
  call.Return(std::string_view(hash));
}

void passwordverify(Call& call) {
  const std::string_view password = call.text(0);
  char hash[crypto_pwhash_STRBYTES];
  call.ReturnInteger(password.size() <= kMostPassword && CopyHash(call.text(1), hash) &&
                     crypto_pwhash_str_verify(hash, password.data(), password.size()) == 0);
}

void passwordneedsrehash(Call& call) {
  char hash[crypto_pwhash_STRBYTES];
  call.ReturnInteger(!CopyHash(call.text(0), hash) ||
                     crypto_pwhash_str_needs_rehash(hash, crypto_pwhash_OPSLIMIT_INTERACTIVE,
                                                    crypto_pwhash_MEMLIMIT_INTERACTIVE) != 0);
}

void securecompare(Call& call) {
  const std::string_view text = call.text(0), other = call.text(1);
  call.ReturnInteger(text.size() == other.size() &&
                     sodium_memcmp(text.data(), other.data(), text.size()) == 0);
}

}  // namespace functions

}  // namespace zephstd

#include "base/core/UFCrypt.h"

#include <crypt.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/Rounds.h"

namespace {

constexpr char SaltAlphabet[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

std::string Hash(UFCrypt& crypt, const std::string& password, const std::string& salt) {
  char result[14];
  crypt.crypt(password.data(), static_cast<int>(password.size()), salt.c_str(), result);
  EXPECT_EQ(result[13], 0);
  return std::string(result, 13);
}

std::string SystemHash(const std::string& password, const std::string& salt) {
  crypt_data data{};
  const char* result = crypt_r(password.c_str(), salt.c_str(), &data);
  return result ? result : "";
}

TEST(UFCrypt, EqualsTheSystemForRandomPasswordsAndSalts) {
  constexpr unsigned seed = 20261121;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  auto crypt = std::make_unique<UFCrypt>();
  for (int i = 0; i < Rounds(10000); i++) {
    std::string password;
    const size_t length = random() % 12;
    while (password.size() < length) password += static_cast<char>(random() % 255 + 1);
    const std::string salt = {SaltAlphabet[random() % 64], SaltAlphabet[random() % 64]};
    ASSERT_EQ(Hash(*crypt, password, salt), SystemHash(password, salt)) << i;
  }
}

TEST(UFCrypt, EqualsTheSystemForEverySaltCharacter) {
  auto crypt = std::make_unique<UFCrypt>();
  for (int i = 0; i < 64; i++) {
    const std::string salt = {SaltAlphabet[i], SaltAlphabet[63 - i]};
    EXPECT_EQ(Hash(*crypt, "secret", salt), SystemHash("secret", salt)) << salt;
  }
}

TEST(UFCrypt, HashOfTheResultAsSaltReproducesIt) {
  auto crypt = std::make_unique<UFCrypt>();
  const std::string first = Hash(*crypt, "open sesame", "ab");
  EXPECT_EQ(Hash(*crypt, "open sesame", first), first);
}

TEST(UFCrypt, OnlyTheFirstEightBytesCount) {
  auto crypt = std::make_unique<UFCrypt>();
  EXPECT_EQ(Hash(*crypt, "12345678", "zz"), Hash(*crypt, "12345678 and more", "zz"));
  EXPECT_NE(Hash(*crypt, "1234567", "zz"), Hash(*crypt, "12345678", "zz"));
}

TEST(UFCrypt, ANULEndsThePassword) {
  auto crypt = std::make_unique<UFCrypt>();
  EXPECT_EQ(Hash(*crypt, std::string("abc\0def", 7), "zz"), Hash(*crypt, "abc", "zz"));
}

TEST(UFCrypt, LengthCutsThePassword) {
  auto crypt = std::make_unique<UFCrypt>();
  char result[14];
  crypt->crypt("abcdef", 3, "zz", result);
  EXPECT_EQ(std::string(result), Hash(*crypt, "abc", "zz"));
  crypt->crypt("abcdef", -1, "zz", result);
  EXPECT_EQ(std::string(result), Hash(*crypt, "abcdef", "zz"));
}

TEST(UFCrypt, AnInvalidSaltCharacterCountsAsZeroAndIsInTheResult) {
  auto crypt = std::make_unique<UFCrypt>();
  const std::string zero = Hash(*crypt, "secret", "..");
  for (const char* salt : {"!!", "{|", "\xE4\xFC", " ~"}) {
    SCOPED_TRACE(salt);
    const std::string hash = Hash(*crypt, "secret", salt);
    EXPECT_EQ(hash.substr(0, 2), salt);
    EXPECT_EQ(hash.substr(2), zero.substr(2));
  }
}

TEST(UFCrypt, AnEmptySaltReadsNothingBehindIt) {
  auto crypt = std::make_unique<UFCrypt>();
  const std::unique_ptr<char[]> salt(new char[1]{});
  char result[14];
  crypt->crypt("secret", 6, salt.get(), result);
  EXPECT_EQ(std::string(result + 2), Hash(*crypt, "secret", "..").substr(2));
}

TEST(UFCrypt, ReturningToASaltGivesTheSameResult) {
  auto crypt = std::make_unique<UFCrypt>();
  const std::string first = Hash(*crypt, "secret", "aZ");
  EXPECT_NE(Hash(*crypt, "secret", "0/"), first);
  EXPECT_EQ(Hash(*crypt, "secret", "aZ"), first);
}

}  // namespace

// The functions of zephstd for secrets, against published vectors and Python's library.

#include <set>
#include <sstream>

#include "tests/extensions/Library.h"

namespace {

class StdSecurity : public Library {};

TEST_F(StdSecurity, HashesOfFIPS180) {
  const ValueCase cases[] = {
      {"sha256('')", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"sha256('abc')", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"sha256('abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq')",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {"sha256(repeat('a', 1000000))",
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
      {"sha512('abc')",
       "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
       "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(StdSecurity, HMACOfRFC4231) {
  const ValueCase cases[] = {
      {"hmacsha256('Hi There', hexdecode(repeat('0b', 20)))",
       "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
      {"hmacsha256('what do ya want for nothing?', 'Jefe')",
       "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
      {"hmacsha256(hexdecode(repeat('dd', 50)), hexdecode(repeat('aa', 20)))",
       "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe"},
      {"hmacsha256('Test Using Larger Than Block-Size Key - Hash Key First', "
       "hexdecode(repeat('aa', 131)))",
       "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
      {"hmacsha256('', '')", "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(StdSecurity, RandomTextsDiffer) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; i++) seen.insert(Value("randomtoken(16)"));
  EXPECT_EQ(seen.size(), 200u);
  for (const std::string& token : seen) {
    EXPECT_EQ(token.size(), 22u);
    EXPECT_EQ(token.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                      "0123456789-_"),
              std::string::npos);
  }
  const ValueCase cases[] = {
      {"length(randomtoken(''))", "43"},
      {"length(randomtoken(1024))", "1366"},
      {"length(randomhex(20))", "40"},
      {"length(hexdecode(randomhex(1)))", "1"},
      {"randomtoken(0)", "!randomtoken: 'bytes' is not 1 to 1024"},
      {"randomtoken(1025)", "!randomtoken: 'bytes' is not 1 to 1024"},
      {"randomhex('')", "!randomhex: 'bytes' is not 1 to 1024"},
      {"randomhex(-1)", "!randomhex: 'bytes' is not 1 to 1024"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(StdSecurity, PasswordsAreVerified) {
  const std::string hash = Value("passwordhash('correct horse')");
  EXPECT_THAT(hash, testing::StartsWith("$argon2id$v=19$m=65536,t=2,p=1$"));
  EXPECT_NE(Value("passwordhash('correct horse')"), hash);
  Set("g.hash", hash);
  Set("g.older",
      "$argon2id$v=19$m=8192,t=1,p=1$c29tZXNhbHRzb21lc2FsdA$"
      "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
  Set("g.greedy",
      "$argon2id$v=19$m=4194304,t=2,p=1$c29tZXNhbHRzb21lc2FsdA$"
      "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
  const ValueCase cases[] = {
      {"passwordverify('correct horse', g.hash)", "1"},
      {"passwordverify('correct hors', g.hash)", "0"},
      {"passwordverify('', g.hash)", "0"},
      {"passwordneedsrehash(g.hash)", "0"},
      {"passwordneedsrehash(g.older)", "1"},
      {"passwordneedsrehash('')", "1"},
      {"passwordneedsrehash('abc')", "1"},
      {"passwordverify('x', '')", "0"},
      {"passwordverify('x', 'abc')", "0"},
      {"passwordverify('x', '$argon2id$v=19$')", "0"},
      {"passwordverify('x', g.older)", "0"},
      {"passwordverify('x', g.greedy)", "0"},
      {"passwordverify('x', repeat('$', 1000))", "0"},
      {"passwordverify('x', g.hash $ urldecode('%00'))", "0"},
      {"passwordverify(repeat('x', 1025), g.hash)", "0"},
      {"passwordhash(repeat('x', 1025))", "!passwordhash: 'password' has more than 1024 bytes"},
  };
  for (const ValueCase& each : cases) {
    Set("g.hash", hash);
    EXPECT_EQ(Value(each.expression), each.value) << each.expression;
  }
}

TEST_F(StdSecurity, TextsAreComparedWhole) {
  const ValueCase cases[] = {
      {"securecompare('abc', 'abc')", "1"}, {"securecompare('abc', 'abd')", "0"},
      {"securecompare('abc', 'ab')", "0"},  {"securecompare('', '')", "1"},
      {"securecompare('', 'a')", "0"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(StdSecurity, AnotherLibraryHashesInTheSameWay) {
  const std::string all = Python(
      "import hashlib, hmac, random\n"
      "random.seed(9)\n"
      "for i in range(100):\n"
      "  k, t = random.randbytes(1 + i), random.randbytes(1 + 3 * i)\n"
      "  print(k.hex(), t.hex(), hashlib.sha256(t).hexdigest(), hashlib.sha512(t).hexdigest(),\n"
      "      hmac.new(k, t, 'sha256').hexdigest())");
  if (all.empty()) GTEST_SKIP() << "no Python";
  std::istringstream rows(all);
  std::string key, text, sha256, sha512, hmac;
  while (rows >> key >> text >> sha256 >> sha512 >> hmac) {
    Set("g.k", key);
    Set("g.t", text);
    EXPECT_EQ(Value("sha256(hexdecode(g.t))"), sha256);
    EXPECT_EQ(Value("sha512(hexdecode(g.t))"), sha512);
    EXPECT_EQ(Value("hmacsha256(hexdecode(g.t), hexdecode(g.k))"), hmac);
  }
}

}  // namespace

// Authentication by DIGEST-MD5.

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "base/network/SMTPService.h"
#include "tests/support/DigestModel.h"
#include "tests/support/MailDialogue.h"
#include "tests/support/TLSHost.h"
#include "tests/support/TestApplication.h"

namespace {

std::string Bytes(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}
String StringOf(const std::string& text) {
  return String(text.data(), static_cast<int>(text.size()));
}
std::string Base64(const std::string& text) {
  return Bytes(StringOf(text).Base64_Encode());
}

// A client whose nonce is known.
class KnownNonce : public SMTPService {
 public:
  using SMTPService::SMTPService;
  void Generate_Digest_Nonce(int bits, String& nonce) override {
    asked = bits;
    nonce = StringOf(client_nonce);
  }
  std::string client_nonce;
  int asked = 0;
};

class Digest : public testing::Test {
 protected:
  Digest() { application.SetNetworkManager(&manager); }

  KnownNonce& Make(const std::string& user, const std::string& password,
                   const std::string& host = "h") {
    std::string name = host;
    int own = 0;
    service = std::make_unique<KnownNonce>(&application, nullptr, name.data(),
                                           static_cast<int>(name.size()), 0, &own, 25, 0,
                                           StringOf(user), StringOf(password), 30);
    return *service;
  }
  // Makes an exchange with these challenges, in plain text.
  bool Exchange(const std::string& challenge, const std::string& proof,
                const std::string& end = "235 ok") {
    server.replies.clear();
    server.transcript.clear();
    server.Says({"220 hi", "250-h", "250 AUTH DIGEST-MD5", "334 " + Base64(challenge),
                 "334 " + Base64(proof), end});
    return service->SMTP_Connect(false);
  }
  // What the client has answered to the challenge, in plain text.
  std::string Answer() {
    const std::string line = server.transcript.at(7).substr(3);
    EXPECT_TRUE(line.ends_with("\r\n"));
    return Bytes(StringOf(line.substr(0, line.size() - 2)).Base64_Decode());
  }
  std::string Error() { return Bytes(service->error()); }
  std::string Hex(const char* hex) { return std::string(hex, 32); }

  TestApplication application;
  MailServer server;
  MailServerManager manager{&application, &server};
  std::unique_ptr<KnownNonce> service;
};

// Section 4 of RFC 2831 has an exchange of IMAP and one of ACAP.
TEST_F(Digest, TheExamplesOfRFC2831) {
  const struct {
    const char* uri;
    const char* nonce;
    const char* client_nonce;
    const char* response;
    const char* proof;
  } cases[] = {
      {"imap/elwood.innosoft.com", "OA6MG9tEQGm2hh", "OA6MHXh6VqTrRk",
       "d388dad90d4bbd760a152321f2143af7", "ea40f60335c427b5527b84dbabcdfffd"},
      {"acap/elwood.innosoft.com", "OA9BSXrbuRhWay", "OA9BSuZWMSpW8m",
       "6084c6db3fede7352c551284490fd0fc", "2f0b3d7c3c2e486600ef710726aa2eae"},
  };
  Make("chris", "secret");
  for (const auto& c : cases) {
    char a1[32], a2[32], value[32];
    service->Generate_Digest_Response_A1("elwood.innosoft.com", c.nonce, c.client_nonce, a1);
    service->Generate_Digest_Response_A2(c.uri, a2);
    service->Generate_Digest_Response_Value(a1, c.nonce, "00000001", c.client_nonce, a2, value);
    EXPECT_EQ(Hex(value), c.response);
    service->Generate_Digest_Response_Auth_A2(StringOf(std::string(":") + c.uri), a2);
    service->Generate_Digest_Response_Value(a1, c.nonce, "00000001", c.client_nonce, a2, value);
    EXPECT_EQ(Hex(value), c.proof);
  }
}

// The digests were computed with Python's hashlib.
TEST_F(Digest, TheWholeExchange) {
  Make("user", "secret", "mail.example.org").client_nonce = "clientnonce";
  EXPECT_TRUE(
      Exchange("realm=\"example.org\",nonce=\"servernonce\",qop=\"auth\",charset=utf-8,"
               "algorithm=md5-sess",
               "rspauth=6a46971c981f36391195f329770a3d4b"))
      << Error();
  EXPECT_EQ(service->asked, 128);
  EXPECT_EQ(Answer(),
            "username=\"user\",realm=\"example.org\",nonce=\"servernonce\",cnonce=\"clientnonce\","
            "nc=00000001,qop=\"auth\",digest-uri=\"smtp/mail.example.org\",charset=utf-8,"
            "response=\"35cb860963b2fad1c9af66624ccd30d2\"");
  EXPECT_EQ(server.transcript, (MailTranscript{"connect mail.example.org 25 30", "S: 220 hi",
                                               "C: EHLO testhost.example.org\r\n", "S: 250-h",
                                               "S: 250 AUTH DIGEST-MD5", "C: AUTH DIGEST-MD5\r\n",
                                               server.transcript.at(6), server.transcript.at(7),
                                               server.transcript.at(8), "C: \r\n", "S: 235 ok"}));
}

TEST_F(Digest, WithoutRealmAndCharsetTheyAreNotSent) {
  Make("user", "secret").client_nonce = "c";
  EXPECT_FALSE(Exchange("nonce=n", "rspauth=00000000000000000000000000000000"));
  EXPECT_EQ(Answer().substr(0, Answer().find(",response=")),
            "username=\"user\",nonce=\"n\",cnonce=\"c\",nc=00000001,qop=\"auth\","
            "digest-uri=\"smtp/h\"");
  EXPECT_EQ(Error(), "rspauth mismatch during DIGEST-MD5 authentication");
  // The proof is refused before the exchange goes on.
  EXPECT_EQ(server.transcript.back(),
            "S: 334 " + Base64("rspauth=00000000000000000000000000000000"));
}

TEST_F(Digest, TheProofHas40BytesAndItsName) {
  const char* const proofs[] = {"",
                                "rspauth=",
                                "rspauth=0000000000000000000000000000000",
                                "rspauth=000000000000000000000000000000000",
                                "RSPAUTH=00000000000000000000000000000000",
                                "rspauth:00000000000000000000000000000000",
                                "0000000000000000000000000000000000000000"};
  Make("user", "secret");
  for (const char* proof : proofs) {
    EXPECT_FALSE(Exchange("nonce=n", proof));
    EXPECT_EQ(Error(), "Invalid rspauth during DIGEST-MD5 authentication") << proof;
  }
}

TEST_F(Digest, ARefusalCarriesTheServersText) {
  Make("user", "wrong");
  server.Says({"220 hi", "250-h", "250 AUTH DIGEST-MD5", "334 " + Base64("nonce=n"),
               "535 Incorrect authentication data"});
  EXPECT_FALSE(service->SMTP_Connect(false));
  EXPECT_EQ(Error(), "Incorrect authentication data");
}

TEST_F(Digest, ChallengesAreReadAsFollows) {
  const struct {
    const char* label;
    const char* challenge;
    const char* realm;
    const char* nonce;
    const char* charset;
    const char* error;
  } cases[] = {
      {"all of it", "realm=\"r\",nonce=\"n\",qop=\"auth\",charset=utf-8,algorithm=md5-sess", "r",
       "n", "utf-8", ""},
      {"white space", " \t realm = \"r\" , nonce\r\n=\r\n n ", "r", "n", "(null)", ""},
      {"names in any case", "REALM=\"r\",Nonce=\"n\"", "r", "n", "(null)", ""},
      {"the first realm", "realm=a,realm=b,nonce=n", "a", "n", "(null)", ""},
      {"the first realm, though empty", "realm=\"\",realm=b,nonce=n", "", "n", "(null)", ""},
      {"unknown names", "maxbuf=65536,cipher=\"rc4,des\",nonce=n,x", "(null)", "n", "(null)", ""},
      {"a comma in quotes", "realm=\"a,nonce=b\",nonce=n", "a,nonce=b", "n", "(null)", ""},
      {"a quote has no escapes", "realm=\"a\\\"b\",nonce=n", "a\\", "n", "(null)", ""},
      {"a quote without an end", "nonce=n,realm=\"a,b", "a,b", "n", "(null)", ""},
      {"a value ends at white space", "nonce=n m,realm=r s", "r", "n", "(null)", ""},
      {"empty entries", ",,nonce=n,,", "(null)", "n", "(null)", ""},
      {"words without a value", "nonce,nonce=n", "(null)", "n", "(null)", ""},
      {"no qop", "nonce=n", "(null)", "n", "(null)", ""},
      {"an empty qop", "nonce=n,qop=\"\"", "(null)", "n", "(null)", ""},
      {"auth among others", "nonce=n,qop=\"auth-int, auth ,auth-conf\"", "(null)", "n", "(null)",
       ""},
      {"no auth", "nonce=n,qop=\"auth-int,auth-conf\"", "(null)", "n", "(null)",
       "Server does not support required qop \"auth\" during DIGEST-MD5 authentication"},
      {"auth in capitals", "nonce=n,qop=\"AUTH\"", "(null)", "n", "(null)",
       "Server does not support required qop \"auth\" during DIGEST-MD5 authentication"},
      {"two nonces", "nonce=n,realm=r,nonce=n", "r", "n", "(null)",
       "Server returned multiple nonce values during DIGEST-MD5 authentication"},
      {"two algorithms", "algorithm=md5-sess,algorithm=md5-sess,nonce=n", "(null)", "(null)",
       "(null)",
       "Server returned multiple algorithm values in challenge during DIGEST-MD5 authentication"},
      {"another algorithm", "algorithm=md5,nonce=n", "(null)", "(null)", "(null)",
       "Server returned an unrecognized algorithm during DIGEST-MD5 authentication"},
      {"an algorithm in capitals", "algorithm=MD5-sess,nonce=n", "(null)", "(null)", "(null)",
       "Server returned an unrecognized algorithm during DIGEST-MD5 authentication"},
      {"no nonce", "realm=r", "r", "(null)", "(null)",
       "Unable to determine nonce during DIGEST-MD5 authentication"},
      {"an empty nonce", "nonce=\"\"", "(null)", "", "(null)",
       "Unable to determine nonce during DIGEST-MD5 authentication"},
      {"nothing", "", "(null)", "(null)", "(null)",
       "Unable to determine nonce during DIGEST-MD5 authentication"},
      {"another charset", "nonce=n,charset=iso-8859-1", "(null)", "n", "iso-8859-1",
       "Server specified unrecognized charset during DIGEST-MD5 authentication"},
      {"an empty charset", "nonce=n,charset=,x", "(null)", "n", "",
       "Server specified unrecognized charset during DIGEST-MD5 authentication"},
      {"the nonce is missed before the charset and the qop", "charset=x,qop=y", "(null)", "(null)",
       "x", "Unable to determine nonce during DIGEST-MD5 authentication"},
      {"and the charset before the qop", "nonce=n,charset=x,qop=y", "(null)", "n", "x",
       "Server specified unrecognized charset during DIGEST-MD5 authentication"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    Make("u", "p");
    String realm("old"), nonce("old"), charset("old");
    EXPECT_EQ(service->Parse_Digest_Challenge(c.challenge, realm, nonce, charset), !*c.error);
    EXPECT_EQ(Bytes(realm), c.realm);
    EXPECT_EQ(Bytes(nonce), c.nonce);
    EXPECT_EQ(Bytes(charset), c.charset);
    EXPECT_EQ(*c.error ? Error() : "", c.error);
    const DigestModel model = DigestModel::Read(c.challenge);
    EXPECT_EQ(model.error, c.error);
    EXPECT_EQ(model.realm.value_or("(null)"), c.realm);
    EXPECT_EQ(model.nonce.value_or("(null)"), c.nonce);
  }
}

TEST_F(Digest, RandomChallengesAgreeWithTheModel) {
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  const char* const words[] = {"realm", "nonce", "qop",  "charset", "algorithm", "md5-sess",
                               "utf-8", "auth",  "=",    "=",       "=",         ",",
                               ",",     "\"",    " ",    "\t",      "\"a\"",     "x",
                               "\\",    "NONCE", "\xFF", "\v"};
  for (int round = 0; round < 20000; round++) {
    std::string challenge;
    for (size_t left = random() % 24; left > 0; left--) {
      challenge += words[random() % std::size(words)];
    }
    Make("u", "p");
    String realm, nonce, charset;
    const bool good = service->Parse_Digest_Challenge(StringOf(challenge), realm, nonce, charset);
    const DigestModel model = DigestModel::Read(challenge);
    ASSERT_EQ(good ? "" : Error(), model.error) << challenge << " seed " << seed;
    ASSERT_EQ(Bytes(realm), model.realm.value_or("(null)")) << challenge << " seed " << seed;
    ASSERT_EQ(Bytes(nonce), model.nonce.value_or("(null)")) << challenge << " seed " << seed;
    ASSERT_EQ(Bytes(charset), model.charset.value_or("(null)")) << challenge << " seed " << seed;
  }
}

// With the TLS library and without it.
TEST_F(Digest, ANonceIsThatManyRandomBitsInBase64) {
  TLSHost with_library;
  for (ZephApplication* host : {static_cast<ZephApplication*>(&application),
                                static_cast<ZephApplication*>(&with_library)}) {
    char name[] = "h";
    int own = 0;
    SMTPService client(host, nullptr, name, 1, 2, &own, 25, 0, "", "", 1);
    const struct {
      int bits;
      int bytes;
    } cases[] = {{128, 16}, {1, 1}, {8, 1}, {9, 2}, {1024, 128}, {0, 0}, {-8, 0}};
    for (const auto& c : cases) {
      String nonce;
      client.Generate_Digest_Nonce(c.bits, nonce);
      EXPECT_EQ(nonce.Base64_Decode().length, c.bytes);
    }
    std::set<std::string> seen;
    for (int i = 0; i < 100; i++) {
      String nonce;
      client.Generate_Digest_Nonce(128, nonce);
      EXPECT_EQ(nonce.length, 24);
      seen.insert(Bytes(nonce));
    }
    EXPECT_EQ(seen.size(), 100u);
  }
}

}  // namespace

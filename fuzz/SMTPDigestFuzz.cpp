// The challenge of DIGEST-MD5, and the whole exchange with a server that sends it.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/network/SMTPService.h"
#include "tests/support/DigestModel.h"
#include "tests/support/ScriptedConnection.h"
#include "tests/support/TestApplication.h"

namespace {

std::string Bytes(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}

// The texts that a challenge gives are the model's; those of a failed one are not used.
void CompareChallenge(SMTPService* client, const String& challenge) {
  String realm, nonce, charset;
  const bool good = client->Parse_Digest_Challenge(challenge, realm, nonce, charset);
  const DigestModel model = DigestModel::Read(Bytes(challenge));
  if ((good ? "" : Bytes(client->error())) != model.error) abort();
  if (Bytes(realm) != model.realm.value_or("(null)")) abort();
  if (Bytes(nonce) != model.nonce.value_or("(null)")) abort();
  if (Bytes(charset) != model.charset.value_or("(null)")) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  const String challenge(reinterpret_cast<const char*>(data), static_cast<int>(size));
  ScriptedPeer peer;
  peer.bytes = "220 hi\r\n250-h\r\n250 AUTH DIGEST-MD5\r\n334 " +
               (size > 0 ? Bytes(challenge.Base64_Encode()) : "") + "\r\n334 " +
               (size > 0 ? Bytes(challenge.Base64_Encode()) : "") + "\r\n235 ok\r\n";
  TestApplication application;
  ScriptedNetworkManager manager(&application, &peer);
  application.SetNetworkManager(&manager);
  char host[] = "h";
  int own = 0;
  SMTPService client(&application, nullptr, host, 1, 2, &own, 25, 0, "user", "secret", 30);
  CompareChallenge(&client, challenge);
  // The server has not proved that it knows the password.
  if (client.SMTP_Connect(false)) abort();
  return 0;
}

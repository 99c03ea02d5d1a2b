// Replies of a mail server: whatever it says, the client says and reports what a second client
// does.

#include <cstdint>
#include <cstdlib>

#include "tests/support/SMTPModel.h"

// The first byte tells who the client is and whether the server stays silent at the end.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  SMTPTalk talk;
  talk.server.assign(reinterpret_cast<const char*>(data) + 1, size - 1);
  talk.stays = data[0] & 1;
  talk.starttls = data[0] & 2;
  if (data[0] & 4) talk.user = "user";
  if (data[0] & 8) talk.password = "secret";
  if (!SameOutcome(talk)) abort();
  return 0;
}

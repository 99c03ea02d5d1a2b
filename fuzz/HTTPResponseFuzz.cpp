// Responses: any bytes, in any pieces, give the head and the body that a second reader finds.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "tests/support/HTTPResponseModel.h"

// The first byte is the count of bytes of each read of the body. The second is the distance between
// the ends of pieces, without its lowest bit, which tells whether the peer stays silent at the end.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  ScriptedPeer peer;
  peer.bytes.assign(reinterpret_cast<const char*>(data) + 2, size - 2);
  peer.stays = data[1] & 1;
  const size_t distance = data[1] >> 1;
  for (size_t at = distance; distance > 0 && at < peer.bytes.size(); at += distance) {
    peer.cuts.insert(at);
  }
  const size_t piece = 1 + data[0];
  const HTTPResponseOutcome expected = HTTPResponseModel(peer).Run(piece);
  if (!(ReadWithStream(peer, piece) == expected)) abort();
  return 0;
}

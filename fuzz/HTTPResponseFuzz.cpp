// Responses: any bytes, in any pieces, give the head and the body that a second reader finds.

#include "fuzz/NetworkInput.h"
#include "tests/support/HTTPResponseModel.h"

// The first byte is the count of bytes of each read of the body. The second is the length of the
// pieces that arrive, without its lowest bit, which tells whether the peer stays silent at the end.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  NetworkInput input(data, size);
  const size_t piece = 1 + input.Byte();
  const unsigned pieces = input.Byte();
  ScriptedPeer peer;
  peer.bytes = input.Rest();
  peer.stays = pieces & 1;
  peer.cuts = EvenCuts(peer.bytes.size(), pieces >> 1);
  const HTTPResponseOutcome expected = HTTPResponseModel(peer).Run(piece);
  Require(ReadWithStream(peer, piece) == expected);
  return 0;
}

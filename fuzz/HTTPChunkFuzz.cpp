// Bodies in chunks: any bytes after the head of such a response, in any pieces, give the body and
// the failure that a second reader finds. A fuzzer of whole responses seldom gets past the head.

#include <cstdio>

#include "fuzz/NetworkInput.h"
#include "tests/support/HTTPResponseModel.h"

// The first byte is the count of bytes of each read of the body. The second is the length of the
// pieces that arrive, without its lowest bit, which tells whether the peer stays silent at the end.
// The third turns bytes into chunks: with an odd one, each line is the content of a chunk.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  NetworkInput input(data, size);
  const size_t piece = 1 + input.Byte();
  const unsigned pieces = input.Byte();
  const bool lines = input.Byte() & 1;
  ScriptedPeer peer;
  peer.bytes = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  while (lines && !input.AtEnd()) {
    const std::string line = input.Line();
    char digits[24];
    snprintf(digits, sizeof digits, "%zx\r\n", line.size());
    peer.bytes += digits + line + "\r\n";
  }
  peer.bytes += input.Rest();
  peer.stays = pieces & 1;
  peer.cuts = EvenCuts(peer.bytes.size(), pieces >> 1);
  const HTTPResponseOutcome expected = HTTPResponseModel(peer).Run(piece);
  Require(ReadWithStream(peer, piece) == expected);
  return 0;
}

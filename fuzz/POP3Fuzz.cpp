// Mailboxes: any bytes of a server give the session, the variables and the files that a second
// reader finds.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "tests/support/POP3Host.h"

// The first byte says how the session runs: bit 0, the server stays silent at the end; bit 1, the
// script deletes each message; bit 2, the login was a success and only the rest is in the input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  static POP3Host host;
  const bool silent = data[0] & 1, deletes = data[0] & 2;
  std::string bytes = data[0] & 4 ? "+OK\r\n+OK\r\n+OK\r\n" : "";
  bytes.append(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (!(host.Run(bytes, silent, deletes) == POP3Model(bytes, silent, deletes).Run())) abort();
  return 0;
}

// Bodies of responses: for any body and any cut into reads, a call finds the elements that a slow
// and simple scanner finds.

#include <cstdlib>
#include <string>

#include "tests/support/CallHost.h"
#include "tests/support/CallModel.h"

// The first bytes are the size of the buffer and the length of a read.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  static CallHost host;
  host.application.config()->SetValue_Integer(Config_bufsz_call, data[0] % 64 + 1);
  const size_t step = data[1] % 32 + 1;
  const std::string body(reinterpret_cast<const char*>(data) + 2, size - 2);
  std::set<size_t> cuts;
  for (size_t at = step; at < body.size(); at += step) cuts.insert(at);
  if (host.Read(body, cuts) != CallModel(body).Read()) abort();
  Variable::FreeCycles();
  return 0;
}

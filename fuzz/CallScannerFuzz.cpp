// Bodies of responses: for any body and any cut into reads, a call finds the elements that a slow
// and simple scanner finds.

#include "fuzz/NetworkInput.h"
#include "tests/support/CallHost.h"
#include "tests/support/CallModel.h"

// The first bytes are the size of the buffer and the length of a read.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static CallHost host;
  NetworkInput input(data, size);
  host.application.config()->SetValue_Integer(Config_bufsz_call,
                                              static_cast<int>(input.Byte() % 64 + 1));
  const size_t step = input.Byte() % 32 + 1;
  const std::string body = input.Rest();
  Require(host.Read(body, EvenCuts(body.size(), step)) == CallModel(body).Read());
  Variable::FreeCycles();
  return 0;
}

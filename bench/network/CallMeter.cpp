// callmeter scan FILE, or callmeter read URL SIZE: one piece of the work of a call, for the
// processor time that it takes.
//
// scan runs the loop of a call over the file, which a peer in this process sends, and sets all
// variables of each element; it prints seconds of processor time and elements. read reads a whole
// response with a buffer of SIZE bytes and prints the count of its bytes.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "base/network/HTTPResponseStream.h"
#include "tests/support/CallHost.h"
#include "tests/support/TLSHost.h"

namespace {

double ProcessorSeconds() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

int Fail(const std::string& reason) {
  fprintf(stderr, "callmeter: %s\n", reason.c_str());
  return 1;
}

int Scan(const char* path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  CallHost host;
  host.peer.bytes = "HTTP/1.1 200 OK\r\n\r\n" + text.str();
  const std::unique_ptr<Call> call = host.Connect(CallHost::Arguments("GET"));
  if (!host.connected) return Fail(host.failure);
  const double begin = ProcessorSeconds();
  long elements = 0;
  Call::Result result;
  while ((result = call->Find_Next_Element()) == Call::Found) elements++;
  if (result == Call::Failed) return Fail(BytesOf(call->error()));
  printf("%f %ld\n", ProcessorSeconds() - begin, elements);
  return 0;
}

int Read(const char* url, int size) {
  TLSHost host;
  NetworkManager* const manager = host.networkmanager();
  const std::unique_ptr<NetworkConnection> connection(manager->OpenURL(
      "GET", url, nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 1.1, 30));
  if (!connection) return Fail(BytesOf(manager->error()));
  HTTPResponseStream stream(connection.get(), 30);
  if (!stream.Read_Headers()) return Fail(BytesOf(stream.error));
  const std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(size)]);
  long long bytes = 0;
  int count;
  while ((count = stream.Read(buffer.get(), size)) > 0) bytes += count;
  if (count < 0) return Fail(BytesOf(stream.error));
  printf("%lld\n", bytes);
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 3 && strcmp(arguments[1], "scan") == 0) return Scan(arguments[2]);
  if (count == 4 && strcmp(arguments[1], "read") == 0) {
    return Read(arguments[2], std::max(static_cast<int>(strtol(arguments[3], nullptr, 10)), 1));
  }
  return Fail("usage: callmeter scan FILE | callmeter read URL SIZE");
}

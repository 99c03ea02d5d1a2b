// The records of the FastCGI protocol, written and read.

#include "tests/support/FastCGIClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// Record types of the protocol.
constexpr int type_begin = 1;
constexpr int type_abort = 2;
constexpr int type_end = 3;
constexpr int type_parameters = 4;
constexpr int type_input = 5;
constexpr int type_output = 6;
constexpr int type_error = 7;

constexpr size_t record_header_size = 8;
// The largest content of a record whose size is a multiple of 8, so that none needs padding.
constexpr size_t content_limit = 65528;

void AppendLength(std::string* to, size_t length) {
  if (length < 128) {
    *to += static_cast<char>(length);
    return;
  }
  *to += static_cast<char>(0x80 | (length >> 24));
  *to += static_cast<char>(length >> 16);
  *to += static_cast<char>(length >> 8);
  *to += static_cast<char>(length);
}

// Calls visit(name, value) for each header line.
template <typename Visit>
void ForEachHeader(const std::string& headers, Visit visit) {
  size_t start = 0;
  while (start < headers.size()) {
    size_t end = headers.find("\r\n", start);
    if (end == std::string::npos) end = headers.size();
    std::string line = headers.substr(start, end - start);
    size_t colon = line.find(": ");
    if (colon != std::string::npos) visit(line.substr(0, colon), line.substr(colon + 2));
    start = end + 2;
  }
}

}  // namespace

std::string FastCGIResponse::Headers() const {
  return standard_output.substr(0, standard_output.find("\r\n\r\n"));
}

std::string FastCGIResponse::Body() const {
  size_t end = standard_output.find("\r\n\r\n");
  return end == std::string::npos ? "" : standard_output.substr(end + 4);
}

std::string FastCGIResponse::Header(std::string_view name) const {
  std::string found;
  ForEachHeader(Headers(), [&](const std::string& line_name, const std::string& value) {
    if (strcasecmp(line_name.c_str(), std::string(name).c_str()) == 0) found = value;
  });
  return found;
}

int FastCGIResponse::CountOfHeader(std::string_view name) const {
  int count = 0;
  ForEachHeader(Headers(), [&](const std::string& line_name, const std::string&) {
    if (strcasecmp(line_name.c_str(), std::string(name).c_str()) == 0) count++;
  });
  return count;
}

bool FastCGIResponse::HasHeader(std::string_view name) const {
  return CountOfHeader(name) > 0;
}

FastCGIClient::~FastCGIClient() {
  Close();
}

bool FastCGIClient::Connect(const std::string& socket_path) {
  Close();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socket_path.size() >= sizeof address.sun_path) return false;
  memcpy(address.sun_path, socket_path.c_str(), socket_path.size() + 1);
  descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return false;
  if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return true;
  Close();
  return false;
}

bool FastCGIClient::Connect(int port) {
  Close();
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return false;
  if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return true;
  Close();
  return false;
}

void FastCGIClient::Close() {
  if (descriptor >= 0) close(descriptor);
  descriptor = -1;
  pending = FastCGIResponse();
}

bool FastCGIClient::Release() {
  holding = false;
  return Send(std::exchange(held_bytes, std::string()));
}

bool FastCGIClient::Send(std::string_view bytes) {
  if (holding) {
    held_bytes += bytes;
    return true;
  }
  while (!bytes.empty()) {
    ssize_t sent = send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

std::string FastCGIClient::Record(int type, int id, std::string_view content, size_t padding) {
  std::string record;
  record += '\1';
  record += static_cast<char>(type);
  record += static_cast<char>(id >> 8);
  record += static_cast<char>(id);
  record += static_cast<char>(content.size() >> 8);
  record += static_cast<char>(content.size());
  record += static_cast<char>(padding);
  record += '\0';
  return record.append(content).append(padding, '\xFF');
}

std::string FastCGIClient::PairLengths(unsigned name, unsigned value) {
  std::string lengths;
  for (unsigned length : {name, value}) {
    for (int shift = 24; shift >= 0; shift -= 8) {
      const unsigned byte = (length >> shift & 0xFF) | (shift == 24 ? 0x80 : 0);
      lengths += static_cast<char>(byte);
    }
  }
  return lengths;
}

bool FastCGIClient::SendRecord(int type, std::string_view content) {
  return Send(Record(type, request_id, content));
}

std::string FastCGIClient::Receive(size_t bytes, Milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::string received;
  FastCGIResponse ignored;
  char byte;
  while (received.size() < bytes && ReadBytes(&byte, 1, &ignored, deadline)) received += byte;
  return received;
}

bool FastCGIClient::SendStream(int type, std::string_view content) {
  while (!content.empty()) {
    size_t part = std::min(content.size(), content_limit);
    if (!SendRecord(type, content.substr(0, part))) return false;
    content.remove_prefix(part);
  }
  return true;
}

bool FastCGIClient::Begin(bool keep, int id) {
  request_id = id;
  pending = FastCGIResponse();
  std::string content("\0\1", 2);  // the responder role
  content += static_cast<char>(keep);
  content.append(5, '\0');
  return SendRecord(type_begin, content);
}

bool FastCGIClient::Parameters(const FastCGIParameters& parameters) {
  std::string content;
  for (const auto& [name, value] : parameters) {
    AppendLength(&content, name.size());
    AppendLength(&content, value.size());
    content += name;
    content += value;
  }
  return SendStream(type_parameters, content);
}

bool FastCGIClient::EndParameters() {
  return SendRecord(type_parameters, "");
}
bool FastCGIClient::Input(std::string_view bytes) {
  return SendStream(type_input, bytes);
}
bool FastCGIClient::EndInput() {
  return SendRecord(type_input, "");
}
bool FastCGIClient::Abort() {
  return SendRecord(type_abort, "");
}

void FastCGIClient::EndSending() {
  shutdown(descriptor, SHUT_WR);
}

bool FastCGIClient::ReadBytes(char* buffer, size_t length, FastCGIResponse* response,
                              std::chrono::steady_clock::time_point deadline) {
  while (length > 0) {
    auto left =
        std::chrono::duration_cast<Milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd waiting{descriptor, POLLIN, 0};
    int ready = poll(&waiting, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      response->problem = "timeout";
      return false;
    }
    ssize_t count = recv(descriptor, buffer, length, 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      response->problem = count == 0 ? "connection closed" : strerror(errno);
      return false;
    }
    buffer += count;
    length -= static_cast<size_t>(count);
  }
  return true;
}

bool FastCGIClient::ReadRecord(FastCGIResponse* response,
                               std::chrono::steady_clock::time_point deadline) {
  unsigned char header[record_header_size];
  if (!ReadBytes(reinterpret_cast<char*>(header), sizeof header, response, deadline)) return false;
  size_t length = header[4] * 256u + header[5];
  std::string content(length + header[6], '\0');
  if (!ReadBytes(content.data(), content.size(), response, deadline)) return false;
  content.resize(length);
  if (header[2] * 256 + header[3] != request_id) {
    response->problem = "a record of another request";
    return false;
  }
  switch (header[1]) {
    case type_output: response->standard_output += content; return true;
    case type_error: response->standard_error += content; return true;
    case type_end: {
      if (length < 8) break;
      auto byte = [&](size_t i) { return static_cast<unsigned char>(content[i]); };
      response->application_status = byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3);
      response->protocol_status = byte(4);
      response->ended = true;
      return true;
    }
    default: break;
  }
  response->problem = "a record of type " + std::to_string(header[1]);
  return false;
}

FastCGIResponse FastCGIClient::Read(Milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!pending.ended && ReadRecord(&pending, deadline)) {
  }
  return std::exchange(pending, FastCGIResponse());
}

std::string FastCGIClient::ReadOutput(size_t bytes, Milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!pending.ended && pending.standard_output.size() < bytes &&
         ReadRecord(&pending, deadline)) {
  }
  return pending.standard_output;
}

bool FastCGIClient::WaitForClose(Milliseconds timeout) {
  pollfd waiting{descriptor, POLLIN, 0};
  char byte;
  return poll(&waiting, 1, static_cast<int>(timeout.count())) == 1 &&
         recv(descriptor, &byte, 1, 0) <= 0;
}

FastCGIResponse FastCGIClient::Request(const FastCGIParameters& parameters, std::string_view input,
                                       bool keep, Milliseconds timeout) {
  FastCGIResponse failed;
  failed.problem = "the engine does not take the request";
  // An engine that responds early may close before all input is sent; its response can still be
  // read.
  if (!Begin(keep) || !Parameters(parameters) || !EndParameters()) return failed;
  if (!input.empty()) Input(input);
  EndInput();
  return Read(timeout);
}

// A web server's side of the FastCGI protocol, for tests of the engine. One client is one
// connection on a socket, with one request at a time.

#ifndef ZEPH_TESTS_SUPPORT_FASTCGICLIENT_H
#define ZEPH_TESTS_SUPPORT_FASTCGICLIENT_H

#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Parameters of a request, sent in this order; a name may come twice.
using FastCGIParameters = std::vector<std::pair<std::string, std::string>>;

// The response to one request. The header fields and the body are parts of standard output.
struct FastCGIResponse {
  bool ended = false;          // whether an end-request record came
  int application_status = 0;  // of that record
  int protocol_status = 0;
  std::string standard_output;
  std::string standard_error;
  std::string problem;  // why it did not end: "timeout", "connection closed", ...

  // The value of a header field, whose name is compared without regard to case; empty if there is
  // none.
  std::string Header(std::string_view name) const;
  bool HasHeader(std::string_view name) const;
  int CountOfHeader(std::string_view name) const;
  // All header lines, without the empty one; and the text after that.
  std::string Headers() const;
  std::string Body() const;
};

class FastCGIClient {
 public:
  using Milliseconds = std::chrono::milliseconds;
  // Long enough for an engine under a sanitizer on a busy machine: no test waits for it to expire.
  static constexpr Milliseconds DefaultTimeout{60000};

  FastCGIClient() = default;
  ~FastCGIClient();
  FastCGIClient(const FastCGIClient&) = delete;
  FastCGIClient& operator=(const FastCGIClient&) = delete;

  // Connects to a listening UNIX socket, or to a port of this machine. Returns false on an error.
  bool Connect(const std::string& socket);
  bool Connect(int port);
  bool connected() const { return descriptor >= 0; }
  void Close();

  // The records of a request, one operation each. All return false if the engine no longer accepts
  // bytes. Begin announces a request for the responder role; `keep` requests that the engine leaves
  // the connection open. EndParameters ends the parameters, EndInput the standard input.
  bool Begin(bool keep = false, int id = 1);
  bool Parameters(const FastCGIParameters& parameters);
  bool EndParameters();
  bool Input(std::string_view bytes);
  bool EndInput();
  bool Abort();
  // Closes the sending side, and goes on reading.
  void EndSending();
  // Raw bytes, which no well-behaved server sends; a record whose fields can all be chosen; and
  // lengths of a name-value pair of four bytes each, without the texts.
  bool Send(std::string_view bytes);
  static std::string Record(int type, int id, std::string_view content, size_t padding = 0);
  static std::string PairLengths(unsigned name, unsigned value);
  // Reads that many raw bytes, or fewer at the connection's end or the time-out.
  std::string Receive(size_t bytes, Milliseconds timeout = DefaultTimeout);

  // Between the two calls records are collected, and sent in one write at the end.
  void Hold() { holding = true; }
  const std::string& held() const { return held_bytes; }
  bool Release();

  // Reads records until the request's end, the connection's end or the time-out.
  FastCGIResponse Read(Milliseconds timeout = DefaultTimeout);
  // Reads until standard output has that many bytes or more, and returns the bytes so far. They are
  // also part of the next Read.
  std::string ReadOutput(size_t bytes, Milliseconds timeout = DefaultTimeout);
  // Whether the engine closes the connection within that time without sending anything more.
  bool WaitForClose(Milliseconds timeout = DefaultTimeout);

  // A whole request: Begin, parameters, input, Read.
  FastCGIResponse Request(const FastCGIParameters& parameters, std::string_view input = "",
                          bool keep = false, Milliseconds timeout = DefaultTimeout);

 private:
  bool SendRecord(int type, std::string_view content);
  bool SendStream(int type, std::string_view content);
  // Reads one record into response. Returns false at the end of the connection or at the time-out.
  bool ReadRecord(FastCGIResponse* response, std::chrono::steady_clock::time_point deadline);
  bool ReadBytes(char* buffer, size_t length, FastCGIResponse* response,
                 std::chrono::steady_clock::time_point deadline);

  int descriptor = -1;
  int request_id = 1;
  bool holding = false;
  std::string held_bytes;
  FastCGIResponse pending;
};

#endif

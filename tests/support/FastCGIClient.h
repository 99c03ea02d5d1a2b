// A web server's side of the FastCGI protocol, for tests that talk to the engine. One client is one
// connection on a UNIX socket and has one request at a time on it.

#ifndef ZEPH_TESTS_SUPPORT_FASTCGICLIENT_H
#define ZEPH_TESTS_SUPPORT_FASTCGICLIENT_H

#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Parameters of a request, sent in this order; a name may come twice.
using FastCGIParameters = std::vector<std::pair<std::string, std::string>>;

// What came back for one request. The header fields and the body are parts of standard output.
struct FastCGIResponse {
  bool ended = false;          // whether an end-request record came
  int application_status = 0;  // of that record
  int protocol_status = 0;
  std::string standard_output;
  std::string standard_error;
  std::string problem;  // why it did not end: "timeout", "connection closed", ...

  // The value of a header field, compared without regard to case; empty when absent.
  std::string Header(std::string_view name) const;
  bool HasHeader(std::string_view name) const;
  int CountOfHeader(std::string_view name) const;
  // All header lines, without the empty one; what stands behind that.
  std::string Headers() const;
  std::string Body() const;
};

class FastCGIClient {
 public:
  using Milliseconds = std::chrono::milliseconds;
  // Long enough for an engine under a sanitizer on a busy machine: no test waits for it to pass.
  static constexpr Milliseconds DefaultTimeout{60000};

  FastCGIClient() = default;
  ~FastCGIClient();
  FastCGIClient(const FastCGIClient&) = delete;
  FastCGIClient& operator=(const FastCGIClient&) = delete;

  // Connects to a listening UNIX socket, or to a port of this machine. False when that fails.
  bool Connect(const std::string& socket);
  bool Connect(int port);
  bool connected() const { return descriptor >= 0; }
  void Close();

  // The records of a request, one operation each. All answer false when the engine no longer takes
  // bytes. Begin announces a request for the responder role; with keep the engine is asked to leave
  // the connection open. Parameters are ended by EndParameters, standard input by EndInput.
  bool Begin(bool keep = false, int id = 1);
  bool Parameters(const FastCGIParameters& parameters);
  bool EndParameters();
  bool Input(std::string_view bytes);
  bool EndInput();
  bool Abort();
  // Tells the engine that nothing more comes, and goes on reading.
  void EndSending();
  // Bytes as they are, for what no well-behaved server sends; a record with all that can be chosen;
  // and name-value pair lengths of four bytes each, without the texts.
  bool Send(std::string_view bytes);
  static std::string Record(int type, int id, std::string_view content, size_t padding = 0);
  static std::string PairLengths(unsigned name, unsigned value);
  // Reads that many bytes as they are, or fewer at the connection's end or the time-out.
  std::string Receive(size_t bytes, Milliseconds timeout = DefaultTimeout);

  // Between the two, records gather and go out in one write at the end.
  void Hold() { holding = true; }
  const std::string& held() const { return held_bytes; }
  bool Release();

  // Reads records until the request's end, the connection's end or the time-out.
  FastCGIResponse Read(Milliseconds timeout = DefaultTimeout);
  // Reads until standard output holds that many bytes or more; answers them so far. What was read
  // is part of the next Read.
  std::string ReadOutput(size_t bytes, Milliseconds timeout = DefaultTimeout);
  // Whether the engine closes the connection within that time, nothing further having come.
  bool WaitForClose(Milliseconds timeout = DefaultTimeout);

  // A whole request: Begin, parameters, input, Read.
  FastCGIResponse Request(const FastCGIParameters& parameters, std::string_view input = "",
                          bool keep = false, Milliseconds timeout = DefaultTimeout);

 private:
  bool SendRecord(int type, std::string_view content);
  bool SendStream(int type, std::string_view content);
  // Takes one record off the connection into response. False at the end of the connection or time.
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

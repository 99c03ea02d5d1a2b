// A second reader of HTTP responses, which has all bytes at once. The stream is compared with it.

#ifndef ZEPH_TESTS_SUPPORT_HTTPRESPONSEMODEL_H
#define ZEPH_TESTS_SUPPORT_HTTPRESPONSEMODEL_H

#include <algorithm>
#include <climits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/network/HTTPResponseStream.h"
#include "tests/support/ScriptedConnection.h"

// All that a caller can see of one response.
struct HTTPResponseOutcome {
  bool head = false;  // the result of Read_Headers
  int status = -1;
  int length = -1;
  bool chunked = false;
  std::vector<std::string> headers;  // "text|name|value"
  std::string body;
  int last = 0;  // the last result of Read: 0, or -1
  long total = 0;
  std::string error;
  size_t consumed = 0;  // bytes of the peer

  bool operator==(const HTTPResponseOutcome&) const = default;

  std::string Text() const {
    std::string text = (head ? "head " : "no head ") + std::to_string(status) + " length " +
                       std::to_string(length) + (chunked ? " chunked" : "") + "\n";
    for (const std::string& header : headers) text += header + "\n";
    return text + "<" + body + "> last " + std::to_string(last) + " total " +
           std::to_string(total) + " consumed " + std::to_string(consumed) + " " + error;
  }
};

class HTTPResponseModel {
 public:
  explicit HTTPResponseModel(const ScriptedPeer& peer) : peer(peer), at(peer.at) {}

  // Reads the head, and the body in reads of that many bytes.
  HTTPResponseOutcome Run(size_t piece) {
    HTTPResponseOutcome o;
    o.head = Head(o);
    if (o.head) {
      o.last = o.chunked ? Chunks(o, piece) : Plain(o, piece);
    }
    o.consumed = at;
    return o;
  }

 private:
  static std::string Strip(const std::string& text) {
    const std::string before_nul = text.substr(0, text.find('\0'));
    const size_t first = before_nul.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return "";
    return before_nul.substr(first, before_nul.find_last_not_of(" \t\r\n") - first + 1);
  }

  static std::string Lower(std::string text) {
    for (char& c : text) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
  }

  // The number at the start of the text after white space and a sign, nothing for one that is not
  // from INT_MIN to INT_MAX.
  static std::optional<int> Number(const std::string& text, int radix) {
    size_t i = text.find_first_not_of(" \t\n\v\f\r");
    if (i == std::string::npos) return 0;
    const bool negative = text[i] == '-';
    if (text[i] == '-' || text[i] == '+') i++;
    const std::string digits = "0123456789abcdef";
    auto digit = [&](size_t place) -> int {
      if (place >= text.size()) return -1;
      const size_t value = digits.find(Lower(text.substr(place, 1)));
      return value < static_cast<size_t>(radix) ? static_cast<int>(value) : -1;
    };
    // "0x" is part of the number only in front of a digit.
    if (radix == 16 && Lower(text.substr(i, 2)) == "0x" && digit(i + 2) >= 0) i += 2;
    double value = 0;
    for (; digit(i) >= 0; i++) value = value * radix + digit(i);
    if (negative) value = -value;
    if (value < INT_MIN || value > INT_MAX) return std::nullopt;
    return static_cast<int>(value);
  }

  std::optional<std::string> Line(HTTPResponseOutcome& o) {
    const size_t end = peer.bytes.find('\n', at);
    if (end == std::string::npos) {
      at = peer.bytes.size();
      o.error = peer.stays ? kReadTimeout : kReadClosed;
      return std::nullopt;
    }
    const std::string line = peer.bytes.substr(at, end + 1 - at);
    at = end + 1;
    return line;
  }

  bool Head(HTTPResponseOutcome& o) {
    std::optional<std::string> line = Line(o);
    if (!line) return false;
    const std::string first = Strip(*line);
    const size_t blank = first.find(' ');
    o.status = blank == std::string::npos ? 0 : Number(first.substr(blank), 10).value_or(0);
    Add(o, first);
    for (;;) {
      line = Line(o);
      if (!line) return false;
      if (*line == "\r\n" || *line == "\n") break;
      const std::string text = Strip(*line);
      Add(o, text);
      const size_t colon = text.find(':');
      const std::string name = Lower(Strip(text.substr(0, colon)));
      const std::string value = colon == std::string::npos ? "" : Strip(text.substr(colon + 1));
      if (name == "transfer-encoding") {
        o.chunked = Lower(value) == "chunked";
        o.length = -1;
      } else if (name == "content-length" && !o.chunked) {
        o.length = std::max(Number(value, 10).value_or(-1), -1);
      }
    }
    return !o.chunked || ChunkStart(o);
  }

  static void Add(HTTPResponseOutcome& o, const std::string& text) {
    const size_t colon = text.find(':');
    o.headers.push_back(text + "|" + Strip(text.substr(0, colon)) + "|" +
                        (colon == std::string::npos ? "" : Strip(text.substr(colon + 1))));
  }

  // One read of the connection: what has arrived in one piece, and no more than asked.
  std::optional<std::string> Some(size_t most) {
    size_t end = at;
    while (end < peer.bytes.size() && end - at < most && (end == at || !peer.cuts.count(end))) {
      end++;
    }
    if (end == at && peer.stays) return std::nullopt;
    const std::string bytes = peer.bytes.substr(at, end - at);
    at = end;
    return bytes;
  }

  bool ChunkStart(HTTPResponseOutcome& o) {
    const std::optional<std::string> line = Line(o);
    if (!line) return false;
    const std::optional<int> size = Number(line->substr(0, line->find('\0')), 16);
    if (!size || *size < 0) {
      o.error = "Invalid chunk size";
      return false;
    }
    rest = static_cast<size_t>(*size);
    return true;
  }

  bool ChunkEnd(HTTPResponseOutcome& o) {
    if (Some(2) == "\r\n") return true;
    o.error = "Invalid chunk terminator";
    return false;
  }

  int Chunks(HTTPResponseOutcome& o, size_t piece) {
    while (rest > 0) {
      const std::optional<std::string> bytes = Some(std::min(rest, piece));
      if (!bytes) {
        o.error = kReadTimeout;
        return -1;
      }
      if (bytes->empty()) return 0;
      o.total += static_cast<long>(bytes->size());
      rest -= bytes->size();
      if (rest == 0) {
        if (!ChunkEnd(o) || !ChunkStart(o)) return -1;
        if (rest == 0 && !ChunkEnd(o)) return -1;
      }
      o.body += *bytes;
    }
    return 0;
  }

  int Plain(HTTPResponseOutcome& o, size_t piece) {
    for (;;) {
      size_t most = piece;
      if (o.length >= 0) most = std::min(most, static_cast<size_t>(o.length - o.total));
      if (most == 0) return 0;
      const std::optional<std::string> bytes = Some(most);
      if (!bytes) {
        o.error = kReadTimeout;
        return -1;
      }
      if (bytes->empty()) return 0;
      o.total += static_cast<long>(bytes->size());
      o.body += *bytes;
    }
  }

  ScriptedPeer peer;
  size_t at;
  size_t rest = 0;  // of the chunk
};

// The same through the stream. The buffer of each read is a block of its own, so that a write past
// its end is found.
inline HTTPResponseOutcome ReadWithStream(ScriptedPeer& peer, size_t piece) {
  auto text = [](const String& s) {
    return std::string(s.data ? s.data : "", static_cast<size_t>(s.length));
  };
  HTTPResponseStream stream(new ScriptedConnection(&peer), 7);
  HTTPResponseOutcome o;
  o.head = stream.Read_Headers();
  o.status = stream.status;
  o.length = stream.content_length;
  o.chunked = stream.chunked == 1;
  for (HTTPResponseStream_Header* h = stream.headers.First(); h; h = stream.headers.Next()) {
    o.headers.push_back(text(h->text) + "|" + text(h->name) + "|" + text(h->value));
  }
  while (o.head) {
    const std::unique_ptr<char[]> buffer(new char[piece]);
    o.last = stream.Read(buffer.get(), static_cast<int>(piece));
    if (o.last <= 0) break;
    o.body.append(buffer.get(), static_cast<size_t>(o.last));
  }
  o.total = stream.total;
  o.error = text(stream.error);
  o.consumed = peer.at;
  stream.Close();
  return o;
}

#endif

// FastCGI records. Tested in tests/develop/RecordsTest.cpp.

#include "develop/Records.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr size_t kHead = 8;
constexpr size_t kMostContent = 65528;
constexpr char kVersion = 1;

bool ReadExactly(int socket, char* bytes, size_t length) {
  for (size_t done = 0; done < length;) {
    const ssize_t count = recv(socket, bytes + done, length - done, 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

unsigned Byte(std::string_view text, size_t at) {
  return static_cast<unsigned char>(text[at]);
}

std::string Head(int type, int request, size_t length) {
  const auto byte = [](size_t value) { return static_cast<char>(value & 0xFF); };
  const auto number = static_cast<size_t>(request);
  return {kVersion,
          byte(static_cast<size_t>(type)),
          byte(number >> 8),
          byte(number),
          byte(length >> 8),
          byte(length),
          0,
          0};
}

// A length of one byte, or of four with the highest bit set.
bool ParseLength(std::string_view text, size_t* at, size_t* length) {
  constexpr unsigned is_long = 0x80;
  if (*at >= text.size()) return false;
  if (Byte(text, *at) < is_long) {
    *length = Byte(text, (*at)++);
    return true;
  }
  if (text.size() - *at < 4) return false;
  *length = (Byte(text, *at) & ~is_long) << 24 | Byte(text, *at + 1) << 16 |
            Byte(text, *at + 2) << 8 | Byte(text, *at + 3);
  *at += 4;
  return true;
}

}  // namespace

bool ReadRecord(int socket, Record* record) {
  std::string& bytes = record->bytes;
  bytes.resize(kHead);
  if (!ReadExactly(socket, bytes.data(), kHead)) return false;
  record->type = static_cast<int>(Byte(bytes, 1));
  record->request = static_cast<int>(Byte(bytes, 2) << 8 | Byte(bytes, 3));
  const size_t length = Byte(bytes, 4) << 8 | Byte(bytes, 5);
  const size_t padding = Byte(bytes, 6);
  bytes.resize(kHead + length + padding);
  if (!ReadExactly(socket, bytes.data() + kHead, length + padding)) return false;
  record->content = bytes.substr(kHead, length);
  return true;
}

bool WriteBytes(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

std::string MakeRecords(int type, int request, std::string_view content) {
  std::string records;
  while (!content.empty()) {
    const std::string_view part = content.substr(0, kMostContent);
    records += Head(type, request, part.size());
    records += part;
    content.remove_prefix(part.size());
  }
  return records;
}

std::string EndOfStream(int type, int request) {
  return Head(type, request, 0);
}

std::string EndOfRequest(int request) {
  return Head(kRecordEnd, request, kHead) + std::string(kHead, '\0');
}

bool ParseParameters(std::string_view text, std::map<std::string, std::string>* parameters) {
  for (size_t at = 0; at < text.size();) {
    size_t name, value;
    if (!ParseLength(text, &at, &name) || !ParseLength(text, &at, &value)) return false;
    if (name > text.size() - at || value > text.size() - at - name) return false;
    (*parameters)[std::string(text.substr(at, name))] = text.substr(at + name, value);
    at += name + value;
  }
  return true;
}

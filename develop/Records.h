// The records of FastCGI, as the gateway reads and writes them.

#ifndef ZEPH_DEVELOP_RECORDS_H
#define ZEPH_DEVELOP_RECORDS_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

constexpr int kRecordBegin = 1;
constexpr int kRecordEnd = 3;
constexpr int kRecordParameters = 4;
constexpr int kRecordOutput = 6;

struct Record {
  int type = 0;
  int request = 0;
  std::string content;
  std::string bytes;  // the whole record, as it came
};

// Reads one record from a socket. Returns false at the end and after a failure.
[[nodiscard]] bool ReadRecord(int socket, Record* record);
// Writes all bytes. Returns false if the peer takes no more.
[[nodiscard]] bool WriteBytes(int socket, std::string_view bytes);
// Records of a type with a text of any length; none for an empty one.
std::string MakeRecords(int type, int request, std::string_view content);
// The record without content that ends a stream.
std::string EndOfStream(int type, int request);
// The record that ends a request in order.
std::string EndOfRequest(int request);
// The parameters of a request. Returns false if the text is not well formed.
[[nodiscard]] bool ParseParameters(std::string_view text,
                                   std::map<std::string, std::string>* parameters);

#endif

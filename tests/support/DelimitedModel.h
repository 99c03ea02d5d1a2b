// The records of a delimited text file, found by slow and short code, to compare imports with.

#ifndef ZEPH_TESTS_SUPPORT_DELIMITEDMODEL_H
#define ZEPH_TESTS_SUPPORT_DELIMITEDMODEL_H

#include <string>
#include <vector>

// The values of `fields` fields of each record. A field that a record does not have is empty.
inline std::vector<std::vector<std::string>> DelimitedRecords(const std::string& content,
                                                              const std::string& delimiter,
                                                              size_t fields) {
  std::vector<std::vector<std::string>> all;
  for (size_t at = 0;;) {
    std::string record;
    bool ended = false;
    while (at < content.size() && !ended) {
      char c = content[at++];
      if (c == '\\') {
        if (at == content.size()) break;
        c = content[at++];
        record += c == 'n' ? '\n' : c == 'r' ? '\r' : c;
      } else if (c == '\n') {
        ended = true;
      } else if (c == '\r') {
        // A CR ends a record unless it is the last byte of the file.
        ended = at < content.size();
        if (ended && content[at] == '\n') at++;
      } else {
        record += c;
      }
    }
    if (!ended && record.empty()) return all;
    std::vector<std::string> values(fields);
    size_t position = 0;
    for (std::string& value : values) {
      if (position >= record.size()) continue;
      size_t stop = delimiter.empty() ? std::string::npos : record.find(delimiter, position);
      if (stop == std::string::npos) stop = record.size();
      value = record.substr(position, stop - position);
      position = stop + delimiter.size();
    }
    all.push_back(values);
  }
}

#endif

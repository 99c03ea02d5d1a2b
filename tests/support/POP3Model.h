// A second reader of a whole POP3 session, which has all bytes of the server at once. It says what
// a client sends, and what a script gets. The feature is compared with it.

#ifndef ZEPH_TESTS_SUPPORT_POP3MODEL_H
#define ZEPH_TESTS_SUPPORT_POP3MODEL_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// One pass of the loop's body: the variables, and the file that messagebody names.
struct POP3Pass {
  std::string body;
  std::string subject;
  std::string sender;
  std::string reply_to;
  std::string date;
  std::string content;

  bool operator==(const POP3Pass&) const = default;
};

// A whole session.
struct POP3Outcome {
  std::vector<POP3Pass> passes;
  std::vector<std::string> errors;  // of deletions, then the one that ended the session
  std::string written;              // all that was sent

  bool operator==(const POP3Outcome&) const = default;

  std::string Text() const {
    std::string text;
    for (const POP3Pass& pass : passes) {
      text += pass.body + "|" + pass.subject + "|" + pass.sender + "|" + pass.reply_to + "|" +
              pass.date + "\n<" + pass.content + ">\n";
    }
    for (const std::string& error : errors) text += error + "\n";
    return text + "sent " + written;
  }
};

class POP3Model {
 public:
  // The bytes of the server, what it does after them, and whether the script deletes each message.
  POP3Model(std::string server_bytes, bool stays_silent, bool deletes_each)
      : bytes(std::move(server_bytes)), silent(stays_silent), deletes(deletes_each) {}

  // user "u", password "p", host "h", directory "in".
  POP3Outcome Run() {
    if (!Session()) outcome.errors.push_back(prefix + error);
    outcome.written += "QUIT\r\n";
    return std::move(outcome);
  }

 private:
  struct Listed {
    int32_t number;
    int32_t size;
  };

  static std::string Upper(std::string text) {
    for (char& c : text) {
      if (c >= 'a' && c <= 'z') c -= 32;
    }
    return text;
  }
  static int32_t Number(const std::string& text) {
    size_t i = text.find_first_not_of(" \t\n\v\f\r");
    if (i == std::string::npos) return 0;
    const bool negative = text[i] == '-';
    if (text[i] == '-' || text[i] == '+') i++;
    int64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; i++) {
      if (value < INT64_C(1000000000000)) value = value * 10 + (text[i] - '0');
    }
    if (negative) return value > INT64_C(2147483648) ? INT32_MIN : static_cast<int32_t>(-value);
    return value > INT32_MAX ? INT32_MAX : static_cast<int32_t>(value);
  }

  bool Fail(const std::string& text) {
    error = text;
    return false;
  }
  bool Line(std::string* line) {
    const size_t end = bytes.find('\n', at);
    if (end == std::string::npos) {
      at = bytes.size();
      return Fail(silent ? "Read Timeout" : "Read Error: Connection closed by remote host");
    }
    *line = bytes.substr(at, end + 1 - at);
    at = end + 1;
    *line = line->substr(0, line->find('\r'));
    return true;
  }
  bool Refused(const std::string& line) {
    const size_t blank = line.find(' ');
    if (blank == std::string::npos) return Fail("Invalid response from server");
    return Fail(line.substr(blank + 1));
  }
  bool Status() {
    std::string line;
    if (!Line(&line)) return false;
    return !line.empty() && line[0] == '-' ? Refused(line) : true;
  }
  bool Command(const std::string& text) {
    outcome.written += text + "\r\n";
    return true;
  }
  static std::string Undotted(const std::string& line) {
    if (line.compare(0, 2, "..") != 0) return line;
    const size_t zero = line.find('0', 1);
    return zero == std::string::npos ? "" : line.substr(zero);
  }

  bool Session() {
    prefix = "Error connecting to 'h': ";
    if (!Status()) return false;
    prefix = "Error logging into 'h': ";
    if (!Command("USER u") || !Status() || !Command("PASS p") || !Status()) return false;
    prefix = "Error while checking status from 'h': ";
    int32_t expected = 0;
    if (!Command("STAT") || !Count(&expected)) return false;
    prefix = "Error while retrieving list of messages from 'h': ";
    std::vector<Listed> list;
    if (!Command("LIST") || !Status() || !List(expected, &list)) return false;
    prefix = "Error retrieving message: ";
    for (size_t i = 0; i < list.size() && list[i].number != 0; i++) {
      if (!Message(list[i].number)) return false;
      if (!deletes) continue;
      Command("DELE " + std::to_string(static_cast<uint32_t>(list[i].number)));
      if (!Status()) {
        outcome.errors.push_back("Error deleting message #" + std::to_string(i) + ": " + error);
      }
    }
    return true;
  }
  bool Count(int32_t* count) {
    std::string line;
    if (!Line(&line)) return false;
    if (!line.empty() && line[0] == '-') return Refused(line);
    const size_t first = line.find(' ');
    const size_t second = first == std::string::npos ? first : line.find(' ', first + 1);
    if (second == std::string::npos) return Fail("Invalid response from server");
    *count = Number(line.substr(first + 1, second - first - 1));
    return true;
  }
  bool List(int32_t expected, std::vector<Listed>* list) {
    for (;;) {
      std::string line;
      if (!Line(&line)) return false;
      if (line == ".") return true;
      const size_t blank = line.find(' ');
      if (blank == std::string::npos) return Fail("Invalid response from server");
      if (expected <= 0 || list->size() == static_cast<size_t>(expected)) {
        return Fail("More messages than expected returned from server");
      }
      list->push_back({Number(line.substr(0, blank)), Number(line.substr(blank + 1))});
    }
  }
  bool Message(int32_t number) {
    Command("RETR " + std::to_string(static_cast<uint32_t>(number)));
    char name[64];
    snprintf(name, sizeof name, "in/ZPPOPM.%x.%x", static_cast<unsigned>(number),
             static_cast<unsigned>(suffixes[number]++));
    if (!Status()) return false;
    POP3Pass pass;
    std::map<std::string, std::string> head;
    bool in_head = true;
    for (;;) {
      std::string line;
      if (!Line(&line)) return false;
      if (line == ".") break;
      line = Undotted(line);
      pass.content += line + "\n";
      if (line.empty()) in_head = false;
      const size_t colon = line.find(": ");
      if (!in_head || colon == std::string::npos) continue;
      head.emplace(Upper(line.substr(0, colon)), line.substr(colon + 2));
    }
    pass.body = name;
    pass.subject = head["SUBJECT"].empty() ? "(no subject)" : head["SUBJECT"];
    pass.sender = head["FROM"];
    pass.reply_to = head["REPLY-TO"].empty() ? pass.sender : head["REPLY-TO"];
    pass.date = head["DATE"];
    outcome.passes.push_back(pass);
    return true;
  }

  std::string bytes;
  bool silent;
  bool deletes;
  size_t at = 0;
  POP3Outcome outcome;
  std::map<int32_t, int> suffixes;  // how many files each number has
  std::string prefix;
  std::string error;
};

#endif

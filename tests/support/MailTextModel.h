// The text of a mail as it goes to a server, by a table of states that is read byte by byte.

#ifndef ZEPH_TESTS_SUPPORT_MAILTEXTMODEL_H
#define ZEPH_TESTS_SUPPORT_MAILTEXTMODEL_H

#include <string>
#include <utility>

class MailTextModel {
 public:
  // What is sent for the whole text, its end included.
  static std::string Sent(const std::string& text) {
    MailTextModel model;
    for (const char c : text) model.Take(c);
    model.End();
    return model.sent;
  }

 private:
  enum Class { Feed, Return, Dot, Other };
  struct Row {
    const char* before;  // written in front of the byte
    int line_start;      // the flag afterwards; -1 leaves it
    bool writes;         // whether the byte is written
    bool consumes;
    int next;
  };

  void Take(char c) {
    // A column each for LF, CR, the dot and any other byte.
    static const Row table[9][4] = {
        {{"", -1, false, true, 2},
         {"", -1, false, true, 1},
         {"", -1, false, true, 8},
         {"", -1, false, false, 4}},
        {{"", -1, false, true, 3},
         {"", -1, false, false, 4},
         {"", -1, false, true, 8},
         {"", -1, false, false, 4}},
        {{"", -1, false, false, 4},
         {"", -1, false, true, 3},
         {"", -1, false, true, 8},
         {"", -1, false, false, 4}},
        {{"", -1, false, false, 4},
         {"", -1, false, false, 4},
         {"", -1, false, true, 8},
         {"", -1, false, false, 4}},
        {{"", -1, false, true, 6},
         {"", -1, false, true, 5},
         {"", 0, true, true, 4},
         {"", 0, true, true, 4}},
        {{"", -1, false, true, 7},
         {"", -1, false, false, 7},
         {"", -1, false, false, 7},
         {"", -1, false, false, 7}},
        {{"", -1, false, false, 7},
         {"", -1, false, true, 7},
         {"", -1, false, false, 7},
         {"", -1, false, false, 7}},
        {{"\r\n", 1, false, false, 4},
         {"\r\n", 1, false, false, 4},
         {"\r\n", 1, false, true, 8},
         {"\r\n", 1, false, false, 4}},
        {{"..", 0, false, false, 4},
         {"..", 0, false, false, 4},
         {".", 0, false, false, 4},
         {".", 0, false, false, 4}},
    };
    const Class column = c == '\n' ? Feed : c == '\r' ? Return : c == '.' ? Dot : Other;
    for (bool taken = false; !taken;) {
      const Row& row = table[state][column];
      sent += row.before;
      if (row.line_start >= 0) line_start = row.line_start;
      if (row.writes) sent += c;
      state = row.next;
      taken = row.consumes;
    }
  }
  void End() {
    if (state >= 5 && state <= 7) {
      line_start = 1;
      sent += "\r\n";
    }
    if (state == 8) {
      line_start = 0;
      sent += "..";
    }
    sent += line_start ? ".\r\n" : "\r\n.\r\n";
  }

  int state = 0;
  int line_start = 1;
  std::string sent;
};

#endif

// Mails as the lines that a POP3 server sends for them.

#ifndef ZEPH_TESTS_SUPPORT_MAILS_H
#define ZEPH_TESTS_SUPPORT_MAILS_H

#include <string>
#include <vector>

struct Mail {
  const char* label;
  std::string lines;  // each with its CR LF, without the last dot
};

inline std::vector<Mail> AllMails() {
  const std::string nul("\0", 1);
  const std::string head =
      "From: Ada <ada@example.org>\r\nSubject: Tea\r\nDate: Sun, 22 Nov 2026 10:00:00 +0000\r\n";
  std::string many;
  for (int i = 0; i < 100; i++) {
    many += "X-Line-" + std::to_string(i % 60) + ": " + std::to_string(i) + "\r\n";
  }
  return {
      {"plain", head + "\r\nHello\r\n"},
      {"nothing at all", ""},
      {"an empty line", "\r\n"},
      {"a body without a head", "\r\nbody\r\n"},
      {"a head without a body", head},
      {"a head and an empty body", head + "\r\n"},
      {"two subjects", "Subject: one\r\nSubject: two\r\n\r\nx\r\n"},
      {"two subjects in two cases", "sUBJECT: one\r\nSubject: two\r\n\r\nx\r\n"},
      {"the first of two subjects is empty", "Subject: \r\nSubject: two\r\n\r\nx\r\n"},
      {"the first of two subjects has no blank", "Subject:\r\nSubject: two\r\n\r\nx\r\n"},
      {"no blank after the colon", "Subject:tight\r\nFrom:x\r\n\r\n"},
      {"a colon without a blank, then one with", "Subject:a: b\r\n\r\n"},
      {"a value with colons", "Subject: a: b: c\r\n\r\n"},
      {"two blanks", "Subject:  x\r\n\r\n"},
      {"a tab after the colon", "Subject:\tx\r\n\r\n"},
      {"a blank before the colon", "Subject : x\r\n\r\n"},
      {"no name", ": x\r\n\r\n"},
      {"only a colon and a blank", ": \r\n\r\n"},
      {"only a colon", ":\r\n\r\n"},
      {"a folded subject", "Subject: one\r\n two\r\n\tthree\r\n\r\n"},
      {"a folded line that looks like a header", "X: y\r\n Subject: z\r\n\r\n"},
      {"a subject in the body", "From: a\r\n\r\nSubject: not here\r\n"},
      {"an empty subject", "Subject: \r\n\r\n"},
      {"an empty sender", "From: \r\nReply-To: r\r\n\r\n"},
      {"a sender", "From: a@b\r\n\r\n"},
      {"an address for replies", "From: a@b\r\nReply-To: c@d\r\n\r\n"},
      {"an empty address for replies", "From: a@b\r\nReply-To: \r\n\r\n"},
      {"no sender, but an address for replies", "Reply-To: c@d\r\n\r\n"},
      {"two senders", "From: a\r\nFrom: b\r\n\r\n"},
      {"headers in capitals", "FROM: A\r\nSUBJECT: B\r\nDATE: C\r\nREPLY-TO: D\r\n\r\n"},
      {"many headers", many + head + "\r\nx\r\n"},
      {"a line of two dots", head + "\r\n..\r\n"},
      {"a line of three dots", head + "\r\n...\r\n"},
      {"dots and text", head + "\r\n..abc\r\n..\r\n.x\r\n"},
      {"dots and a zero", head + "\r\n..a0b\r\n..0\r\n...0.0\r\n"},
      {"a dot and a zero", head + "\r\n.0\r\n. 0\r\n"},
      {"dots in the head", "..Subject: a\r\nSubject: b\r\n\r\n"},
      {"dots before a zero in the head", "..0Subject: a\r\n..0: b\r\n\r\n"},
      {"dots that end the head", "From: a\r\n..\r\nSubject: b\r\n"},
      {"blanks at the end", "Subject: a \r\n\r\n x \r\n. \r\n"},
      {"a NUL in the head", "Sub" + nul + "ject: a\r\nSubject: b" + nul + "c\r\n\r\n"},
      {"a NUL in the body", head + "\r\na" + nul + "b\r\n" + nul + "\r\n"},
      {"a CR within a line", "Subject: a\rb\r\n\r\nc\rd\r\n\re\r\n"},
      {"two CRs", "Subject: a\r\r\n\r\r\nx\r\r\n"},
      {"lines without CR", "Subject: a\nFrom: b\r\n\n\r\nx\n.\ny\r\n"},
      {"an empty line without CR is none", "Subject: a\n\nFrom: b\r\n\r\n"},
      {"a status within the body", head + "\r\n-ERR no\r\n+OK yes\r\n"},
      {"8 bits",
       "Subject: Gr\xC3\xBC\xC3\x9F"
       "e\r\nFrom: \xFF\xFE\r\n\r\n\xE9\x80\xFF\r\n"},
      {"a long header", "Subject: " + std::string(5000, 's') + "\r\n\r\nx\r\n"},
      {"a line of 511 bytes", head + "\r\n" + std::string(510, 'x') + "\r\n"},
      {"a line of 512 bytes", head + "\r\n" + std::string(511, 'x') + "\r\n"},
      {"a line of 70,000 bytes", head + "\r\n" + std::string(70000, 'x') + "\r\nend\r\n"},
      {"lines that fill the buffer of the file",
       "\r\n" + std::string(8190, 'a') + "\r\nb\r\n" + std::string(8191, 'c') + "\r\n" +
           std::string(8192, 'd') + "\r\n" + std::string(8193, 'e') + "\r\n"},
      {"many lines", head + "\r\n" +
                         [] {
                           std::string all;
                           for (int i = 0; i < 3000; i++)
                             all += "line " + std::to_string(i) + "\r\n";
                           return all;
                         }()},
  };
}

// What a server sends in a session that has these mails, numbered from 1. With deletes, also the
// replies to the deletion of each.
inline std::string Session(const std::vector<std::string>& mails, bool deletes = false) {
  std::string bytes =
      "+OK ready\r\n+OK\r\n+OK\r\n+OK " + std::to_string(mails.size()) + " 99\r\n+OK list\r\n";
  for (size_t i = 1; i <= mails.size(); i++) {
    bytes += std::to_string(i) + " " + std::to_string(mails[i - 1].size()) + "\r\n";
  }
  bytes += ".\r\n";
  for (const std::string& mail : mails) {
    bytes += "+OK follows\r\n" + mail + ".\r\n";
    if (deletes) bytes += "+OK gone\r\n";
  }
  return bytes;
}

#endif

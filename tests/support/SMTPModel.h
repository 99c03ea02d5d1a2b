// A second client of a mail server, which has the whole talk of the server before it says a word.

#ifndef ZEPH_TESTS_SUPPORT_SMTPMODEL_H
#define ZEPH_TESTS_SUPPORT_SMTPMODEL_H

#include <memory>
#include <set>
#include <string>

#include "base/network/SMTPOutput.h"
#include "base/network/SMTPService.h"
#include "tests/support/RecordingOutput.h"
#include "tests/support/ScriptedConnection.h"
#include "tests/support/TestApplication.h"

struct SMTPTalk {
  std::string server;  // everything that the server sends
  bool stays = false;  // whether it is silent after that, instead of closing
  bool starttls = false;
  std::string user;
  std::string password;
};

struct SMTPOutcome {
  bool sent = false;
  std::string error;    // of a failure
  std::string written;  // to the server
  // Set if the talk has led to a digest, which has a random part: the rest is not comparable.
  bool open_end = false;

  bool operator==(const SMTPOutcome&) const = default;
};

// The mail is always the same: one recipient, no header of the client, the text "Hi".
class SMTPModel {
 public:
  explicit SMTPModel(const SMTPTalk& talk) : talk(talk) {}

  SMTPOutcome Run() {
    outcome.sent =
        Reply() && Greet() && Command("MAIL FROM: f") && Command("RCPT TO: t") && Command("DATA");
    if (outcome.sent) {
      outcome.written += "Hi\r\n.\r\n";
      outcome.sent = Reply();
    }
    // The farewell changes nothing that a caller sees.
    if (outcome.sent) outcome.error.clear();
    if (!lost) outcome.written += "QUIT\r\n";
    return outcome;
  }

 private:
  struct Line {
    int code = 0;
    std::string text;
    bool more = false;
  };

  bool Fail(const std::string& text) {
    outcome.error = text;
    return false;
  }
  bool Next(Line* line) {
    const size_t end = talk.server.find('\n', at);
    if (end == std::string::npos) {
      lost = true;
      return Fail(talk.stays ? kReadTimeout : kReadClosed);
    }
    const std::string bytes = talk.server.substr(at, end + 1 - at);
    at = end + 1;
    if (bytes.size() < 3) return Fail("Failed to read SMTP status");
    *line = Line();
    const bool number = bytes.find_first_not_of("0123456789") >= 3;
    if (number) line->code = std::stoi(bytes.substr(0, 3));
    line->more = bytes.size() > 3 && bytes[3] == '-';
    if (bytes.size() > 4) line->text = bytes.substr(4);
    line->text = line->text.c_str();  // up to a NUL
    const char* const white = " \t\r\n";
    line->text.erase(line->text.find_last_not_of(white) + 1);
    line->text.erase(0, line->text.find_first_not_of(white));
    return true;
  }
  bool Reply() {
    Line line;
    do {
      if (!Next(&line)) return false;
    } while (line.more);
    static const std::set<int> good = {220, 221, 250, 251, 354};
    return good.count(line.code) ? true : Fail(line.text);
  }
  bool Expect(int code, Line* line) {
    return Next(line) && (line->code == code ? true : Fail(line->text));
  }
  bool Command(const std::string& command) {
    outcome.written += command + "\r\n";
    return Reply();
  }

  bool Extensions() {
    offers.clear();
    outcome.written += "EHLO testhost.example.org\r\n";
    Line line;
    for (bool first = true; first || line.more; first = false) {
      if (!Expect(250, &line)) return false;
      if (first) continue;
      if (line.text == "STARTTLS") offers.insert("STARTTLS");
      if (line.text.rfind("AUTH ", 0) != 0) continue;
      std::string word;
      for (const char c : line.text.substr(5) + " ") {
        if (c != ' ') word += c;
        if (c == ' ') offers.insert("AUTH " + word);
        if (c == ' ') word.clear();
      }
    }
    return true;
  }
  bool Greet() {
    const bool anonymous = talk.user.empty() && talk.password.empty();
    if (anonymous && !talk.starttls) return Command("HELO testhost.example.org");
    if (!Extensions()) return false;
    if (talk.starttls) {
      if (!offers.count("STARTTLS")) return Fail("Server does not support STARTTLS");
      if (!Command("STARTTLS") || !Extensions()) return false;
    }
    return anonymous || Authenticate();
  }
  static std::string Base64(const std::string& text) {
    const String encoded = String(text.data(), static_cast<int>(text.size())).Base64_Encode();
    return std::string(encoded.data, static_cast<size_t>(encoded.length));
  }
  bool Authenticate() {
    Line line;
    if (offers.count("AUTH DIGEST-MD5") || offers.count("AUTH CRAM-MD5")) {
      outcome.open_end = true;
      return Fail("");
    }
    if (offers.count("AUTH PLAIN")) {
      const std::string nul(1, '\0');
      outcome.written +=
          "AUTH PLAIN " + Base64(talk.user + nul + talk.user + nul + talk.password) + "\r\n";
      return Expect(235, &line);
    }
    if (!offers.count("AUTH LOGIN")) {
      return Fail("No supported authentication methods are allowed by the server");
    }
    outcome.written += "AUTH LOGIN\r\n";
    static const std::set<std::string> prompts[] = {{"VXNlciBOYW1l", "VXNlcm5hbWU6"},
                                                    {"UGFzc3dvcmQ=", "UGFzc3dvcmQ6"}};
    for (const bool second : {false, true}) {
      if (!Expect(334, &line)) return false;
      // Bytes after the last whole group are ignored.
      const std::string prompt = line.text.substr(0, line.text.size() / 4 * 4);
      if (!prompts[second].count(prompt)) {
        // Another text may stand for the same bytes.
        const String decoded =
            String(line.text.data(), static_cast<int>(line.text.size())).Base64_Decode();
        const std::string bytes(decoded.data, static_cast<size_t>(decoded.length));
        const bool known = second ? bytes == "Password" || bytes == "Password:"
                                  : bytes == "User Name" || bytes == "Username:";
        if (!known) return Fail("Invalid AUTH LOGIN handshake");
      }
      outcome.written += Base64(second ? talk.password : talk.user) + "\r\n";
    }
    return Expect(235, &line);
  }

  const SMTPTalk& talk;
  SMTPOutcome outcome;
  size_t at = 0;
  bool lost = false;
  std::set<std::string> offers;
};

// What the engine's client makes of a talk.
inline SMTPOutcome SendToTalk(const SMTPTalk& talk) {
  ScriptedPeer peer;
  peer.bytes = talk.server;
  peer.stays = talk.stays;
  TestApplication application;
  ScriptedNetworkManager manager(&application, &peer);
  application.SetNetworkManager(&manager);
  RecordingOutput page;
  char host[] = "h";
  int own = 0;
  unsigned flags = SMTPService::NoHeaders;
  if (talk.starttls) flags |= SMTPService::StartTLS;
  auto client = std::make_unique<SMTPService>(
      &application, nullptr, host, 1, 2, &own, 25, flags,
      String(talk.user.data(), static_cast<int>(talk.user.size())),
      String(talk.password.data(), static_cast<int>(talk.password.size())), 30);
  SMTPOutcome outcome;
  outcome.sent = client->SMTP_Connect(false) && client->Start("t", 1, "f", 1, "", 0, "s", 1);
  if (outcome.sent) {
    SMTPOutput output(&page, client->Connection(), 100, 30);
    output.Write("Hi", 2);
    outcome.sent = client->Finish(&output);
  }
  const String& error = client->error();
  if (!outcome.sent && error.data) {
    outcome.error.assign(error.data, static_cast<size_t>(error.length));
  }
  client.reset();
  outcome.written = peer.written;
  return outcome;
}

// Whether the two agree, as far as they can.
inline bool SameOutcome(const SMTPTalk& talk) {
  const SMTPOutcome expected = SMTPModel(talk).Run();
  const SMTPOutcome seen = SendToTalk(talk);
  if (!expected.open_end) return seen == expected;
  return seen.written.rfind(expected.written.substr(0, expected.written.size() - 6), 0) == 0;
}

#endif

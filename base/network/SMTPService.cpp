// The dialogue with a mail server. Tested in tests/base/network/SMTPServiceTest.cpp.
//
//   Commands        connection, envelope, header, end
//   Replies
//   Extensions      EHLO, STARTTLS, the choice of an authentication
//   Authentication  LOGIN, PLAIN and CRAM-MD5; DIGEST-MD5 is in SMTPService_Digest.cpp

#include "base/network/SMTPService.h"

#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "base/core/MD5.h"
#include "base/core/MeasuredLength.h"
#include "base/core/ascii.h"
#include "base/host/Version.h"
#include "base/host/ZephApplication.h"
#include "base/network/LoggingNetworkConnection.h"
#include "base/network/NetworkConnection.h"
#include "base/network/NetworkManager.h"
#include "base/network/SMTPOutput.h"

namespace {

// What a line of a reply has at most, by the standard; a longer one is read too.
constexpr int kLine = 512;

bool IsOneOf(const String& text, const char* first, const char* second) {
  for (const char* word : {first, second}) {
    const size_t length = strlen(word);
    if (static_cast<size_t>(text.length) == length && memcmp(text.data, word, length) == 0) {
      return true;
    }
  }
  return false;
}

void AppendField(String* header, const char* name, const char* text, int length) {
  header->cat(name);
  header->cat(text, length);
  header->cat("\r\n");
}

}  // namespace

SMTPService::SMTPService(ZephApplication* application, ZephVM* vm, char* host, int length,
                         int allocated, int* own, int port, unsigned flags, const String& user,
                         const String& password, int timeout)
    : NetworkService(application, host, length, allocated, own, port, timeout),
      vm(vm),
      flags(flags),
      user(user),
      password(password) {}

// Without memory for the farewell the connection is just closed.
SMTPService::~SMTPService() {
  try {
    if (connection) SMTPService::Disconnect();
  } catch (const std::bad_alloc&) {
    return;
  }
}

bool SMTPService::Fail(const char* text) {
  Error(text);
  return false;
}

// --- Commands ------------------------------------------------------------------------------------

bool SMTPService::CheckAddress(const char* address, int length, String* error) {
  length = MeasuredLength(address, length);
  for (int i = 0; i < length; i++) {
    if (address[i] != '\r' && address[i] != '\n' && address[i] != '\0') continue;
    error->assign("An address must not contain line breaks or NUL bytes");
    return false;
  }
  return true;
}

// The first line is a part of the field's own line, which is longer than a dot.
bool SMTPService::CheckSubject(const char* subject, int length, String* error) {
  length = MeasuredLength(subject, length);
  const auto breaks = [&](int at) {
    return at >= length || subject[at] == '\r' || subject[at] == '\n';
  };
  for (int i = 1; i < length; i++) {
    if (subject[i] != '.' || !breaks(i - 1) || !breaks(i + 1)) continue;
    error->assign("A subject must not contain a line of a single dot");
    return false;
  }
  return true;
}

bool SMTPService::Write(const String& text) {
  if (!connection || lost) return false;
  if (connection->Write(text, timeout) == text.length) return true;
  lost = true;
  Error(connection->error());
  return false;
}

bool SMTPService::Write(const char* command, const char* argument, int length) {
  String line(command);
  line.cat(argument, length);
  line.cat("\r\n");
  return Write(line);
}

bool SMTPService::Connect() {
  lost = false;
  return NetworkService::Connect();
}

bool SMTPService::SMTP_Connect(bool logging) {
  lost = false;
  if (!OpenConnection()) return false;
  if ((flags & TLS) && !EstablishTLS()) return false;
  if (logging) {
    ZephVMLoggingNetworkConnectionData data = {vm, Log_SMTP};
    std::unique_ptr<NetworkConnection> plain(std::exchange(connection, nullptr));
    connection = new ZephVMLoggingNetworkConnection(host, port, plain.release(), &data);
  }
  if (!Read_Status()) return false;
  const bool anonymous = user.length == 0 && password.length == 0;
  if (anonymous && !(flags & StartTLS)) {
    return Write("HELO ", application->hostname(), -1) && Read_Status();
  }
  unsigned capabilities;
  if (!ESMTP_Handshake(&capabilities)) return false;
  if ((flags & StartTLS) && !UpgradeToTLS(&capabilities)) return false;
  return anonymous || Authenticate(capabilities);
}

bool SMTPService::Start(const char* to, int to_length, const char* from, int from_length,
                        const char* cc, int cc_length, const char* subject, int subject_length) {
  cc_length = MeasuredLength(cc, cc_length);
  String text;
  if (!CheckAddress(from, from_length, &text) || !CheckAddress(to, to_length, &text) ||
      !CheckAddress(cc, cc_length, &text) ||
      (!(flags & NoHeaders) && !CheckSubject(subject, subject_length, &text))) {
    Error(text);
    return false;
  }
  if (!Write("MAIL FROM: ", from, from_length) || !Read_Status()) return false;
  if (!Add_Recipients(to, to_length)) return false;
  if (cc_length > 0 && !Add_Recipients(cc, cc_length)) return false;
  if (!Write("DATA", "", 0) || !Read_Status()) return false;
  return (flags & NoHeaders) ||
         SendHeader(to, to_length, from, from_length, cc, cc_length, subject, subject_length);
}

bool SMTPService::Add_Recipient(const char* address, int length) {
  String text;
  if (!CheckAddress(address, length, &text)) {
    Error(text);
    return false;
  }
  return Write("RCPT TO: ", address, length) && Read_Status();
}

bool SMTPService::Add_Recipients(const char* list, int length) {
  length = MeasuredLength(list, length);
  const char* const end = list + length;
  for (const char* piece = list;;) {
    const size_t left = static_cast<size_t>(end - piece);
    const void* const comma = left > 0 ? memchr(piece, ',', left) : nullptr;
    const char* const piece_end = comma ? static_cast<const char*>(comma) : end;
    if (!Add_Recipient(piece, static_cast<int>(piece_end - piece))) return false;
    if (!comma) return true;
    piece = piece_end + 1;
  }
}

bool SMTPService::SendHeader(const char* to, int to_length, const char* from, int from_length,
                             const char* cc, int cc_length, const char* subject,
                             int subject_length) {
  String header;
  const String date = application->currentdate();
  AppendField(&header, "Date: ", date.data, date.length);
  AppendField(&header, "From: ", from, from_length);
  AppendField(&header, "To: ", to, to_length);
  cc_length = MeasuredLength(cc, cc_length);
  if (cc_length > 0) AppendField(&header, "CC: ", cc, cc_length);
  String mailer(kZephVersion);
  const char* const id = application->GetUserID();
  if (id && *id) {
    mailer.cat(" (");
    mailer.cat(id);
    mailer.cat(")");
  }
  AppendField(&header, "X-Mailer: Zeph v", mailer.data, mailer.length);
  AppendField(&header, "Subject: ", subject, subject_length);
  return Write(header);
}

// A mail that is not ended must not be followed by a command, which would become a part of it.
bool SMTPService::Finish(SMTPOutput* output) {
  if (!connection || lost) return false;
  lost = true;
  if (!output->FlushAndTerminate()) {
    Error(connection->error());
    return false;
  }
  lost = false;
  return Read_Status();
}

// The destructor calls it, so it calls no operation of a subclass.
void SMTPService::Disconnect() {
  if (Write("QUIT", "", 0)) static_cast<void>(SMTPService::Read_Status());
  CloseConnection();
}

// --- Replies -------------------------------------------------------------------------------------

bool SMTPService::ReadLine(String* line) {
  if (!connection || lost) return false;
  if (connection->ReadLine(*line, timeout, kLine) >= 0) return true;
  lost = true;
  Error(connection->error());
  return false;
}

bool SMTPService::Parse_Status(const String& line, int* code, String* text, bool* more) {
  if (line.length < 3) return Fail("Failed to read SMTP status");
  int number = 0;
  for (int i = 0; i < 3 && zp_isdigit(line.data[i]); i++) number = number * 10 + line.data[i] - '0';
  if (code) *code = number;
  if (text) {
    *text = line.from(4);
    text->StripWhitespace();
  }
  if (more) *more = line.length >= 4 && line.data[3] == '-';
  return true;
}

bool SMTPService::ReadAndParse_Status(int* code, String* text, bool* more) {
  String line;
  return ReadLine(&line) && Parse_Status(line, code, text, more);
}

bool SMTPService::ReadAndExpect_Status(int code, String* text, bool* more) {
  int sent;
  String words;
  if (!ReadAndParse_Status(&sent, &words, more)) return false;
  if (sent != code) {
    Error(words);
    return false;
  }
  if (text) *text = std::move(words);
  return true;
}

// A server that sends line after line without a pause never lets the connection wait, which is
// where it finds that the run has been cancelled.
bool SMTPService::EndlessReply() {
  if (!application->cancelled()) return false;
  lost = true;
  Error("Read Timeout");
  return true;
}

bool SMTPService::Read_Status() {
  for (;;) {
    int code;
    String text;
    bool more;
    if (!ReadAndParse_Status(&code, &text, &more)) return false;
    if (more) {
      if (EndlessReply()) return false;
      continue;
    }
    if (code == 220 || code == 221 || code == 250 || code == 251 || code == 354) return true;
    Error(text);
    return false;
  }
}

// --- Extensions ----------------------------------------------------------------------------------

bool SMTPService::ESMTP_Handshake(unsigned* capabilities) {
  *capabilities = 0;
  bool more;
  if (!Write("EHLO ", application->hostname(), -1) || !ReadAndExpect_Status(250, nullptr, &more)) {
    return false;
  }
  static const struct {
    const char* word;
    unsigned capability;
  } methods[] = {
      {"LOGIN", HasLogin},
      {"PLAIN", HasPlain},
      {"CRAM-MD5", HasCramMD5},
      {"DIGEST-MD5", HasDigestMD5},
  };
  String text;
  while (more) {
    if (EndlessReply() || !ReadAndExpect_Status(250, &text, &more)) return false;
    if (strcmp(text.data, "STARTTLS") == 0) *capabilities |= HasStartTLS;
    if (strncmp(text.data, "AUTH ", 5) != 0) continue;
    for (const char* word = text.data + 4; *word == ' ';) {
      word++;
      const size_t length = strcspn(word, " ");
      for (const auto& method : methods) {
        if (strlen(method.word) == length && memcmp(word, method.word, length) == 0) {
          *capabilities |= method.capability;
        }
      }
      word += length;
    }
  }
  return true;
}

// A server that is not the one that was asked for must not get another byte, so the connection is
// closed at once.
bool SMTPService::EstablishTLS() {
  NetworkManager* const manager = application->networkmanager();
  if (manager->SSL_Connect(connection, HostName(), nullptr, nullptr, nullptr, nullptr, timeout)) {
    return true;
  }
  Error(manager->error());
  CloseConnection();
  return false;
}

// What the server has offered before could come from a third party in between: it is asked again.
bool SMTPService::UpgradeToTLS(unsigned* capabilities) {
  if (!(*capabilities & HasStartTLS)) return Fail("Server does not support STARTTLS");
  return Write("STARTTLS", "", 0) && Read_Status() && EstablishTLS() &&
         ESMTP_Handshake(capabilities);
}

bool SMTPService::Authenticate(unsigned capabilities) {
  if (capabilities & HasDigestMD5) return AUTH_DIGEST_MD5();
  if (capabilities & HasCramMD5) return AUTH_CRAM_MD5();
  if (capabilities & HasPlain) return AUTH_PLAIN();
  if (capabilities & HasLogin) return AUTH_LOGIN();
  return Fail("No supported authentication methods are allowed by the server");
}

// --- Authentication ------------------------------------------------------------------------------

bool SMTPService::WriteBase64(const String& text) {
  const String encoded = text.Base64_Encode();
  return Write("", encoded.data, encoded.length);
}

// Reads one line. decoded, if not null, receives its text out of base64.
bool SMTPService::Expect(int code, String* decoded) {
  String text;
  if (!ReadAndExpect_Status(code, &text, nullptr)) return false;
  if (decoded) *decoded = text.Base64_Decode();
  return true;
}

bool SMTPService::AUTH_LOGIN() {
  static const char invalid[] = "Invalid AUTH LOGIN handshake";
  String prompt;
  if (!Write("AUTH LOGIN", "", 0) || !Expect(334, &prompt)) return false;
  if (!IsOneOf(prompt, "User Name", "Username:")) return Fail(invalid);
  if (!WriteBase64(user) || !Expect(334, &prompt)) return false;
  if (!IsOneOf(prompt, "Password", "Password:")) return Fail(invalid);
  return WriteBase64(password) && Expect(235, nullptr);
}

bool SMTPService::AUTH_PLAIN() {
  String text(user);
  text.cat('\0');
  text.cat(user.data, user.length);
  text.cat('\0');
  text.cat(password.data, password.length);
  const String encoded = text.Base64_Encode();
  return Write("AUTH PLAIN ", encoded.data, encoded.length) && Expect(235, nullptr);
}

bool SMTPService::AUTH_CRAM_MD5() {
  String challenge;
  if (!Write("AUTH CRAM-MD5", "", 0) || !Expect(334, &challenge)) return false;
  MD5Encoder encoder;
  uchar digest[16];
  encoder.HMAC(reinterpret_cast<const uchar*>(challenge.data),
               static_cast<unsigned>(challenge.length),
               reinterpret_cast<const uchar*>(password.data),
               static_cast<unsigned>(password.length), digest);
  char hex[32];
  encoder.Make_Printable(digest, hex);
  String text(user);
  text.cat(' ');
  text.cat(hex, 32);
  return WriteBase64(text) && Expect(235, nullptr);
}

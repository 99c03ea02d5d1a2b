// SMTPService, the client of the dialogue with a mail server: from the connection to the reply to
// the end of one mail.

#ifndef ZEPH_BASE_SMTPSERVICE_H
#define ZEPH_BASE_SMTPSERVICE_H

#include "base/core/StringClass.h"
#include "base/network/NetworkService.h"

class SMTPOutput;
class ZephVM;

// Sends one mail: SMTP_Connect, Start, the text of the mail through an SMTPOutput, Finish. The
// destructor sends QUIT.
//
// In all arguments a length of -1 means strlen. The operations that talk to the server need a
// connection: without one they fail. After a read or a write that failed the connection is not used
// any more, because the server may take what comes next for the rest of an earlier command or of
// the mail.
class SMTPService : public NetworkService {
 public:
  enum Flags : unsigned { TLS = 1, StartTLS = 2, NoHeaders = 4 };
  enum Capability : unsigned {
    HasStartTLS = 0x1,
    HasLogin = 0x100,
    HasPlain = 0x200,
    HasCramMD5 = 0x400,
    HasDigestMD5 = 0x800,
  };

  // What has to be right before a mail can be sent. Nothing in an address may end the line of its
  // command, and no line of the subject may end the mail: the text that a visitor typed must not
  // become a command of the dialogue. On failure *error receives the text.
  [[nodiscard]] static bool CheckAddress(const char* address, int length, String* error);
  [[nodiscard]] static bool CheckSubject(const char* subject, int length, String* error);

  // The application and the machine, whose place the log reports, are borrowed; the host is taken
  // as NetworkService says. flags is a set of Flags. Copies user and password.
  SMTPService(ZephApplication* application, ZephVM* vm, char* host, int length, int allocated,
              int* own, int port, unsigned flags, const String& user, const String& password,
              int timeout);
  // Sends QUIT if there is a connection.
  ~SMTPService() override;

  [[nodiscard]] bool Connect() override;
  // Reads a reply of one line or more, of which the last counts. The good codes are 220, 221, 250,
  // 251 and 354, at every stage. After another code the error is the server's text.
  [[nodiscard]] bool Read_Status() override;

  // Names a recipient to the server.
  [[nodiscard]] virtual bool Add_Recipient(const char* address, int length);
  // Names each piece of a list that is separated by commas, as it is, up to the first failure. An
  // empty list, and the end after a trailing comma, are an empty piece.
  [[nodiscard]] virtual bool Add_Recipients(const char* list, int length);
  // Writes the header fields Date, From, To, CC unless it is empty, X-Mailer and Subject. No empty
  // line: the script may add fields.
  [[nodiscard]] virtual bool SendHeader(const char* to, int to_length, const char* from,
                                        int from_length, const char* cc, int cc_length,
                                        const char* subject, int subject_length);
  // Connects, with TLS and authentication as the flags, the user and the password say. With logging
  // all traffic goes to the trace log, except that of a TLS handshake.
  [[nodiscard]] virtual bool SMTP_Connect(bool logging);
  // Sends QUIT, reads the reply and closes the connection, also if the server is silent.
  virtual void Disconnect();
  // Sends sender and recipients, begins the mail, and writes its header unless the flags say that
  // the script does that.
  [[nodiscard]] virtual bool Start(const char* to, int to_length, const char* from, int from_length,
                                   const char* cc, int cc_length, const char* subject,
                                   int subject_length);
  // Ends the mail, whose text the output has sent, and reads the reply.
  [[nodiscard]] virtual bool Finish(SMTPOutput* output);

  // --- Replies -----------------------------------------------------------------------------------
  // Takes a line apart: *code is the number that its first three bytes are, *text what follows the
  // fourth byte, without white space at both ends, and *more whether the reply goes on. The results
  // may be null. Fails for a line of fewer than three bytes.
  [[nodiscard]] virtual bool Parse_Status(const String& line, int* code, String* text, bool* more);
  // The same with the next line of the server.
  [[nodiscard]] virtual bool ReadAndParse_Status(int* code, String* text, bool* more);
  // The same, and the line must have this code; the error is the server's text otherwise.
  [[nodiscard]] virtual bool ReadAndExpect_Status(int code, String* text, bool* more);

  // --- Extensions and authentication -------------------------------------------------------------
  // Sends EHLO; *capabilities receives the set of Capability that the server offers.
  [[nodiscard]] virtual bool ESMTP_Handshake(unsigned* capabilities);
  [[nodiscard]] virtual bool AUTH_LOGIN();
  [[nodiscard]] virtual bool AUTH_PLAIN();
  [[nodiscard]] virtual bool AUTH_CRAM_MD5();
  // RFC 2831 with the protection "auth". The server has to prove that it knows the password too.
  [[nodiscard]] virtual bool AUTH_DIGEST_MD5();

  // Takes a challenge apart. A realm or a charset that the server has not named is the null string.
  [[nodiscard]] virtual bool Parse_Digest_Challenge(const String& challenge, String& realm,
                                                    String& nonce, String& charset);
  // At least that many random bits, as base64.
  virtual void Generate_Digest_Nonce(int bits, String& nonce);
  // Each writes 32 hexadecimal digits to `hex`, without a terminator: the hash of user, realm and
  // password, bound to both nonces; the hash of the request; that of the server's answer, for which
  // the uri has a colon in front; and the response, made from a hash of each kind.
  virtual void Generate_Digest_Response_A1(const String& realm, const String& nonce,
                                           const String& cnonce, char* hex);
  virtual void Generate_Digest_Response_A2(const String& uri, char* hex);
  virtual void Generate_Digest_Response_Auth_A2(const String& uri, char* hex);
  virtual void Generate_Digest_Response_Value(const char* a1, const String& nonce,
                                              const String& count, const String& cnonce,
                                              const char* a2, char* hex);

 private:
  [[nodiscard]] bool Write(const String& text);
  [[nodiscard]] bool Write(const char* command, const char* argument, int length);
  [[nodiscard]] bool WriteBase64(const String& text);
  [[nodiscard]] bool ReadLine(String* line);
  [[nodiscard]] bool EndlessReply();
  [[nodiscard]] bool EstablishTLS();
  [[nodiscard]] bool UpgradeToTLS(unsigned* capabilities);
  [[nodiscard]] bool Authenticate(unsigned capabilities);
  [[nodiscard]] bool Expect(int code, String* decoded);
  [[nodiscard]] bool Fail(const char* text);

  ZephVM* vm;
  unsigned flags;
  String user;
  String password;
  bool lost = false;  // the connection may only be closed
};

#endif

// Real mail servers for a test: Dovecot for POP3 and for passwords, and Exim for SMTP, with two
// users, an authority and folders of their own, in a network of their own.
//
//   POP3    port 110, plain
//   SMTP    ports kSMTP, and one for each method of authentication, all with STARTTLS; kSMTPS, TLS
//           from the start. The certificate is for localhost, that of the wrong ports for another
//           name
//   users   joe with the password "secret", ann with "pa ss\"w", at example.test

#ifndef ZEPH_TESTS_SUPPORT_MAILSERVERS_H
#define ZEPH_TESTS_SUPPORT_MAILSERVERS_H

#include <memory>
#include <string>
#include <vector>

#include "tests/support/Command.h"
#include "tests/support/PrivateNetwork.h"
#include "tests/support/TemporaryDirectory.h"

class MailServers {
 public:
  static constexpr int kSMTP = 10025;  // all methods
  static constexpr int kLogin = 10031;
  static constexpr int kPlain = 10032;
  static constexpr int kCramMD5 = 10033;
  static constexpr int kDigestMD5 = 10034;
  static constexpr int kSMTPS = 10465;
  static constexpr int kWrongSMTPS = 10466;
  static constexpr int kWrongSTARTTLS = 10026;

  MailServers() = default;
  // Stops the servers.
  ~MailServers();
  MailServers(const MailServers&) = delete;
  MailServers& operator=(const MailServers&) = delete;

  // Enters the network and starts the servers. Returns false if this machine cannot have them, with
  // the reason in why_not(). Servers that do not start fail the test.
  [[nodiscard]] bool Start(bool with_smtp);
  const std::string& why_not() const { return reason; }

  // Puts a mail with LF line ends into a user's mailbox. Mails are listed in the order in which
  // they were added.
  void Add(const std::string& user, const std::string& mail);
  // The mails of a user's mailbox, as files on the disk, in the order of their arrival.
  std::vector<std::string> Mails(const std::string& user) const;
  // Waits until the mailbox has that many mails, and returns how many there are.
  size_t WaitForMails(const std::string& user, size_t count) const;

  // A folder with the authority that has signed the certificates, as dir_ca expects it.
  std::string Authority() const { return directory.path("ca"); }
  // The logs so far, or from a place on.
  std::string DovecotLog() const { return directory.Content("dovecot.log"); }
  std::string EximLog() const { return directory.Content("exim-mainlog"); }
  // Waits until a log has the text after that place.
  bool WaitForLog(const char* name, const std::string& text, size_t from = 0) const;

 private:
  bool HasPrograms();
  void WriteCertificates();
  void WriteConfigurations();
  bool WaitForGreeting(int port, const std::string& greeting) const;

  std::string reason;
  TemporaryDirectory directory;
  std::unique_ptr<PrivateNetwork> network;
  std::unique_ptr<Command> dovecot;
  std::unique_ptr<Command> exim;
  int added = 0;
};

#endif

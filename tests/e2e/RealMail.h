// Scripts of the built engine that talk to real mail servers. The servers are in a network of the
// test's own; a machine that cannot make one skips these tests.

#ifndef ZEPH_TESTS_E2E_REALMAIL_H
#define ZEPH_TESTS_E2E_REALMAIL_H

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/EngineProcess.h"
#include "tests/support/MailServers.h"
#include "tests/support/POP3Model.h"

// Lists a mailbox as "subject|sender|reply-to|date|file" lines, then the error.
inline std::string Lists(const std::string& user, const std::string& password,
                         const std::string& in_body = "") {
  std::string source = "tagerror 8, 0\npushc \"localhost\"\npushc \"" + user + "\"\npushc \"" +
                       password + "\"\npushc \"in\"\npop3 done\n";
  source += "each: noop\n";
  for (const char* name :
       {"messagesubject", "messagesender", "messagereplyto", "messagedate", "messagebody"}) {
    source += std::string("pushg ") + name + "\nout\npushc \"" +
              (std::string(name) == "messagebody" ? "\\n" : "|") + "\"\nout\n";
  }
  return source + in_body + "pop3loop each\ndone: pushg ZpPOP_Error\nout\n";
}

class RealMail : public testing::Test {
 protected:
  void SetUp() override {
    if (!servers.Start(with_smtp)) GTEST_SKIP() << servers.why_not();
    engine.settings = "timeout_mail = 20\ntimeout_global = 60\ndir_ca = \"" + servers.Authority() +
                      "\"\nssl_openssl = \"libssl.so.3\"\nssl_crypto = \"libcrypto.so.3\"\n";
    engine.Folder("data/in");
    engine.Script("list.zpc", Lists("joe", "secret"));
    engine.Script("take.zpc", Lists("joe", "secret", "pop3delete\n"));
    engine.Script("wrong.zpc", Lists("joe", "wrong"));
    engine.Script("ann.zpc", Lists("ann", "pa ss\\\"w"));
    ASSERT_TRUE(engine.Start());
  }

  std::string Get(const std::string& page) { return engine.Get(page.c_str()).Body(); }
  std::string Fetched(const std::string& name) {
    std::ifstream in(engine.Path("data/in/" + name), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }
  // What a second reader makes of a mail on the disk of the server, as the server sends it.
  static POP3Pass Expected(const std::string& mail, int number) {
    std::string lines;
    std::istringstream in(mail);
    for (std::string line; std::getline(in, line);) {
      lines += (line[0] == '.' ? "." : "") + line + "\r\n";
    }
    std::string bytes = "+OK\r\n+OK\r\n+OK\r\n+OK 1 1\r\n+OK\r\n" + std::to_string(number) +
                        " 1\r\n.\r\n+OK\r\n" + lines + ".\r\n";
    return POP3Model(bytes, false, false).Run().passes.at(0);
  }
  // The line that a page writes for it.
  static std::string Row(const POP3Pass& pass) {
    return pass.subject + "|" + pass.sender + "|" + pass.reply_to + "|" + pass.date + "|" +
           pass.body + "\n";
  }

  bool with_smtp = false;
  MailServers servers;
  EngineProcess engine;
};

#endif

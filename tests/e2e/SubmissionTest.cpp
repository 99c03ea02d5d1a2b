// Mails that scripts submit to a real server, which delivers them; scripts fetch them again by
// POP3, compare and delete them.

#include <gmock/gmock.h>

#include "tests/e2e/RealMail.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class SubmittedMail : public RealMail {
 protected:
  SubmittedMail() { with_smtp = true; }

  // Sends a mail whose text is the body, a text constant of the assembler. Returns the error. The
  // first line end of a mail's text is dropped, and the second ends the head.
  std::string Submit(int port, const std::string& flags, const std::string& user,
                     const std::string& password, const std::string& body = "Hello\\n",
                     const std::string& to = "joe@example.test") {
    std::string source = "tagerror 11, 0\n";
    for (const std::string& text : {to, std::string("ann@example.test"), std::string("localhost"),
                                    std::string(), std::string("Tea")}) {
      source += "pushc \"" + text + "\"\n";
    }
    source += "pushi " + std::to_string(port) + "\n";
    for (const std::string& text : {flags, user, password}) source += "pushc \"" + text + "\"\n";
    source += "op_smtpn done, 9\npushc \"\\n\\n" + body +
              "\"\nout\nop_smtp_end\ndone: pushg ZpSMTP_Error\nout\n";
    const std::string name = "send" + std::to_string(sent++) + ".zpc";
    engine.Script(name, source);
    return Get("/" + name);
  }
  // The text of the only mail of the mailbox, after its head; fetched and deleted.
  std::string Taken() {
    EXPECT_EQ(servers.WaitForMails("joe", 1), 1u) << servers.EximLog();
    const std::string page = Get("/take.zpc");
    EXPECT_THAT(page, StartsWith("Tea|ann@example.test|ann@example.test|"));
    const size_t name = page.rfind("|in/");
    if (name == std::string::npos) return "(no mail)";
    const std::string file = Fetched(page.substr(name + 4, page.find('\n', name) - name - 4));
    EXPECT_EQ(servers.WaitForMails("joe", 0), 0u);
    const size_t head = file.find("\n\n");
    return head == std::string::npos ? "(no head)" : file.substr(head + 2);
  }

  int sent = 0;
};

TEST_F(SubmittedMail, EachMethodOfAuthenticationIsTaken) {
  const struct {
    int port;
    const char* authenticator;
  } methods[] = {{MailServers::kLogin, "A=login:joe"},
                 {MailServers::kPlain, "A=plain:joe"},
                 {MailServers::kCramMD5, "A=cram:joe"},
                 {MailServers::kDigestMD5, "A=digest:joe"}};
  for (const auto& method : methods) {
    for (const char* flags : {"", "starttls"}) {
      SCOPED_TRACE(std::string(method.authenticator) + " " + flags);
      const size_t before = servers.EximLog().size();
      EXPECT_EQ(Submit(method.port, flags, "joe", "secret"), "");
      EXPECT_EQ(Taken(), "Hello\n");
      const std::string log = servers.EximLog().substr(before);
      EXPECT_THAT(log, HasSubstr(method.authenticator));
      EXPECT_EQ(log.find(" X=TLS") != std::string::npos, flags[0] != '\0') << log;
    }
  }
}

TEST_F(SubmittedMail, AWrongPasswordIsRefusedByEachMethod) {
  for (const int port :
       {MailServers::kLogin, MailServers::kPlain, MailServers::kCramMD5, MailServers::kDigestMD5}) {
    for (const char* flags : {"", "starttls"}) {
      SCOPED_TRACE(std::to_string(port) + " " + flags);
      EXPECT_THAT(Submit(port, flags, "joe", "wrong"), HasSubstr("Incorrect authentication data"));
    }
  }
  EXPECT_TRUE(servers.Mails("joe").empty());
}

TEST_F(SubmittedMail, TLSFromTheStart) {
  EXPECT_EQ(Submit(MailServers::kSMTPS, "tls", "ann", "pa ss\\\"w"), "");
  EXPECT_EQ(Taken(), "Hello\n");
  EXPECT_THAT(servers.EximLog(), HasSubstr(" X=TLS"));
  // The strongest of the methods.
  EXPECT_THAT(servers.EximLog(), HasSubstr("A=digest:ann"));
  EXPECT_NE(Submit(MailServers::kSMTPS, "tls", "ann", "wrong"), "");
}

TEST_F(SubmittedMail, WithoutAUserThereIsNoAuthentication) {
  EXPECT_EQ(Submit(MailServers::kSMTP, "", "", ""), "");
  EXPECT_EQ(Taken(), "Hello\n");
  EXPECT_EQ(Submit(MailServers::kSMTP, "starttls", "", ""), "");
  EXPECT_EQ(Taken(), "Hello\n");
  EXPECT_THAT(servers.EximLog(), Not(HasSubstr(" A=")));
}

// The server logs the commands of a connection that sent no mail.
TEST_F(SubmittedMail, ACertificateOfAnotherNameIsRefusedBeforeAPasswordIsSent) {
  const struct {
    const char* flags;
    int wrong;
    int right;
    const char* commands;  // up to the refusal
  } cases[] = {{"tls", MailServers::kWrongSMTPS, MailServers::kSMTPS, ""},
               {"starttls", MailServers::kWrongSTARTTLS, MailServers::kSMTP, " C=EHLO,STARTTLS"}};
  for (const auto& row : cases) {
    SCOPED_TRACE(row.flags);
    const auto log_of = [&](int port) {
      const size_t exim = servers.EximLog().size(), dovecot = servers.DovecotLog().size();
      const std::string error = Submit(port, row.flags, "joe", "wrong");
      EXPECT_TRUE(servers.WaitForLog("exim-mainlog", "no MAIL in SMTP connection", exim));
      return error + "\n" + servers.EximLog().substr(exim) + servers.DovecotLog().substr(dovecot);
    };
    const std::string refused = log_of(row.wrong);
    EXPECT_THAT(refused, StartsWith("Unable to verify server identity\n"));
    EXPECT_THAT(refused, HasSubstr(":" + std::to_string(row.wrong)));
    EXPECT_THAT(refused, HasSubstr(row.commands));
    EXPECT_THAT(refused, Not(HasSubstr("AUTH")));
    EXPECT_THAT(refused, Not(HasSubstr("auth")));
    EXPECT_THAT(refused, Not(HasSubstr("joe")));
    // Where the certificate fits, the same password gets into the logs.
    const std::string tried = log_of(row.right);
    EXPECT_THAT(tried, HasSubstr("AUTH"));
    EXPECT_THAT(tried, HasSubstr("digest authenticator failed"));
    EXPECT_THAT(tried, HasSubstr("joe"));
  }
}

TEST_F(SubmittedMail, AnUnknownRecipientIsTheServersError) {
  EXPECT_NE(Submit(MailServers::kSMTP, "", "", "", "x\\n", "joe@elsewhere.example"), "");
}

TEST_F(SubmittedMail, TheTextComesBackAsItWasSent) {
  const struct {
    const char* label;
    std::string sent;
    std::string back;
  } cases[] = {
      {"line ends of all kinds", "a\\nb\\r\\nc\\rd\\n", "a\nb\nc\nd\n"},
      {"no line end", "last", "last\n"},
      {"8 bits",
       "Gr\xC3\xBC\xC3\x9F"
       "e\\n",
       "Gr\xC3\xBC\xC3\x9F"
       "e\n"},
      {"empty lines", "\\n\\nx\\n\\n\\n", "\n\nx\n\n\n"},
      {"long lines", std::string(900, 'x') + "\\n" + std::string(997, 'y') + "\\n",
       std::string(900, 'x') + "\n" + std::string(997, 'y') + "\n"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(Submit(MailServers::kSMTP, "", "joe", "secret", row.sent), "");
    EXPECT_EQ(Taken(), row.back);
  }
}

// A dot at the start of a line is lost on the way there, one that is a line of its own on the way
// back, because neither the sending nor the fetching side treats dots as the protocols say.
TEST_F(SubmittedMail, DotsAtTheStartOfALineAreLost) {
  EXPECT_EQ(Submit(MailServers::kSMTP, "", "joe", "secret", ".hidden\\n.\\n..x\\na.\\n"), "");
  ASSERT_EQ(servers.WaitForMails("joe", 1), 1u);
  EXPECT_THAT(servers.Mails("joe")[0], HasSubstr("\n\nhidden\n.\n.x\na.\n"));
  EXPECT_EQ(Taken(), "hidden\n\n\na.\n");
}

TEST_F(SubmittedMail, AMailOf20MegabytesComesBackAsItWasSent) {
  std::string text;
  for (int i = 0; i < 76; i++) text += static_cast<char>('A' + i % 26);
  const std::string line = text;
  text += "\n";
  engine.Script("large.zpc",
                "tagerror 11, 0\npushc \"" + line +
                    "\\n\"\npopg s\nagain: pushg s\npushg s\ncat\npopg s\nincg i, 1\n"
                    "cmpgi i, 18\njmp_lt again\n"
                    "pushc \"joe@example.test\"\npushc \"ann@example.test\"\n"
                    "pushc \"localhost\"\npushc \"\"\npushc \"Tea\"\npushi " +
                    std::to_string(MailServers::kSMTPS) +
                    "\npushc \"tls\"\npushc \"joe\"\npushc \"secret\"\nop_smtpn done, 9\n"
                    "pushc \"\\n\\n\"\nout\npushg s\nout\nop_smtp_end\n"
                    "done: pushg ZpSMTP_Error\nout\n");
  EXPECT_EQ(Get("/large.zpc"), "");
  for (int i = 0; i < 18; i++) text += text;
  EXPECT_TRUE(Taken() == text);
}

}  // namespace

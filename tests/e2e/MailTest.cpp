// Mails of served pages: the page of the example site that sends a form, and pages that end within
// a mail.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/EngineProcess.h"
#include "tests/support/Paths.h"
#include "tests/support/SMTPServer.h"

namespace {

using testing::HasSubstr;
using testing::Not;

// The settings of the page, for a server of this port.
std::string Settings(int port, const std::string& password) {
  return "[[library]]\nkind = \"builtin\"\npath = \"" + InBuild("lib/zephstd.so") +
         "\"\n[variables.system]\nmail_host = \"localhost\"\nmail_port = " + std::to_string(port) +
         "\nmail_user = \"site\"\nmail_password = \"" + password +
         "\"\nmail_flags = \"\"\nmail_reader = \"reader@example.org\"\n";
}

class ContactPage : public testing::Test {
 protected:
  void Serve(const std::string& password = "secret") {
    engine.settings = Settings(server.port(), password);
    std::filesystem::copy_file(InBuild("site/contact.zpc"), engine.Path("scripts/contact.zpc"));
    ASSERT_TRUE(engine.Start());
  }
  // The page after the form was sent, whose fields are as a browser encodes them.
  std::string Post(const std::string& form) {
    const std::string page = engine
                                 .Get("/contact.zpc",
                                      {{"REQUEST_METHOD", "POST"},
                                       {"CONTENT_TYPE", "application/x-www-form-urlencoded"},
                                       {"CONTENT_LENGTH", std::to_string(form.size())}},
                                      form)
                                 .Body();
    EXPECT_THAT(page, HasSubstr("</html>\n"));
    return page;
  }
  // The mail after its field X-Mailer.
  std::string Mail(int number) {
    const std::string mail = server.Content("mail." + std::to_string(number));
    const size_t subject = mail.find("Subject: ");
    return subject == std::string::npos ? mail : mail.substr(subject);
  }

  SMTPServer server{{"--auth", "CRAM-MD5", "--user", "site", "--password", "secret"}};
  EngineProcess engine;
};

TEST_F(ContactPage, AFormBecomesAMail) {
  Serve();
  EXPECT_THAT(engine.Get("/contact.zpc").Body(), Not(HasSubstr("id=\"sent\"")));
  const std::string page =
      Post("name=Ada%20%3Cb%3E&address=ada%40example.org&message=Gr%C3%BC%C3%9Fe%0D%0A.%0D%0Aend");
  EXPECT_THAT(page, HasSubstr("<h2>Thank you, Ada &lt;b&gt;</h2>"));
  EXPECT_THAT(page, Not(HasSubstr("MIME-Version")));
  EXPECT_EQ(server.Content("envelope.1"), "reader@example.org\nreader@example.org\n");
  EXPECT_EQ(Mail(1),
            "Subject: A message from the site\r\nMIME-Version: 1.0\r\n"
            "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n"
            "Reply-To: ada@example.org\r\n\r\nName: Ada <b>\r\nAddress: ada@example.org\r\n\r\n"
            "Grüße\r\n.\r\nend\r\n");
}

TEST_F(ContactPage, AVisitorAddsNoFieldsAndNoCommands) {
  Serve();
  Post("name=n&address=a%0D%0ABcc:%20b%40example.org&message=x%0D%0A.%0D%0AMAIL%20FROM:%20evil");
  EXPECT_THAT(Mail(1), Not(HasSubstr("Reply-To")));
  EXPECT_THAT(Mail(1), HasSubstr("\r\n\r\nName: n\r\nAddress: a\r\nBcc: b@example.org\r\n"));
  EXPECT_THAT(Mail(1), HasSubstr("x\r\n.\r\nMAIL FROM: evil\r\n"));
  EXPECT_THAT(server.Content("commands"), Not(HasSubstr("evil")));
  EXPECT_EQ(Mail(2), "");
}

TEST_F(ContactPage, AVisitorWritesNoErrors) {
  Serve();
  const std::string page = Post("name=n&address=a&message=m&ZpSMTP_Error=%3Cb%3Ex");
  EXPECT_THAT(page, HasSubstr("<h2>Thank you"));
  EXPECT_THAT(page, Not(HasSubstr("<b>x")));
}

TEST_F(ContactPage, AFailureIsShown) {
  Serve("wrong");
  const std::string page = Post("name=n&address=a&message=kept");
  EXPECT_THAT(page, HasSubstr("<output>Incorrect authentication data</output>"));
  EXPECT_THAT(page, HasSubstr("required>kept</textarea>"));
  EXPECT_EQ(Mail(1), "");
}

// --- Pages that end within a mail ----------------------------------------------------------------

std::string Open(int port, const std::string& end) {
  return "pushc \"t@x\"\npushc \"f@x\"\npushc \"localhost\"\npushc \"\"\npushc \"s\"\npushi " +
         std::to_string(port) + "\nop_smtpn done, 6\n" + Writes("\\n\\nthe mail") + end +
         "done: noop\n";
}

TEST(MailOfAPage, APageThatEndsInTheBlockSendsTheMailAndThePage) {
  const SMTPServer server;
  EngineProcess engine;
  engine.Script("end.zpc", Writes("the page") + Open(server.port(), ""));
  engine.Script("exit.zpc", Writes("the page") + Open(server.port(), "exit\n"));
  engine.Script("error.zpc", Writes("the page") + Open(server.port(), "pop\n"));
  ASSERT_TRUE(engine.Start());
  int mails = 0;
  for (const char* script : {"/end.zpc", "/exit.zpc"}) {
    SCOPED_TRACE(script);
    ExpectPage(engine.Get(script), "the page");
    // The mail was sent before the page.
    EXPECT_THAT(server.Content("mail." + std::to_string(++mails)),
                HasSubstr("Subject: s\r\n\r\nthe mail\r\n"));
  }
  // The message of an error in the block is a part of the mail.
  ExpectPage(engine.Get("/error.zpc"), "the page");
  EXPECT_THAT(server.Content("mail.3"), HasSubstr("the mailFatal error in error.zpc"));
}

TEST(MailOfAPage, ACommandLineRunSendsItToo) {
  const SMTPServer server;
  EngineProcess assembler;
  const std::string script =
      assembler.Script("end.zpc", Writes("the page") + Open(server.port(), ""));
  Command run({InBuild("bin/zprun"), script});
  run.environment = {{"ZEPH_CONFIG", ""}, {"ZpCONFIG_LIBRARY", ""}};
  EXPECT_EQ(run.Run(), 0) << run.errors;
  EXPECT_EQ(run.output, "the page");
  EXPECT_THAT(server.Content("mail.1"), HasSubstr("Subject: s\r\n\r\nthe mail\r\n"));
}

}  // namespace

// The pages of the example site that talk to a mail server. The scripted server listens on port
// 110, in a network of the test's own; a machine that cannot make one skips these tests.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/EngineProcess.h"
#include "tests/support/ListeningPeer.h"
#include "tests/support/Mails.h"
#include "tests/support/Paths.h"
#include "tests/support/PrivateNetwork.h"

namespace {

using testing::HasSubstr;
using testing::Not;

class MailboxPage : public testing::Test {
 protected:
  void SetUp() override {
    if (!network.why_not().empty()) GTEST_SKIP() << network.why_not();
    engine.settings = "[[library]]\nkind = \"builtin\"\npath = \"" + InBuild("lib/zephstd.so") +
                      "\"\n[variables.system]\nmail_host = \"127.0.0.1\"\n";
    std::filesystem::copy_file(InBuild("site/mailbox.zpc"), engine.Path("scripts/mailbox.zpc"));
    ASSERT_TRUE(engine.Start());
  }

  std::string Page(const std::string& form) {
    const std::string page = engine
                                 .Get("/mailbox.zpc",
                                      {{"REQUEST_METHOD", form.empty() ? "GET" : "POST"},
                                       {"CONTENT_TYPE", "application/x-www-form-urlencoded"},
                                       {"CONTENT_LENGTH", std::to_string(form.size())}},
                                      form)
                                 .Body();
    EXPECT_THAT(page, HasSubstr("</html>\n"));
    EXPECT_THAT(page, Not(HasSubstr("error in ")));
    return page;
  }
  // The same with a server that sends these bytes. sent receives what it gets.
  std::string Page(const std::string& form, const std::string& bytes, std::string* sent) {
    const ListeningPeer server(
        [&](ListeningPeer::Connection& connection) {
          connection.Send(bytes);
          *sent = connection.ReceiveAll();
        },
        110);
    return Page(form);
  }

  PrivateNetwork network;
  EngineProcess engine;
};

TEST_F(MailboxPage, ItListsTheMailsAndRemovesTheirFiles) {
  std::string sent;
  const std::string page = Page(
      "user=joe&password=a%26b",
      Session({"From: Ada <ada@example.org>\r\nSubject: <b>Tea</b>\r\nDate: today\r\n\r\nx\r\n",
               "From: b\r\n\r\n"}),
      &sent);
  EXPECT_THAT(page, HasSubstr("<table>\n<tr><td>Ada &lt;ada@example.org&gt;</td><td>&lt;b&gt;Tea"
                              "&lt;/b&gt;</td><td>today</td></tr>\n"
                              "<tr><td>b</td><td>(no subject)</td><td></td></tr>\n"
                              "</table>\n</section>"));
  EXPECT_EQ(sent, "USER joe\r\nPASS a&b\r\nSTAT\r\nLIST\r\nRETR 1\r\nRETR 2\r\nQUIT\r\n");
  EXPECT_TRUE(std::filesystem::is_empty(engine.Path("data")));
}

TEST_F(MailboxPage, ARefusedPasswordIsToldAndEncoded) {
  std::string sent;
  const std::string page =
      Page("user=%3Cjoe%3E&password=x", "+OK\r\n+OK\r\n-ERR not <you>\r\n", &sent);
  EXPECT_THAT(page, HasSubstr("<p>Error logging into &#39;127.0.0.1&#39;: not &lt;you&gt;</p>"));
  EXPECT_THAT(page, HasSubstr("value=\"&lt;joe&gt;\""));
  EXPECT_EQ(sent, "USER <joe>\r\nPASS x\r\nQUIT\r\n");
}

TEST_F(MailboxPage, WithoutAServerItSaysSo) {
  EXPECT_THAT(Page("user=joe&password=x"),
              HasSubstr("<p>Error connecting to &#39;127.0.0.1&#39;: </p>"));
}

TEST_F(MailboxPage, AFirstVisitAndNamesWithLineEndsAskNoServer) {
  EXPECT_THAT(Page(""), Not(HasSubstr("The mails")));
  EXPECT_THAT(Page("user=joe%0D%0ADELE+1&password=x"), Not(HasSubstr("The mails")));
  EXPECT_THAT(Page("user=joe&password=x%0ADELE+1"), Not(HasSubstr("The mails")));
}

}  // namespace

// Mailboxes of a real server.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/e2e/RealMail.h"
#include "tests/support/Mails.h"

namespace {

using testing::HasSubstr;

TEST_F(RealMail, AnEmptyMailboxIsNoError) {
  EXPECT_EQ(Get("/list.zpc"), "");
}

TEST_F(RealMail, MailsAreFetchedComparedAndDeleted) {
  // As files of the server, which keeps them with LF and turns NUL and lone CR into something else.
  std::vector<std::string> mails;
  for (const Mail& mail : AllMails()) {
    std::string text;
    for (size_t i = 0; i < mail.lines.size(); i++) {
      if (mail.lines[i] == '\r' && mail.lines.compare(i, 2, "\r\n") == 0) continue;
      text += mail.lines[i];
    }
    if (text.empty() || text.find('\0') != std::string::npos ||
        text.find('\r') != std::string::npos) {
      continue;
    }
    mails.push_back(text);
  }
  ASSERT_GE(mails.size(), 40u);
  for (const std::string& mail : mails) servers.Add("joe", mail);
  std::string expected;
  for (size_t i = 0; i < mails.size(); i++) {
    expected += Row(Expected(mails[i], static_cast<int>(i) + 1));
  }
  EXPECT_EQ(Get("/list.zpc"), expected);
  for (size_t i = 0; i < mails.size(); i++) {
    SCOPED_TRACE(mails[i].substr(0, 60));
    char name[32];
    snprintf(name, sizeof name, "ZPPOPM.%zx.0", i + 1);
    EXPECT_EQ(Fetched(name), Expected(mails[i], static_cast<int>(i) + 1).content);
  }
  EXPECT_EQ(servers.Mails("joe"), mails);
  // The other user's mails stay.
  servers.Add("ann", "Subject: hers\n\nx\n");
  EXPECT_THAT(Get("/take.zpc"), HasSubstr("|in/ZPPOPM.1.1\n"));
  EXPECT_EQ(servers.WaitForMails("joe", 0), 0u);
  EXPECT_EQ(servers.Mails("ann").size(), 1u);
  EXPECT_EQ(Get("/list.zpc"), "");
}

TEST_F(RealMail, APasswordWithABlankAndAQuoteIsThatOfItsUser) {
  servers.Add("ann", "Subject: hers\n\nx\n");
  EXPECT_EQ(Get("/ann.zpc"), "hers||||in/ZPPOPM.1.0\n");
}

TEST_F(RealMail, AWrongPasswordIsTheServersError) {
  servers.Add("joe", "Subject: his\n\nx\n");
  EXPECT_EQ(Get("/wrong.zpc"), "Error logging into 'localhost': [AUTH] Authentication failed.");
  EXPECT_FALSE(std::filesystem::exists(engine.Path("data/in/ZPPOPM.1.0")));
}

TEST_F(RealMail, AMailOf20MegabytesIsTheSame) {
  std::string mail = "Subject: large\n\n";
  unsigned word = 1;
  for (int line = 0; line < 270000; line++) {
    for (int i = 0; i < 76; i++) {
      word = word * 1664525 + 1013904223;
      mail += static_cast<char>('A' + (word >> 24) % 26);
    }
    mail += '\n';
  }
  servers.Add("joe", mail);
  EXPECT_EQ(Get("/take.zpc"), "large||||in/ZPPOPM.1.0\n");
  EXPECT_TRUE(Fetched("ZPPOPM.1.0") == mail);
  EXPECT_EQ(servers.WaitForMails("joe", 0), 0u);
}

// The script ends within the loop; the session is ended for it, and the deletions are made.
TEST_F(RealMail, ALoopThatIsLeftDeletesWhatWasMarked) {
  for (const char* name : {"one", "two", "three"}) {
    servers.Add("joe", std::string("Subject: ") + name + "\n\nx\n");
  }
  const std::string open =
      "pushc \"localhost\"\npushc \"joe\"\npushc \"secret\"\npushc \"in\"\n"
      "pop3 done\neach: pushg messagesubject\nout\npop3delete\n";
  engine.Script("stop.zpc", open + "pop3stop done\ndone: pushc \" stopped\"\nout\n");
  engine.Script("exit.zpc", open + "exit\ndone: noop\n");
  EXPECT_EQ(Get("/stop.zpc"), "one stopped");
  EXPECT_EQ(servers.WaitForMails("joe", 2), 2u);
  EXPECT_EQ(Get("/exit.zpc"), "two");
  EXPECT_EQ(servers.WaitForMails("joe", 1), 1u);
  EXPECT_EQ(Get("/list.zpc"), "three||||in/ZPPOPM.1.2\n");
}

}  // namespace

// The files of a mailbox's messages: their names and place in the data directory, and what becomes
// of a message that cannot be saved.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/Mails.h"
#include "tests/support/POP3Host.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

// A host with files on the disk.
class POP3Files : public testing::Test {
 protected:
  POP3Files() {
    EXPECT_TRUE(files.InitializeDataDirectory(directory.path("data").c_str()));
    host.application.SetFileManager(&files);
  }

  // Fetches all messages of the session into the directory. Returns the names, or the error.
  std::vector<std::string> Fetch(const std::string& bytes, const char* into) {
    host.peer = ScriptedPeer();
    host.peer.bytes = bytes;
    std::vector<std::string> names;
    const auto mailbox = host.Mailbox(into);
    EXPECT_EQ(POP3Host::Connect(mailbox.get()), POP3::Done);
    EXPECT_EQ(mailbox->Login("u", 1, "p", 1), POP3::Done);
    EXPECT_EQ(mailbox->GetStat(), POP3::Done);
    EXPECT_EQ(mailbox->BuildMessageList(), POP3::Done);
    int result = mailbox->GetFirstMessage();
    for (; result == POP3::More; result = mailbox->GetNextMessage()) {
      names.push_back(host.Value("messagebody"));
    }
    if (result == POP3::Failed) names.push_back(BytesOf(mailbox->error()));
    return names;
  }
  std::string Content(const std::string& name) { return directory.Content("data/" + name); }
  std::set<std::string> Listing() {
    std::set<std::string> names;
    const std::string root = directory.path("data");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
      if (entry.is_regular_file()) names.insert(entry.path().string().substr(root.size() + 1));
    }
    return names;
  }

  using Names = std::vector<std::string>;
  TemporaryDirectory directory;
  std::string data = directory.Directory("data/mail");
  POP3Host host;
  UNIXReentrantFileManager files{&host.application};
};

TEST_F(POP3Files, TheSameNumberGetsAnotherSuffixInAnotherSession) {
  const std::string session = Session({"Subject: a\r\n\r\nx\r\n"});
  EXPECT_EQ(Fetch(session, ""), Names{"ZPPOPM.1.0"});
  EXPECT_EQ(Fetch(session, ""), Names{"ZPPOPM.1.1"});
  for (int i = 2; i < 16; i++) Fetch(session, "");
  EXPECT_EQ(Fetch(session, ""), Names{"ZPPOPM.1.10"});
  std::filesystem::remove(directory.path("data/ZPPOPM.1.4"));
  EXPECT_EQ(Fetch(session, ""), Names{"ZPPOPM.1.4"});
  EXPECT_EQ(Content("ZPPOPM.1.4"), "Subject: a\n\nx\n");
}

TEST_F(POP3Files, TheNameHasTheDirectoryAndTheNumberInHexadecimal) {
  std::vector<std::string> mails(26, "x\r\n");
  const Names names = Fetch(Session(mails), "mail");
  ASSERT_EQ(names.size(), 26u);
  EXPECT_EQ(names[0], "mail/ZPPOPM.1.0");
  EXPECT_EQ(names[25], "mail/ZPPOPM.1a.0");
  EXPECT_EQ(Fetch(Session({"x\r\n"}), "mail/"), Names{"mail/ZPPOPM.1.1"});
  EXPECT_EQ(Fetch(Session({"x\r\n"}), "."), Names{"ZPPOPM.1.0"});
  EXPECT_EQ(Fetch(Session({"x\r\n"}), "/mail"), Names{"/mail/ZPPOPM.1.2"});
  EXPECT_EQ(Content("mail/ZPPOPM.1.2"), "x\n");
}

TEST_F(POP3Files, EachMailIsInItsFileWithLineFeedsAlone) {
  std::vector<std::string> lines;
  for (const Mail& mail : AllMails()) lines.push_back(mail.lines);
  const std::string session = Session(lines);
  const Names names = Fetch(session, "mail");
  const POP3Outcome expected = POP3Model(session, false, false).Run();
  ASSERT_EQ(names.size(), lines.size());
  for (size_t i = 0; i < names.size(); i++) {
    SCOPED_TRACE(AllMails()[i].label);
    EXPECT_EQ(Content(names[i]), expected.passes[i].content);
  }
  EXPECT_EQ(Listing().size(), lines.size());
}

TEST_F(POP3Files, TheFileIsCompleteWhenTheScriptSeesIt) {
  host.peer.bytes = Session({"a\r\n", "b\r\n"});
  const auto mailbox = host.Mailbox("mail");
  ASSERT_EQ(POP3Host::Connect(mailbox.get()), POP3::Done);
  ASSERT_EQ(mailbox->Login("u", 1, "p", 1), POP3::Done);
  ASSERT_EQ(mailbox->GetStat(), POP3::Done);
  ASSERT_EQ(mailbox->BuildMessageList(), POP3::Done);
  ASSERT_EQ(mailbox->GetFirstMessage(), POP3::More);
  EXPECT_EQ(Content("mail/ZPPOPM.1.0"), "a\n");
  // The script may remove it at once.
  EXPECT_TRUE(files.Delete(ZephPath_Data, "mail/ZPPOPM.1.0"));
  ASSERT_EQ(mailbox->GetNextMessage(), POP3::More);
  EXPECT_EQ(Content("mail/ZPPOPM.2.0"), "b\n");
}

TEST_F(POP3Files, ADirectoryThatCannotBeUsedIsAnError) {
  std::filesystem::create_symlink("mail", directory.path("data/link"));
  directory.File("data/file");
  const struct {
    const char* path;
    const char* error;
  } cases[] = {
      {"..", "The specified path references a path outside the configured data directory"},
      {"mail/../..", "The specified path references a path outside the configured data directory"},
      {"none", "The specified path references a directory that does not exist"},
      {"link", "The specified path references a symbolic link"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(Fetch(Session({"x\r\n"}), row.path), Names{row.error});
    EXPECT_EQ(host.peer.written, "USER u\r\nPASS p\r\nSTAT\r\nLIST\r\nQUIT\r\n");
  }
  EXPECT_EQ(Listing(), std::set<std::string>{"file"});
}

TEST_F(POP3Files, AMessageThatTheServerRefusesLeavesAnEmptyFile) {
  const std::string session = Session({"x\r\n"});
  const std::string refused = session.substr(0, session.find("+OK follows")) + "-ERR gone\r\n";
  EXPECT_EQ(Fetch(refused, "mail"), Names{"gone"});
  EXPECT_EQ(Listing(), std::set<std::string>{"mail/ZPPOPM.1.0"});
  EXPECT_EQ(Content("mail/ZPPOPM.1.0"), "");
}

TEST_F(POP3Files, AMessageThatBreaksOffLeavesWhatHasCome) {
  const std::string session = Session({"Subject: a\r\n\r\nbody\r\nmore\r\n"});
  EXPECT_EQ(Fetch(session.substr(0, session.find("re\r\n.")), "mail"),
            Names{"Read Error: Connection closed by remote host"});
  EXPECT_EQ(Content("mail/ZPPOPM.1.0"), "Subject: a\n\nbody\n");
}

TEST_F(POP3Files, ManyMessagesNeedOneDescriptor) {
  files.MaxFiles(1);
  EXPECT_EQ(Fetch(Session(std::vector<std::string>(50, "x\r\n")), "mail").size(), 50u);
}

// --- Writes that fail ----------------------------------------------------------------------------

// A script may delete a message that it has got.
TEST(POP3Saving, AMessageThatCannotBeSavedIsAnErrorAfterItsLastLine) {
  const std::string mail = "Subject: a\r\n\r\n" + std::string(9000, 'x') + "\r\n" +
                           std::string(20000, 'y') + "\r\nz\r\n";
  const size_t length = mail.size() - 5;
  for (size_t room = 0; room <= length; room += room < 16 ? 1 : 487) {
    SCOPED_TRACE(room);
    POP3Host host;
    host.mail.write_room = static_cast<long>(room);
    const POP3Outcome seen = host.Run(Session({mail, "never\r\n"}));
    EXPECT_TRUE(seen.passes.empty());
    ASSERT_EQ(seen.errors.size(), 1u);
    EXPECT_EQ(seen.errors[0].substr(0, 26), "Error retrieving message: ");
    EXPECT_EQ(host.mail.Contents("in/ZPPOPM.1.0").size(), room);
    // The reply was read to its end.
    EXPECT_EQ(host.peer.bytes.substr(host.peer.at), "+OK follows\r\nnever\r\n.\r\n");
    EXPECT_EQ(host.mail.open_now, 0);
  }
}

TEST(POP3Saving, TheErrorIsThatOfTheFile) {
  POP3Host host;
  host.mail.fail_write = 1;
  EXPECT_EQ(host.Run(Session({"x\r\n"})).errors,
            std::vector<std::string>{"Error retrieving message: Injected failure"});
}

TEST(POP3Saving, AFileThatCannotBeMadeIsAnErrorBeforeAnythingIsSent) {
  POP3Host host;
  host.mail.fail_open = 1;
  const POP3Outcome seen = host.Run(Session({"x\r\n"}));
  EXPECT_EQ(seen.errors, std::vector<std::string>{"Error retrieving message: Injected failure"});
  EXPECT_EQ(seen.written, "USER u\r\nPASS p\r\nSTAT\r\nLIST\r\nQUIT\r\n");
}

TEST(POP3Saving, AFileIsOpenForWritingOnly) {
  POP3Host host;
  host.Run(Session({"x\r\n"}));
  EXPECT_EQ(host.mail.mode, FileMode_Write);
  EXPECT_EQ(host.mail.directory, "in");
}

TEST(POP3Saving, AMessageIsWrittenInBlocks) {
  POP3Host host;
  std::string mail;
  for (int i = 0; i < 10000; i++) mail += "a line of a mail\r\n";
  host.Run(Session({mail}));
  EXPECT_LE(host.mail.writes, 25);
}

// --- One message ---------------------------------------------------------------------------------

std::string Header(POP3Message& message, const char* name) {
  const char* value = "";
  int length = 0;
  if (!message.headers(name, -1, &value, &length)) return "(none)";
  return std::string(value, static_cast<size_t>(length));
}

void Save(POP3Message& message, const std::string& line) {
  message.SaveLine(line.data(), static_cast<int>(line.size()));
}

TEST(POP3Message, ANewFileForgetsTheHeadersAndTheErrorOfTheOneBefore) {
  FaultyFileManager files;
  POP3Message message;
  EXPECT_EQ(Header(message, "a"), "(none)");
  EXPECT_TRUE(message.CloseFile());
  message.OpenFile(files.Open("one", FileMode_Write | FileMode_Create), "one");
  Save(message, "A: x");
  Save(message, "");
  EXPECT_EQ(Header(message, "a"), "x");
  EXPECT_EQ(message.in_body, 1);
  files.fail_write = 1;
  EXPECT_FALSE(message.CloseFile());
  EXPECT_EQ(BytesOf(message.error()), "Injected failure");
  EXPECT_EQ(message.file, nullptr);
  message.OpenFile(files.Open("two", FileMode_Write | FileMode_Create), "two");
  EXPECT_EQ(Header(message, "a"), "(none)");
  EXPECT_EQ(message.in_body, 0);
  EXPECT_EQ(BytesOf(message.filename), "two");
  Save(message, "B: y");
  EXPECT_TRUE(message.CloseFile());
  EXPECT_EQ(Header(message, "b"), "y");
  EXPECT_EQ(files.Contents("two"), "B: y\n");
  EXPECT_EQ(files.open_now, 0);
}

TEST(POP3Message, AFileThatIsOpenIsClosedByTheNext) {
  FaultyFileManager files;
  {
    POP3Message message;
    message.OpenFile(files.Open("one", FileMode_Write | FileMode_Create), "one");
    Save(message, "left");
    message.OpenFile(files.Open("two", FileMode_Write | FileMode_Create), "two");
    EXPECT_EQ(files.open_now, 1);
    EXPECT_EQ(files.Contents("one"), "left\n");
    Save(message, "and right");
    POP3Message moved(std::move(message));
    Save(moved, "x");
  }
  EXPECT_EQ(files.open_now, 0);
  EXPECT_EQ(files.Contents("two"), "and right\nx\n");
}

// A server may list millions of them.
TEST(POP3Message, AnUnusedOneIsSmall) {
  EXPECT_LE(sizeof(POP3Message), 80u);
}

}  // namespace

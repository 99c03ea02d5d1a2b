// A mailbox with each system call on its files failing in turn and each block of memory refused in
// turn: a message that the script gets is wholly in its file, and nothing is left over.

#include <filesystem>
#include <string>

#include "tests/support/Mails.h"
#include "tests/support/POP3Host.h"
#include "tests/torture/Sweeps.h"

namespace {

class MailboxUnderFailures : public Sweeps {
 protected:
  // A host whose files are on the disk.
  struct DiskHost : POP3Host {
    DiskHost() { application.SetFileManager(&disk); }
    UNIXReentrantFileManager disk{&application};
  };

  void StartOver() {
    std::filesystem::remove_all(directory.path("data"));
    directory.Directory("data/in");
  }
  void Fetch(const std::string& session) {
    DiskHost host;
    if (!host.disk.InitializeDataDirectory(directory.path("data").c_str())) return;
    host.peer.bytes = session;
    POP3 mailbox(&host.application, host.vm(), &host.variables, String("in"));
    if (POP3Host::Connect(&mailbox) != POP3::Done || mailbox.Login("u", 1, "p", 1) != POP3::Done ||
        mailbox.GetStat() != POP3::Done || mailbox.BuildMessageList() != POP3::Done) {
      return NeedText(mailbox.error());
    }
    size_t number = 0;
    int result = mailbox.GetFirstMessage();
    for (; result == POP3::More; result = mailbox.GetNextMessage()) {
      const FailingAllocator::Pause pause;
      if (directory.Content("data/" + host.Value("messagebody")) != contents.at(number++)) {
        Broken("a message that is not wholly in its file");
      }
    }
    if (result == POP3::Failed) NeedText(mailbox.error());
    if (result == POP3::Done && number != contents.size()) Broken("a message that was passed over");
  }

  std::vector<std::string> contents;
};

TEST_F(MailboxUnderFailures, AMessageThatTheScriptGetsIsWholeInItsFile) {
  const std::string lines = std::string(8200, 'x') + "\r\n" + std::string(4000, 'y') + "\r\n";
  const std::string session = Session({"Subject: one\r\nFrom: a\r\n\r\n" + lines, "two\r\n"});
  contents = {
      "Subject: one\nFrom: a\n\n" + std::string(8200, 'x') + "\n" + std::string(4000, 'y') + "\n",
      "two\n"};
  ExpectBothSweeps({[&] { StartOver(); }, [&] { Fetch(session); }, [](const SystemCallFault&) {}});
}

}  // namespace

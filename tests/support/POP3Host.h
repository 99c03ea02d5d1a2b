// A mailbox on a scripted server, with its files in memory, and what a script sees of it.

#ifndef ZEPH_TESTS_SUPPORT_POP3HOST_H
#define ZEPH_TESTS_SUPPORT_POP3HOST_H

#include <memory>
#include <string>

#include "base/network/POP3.h"
#include "tests/support/CallHost.h"
#include "tests/support/POP3Model.h"

// Files in memory, temporary ones too.
class MailFiles : public FaultyFileManager {
 public:
  using FaultyFileManager::FaultyFileManager;

  // Of the last file that was made.
  std::string directory;
  int mode = 0;

  using FaultyFileManager::MakeTemporary;
  File* MakeTemporary(Zeph_PathType type, const char* folder, const char* prefix, char** name,
                      int asked) override {
    if (type != ZephPath_Data) return nullptr;
    directory = folder;
    mode = asked;
    for (unsigned n = 0;; n++) {
      char suffix[16];
      snprintf(suffix, sizeof suffix, ".%x", n);
      const std::string path =
          (directory.empty() ? "" : directory + "/") + std::string(prefix) + suffix;
      if (files.count(path) != 0) continue;
      File* const file = Open(path.c_str(), FileMode_Write | FileMode_Create | FileMode_Exclusive);
      if (!file) return nullptr;
      *name = zeph_strdup(path.c_str());
      return file;
    }
  }
};

class POP3Host : public CallHost {
 public:
  POP3Host() { application.SetFileManager(&mail); }

  std::unique_ptr<POP3> Mailbox(const char* directory = "in") {
    return std::make_unique<POP3>(&application, vm(), &variables, String(directory));
  }
  static int Connect(POP3* mailbox, const char* name = "h") {
    int own = 0;
    return mailbox->Connect(name, static_cast<int>(strlen(name)), 0, &own);
  }

  // A whole session with the server's bytes, as the instructions make it.
  POP3Outcome Run(const std::string& bytes, bool silent = false, bool deletes = false) {
    variables.Dump();
    mail.files.clear();
    peer = ScriptedPeer();
    peer.bytes = bytes;
    peer.stays = silent;
    POP3Outcome seen;
    {
      const std::unique_ptr<POP3> mailbox = Mailbox();
      Walk(mailbox.get(), deletes, &seen);
    }
    seen.written = peer.written;
    return seen;
  }

  MailFiles mail{&application};

 private:
  void Walk(POP3* mailbox, bool deletes, POP3Outcome* seen) {
    const auto failed = [&](const char* what, int result) {
      if (result != POP3::Failed) return false;
      seen->errors.push_back(what + BytesOf(mailbox->error()));
      return true;
    };
    if (failed("Error connecting to 'h': ", Connect(mailbox)) ||
        failed("Error logging into 'h': ", mailbox->Login("u", 1, "p", 1)) ||
        failed("Error while checking status from 'h': ", mailbox->GetStat()) ||
        failed("Error while retrieving list of messages from 'h': ", mailbox->BuildMessageList())) {
      return;
    }
    int result = mailbox->GetFirstMessage();
    while (result == POP3::More) {
      const std::string body = Value("messagebody");
      seen->passes.push_back({body, Value("messagesubject"), Value("messagesender"),
                              Value("messagereplyto"), Value("messagedate"), mail.Contents(body)});
      if (deletes) {
        const std::string what =
            "Error deleting message #" + std::to_string(mailbox->CurrentMessageIndex()) + ": ";
        failed(what.c_str(), mailbox->DeleteMessage());
      }
      result = mailbox->GetNextMessage();
    }
    failed("Error retrieving message: ", result);
  }
};

#endif

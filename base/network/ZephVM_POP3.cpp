// The instructions of ZpPOP: a mailbox, and the loop over its messages. Tested in
// tests/base/network/POP3InstructionTest.cpp.

#include <memory>

#include "base/core/RunLimit.h"
#include "base/host/TagErrors.h"
#include "base/host/ZephApplication.h"
#include "base/machine/PoppedString.h"
#include "base/machine/ZephVM.h"
#include "base/network/POP3.h"

// The steps of a mailbox's loop. Holds no state of its own: the loop is a feature of the machine.
class ZephVM::MailboxLoop {
 public:
  explicit MailboxLoop(ZephVM* machine) : vm(machine), distance(machine->first_integer) {}

  // Pops the arguments, logs in and fetches the first message; skips the loop if there is none.
  void Begin();
  // Fetches the next message and goes back to the loop's body, or ends the loop.
  void Continue();
  void Stop();
  void Delete();

 private:
  POP3* Newest() { return static_cast<POP3*>(vm->Lookup_Feature(Feature::Type_POP3)); }
  void Report(const String& text, POP3* mailbox);
  void Jump() { vm->program_counter = vm->Jumped(vm->program_counter, distance); }

  ZephVM* vm;
  int distance;
};

void ZephVM::MailboxLoop::Begin() {
  ZephVM_Stack* const stack = vm->stack;
  const PoppedPath directory(stack);
  const KeptString password(stack);
  const KeptString user(stack);
  KeptString host(stack);
  if (vm->stop_flag) return;
  vm->ClearErrorVariable(Tag_POP);
  const String name(host.data(), host.length());
  auto mailbox = std::make_unique<POP3>(vm->application, vm, vm->frame->variables,
                                        String(directory.data(), directory.length()));
  const auto failed = [&](const char* what, int result) {
    if (result == POP3::Done) return false;
    String text(what);
    text.cat(name.data, name.length);
    text.cat("': ", 3);
    Report(text, mailbox.get());
    return true;
  };
  if (!failed("Error connecting to '",
              mailbox->Connect(host.data(), host.length(), host.size(), host.ownership())) &&
      !failed("Error logging into '",
              mailbox->Login(user.data(), user.length(), password.data(), password.length())) &&
      !failed("Error while checking status from '", mailbox->GetStat()) &&
      !failed("Error while retrieving list of messages from '", mailbox->BuildMessageList())) {
    switch (mailbox->GetFirstMessage()) {
      case POP3::Empty: break;
      case POP3::Failed: Report("Error retrieving message: ", mailbox.get()); break;
      default: vm->Push_Feature(mailbox.release()); return;
    }
  }
  Jump();
}

// A mailbox can be left open by a run within the run, whose variables are gone.
void ZephVM::MailboxLoop::Continue() {
  POP3* const mailbox = Newest();
  if (!mailbox || !vm->TableExists(mailbox->table())) {
    vm->FatalError("Invalid instruction");
    return;
  }
  switch (mailbox->GetNextMessage()) {
    case POP3::More: Jump(); return;
    case POP3::Failed: Report("Error retrieving message: ", mailbox); break;
    default: break;
  }
  vm->Pop_Feature(mailbox);
}

void ZephVM::MailboxLoop::Stop() {
  POP3* const mailbox = Newest();
  if (!mailbox) {
    vm->FatalError("Invalid instruction");
    return;
  }
  vm->Pop_Feature(mailbox);
  Jump();
}

void ZephVM::MailboxLoop::Delete() {
  POP3* const mailbox = Newest();
  if (!mailbox) {
    vm->FatalError("Invalid instruction");
    return;
  }
  vm->ClearErrorVariable(Tag_POP);
  if (mailbox->DeleteMessage() == POP3::Done) return;
  String text("Error deleting message #");
  int length, size;
  const std::unique_ptr<char[]> number(
      ZephApplication::itos(mailbox->CurrentMessageIndex(), &length, &size));
  text.cat(number.get(), length);
  text.cat(": ", 2);
  Report(text, mailbox);
}

// A run that is out of time, and one that has failed already, end without another error.
void ZephVM::MailboxLoop::Report(const String& text, POP3* mailbox) {
  if (vm->stop_flag || RunLimit::Over()) return;
  String message(text);
  const String& reason = mailbox->error();
  if (reason.data) message.cat(reason.data, reason.length);
  vm->EncodedRuntimeError(Tag_POP, message);
}

// pop3  ( host user password directory -- )  Logs into the mailbox of a POP3 server and fetches its
// first message: the whole of it goes to a file in the directory, which is in the data directory,
// and local variables such as messagesubject describe it. Without a message, and after an error of
// ZpPOP, the loop is skipped. For all variables see mail.md.
void ZephVM::pop3() {
  MailboxLoop(this).Begin();
}

// pop3loop  ( -- )  Fetches the next message of the newest mailbox and goes back to the loop's
// body; after the last one, and after an error of ZpPOP, it closes the mailbox and continues.
// Without a mailbox it is the fatal error "Invalid instruction".
void ZephVM::pop3loop() {
  MailboxLoop(this).Continue();
}

// pop3stop  ( -- )  Closes the newest mailbox and leaves its loop. Without a mailbox it is the
// fatal error "Invalid instruction".
void ZephVM::pop3stop() {
  MailboxLoop(this).Stop();
}

// pop3delete  ( -- )  Marks the present message as deleted; the server removes it when the mailbox
// is closed. A failure is an error of ZpPOP, and the loop goes on. Without a mailbox it is the
// fatal error "Invalid instruction".
void ZephVM::pop3delete() {
  MailboxLoop(this).Delete();
}

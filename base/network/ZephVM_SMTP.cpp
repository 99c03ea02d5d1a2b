// The instructions of ZpSMTP: a block whose output is a mail. Tested in
// tests/base/network/MailBlockTest.cpp.

#include <memory>

#include "base/core/RunLimit.h"
#include "base/host/TagErrors.h"
#include "base/host/ZephApplication.h"
#include "base/machine/PoppedString.h"
#include "base/machine/ZephVM.h"
#include "base/network/SMTP.h"
#include "base/network/SMTPService.h"

// The two ends of a mail's block. Holds no state of its own: the block is a feature of the machine.
class ZephVM::MailBlock {
 public:
  explicit MailBlock(ZephVM* machine) : vm(machine), distance(machine->first_integer) {}

  // Pops that many arguments and starts the mail; skips the block if that fails.
  void Begin(int count);
  void End();

 private:
  static constexpr int kArguments = 9;
  struct Arguments {
    String to;
    String from;
    String host;
    String cc;
    String subject;
    int port = 25;
    String flags;
    String user;
    String password;
  };

  bool Pop(int count, Arguments* arguments);
  bool Start(const Arguments& arguments, std::unique_ptr<SMTP>* mail, String* failure);
  void Report(const String& failure);

  ZephVM* vm;
  int distance;
};

// What is missing has its default. Returns false after a stack error.
bool ZephVM::MailBlock::Pop(int count, Arguments* arguments) {
  ZephVM_Stack* const stack = vm->stack;
  for (; count > kArguments && !vm->stop_flag; count--) stack->Pop();
  String* const texts[kArguments] = {&arguments->to,    &arguments->from,    &arguments->host,
                                     &arguments->cc,    &arguments->subject, nullptr,
                                     &arguments->flags, &arguments->user,    &arguments->password};
  while (count > 0 && !vm->stop_flag) {
    String* const text = texts[--count];
    if (text) {
      const PoppedString popped(stack);
      text->assign(popped.data(), popped.length());
    } else {
      arguments->port = stack->PopI();
    }
  }
  return !vm->stop_flag;
}

// Addresses that can never be sent are refused before a connection is made.
bool ZephVM::MailBlock::Start(const Arguments& arguments, std::unique_ptr<SMTP>* mail,
                              String* failure) {
  const String &to = arguments.to, &from = arguments.from, &cc = arguments.cc;
  const String& subject = arguments.subject;
  for (const String* address : {&from, &to, &cc}) {
    if (!SMTPService::CheckAddress(address->data, address->length, failure)) return false;
  }
  *mail = std::make_unique<SMTP>(vm->application, vm);
  if (!(*mail)->Connect(arguments.host, arguments.port, arguments.flags, arguments.user,
                        arguments.password, vm->WantsLog(Log_SMTP))) {
    *failure = (*mail)->error();
    return false;
  }
  SMTPService* const client = (*mail)->client();
  if (client->Start(to.data, to.length, from.data, from.length, cc.data, cc.length, subject.data,
                    subject.length)) {
    return true;
  }
  *failure = client->error();
  return false;
}

void ZephVM::MailBlock::Begin(int count) {
  Arguments arguments;
  if (!Pop(count, &arguments)) return;
  vm->ClearErrorVariable(Tag_SMTP);
  std::unique_ptr<SMTP> mail;
  String failure;
  if (Start(arguments, &mail, &failure)) {
    vm->Push_Feature(mail.release());
    return;
  }
  // The output is given back first, so that the message goes to the page and not to the server.
  mail.reset();
  Report(failure);
  vm->program_counter = vm->Jumped(vm->program_counter, distance);
}

void ZephVM::MailBlock::End() {
  auto* const mail = static_cast<SMTP*>(vm->Lookup_Feature(Feature::Type_SMTP));
  if (!mail) {
    vm->FatalError("Invalid instruction");
    return;
  }
  if (!mail->Finish()) Report(mail->error());
  vm->Pop_Feature(mail);
}

// A run that is out of time ends without another error.
void ZephVM::MailBlock::Report(const String& failure) {
  if (!RunLimit::Over()) vm->EncodedRuntimeError(Tag_SMTP, failure);
}

// op_smtp  ( to from host cc subject -- )  Connects to a mail server and starts a mail. What the
// script writes from here on is the mail, up to op_smtp_end. To and cc are lists of recipients,
// separated by commas. The header is written from the arguments; the script ends it with an empty
// line, and may write more fields before that. After an error of ZpSMTP, the block is skipped.
void ZephVM::op_smtp() {
  MailBlock(this).Begin(5);
}

// op_smtpn  ( args... -- )  As op_smtp, with a count of arguments. The further ones are the port,
// flags, the user and the password. Those that are missing are empty, the port 25; those after the
// ninth are dropped. For the flags see mail.md.
void ZephVM::op_smtpn() {
  MailBlock(this).Begin(second_integer);
}

// op_smtp_end  ( -- )  Ends the newest mail and sends it; what the script writes from here on is
// the page again. Without a mail it is the fatal error "Invalid instruction".
void ZephVM::op_smtp_end() {
  MailBlock(this).End();
}

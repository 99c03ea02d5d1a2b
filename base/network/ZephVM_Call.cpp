// The instructions of ZpCALL: a request, and the loop over the elements of its response. Tested in
// tests/base/network/CallInstructionTest.cpp.

#include <memory>
#include <optional>

#include "base/core/RunLimit.h"
#include "base/host/TagErrors.h"
#include "base/machine/PoppedString.h"
#include "base/machine/ZephVM.h"
#include "base/network/Call.h"

namespace {

// Takes a popped text over, without a copy if it was owned.
String Taken(KeptString* popped) {
  if (!popped->owned()) return String(popped->data(), popped->length());
  const int length = popped->length(), size = popped->size();
  return String(popped->release(), length, size);
}

}  // namespace

// The steps of a call's loop. Holds no state of its own: the loop is a feature of the machine.
class ZephVM::CallLoop {
 public:
  explicit CallLoop(ZephVM* machine) : vm(machine), distance(machine->first_integer) {}

  // Pops that many arguments, makes the call and finds its first element; skips the loop if there
  // is none.
  void Begin(int count);
  // Finds the next element and goes back to the loop's body, or ends the loop.
  void Continue();
  void Stop();

 private:
  Call* Current();
  void Report(const Call& call);
  void Jump() { vm->program_counter = vm->Jumped(vm->program_counter, distance); }

  ZephVM* vm;
  int distance;
};

void ZephVM::CallLoop::Begin(int count) {
  if (count != 5 && (count < 8 || count > 11)) {
    vm->FatalError("Invalid number of parameters to HTTPN");
    return;
  }
  ZephVM_Stack* const stack = vm->stack;
  CallArguments arguments;
  const auto pop = [stack] {
    KeptString text(stack);
    return Taken(&text);
  };
  if (count >= 11) arguments.certificate_data = pop();
  if (count >= 10) arguments.password = std::make_unique<String>(pop());
  if (count >= 9) arguments.timeout = stack->PopI();
  String extra_headers;
  if (count >= 8) {
    extra_headers = pop();
    arguments.certificate_type = pop();
    arguments.certificate_file = pop();
  }
  arguments.content_type = pop();
  arguments.files = pop();
  arguments.fields = pop();
  arguments.method = pop();
  arguments.url = pop();
  if (vm->stop_flag) return;

  auto call =
      std::make_unique<Call>(vm->application, vm, vm->frame->variables, std::move(arguments));
  if (!call->Connect(extra_headers.data, extra_headers.length)) {
    Report(*call);
    Jump();
    return;
  }
  switch (call->Find_Next_Element()) {
    case Call::Found:
      vm->Push_Feature(call.release());
      vm->ClearErrorVariable(Tag_Call);
      return;
    case Call::Failed: Report(*call); break;
    case Call::End: break;
  }
  Jump();
}

void ZephVM::CallLoop::Continue() {
  Call* const call = Current();
  if (!call) return;
  switch (call->Find_Next_Element()) {
    case Call::Found: Jump(); return;
    case Call::Failed: Report(*call); break;
    case Call::End: break;
  }
  vm->Pop_Feature(call);
}

void ZephVM::CallLoop::Stop() {
  Feature* const call = vm->Lookup_Feature(Feature::Type_Call);
  if (!call) {
    vm->FatalError("Invalid instruction");
    return;
  }
  vm->Pop_Feature(call);
  Jump();
}

// A run that is out of time, and one that has failed already, end without another error.
void ZephVM::CallLoop::Report(const Call& call) {
  if (vm->stop_flag || RunLimit::Over()) return;
  vm->EncodedRuntimeError(Tag_Call, call.error());
}

// A call can be left open by a run within the run, whose variables are gone.
Call* ZephVM::CallLoop::Current() {
  auto* const call = static_cast<Call*>(vm->Lookup_Feature(Feature::Type_Call));
  if (call && vm->TableExists(call->table())) return call;
  vm->FatalError("Invalid instruction");
  return nullptr;
}

// op_http  ( url method fields files type -- )  Sends a request and finds the first element of the
// response: a run of text or a tag, which is described by local variables such as callvalue. The
// method also says how the fields, a comma-separated list of variables, are sent: GET in the URL,
// POST as a form, XML, RAW and others as they are. Files is a list of variables that hold paths of
// files to send. If the response is empty, the loop's body runs once. After an error of ZpCALL, the
// loop is skipped. For all results see call.md.
void ZephVM::op_http() {
  CallLoop(this).Begin(5);
}

// op_http8  ( url method fields files type certificate kind headers -- )  As op_http, with the file
// of a client certificate, its kind, which is PEM or ASN1, and lines to add to the head of the
// request.
void ZephVM::op_http8() {
  CallLoop(this).Begin(8);
}

// op_httpn  ( args... -- )  As op_http8, with a count of arguments, which is 5 or from 8 to 11. The
// further ones are a time-out in seconds, the certificate's password, and its data.
void ZephVM::op_httpn() {
  CallLoop(this).Begin(second_integer);
}

// op_http_loop  ( -- )  Finds the next element of the newest call and goes back to the loop's body;
// at the end of the response, and after an error of ZpCALL, it closes the call and continues.
// Without a call it is the fatal error "Invalid instruction".
void ZephVM::op_http_loop() {
  CallLoop(this).Continue();
}

// op_http_stop  ( -- )  Closes the newest call and leaves its loop. Without a call it is the fatal
// error "Invalid instruction".
void ZephVM::op_http_stop() {
  CallLoop(this).Stop();
}

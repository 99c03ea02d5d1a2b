// Expressions that a script may build from a client's input. For any text there is either a
// message, or code of whole instructions that ends when it is run.

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/Segment.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/VariableHash.h"
#include "base/extensions/ExternalCall.h"
#include "base/machine/ExpressionCompiler.h"
#include "base/machine/ZephVM.h"
#include "tests/support/RecordingOutput.h"
#include "tests/support/TestApplication.h"

namespace {

[[noreturn]] void Wrong(const char* what) {
  fprintf(stderr, "%s\n", what);
  abort();
}

void CheckInstructions(const Segment* code) {
  for (int at = 0; at < code->length();) {
    unsigned short word = 0;
    at = code->Read_Word(at, &word);
    if (at < 0 || !Instruction::Find(word)) Wrong("no instruction");
    at += Instruction::OperandSize(word);
    if (at > code->length()) Wrong("half an instruction");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  RecordingOutput output;
  TestApplication application;
  application.SetOutput(&output);
  Dictionary dictionary;
  SystemVariableHash system(&dictionary, 12, 512);
  VariableHash globals(&dictionary, 12, 512);
  SegmentManager segments;
  FunctionManager functions(&dictionary, 8);
  ExternalCallManager external(&application);
  functions.Function_Add(1, 0, "f", -1, "x", -1, 0);
  functions.Function_Add(1, 0, "g", -1, "", -1, 0);
  Segment* code = segments.Start();
  ExpressionCompiler compiler(&external, &segments, &dictionary, &functions, nullptr,
                              reinterpret_cast<const char*>(data), static_cast<int>(size), "people",
                              code, 0, "page", -1, 3, 0x1000B);
  const bool compiled = compiler.Run() == 1;
  if (compiled != (compiler.error().data == nullptr)) Wrong("a result without its message");
  if (compiler.position() != code->length()) Wrong("another position");
  CheckInstructions(code);
  if (compiled) {
    segments.Segment_Add()->Write_Word(0, Instruction::retn);
    ZephVM vm("page.zpc", -1, &application, &dictionary, &system, &globals, &segments, &functions,
              &external, nullptr, nullptr, nullptr, nullptr, application.heartbeatcounter(),
              application.timedoutflag(), application.exitflag(), nullptr);
    vm.Go();
  }
  application.SetOutput(nullptr);
  return 0;
}

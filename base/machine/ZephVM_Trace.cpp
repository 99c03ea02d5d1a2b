// Where a script is, and by which calls it came there, for the operator's log. Tested in
// tests/base/machine/CallTraceTest.cpp.
//
// A machine keeps only the line that it has reached, because a call would cost more otherwise. The
// line of a caller is read from its code: it is that of the last instruction lineno before the
// place where the call returns to. The compiler writes code in the order of the source, so the last
// one in the code is the last one in the source.

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/Segment.h"
#include "base/core/LittleEndian.h"
#include "base/host/ErrorLog.h"
#include "base/machine/ZephVM.h"

namespace {

const int kMostCalls = 40;

}  // namespace

void ZephVM::WriteCalls(LogLine* line) {
  int left = kMostCalls;
  for (ZephVM* machine = this; machine && left > 0; machine = machine->parent) {
    machine->WriteFrames(line, &left);
    if (machine->parent) line->Text(", ");
  }
}

void ZephVM::WritePlace(LogLine* line, const char* file, int file_length, int source_line) {
  if (file_length > 0) {
    line->Quoted(file, file_length, 200);
  } else {
    line->Quoted(script_path.data, script_path.length, 200);
  }
  if (source_line != 0) line->Text(":").Number(source_line);
}

void ZephVM::WriteFrames(LogLine* line, int* left) {
  int length;
  const char* file = SourceFile(&length);
  WritePlace(line, file, length, current_line);
  for (ZephVM_Frame* at = frame; at && *left > 0;) {
    ZephVM_Frame* const caller = at->previous;
    if (at->type() == ZephVM_Frame::Function) {
      const String& name = static_cast<ZephVM_FunctionFrame*>(at)->function->name();
      line->Text(" in ").Quoted(name.data, name.length, 100);
      // Without a caller the function was called by native code, within another instruction.
      if (caller) {
        int source = -1, source_line = 0;
        (void)PlaceBefore(at->return_segment, at->return_offset, &source, &source_line);
        file = source != -1 ? dictionary->Entry(source, &length) : nullptr;
        line->Text(", ");
        WritePlace(line, file, file ? length : 0, source_line);
      }
      --*left;
    }
    at = caller ? caller : at->around;
  }
}

// The source file (a dictionary id, -1 without one) and the line of the code before an offset.
// Returns false if there is no such code.
bool ZephVM::PlaceBefore(int number, int offset, int* file, int* source_line) {
  const Segment* const calling = segments->Lookup(number);
  if (!calling) return false;
  for (int at = 0; at < offset && at + 2 <= calling->length();) {
    const unsigned char* const p = calling->code() + at;
    const unsigned short word = LittleEndian::Get16(p);
    if (word == Instruction::lineno) *source_line = LittleEndian::GetInt32(p + 2);
    if (word == Instruction::sourcefile) *file = LittleEndian::GetInt32(p + 2);
    at += 2 + Instruction::OperandSize(word);
  }
  return true;
}

// The machine's loop, and the instructions that the simplest scripts need. Tested in
// tests/base/machine/ZephVMTest.cpp and Instructions*Test.cpp.
//
//   construction and end     what a machine is made of
//   the loop                 Go, its checks, segments and time-out
//   features                 the stack of constructs that outlive an instruction
//   handlers                 one instruction each, under its reference text

#include "base/machine/ZephVM.h"

#include <atomic>
#include <cstring>
#include <new>

#include "base/compiled/Dictionary.h"
#include "base/compiled/HotCode.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/Segment.h"
#include "base/compiled/VariableHash.h"
#include "base/core/LinkBuffer.h"
#include "base/core/LittleEndian.h"
#include "base/core/Output.h"
#include "base/core/RunLimit.h"
#include "base/core/ThreadMemory.h"
#include "base/extensions/ExternalCall.h"
#include "base/host/Config.h"
#include "base/host/ZephApplication.h"
#include "base/machine/Capture.h"
#include "base/machine/DoContext.h"
#include "base/machine/Feature.h"
#include "base/machine/InstructionCheck.h"
#include "base/machine/Lockfile.h"
#include "base/machine/PoppedString.h"
#include "base/machine/ZephVM_Clone.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

namespace {

// The host's integers are written by other threads; a stale value only delays the reaction by an
// instruction.
inline int Read(int* shared) {
  return std::atomic_ref<int>(*shared).load(std::memory_order_relaxed);
}

// Operands of instructions.
using LittleEndian::Get16;
using LittleEndian::GetDouble;
using LittleEndian::GetInt32;

}  // namespace

// --- Construction and end ------------------------------------------------------------------------

ZephVM::ZephVM(const char* path, int pathlength, ZephApplication* application,
               Dictionary* dictionary, VariableHash* system, VariableHash* global,
               SegmentManager* segments, FunctionManager* functions,
               ExternalCallManager* externalcalls, CommerceLibraryManager* commerce,
               ExternalDatabaseLibraryManager* databases, LocalizedLanguages* languages,
               LocalizedDictionary* localized, int* heartbeat, int* timedout, int* exit,
               ZephVM* parent)
    : script_path(path, pathlength),
      log_gate(application, 0),
      heartbeat_counter(heartbeat),
      timedout_flag(timedout),
      exit_flag(exit),
      application(application),
      dictionary(dictionary),
      system_variables(system),
      global_variables(global),
      segments(segments),
      functions(functions),
      external_calls(externalcalls),
      commerce_libraries(commerce),
      database_libraries(databases),
      languages(languages),
      localized(localized),
      null_variable(new NULLVariable),
      parent(parent),
      family(parent ? parent->family : &own_family) {
  if (parent) {
    if (!heartbeat_counter) heartbeat_counter = parent->heartbeat_counter;
    if (!timedout_flag) timedout_flag = parent->timedout_flag;
    if (!exit_flag) exit_flag = parent->exit_flag;
    parent->children++;
  }
  try {
    CopyDefaultErrorSettings(tag_settings);
    MakeBaseFrame();
    segment = segments->Start();
    code = segment->code();
    code_length = segment->length();
    wanted_segment = loaded_segment = segment->number();
    SetScriptDirectory();
    // If records would go nowhere, no call checks for them.
    if ((dictionary->flags() & 1) == 0 && !application->logsuppressed()) {
      log_gate.SetLevel(
          static_cast<unsigned>(application->config()->value_integer(Config_log_level)));
    }
  } catch (const std::bad_alloc&) {
    End();
    throw;
  }
}

ZephVM::~ZephVM() {
  End();
}

// Also ends a machine whose constructor failed.
void ZephVM::End() {
  // Libraries are called for their data, for features and for databases. They get the machine, and
  // may look up variables and run functions, so the base frame stays to the end.
  ZephVM_Frame* base = frame;
  while (base && base->previous) base = base->previous;
  EndLibraryData();
  DeleteFrames(base);
  features.DeleteAll();
  // A child's own family is empty.
  own_family.DeleteDatabases();
  // The data that libraries have for other files comes to this machine now, and the calls so far
  // may have left something again.
  own_family.DeleteContexts();
  features.DeleteAll();
  EndLibraryData();
  DeleteFrames(nullptr);
  null_variable->DecRefCount();
  if (parent) parent->children--;
}

void ZephVM::EndLibraryData() {
  try {
    if (external_calls) external_calls->MachineEnds(this, parent);
  } catch (const std::bad_alloc&) {
    OutOfMemory();
  }
}

// Deletes the frames above one that is kept, and all if that is null.
void ZephVM::DeleteFrames(ZephVM_Frame* kept) {
  while (frame != kept) {
    ZephVM_Frame* previous = frame->previous;
    delete frame;
    frame = previous;
  }
  if (kept) {
    stack = kept->stack;
    while (stack->Entries() > 0) stack->Pop();
    return;
  }
  for (ZephVM_FunctionFrame* idle : idle_frames) {
    while (idle) {
      ZephVM_FunctionFrame* next = idle->next_idle;
      delete idle;
      idle = next;
    }
  }
}

void ZephVM::MakeBaseFrame() {
  auto base = std::make_unique<ZephVM_Frame>(-1, 0);
  base->Set_LocalVariable_Hash(global_variables, false);
  base->Set_Stack(new ZephVM_Stack(this), true);
  EnterFrame(base.release());
}

void ZephVM::SetScriptDirectory() {
  const char* slash = script_path.length > 0 ? strrchr(script_path.data, '/') : nullptr;
  int length = slash ? static_cast<int>(slash - script_path.data) + 1 : 0;
  script_directory.assign(script_path.data, length);
}

// --- The loop ------------------------------------------------------------------------------------

// A handler keeps what it owns in guards; everything else belongs to the machine, its frames and
// stacks. So an allocation failure can end the run like any other error, and code that has nested
// the run sees it fail.
int ZephVM::Go() {
  const bool hot = in_hot;
  try {
    return Loop();
  } catch (const std::bad_alloc&) {
    in_hot = hot;
    return OutOfMemory();
  }
}

int ZephVM::OutOfMemory() {
  hot_mode = NoMode;
  const char* const path = script_path.data ? script_path.data : "";
  // An observer tells what was short in the line of the error.
  if (application->observer()) {
    ThreadMemory::Exhausted();
  } else {
    ThreadMemory::Exhausted(path, script_path.length);
  }
  try {
    FatalError("Out of memory");
  } catch (const std::bad_alloc&) {
    ThreadMemory::Exhausted(path, script_path.length);
    // There is no memory even for the message. The run ends all the same, because a stack that
    // could not grow lacks a value; so do the machines that work on that stack.
    for (ZephVM* running = this; running; running = running->guest) running->stop_flag = true;
  }
  return 0;
}

// One pass is one instruction. The switch is on the instruction's number in the list, because these
// are dense and words are not; a word that is no instruction has the number 0. Frequent
// instructions are run here, in line, with the program counter in a local variable. The others are
// called, and may change anything: counter, segment, frame, stack and the flags.
//
// The flags of the host and of the machine are checked before each instruction, all in one test.
int ZephVM::Loop() {
  int* const beats = heartbeat_counter;
  int* const timedout = timedout_flag;
  int* const ended = exit_flag;
  if (Read(timedout)) return TimedOut();
  const RunLimit limit(timedout);
  int pc = program_counter;
  bool was_hot = false;
  for (;;) {
    if (Read(timedout) | Read(ended) | (Read(beats) ^ last_heartbeat) | stop_flag) [[unlikely]] {
      program_counter = pc;
      if (Read(timedout)) return TimedOut();
      if (Read(beats) != last_heartbeat) Heartbeat();
      // An error ends the run before the next instruction starts, and takes precedence over an
      // exit.
      if (stop_flag) return 0;
      if (Read(ended)) return 1;
      pc = program_counter;
    }
    if (wanted_segment != loaded_segment) [[unlikely]] {
      program_counter = pc;
      if (!Set_Segment()) return 0;
    }
    // A trace has a record for each line, which the loop for decoded code does not write.
    if (!was_hot && segment && segment->hot() && !log_gate.Wants(Log_Trace)) {
      if (const HotOp* op = segment->hot()->At(pc)) {
        RunHot(segment->hot(), op);
        pc = program_counter;
        was_hot = true;
        continue;
      }
    }
    was_hot = false;
    instruction_start = pc;
    // A jump may have set the counter to anything; any place outside of the segment is its end.
    if (pc < 0 || pc >= code_length - 1) [[unlikely]] {
      program_counter = pc;
      if (EndOfSegment() == Pass::Normal) return 1;
      pc = program_counter;
      continue;
    }
    // Operands that the end of the segment cuts off read as zero, because zero bytes follow it.
    const unsigned char* p = code + pc;
    const unsigned short word = Get16(p);
    p += 2;

// A case for one instruction. Moves the counter past its operands.
#define CASE(name) \
  case Instruction::code_##name: pc += 2 + Instruction::OperandSize(Instruction::name);
// What the list adds to the switch for a row: a case that calls the handler, a case for a word that
// this build does not run, or nothing if the case is written here. So the compiler reports a row
// that has no case, and one that has two. Operands that an instruction does not have stay as the
// last instruction left them.
#define CALL_InLine(name)
#define CALL_Handler(name)                                                       \
  CASE(name) {                                                                   \
    constexpr int first_size = Instruction::FirstOperandSize(Instruction::name); \
    static_assert(first_size != 8, "handlers take integers");                    \
    if constexpr (first_size == 4) first_integer = GetInt32(p);                  \
    if constexpr (Instruction::OperandSize(Instruction::name) == 8)              \
      second_integer = GetInt32(p + 4);                                          \
    program_counter = pc;                                                        \
    name();                                                                      \
    pc = program_counter;                                                        \
    continue;                                                                    \
  }
#define CALL_HotHandler(name) CALL_Handler(name)
#define CALL_Absent(name) \
  case Instruction::code_##name: break;
// A jump on the integer that is popped.
#define JUMP_IF(name, relation)                                 \
  CASE(name)                                                    \
  /* An operator. NOLINTNEXTLINE(bugprone-macro-parentheses) */ \
  if (stack->PopI() relation 0) pc = Jumped(pc, GetInt32(p));   \
  continue;
// Pushes an integer that depends on the order of two values.
#define COMPARE(name, result)             \
  CASE(name) {                            \
    const int order = stack->Compare();   \
    if (!stop_flag) stack->PushI(result); \
    continue;                             \
  }
// Pushes a double computed from two doubles.
#define COMPUTE(name, result)             \
  CASE(name) {                            \
    const double b = stack->PopD();       \
    const double a = stack->PopD();       \
    if (!stop_flag) stack->PushD(result); \
    continue;                             \
  }

#ifndef NDEBUG
    const InstructionCheck check(this, Instruction::CodeOf(word), GetInt32(p));
#endif
    switch (Instruction::CodeOf(word)) {
      CASE(noop) continue;
      CASE(pushi) stack->PushI(GetInt32(p));
      continue;
      CASE(pushf) stack->PushD(GetDouble(p));
      continue;
      CASE(pop) stack->Pop();
      continue;
      CASE(dup) stack->Dupe();
      continue;
      CASE(swap) stack->Swap(0, 1);
      continue;
      CASE(swapn) stack->Swap(GetInt32(p), GetInt32(p + 4));
      continue;
      CASE(cat) stack->Concatenate();
      continue;
      CASE(pushg) PushPosition(global_variables, GetInt32(p));
      continue;
      CASE(pushl) PushPosition(frame->variables, GetInt32(p));
      continue;
      CASE(popg) stack->PopV(global_variables->At(GetInt32(p), 1));
      continue;
      CASE(popl) stack->PopV(frame->variables->At(GetInt32(p), 1));
      continue;

      COMPUTE(add, a + b)
      COMPUTE(sub, a - b)
      COMPUTE(mul, a * b)
      // 0 if a is 0; any other number divided by 0 is an infinity, not an error.
      COMPUTE(div, a == 0.0 ? 0.0 : a / b)
      CASE(mod) {
        const int b = stack->PopI();
        const int a = stack->PopI();
        if (!stop_flag) stack->PushI(Remainder(a, b));
        continue;
      }
      COMPARE(cmp, order)
      COMPARE(eq, order == 0)
      COMPARE(ne, order != 0)
      COMPARE(ge, order >= 0)
      COMPARE(le, order <= 0)
      COMPARE(lt, order < 0)
      COMPARE(gt, order > 0)

      CASE(cmpgi) {
        Variable* a = GlobalOrFail(GetInt32(p));
        if (a) stack->PushI(Compare(a, GetInt32(p + 4)));
        continue;
      }
      // The sum wraps.
      CASE(incg) {
        Variable* v = GlobalOrFail(GetInt32(p));
        if (v) v->Write_Integer(WrapAdd(v->Read_Integer(), GetInt32(p + 4)));
        continue;
      }
      CASE(storegi) {
        Variable* v = GlobalOrFail(GetInt32(p));
        if (v) v->Write_Integer(GetInt32(p + 4));
        continue;
      }
      CASE(jmp) pc = Jumped(pc, GetInt32(p));
      continue;
      JUMP_IF(jmp_eq, ==)
      JUMP_IF(jmp_ne, !=)
      JUMP_IF(jmp_lt, <)
      JUMP_IF(jmp_gt, >)
      JUMP_IF(jmp_le, <=)
      JUMP_IF(jmp_ge, >=)

      CASE(erroutput) frame->error_output = GetInt32(p);
      continue;
      CASE(exit2) program_counter = pc;
      exit();
      pc = program_counter;
      continue;

#define INSTRUCTION(word, identifier, name, first, second, run, listed, effect) \
  CALL_##run(identifier)
#include "base/compiled/Instructions.def"
#undef INSTRUCTION
      case Instruction::code_none: break;
    }
    // Only words that cannot be run get here.
    pc += 2 + Instruction::OperandSize(word);
    FatalError("Illegal Instruction");
#undef COMPUTE
#undef COMPARE
#undef JUMP_IF
#undef CALL_Absent
#undef CALL_HotHandler
#undef CALL_Handler
#undef CALL_InLine
#undef CASE
  }
}

int ZephVM::Set_Segment() {
  return LoadSegment() ? 1 : FatalError("Invalid segment reference");
}

// Returns false, with no code loaded, if the segment does not exist. loaded_segment then still
// differs from wanted_segment, so the loop reports the error.
bool ZephVM::LoadSegment() {
  segment = segments->Lookup(wanted_segment);
  code = segment ? segment->code() : nullptr;
  code_length = segment ? segment->length() : 0;
  if (segment) loaded_segment = wanted_segment;
  return segment != nullptr;
}

ZephVM::Pass ZephVM::EndOfSegment() {
  const int type = frame->type();
  if (type == ZephVM_Frame::Plain || type == ZephVM_Frame::Function) return Pass::Normal;
  if (type == ZephVM_Frame::Filter) {
    const int result = stack->Entries() > 0 && stack->PopBool();
    while (stack->Entries() > 0) stack->Pop();
    (this->*static_cast<ZephVM_FilterFrame*>(frame)->completion)(result);
  }
  return Pass::Continue;
}

int ZephVM::TimedOut() {
  if (stop_flag) return 0;
  stop_flag = true;
  static const char kText[] = "Application timed out";
  Report(RunFailure::TimedOut, true, true, kText, sizeof kText - 1);
  application->Error(kText);
  if (WantsLog(Log_TimedOut)) WriteLog(Log_TimedOut, {});
  return 0;
}

void ZephVM::Heartbeat() {
  last_heartbeat = Read(heartbeat_counter);
  if (RunObserver* observer = application->observer()) observer->Beats(this);
  if (parent) parent->Heartbeat();
  features.Heartbeat();
}

const char* ZephVM::SourceFile(int* length) {
  if (!source_name && source_file != -1) {
    source_name = dictionary->Entry(source_file, &source_name_length);
  }
  *length = source_name ? source_name_length : 0;
  return source_name ? source_name : "";
}

// --- Features ------------------------------------------------------------------------------------

void ZephVM::Pop_Feature(Feature* feature) {
  features.Pop(feature ? feature : features.Top());
}

bool ZephVM::TableExists(const VariableHash* table) const {
  const ZephVM_Frame* at = frame;
  while (at && at->variables != table) at = at->previous ? at->previous : at->around;
  return at || table == global_variables;
}

// --- Handlers ------------------------------------------------------------------------------------

// pushc  ( -- s )  The dictionary's text, not copied. A bad id is the fatal error "Invalid
// dictionary reference".
void ZephVM::pushc() {
  int length;
  const char* text = dictionary->Entry(first_integer, &length);
  if (!text) {
    FatalError("Invalid dictionary reference");
    return;
  }
  stack->PushS(text, length, length, 0);
}

namespace {
// Writes a text; a long one in parts, because a client may read slowly. Past the time limit the
// rest is not written.
void Put(Output* output, const char* text, int length) {
  while (length > RunLimit::Bytes) {
    output->Put(text, RunLimit::Bytes);
    if (RunLimit::Over()) return;
    text += RunLimit::Bytes;
    length -= RunLimit::Bytes;
  }
  output->Put(text, length);
}
}  // namespace

// out  ( x -- )  Writes x to the output. A chained text goes out block by block, unflattened.
void ZephVM::out() {
  if (const std::unique_ptr<DeferredText> text(stack->PopDeferred()); text) {
    text->Write(application->output());
    return;
  }
  ZephVM_Stack::Stack_Entry* top = stack->Peek();
  if (top && top->kind == ZephVM_Stack::KindLinkBuffer) {
    top->value.buffer->output(application->output());
    stack->Pop();
    return;
  }
  if (top && top->kind == ZephVM_Stack::KindString) {
    ZephVM_Stack::Stack_Entry taken;
    taken.CopyFrom(*top);
    stack->SetEnd(top);
    Put(application->output(), taken.value.text, taken.length);
    ZephVM_Stack::Free(&taken);
    return;
  }
  if (top && top->kind == ZephVM_Stack::KindVariable &&
      (top->value.variable->plain_forms() & Variable::TextForm)) {
    const String& text = top->value.variable->plain_text();
    if (text.data) Put(application->output(), text.data, text.length);
    stack->Pop();
    return;
  }
  PoppedString text(stack);
  if (!stop_flag) Put(application->output(), text.data(), text.length());
}

// out_comp  ( x -- )  Writes x to the output with less white space, as the output mode says.
void ZephVM::out_comp() {
  PoppedString text(stack);
  if (!stop_flag) application->output()->Write_Compressed(text.data(), text.length());
}

// exit  ( -- )  Ends the run without an error; what was written stays.
void ZephVM::exit() {
  program_counter = code_length;
  std::atomic_ref<int>(*exit_flag).store(1, std::memory_order_relaxed);
}

// lineno  ( -- )  Sets the line that messages report, and traces it if the log level includes that.
void ZephVM::lineno() {
  current_line = first_integer;
  if (!log_gate.Wants(Log_Trace) || current_line == traced_line) return;
  traced_line = current_line;
  if (WantsLog(Log_Trace)) WriteLog(Log_Trace, {});
}

// sourcefile  ( -- )  Sets the source file that messages report, by dictionary id.
void ZephVM::sourcefile() {
  if (source_file != first_integer) traced_line = 0;
  source_file = first_integer;
  source_name = nullptr;
}

// tagerror  ( -- )  Sets what errors of a tag do in this script. A number that belongs to no tag is
// ignored.
void ZephVM::tagerror() {
  if (static_cast<unsigned>(first_integer) < static_cast<unsigned>(tag_count)) {
    tag_settings[first_integer] = second_integer;
  }
}

// stdoutput  ( -- )  Sets the frame's output mode: which white space compressed writes drop.
void ZephVM::stdoutput() {
  frame->output_mode = first_integer;
  hot_mode = NoMode;
  application->output()->SetFlags(first_integer);
}

// op_errmsg  ( s -- )  Every later error message starts with s.
void ZephVM::op_errmsg() {
  PoppedString text(stack);
  if (!stop_flag) error_prefix.assign(text.data(), text.length());
}

// capture  ( v -- )  From here on, output is collected for the variable v.
void ZephVM::capture() {
  Variable* variable;
  int deletable;
  stack->PopV(&variable, &deletable);
  VariableRef held(deletable ? variable : nullptr);
  if (stop_flag) return;
  auto feature = std::make_unique<Capture>(application, this, variable);
  feature->Start();
  Push_Feature(feature.release());
}

// capture_end  ( -- )  Gives the collected text to the variable of the newest capture. Without one
// it is the fatal error "Invalid instruction".
void ZephVM::capture_end() {
  auto* feature = static_cast<Capture*>(Lookup_Feature(Feature::Type_Capture));
  if (!feature) {
    FatalError("Invalid instruction");
    return;
  }
  feature->End();
  Pop_Feature(feature);
}

// lockfile  ( name -- )  Takes the lock of that name, waiting for it if necessary, and holds it
// until lockfile_end or the end of the script. A lock that cannot be taken is an error of
// ZpLOCKFILE.
void ZephVM::lockfile() {
  PoppedString name(stack);
  if (stop_flag) return;
  auto feature = std::make_unique<Lockfile>(application, this, name.data(), name.length());
  if (feature->Lock()) {
    Push_Feature(feature.release());
  } else {
    EncodedRuntimeError(Tag_Lockfile, feature->error());
  }
}

// lockfile_end  ( -- )  Releases the newest lock. Without one it is the fatal error "Invalid
// instruction".
void ZephVM::lockfile_end() {
  Feature* feature = Lookup_Feature(Feature::Type_Lockfile);
  if (feature) {
    Pop_Feature(feature);
  } else {
    FatalError("Invalid instruction");
  }
}

// The loop, and the instructions of the plainest scripts.
//
//   construction and end     what a machine is made of
//   the loop                 Go, its checks, segments and time-out
//   features                 the stack of constructs that outlive an instruction
//   handlers                 one instruction each, under its reference text

#include "base/ZephVM.h"

#include <atomic>
#include <cstring>

#include "base/Capture.h"
#include "base/Config.h"
#include "base/Dictionary.h"
#include "base/ExternalCall.h"
#include "base/Feature.h"
#include "base/Instructions.h"
#include "base/LinkBuffer.h"
#include "base/Output.h"
#include "base/PoppedString.h"
#include "base/Segment.h"
#include "base/Variable.h"
#include "base/VariableHash.h"
#include "base/VariableRef.h"
#include "base/ZephApplication.h"

namespace {

// The host's integers are written by other threads; a stale value only delays the reaction by an
// instruction.
inline int Read(int* shared) {
  return std::atomic_ref<int>(*shared).load(std::memory_order_relaxed);
}

inline unsigned Byte(const unsigned char* p, int i) {
  return p[i];
}

// Operands are little-endian and unaligned. Compilers turn these into plain loads.
inline int ReadInteger(const unsigned char* p) {
  return static_cast<int>(Byte(p, 0) | Byte(p, 1) << 8 | Byte(p, 2) << 16 | Byte(p, 3) << 24);
}

inline double ReadDouble(const unsigned char* p) {
  unsigned long bits = 0;
  for (int i = 7; i >= 0; i--) bits = bits << 8 | p[i];
  double value;
  memcpy(&value, &bits, sizeof value);
  return value;
}

}  // namespace

// --- Construction and end ------------------------------------------------------------------------

ZephVM::ZephVM(const char* path, int pathlength, ZephApplication* host, Dictionary* names,
               VariableHash* system, VariableHash* global, SegmentManager* code_segments,
               FunctionManager* script_functions, ExternalCallManager* externalcalls,
               CommerceLibraryManager* commerce, ExternalDatabaseLibraryManager* databases,
               LocalizedLanguages* script_languages, LocalizedDictionary* texts, int* heartbeat,
               int* timedout, int* exit, ZephVM* parent_machine)
    : script_path(path, pathlength),
      heartbeat_counter(heartbeat),
      timed_out(timedout),
      exit_flag(exit),
      application(host),
      dictionary(names),
      system_variables(system),
      global_variables(global),
      segments(code_segments),
      functions(script_functions),
      external_calls(externalcalls),
      commerce_libraries(commerce),
      database_libraries(databases),
      languages(script_languages),
      localized(texts),
      features(0),
      dropped_features(1),
      null_variable(new NULLVariable),
      parent(parent_machine) {
  CopyDefaultErrorSettings(tag_errors);
  MakeBaseFrame();
  segment = segments->Start();
  code = segment->code();
  code_length = segment->length();
  wanted_segment = loaded_segment = segment->number();
  SetScriptDirectory();
  if (parent) {
    if (!heartbeat_counter) heartbeat_counter = parent->heartbeat_counter;
    if (!timed_out) timed_out = parent->timed_out;
    if (!exit_flag) exit_flag = parent->exit_flag;
    parent->children++;
  }
  if ((dictionary->flags() & 1) == 0) {
    log_mask = static_cast<unsigned>(application->config()->value_integer(Config_log_level));
  }
}

ZephVM::~ZephVM() {
  // While the machine can still run functions: libraries may do so to free what they left.
  if (external_calls) external_calls->MachineEnds(this, parent);
  while (frame) {
    ZephVM_Frame* previous = frame->previous;
    delete frame;
    frame = previous;
  }
  null_variable->DecRefCount();
  // A feature leaves the stack before it is deleted: its end may look at the stack. They go from the
  // newest to the oldest, those that were dropped included: the outputs of captures lead on to older
  // ones.
  while (features.Top()) Drop(features.Pop());
  while (dropped_features.First()) delete dropped_features.Remove(ListHead);
  if (parent) parent->children--;
}

void ZephVM::MakeBaseFrame() {
  auto base = std::make_unique<ZephVM_Frame>(-1, 0);
  base->Set_LocalVariable_Hash(global_variables, false);
  base->Set_Stack(new ZephVM_Stack(this), true);
  EnterFrame(base.release());
}

void ZephVM::EnterFrame(ZephVM_Frame* new_frame) {
  new_frame->serial = ++frame_serials;
  frame = new_frame;
  stack = frame->stack;
}

void ZephVM::SetScriptDirectory() {
  const char* slash = script_path.length > 0 ? strrchr(script_path.data, '/') : nullptr;
  int length = slash ? static_cast<int>(slash - script_path.data) + 1 : 0;
  script_directory.assign(script_path.data, length);
}

// --- The loop ------------------------------------------------------------------------------------

int ZephVM::Go() {
  if (Read(timed_out)) return TimedOut();
  for (;;) {
    if (Read(heartbeat_counter) != last_heartbeat) Heartbeat();
    // An error is seen before the next instruction starts, and before an exit.
    if (stop_flag) return 0;
    if (Read(exit_flag)) return 1;
    if (wanted_segment != loaded_segment && !Set_Segment()) return 0;
    instruction_start = program_counter;
    // The counter may have been set to anything by a jump; outside of the segment is its end.
    if (program_counter < 0 || program_counter >= code_length - 1) {
      if (EndOfSegment() == Pass::Normal) return 1;
    } else {
      const unsigned char* p = code + program_counter;
      unsigned word = Byte(p, 0) | Byte(p, 1) << 8;
      p += 2;
      // Operands that the end of the segment cuts off read as zero: bytes of that value follow it.
      if ((word & 0xC000) == 0x4000) {
        first_integer = ReadInteger(p);
        p += 4;
      } else if ((word & 0xC000) == 0x8000) {
        first_double = ReadDouble(p);
        p += 8;
      }
      if ((word & 0x3000) == 0x1000) {
        second_integer = ReadInteger(p);
        p += 4;
      } else if ((word & 0x3000) == 0x2000) {
        second_double = ReadDouble(p);
        p += 8;
      }
      program_counter = static_cast<int>(p - code);
      Dispatch(word);
    }
    if (Read(timed_out)) return TimedOut();
  }
}

void ZephVM::Dispatch(unsigned word) {
  switch (word) {
    case Instruction::noop: break;
    case Instruction::pushi: stack->PushI(first_integer); break;
    case Instruction::pushf: stack->PushD(first_double); break;
    case Instruction::pop: stack->Pop(); break;
    case Instruction::dup: stack->Dupe(); break;
    case Instruction::swap: stack->Swap(0, 1); break;
    case Instruction::swapn: stack->Swap(first_integer, second_integer); break;
    case Instruction::cat: stack->Concatenate(); break;
    case Instruction::jmp: Jump(); break;
    case Instruction::jmp_eq:
      if (stack->PopI() == 0) Jump();
      break;
    case Instruction::jmp_ne:
      if (stack->PopI() != 0) Jump();
      break;
    case Instruction::jmp_lt:
      if (stack->PopI() < 0) Jump();
      break;
    case Instruction::jmp_gt:
      if (stack->PopI() > 0) Jump();
      break;
    case Instruction::jmp_le:
      if (stack->PopI() <= 0) Jump();
      break;
    case Instruction::jmp_ge:
      if (stack->PopI() >= 0) Jump();
      break;
    case Instruction::erroutput: frame->error_output = first_integer; break;
    case Instruction::exit:
    case Instruction::exit2: exit(); break;
    case Instruction::pushc: pushc(); break;
    case Instruction::pushs: pushs(); break;
    case Instruction::pushg: pushg(); break;
    case Instruction::pushl: pushl(); break;
    case Instruction::pops: pops(); break;
    case Instruction::popg: popg(); break;
    case Instruction::popl: popl(); break;
    case Instruction::pushn: pushn(); break;
    case Instruction::pushnc: pushnc(); break;
    case Instruction::popn: popn(); break;
    case Instruction::popnc: popnc(); break;
    case Instruction::pushd: pushd(); break;
    case Instruction::pushdc: pushdc(); break;
    case Instruction::popd: popd(); break;
    case Instruction::popdc: popdc(); break;
    case Instruction::store: store(); break;
    case Instruction::refer: refer(); break;
    case Instruction::poprn: poprn(); break;
    case Instruction::poprnc: poprnc(); break;
    case Instruction::poprg: poprg(); break;
    case Instruction::poprl: poprl(); break;
    case Instruction::elem: elem(); break;
    case Instruction::elem_readonly: elem_readonly(); break;
    case Instruction::memb: memb(); break;
    case Instruction::memb_readonly: memb_readonly(); break;
    case Instruction::spush: spush(); break;
    case Instruction::spop: spop(); break;
    case Instruction::add: add(); break;
    case Instruction::sub: sub(); break;
    case Instruction::mul: mul(); break;
    case Instruction::div: div(); break;
    case Instruction::mod: mod(); break;
    case Instruction::pow: pow(); break;
    case Instruction::rounds: rounds(); break;
    case Instruction::roundf: roundf(); break;
    case Instruction::crypt: crypt(); break;
    case Instruction::op_bitand: op_bitand(); break;
    case Instruction::op_bitor: op_bitor(); break;
    case Instruction::bitxor: bitxor(); break;
    case Instruction::bitoc: bitoc(); break;
    case Instruction::bitsl: bitsl(); break;
    case Instruction::bitsr: bitsr(); break;
    case Instruction::cmp: cmp(); break;
    case Instruction::eq: eq(); break;
    case Instruction::ne: ne(); break;
    case Instruction::ge: ge(); break;
    case Instruction::le: le(); break;
    case Instruction::lt: lt(); break;
    case Instruction::gt: gt(); break;
    case Instruction::op_and: op_and(); break;
    case Instruction::op_or: op_or(); break;
    case Instruction::op_not: op_not(); break;
    case Instruction::isnull: isnull(); break;
    case Instruction::in: in(); break;
    case Instruction::cin: cin(); break;
    case Instruction::ein: ein(); break;
    case Instruction::ecin: ecin(); break;
    case Instruction::call: call(); break;
    case Instruction::ret: ret(); break;
    case Instruction::retn: retn(); break;
    case Instruction::lineno: lineno(); break;
    case Instruction::sourcefile: sourcefile(); break;
    case Instruction::tagerror: tagerror(); break;
    case Instruction::stdoutput: stdoutput(); break;
    case Instruction::out: out(); break;
    case Instruction::out_comp: out_comp(); break;
    case Instruction::op_errmsg: op_errmsg(); break;
    case Instruction::hide: hide(); break;
    case Instruction::capture: capture(); break;
    case Instruction::capture_end: capture_end(); break;
    case Instruction::cmpgg: cmpgg(); break;
    case Instruction::cmpgi: cmpgi(); break;
    case Instruction::incg: incg(); break;
    case Instruction::modgg: modgg(); break;
    case Instruction::storegi: storegi(); break;
    default: FatalError("Illegal Instruction");
  }
}

int ZephVM::Set_Segment() {
  segment = segments->Lookup(wanted_segment);
  if (!segment) {
    code = nullptr;
    code_length = 0;
    return FatalError("Invalid segment reference");
  }
  code = segment->code();
  code_length = segment->length();
  loaded_segment = wanted_segment;
  return 1;
}

ZephVM::Pass ZephVM::EndOfSegment() {
  const int type = frame->type();
  return type == ZephVM_Frame::Plain || type == ZephVM_Frame::Function ? Pass::Normal
                                                                       : Pass::Continue;
}

int ZephVM::TimedOut() {
  if (stop_flag) return 0;
  stop_flag = true;
  application->Error("Application timed out");
  if (WantsLog(Log_TimedOut)) WriteLog(Log_TimedOut, {});
  return 0;
}

void ZephVM::Heartbeat() {
  last_heartbeat = Read(heartbeat_counter);
  if (parent) parent->Heartbeat();
  for (Feature* feature = features.Top(); feature; feature = features.Peek()) feature->Heartbeat();
}

const char* ZephVM::SourceFile(int* length) {
  if (!source_name && source_file != -1) {
    source_name = dictionary->Entry(source_file, &source_name_length);
  }
  *length = source_name ? source_name_length : 0;
  return source_name ? source_name : "";
}

// --- Features ------------------------------------------------------------------------------------

void ZephVM::Push_Feature(Feature* feature) {
  feature->SetSerial(++feature_serials);
  features.Push(feature);
}

Feature* ZephVM::Lookup_Feature(int type) {
  Feature* feature = features.Top();
  while (feature && feature->type() != type) feature = features.Peek();
  return feature;
}

void ZephVM::Pop_Feature(Feature* wanted) {
  Feature* feature = features.Top();
  if (!wanted) wanted = feature;
  while (feature && feature != wanted) feature = features.Peek();
  if (!feature) return;
  for (;;) {
    features.Top();
    Feature* top = features.Pop();
    if (top == wanted) break;
    Drop(top);
  }
  if (wanted->type() == Feature::Type_Capture && static_cast<Capture*>(wanted)->covered()) {
    Drop(wanted);
  } else {
    delete wanted;
  }
}

// Keeps a feature until the machine ends; the list has the newest at its head.
void ZephVM::Drop(Feature* feature) {
  Feature* other = dropped_features.First();
  while (other && other->serial() > feature->serial()) other = dropped_features.Next();
  dropped_features.Insert(feature, other ? ListCurrent : ListTail);
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

// out  ( x -- )  Writes x to the output. A chained text goes out block by block, unflattened.
void ZephVM::out() {
  ZephVM_Stack::Stack_Entry* top = stack->Peek();
  if (top && top->kind == ZephVM_Stack::KindLinkBuffer) {
    top->value.buffer->output(application->output());
    stack->Pop();
    return;
  }
  PoppedString text(stack);
  if (!stop_flag) application->output()->Write(text.data(), text.length());
}

// out_comp  ( x -- )  Writes x to the output with less white space, as the output mode says.
void ZephVM::out_comp() {
  PoppedString text(stack);
  if (!stop_flag) application->output()->Write_Compressed(text.data(), text.length());
}

// exit  ( -- )  Ends the run in order: no error, and what was written stays.
void ZephVM::exit() {
  program_counter = code_length;
  std::atomic_ref<int>(*exit_flag).store(1, std::memory_order_relaxed);
}

// lineno  ( -- )  Sets the line that messages report, and traces it when the log wants that.
void ZephVM::lineno() {
  current_line = first_integer;
  if ((log_mask & Log_Trace) == 0 || current_line == traced_line) return;
  traced_line = current_line;
  if (WantsLog(Log_Trace)) WriteLog(Log_Trace, {});
}

// sourcefile  ( -- )  Sets the source file that messages report, by dictionary id.
void ZephVM::sourcefile() {
  if (source_file != first_integer) traced_line = 0;
  source_file = first_integer;
  source_name = nullptr;
}

// tagerror  ( -- )  Sets what errors of a tag do in this script. A number that is no tag's is
// ignored.
void ZephVM::tagerror() {
  if (static_cast<unsigned>(first_integer) < static_cast<unsigned>(tag_count)) {
    tag_errors[first_integer].settings = second_integer;
  }
}

// stdoutput  ( -- )  Sets the frame's output mode: which white space compressed writes drop.
void ZephVM::stdoutput() {
  frame->output_mode = first_integer;
  application->output()->SetFlags(first_integer);
}

// op_errmsg  ( s -- )  Every later error message starts with s.
void ZephVM::op_errmsg() {
  PoppedString text(stack);
  if (!stop_flag) error_prefix.assign(text.data(), text.length());
}

// capture  ( v -- )  From here on output is collected for the variable v.
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

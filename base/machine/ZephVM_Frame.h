// A frame is one activation: its local variables, its stack, where the caller continues, and the
// output modes.

#ifndef ZEPH_BASE_ZEPHVM_FRAME_H
#define ZEPH_BASE_ZEPHVM_FRAME_H

#include <cstddef>
#include <cstdint>

#include "base/core/FreeList.h"

class Function;
struct HotOp;
class Segment;
class VariableHash;
class ZephVM;
class ZephVM_Stack;

// The plain frame: the base of a machine's run, or of a run nested in it. Made and deleted by the
// machine, on its thread. The order of the virtual operations stays.
class ZephVM_Frame {
 public:
  enum Type : int { Plain = 0, Function = 1, Filter = 2 };
  // Bits of the error-output flags. The machine reads only the display bit.
  enum ErrorOutput : int { ErrorOutput_Display = 4, ErrorOutput_All = 7 };

  // Made without table and stack. REQUIRES: both are set before the frame is used.
  ZephVM_Frame(int return_segment, int return_offset);
  // Deletes the variables and the stack that it owns.
  virtual ~ZephVM_Frame();
  ZephVM_Frame(const ZephVM_Frame&) = delete;
  ZephVM_Frame& operator=(const ZephVM_Frame&) = delete;

  virtual int type();
  // Replace the table or the stack; the old one is deleted if the frame owned it. With owned, the
  // frame deletes the new one.
  virtual void Set_LocalVariable_Hash(VariableHash* table, bool owned);
  virtual void Set_Stack(ZephVM_Stack* new_stack, bool owned);

  // Where the caller continues; segment -1 in the base frame.
  int return_segment;
  int return_offset;
  VariableHash* variables = nullptr;  // what pushl and popl use
  bool owns_variables = false;
  ZephVM_Stack* stack = nullptr;
  bool owns_stack = false;
  int error_output = ErrorOutput_All;
  int output_mode = 0;               // passed to Output::SetFlags while the frame is current
  ZephVM_Frame* previous = nullptr;  // the caller; null at the base of a run
  ZephVM_Frame* around = nullptr;    // at the base of a run within a run: the frame it goes back to

  // A number that no other frame of the machine has or had; 0 until the machine assigns it, see
  // ZephVM::FrameSerial().
  long serial = 0;
  int depth = 0;  // functions that have not returned, with this one

  // --- For the hot loop --------------------------------------------------------------------------
  // Whether this is a function's frame, so that it has a caller, and its return only has to pass on
  // a value.
  bool returns_hot = false;
  // The HotCode::serial() of the calling code, to which it returns, if that was decoded and
  // returns_hot holds; else 0.
  long return_code = 0;
  // What is known of how the result is used: bits of HotOp::Use.
  unsigned char uses = 0;
};

// The activation of a function of the script.
class ZephVM_FunctionFrame : public ZephVM_Frame {
 public:
  // The function is borrowed and outlives the frame.
  ZephVM_FunctionFrame(int return_segment, int return_offset, ::Function* function);

  int type() override;

  ::Function* function;
  ZephVM_FunctionFrame* next_idle = nullptr;  // after this one, while the machine keeps it

  // --- For the hot loop --------------------------------------------------------------------------
  // The number of parameters, if there are at most 64, they come first among the locals, neither
  // the output mode nor the error output depends on the caller's, and no call is logged; else -1.
  int simple_parameters = -1;
  uint64_t references = 0;  // a bit for each parameter that is taken by reference
  int simple_mode = 0;      // its output mode
  int entry_segment = -1;
  int entry_offset = -1;
  size_t place = 0;                // the function's index
  VariableHash* locals = nullptr;  // the template of its local variables
  // The record at the function's beginning, and the HotCode::serial() of the code that it is in.
  const HotOp* entry = nullptr;
  long entry_serial = 0;
  // With a return_code: the function's segment, if that is not the caller's, the segment of the
  // caller, and the record after the call. While the frame is kept for reuse, all but the last stay
  // valid, and serial is 0.
  Segment* entry_code = nullptr;
  Segment* return_to = nullptr;
  const HotOp* return_op = nullptr;
  // With a return_code, if machine code has made the call: the machine code that takes a number as
  // its result; null if the loop has made it. It means nothing after the call.
  const void* native_return = nullptr;
};

// The filter of an import, which decides about a record. Its code is an expression. At the end of
// its segment there is no caller to return to: a routine of the machine continues, depending on the
// expression's value.
class ZephVM_FilterFrame : public ZephVM_Frame {
 public:
  ZEPH_FREE_LIST_OPERATORS(ZephVM_FilterFrame)

  // Receives whether the value that the filter left is true; no value is false.
  using Completion = void (ZephVM::*)(int);

  // The return place is where an accepted record is used. The saved place is where the machine
  // continues when there are no more records.
  ZephVM_FilterFrame(int return_segment, int return_offset, int saved_segment, int saved_offset,
                     Completion completion);

  int type() override;

  Completion completion;
  int saved_offset;
  int saved_segment;
};

#endif

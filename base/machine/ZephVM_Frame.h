// A frame is one activation: which variables are local, which stack is in use, where to go on
// afterwards, and what the output modes are.

#ifndef ZEPH_BASE_ZEPHVM_FRAME_H
#define ZEPH_BASE_ZEPHVM_FRAME_H

#include <cstddef>

#include "base/core/FreeList.h"

class Function;
struct HotOp;
class VariableHash;
class ZephVM;
class ZephVM_Stack;

// The plain frame: the base of a machine's run, or of a run nested in it. Made and deleted by the
// machine, on its thread. The order of the virtual operations stays.
class ZephVM_Frame {
 public:
  enum Type : int { Plain = 0, Function = 1, Filter = 2 };
  // Bits of the error-output flags. The loop of the machine looks at the display bit alone.
  enum ErrorOutput : int { ErrorOutput_Display = 4, ErrorOutput_All = 7 };

  // Neither table nor stack; both are set before the frame is used.
  ZephVM_Frame(int return_segment, int return_offset);
  // Deletes the variables and the stack that it owns.
  virtual ~ZephVM_Frame();
  ZephVM_Frame(const ZephVM_Frame&) = delete;
  ZephVM_Frame& operator=(const ZephVM_Frame&) = delete;

  virtual int type();
  // Deletes what the frame owned so far and takes the new value, to be deleted with the frame if it
  // is owned.
  virtual void Set_LocalVariable_Hash(VariableHash* variables, bool owned);
  virtual void Set_Stack(ZephVM_Stack* stack, bool owned);

  // Where the caller goes on; segment -1 in the base frame.
  int return_segment;
  int return_offset;
  VariableHash* variables = nullptr;  // what pushl and popl use
  bool owns_variables = false;
  ZephVM_Stack* stack = nullptr;
  bool owns_stack = false;
  int error_output = ErrorOutput_All;
  int output_mode = 0;               // what Output::SetFlags gets while the frame is current
  ZephVM_Frame* previous = nullptr;  // the caller; null at the base of a run

  // Told apart from all other frames of the machine, also from those that are gone; 0 until the
  // machine is asked for it, see ZephVM::FrameSerial().
  long serial = 0;

  // --- For the hot loop --------------------------------------------------------------------------
  // Whether it is of a function, so that there is a caller, and all that its return has to do is to
  // hand over a value.
  bool returns_hot = false;
  // The HotCode::serial() of the code that called it and that it returns to, if that was decoded
  // and returns_hot holds; else 0.
  long return_code = 0;
};

// The activation of a function of the script.
class ZephVM_FunctionFrame : public ZephVM_Frame {
 public:
  ZEPH_FREE_LIST_OPERATORS(ZephVM_FunctionFrame)

  // The function is borrowed and outlives the frame.
  ZephVM_FunctionFrame(int return_segment, int return_offset, ::Function* function);

  int type() override;

  ::Function* function;
  ZephVM_FunctionFrame* next_idle = nullptr;  // behind this one, while the machine keeps it

  // --- For the hot loop --------------------------------------------------------------------------
  // The count of parameters, if all are taken by value and stand first among the locals, neither
  // its output mode nor its error output goes by the caller's, and no call is logged; else -1.
  int simple_parameters = -1;
  int simple_mode = 0;  // its output mode
  int entry_segment = -1;
  int entry_offset = -1;
  size_t place = 0;                // the function's index
  VariableHash* locals = nullptr;  // the template of its local variables
  // With a return_code, the records of that code where the function begins and where it goes on
  // behind the call. While the frame is kept the former holds, and so does return_segment.
  const HotOp* entry = nullptr;
  const HotOp* return_op = nullptr;
};

// The filter of an import, which judges a record. Its code is an expression, and where its segment
// ends it has no caller to return to, but a routine of the machine that goes on by its value.
class ZephVM_FilterFrame : public ZephVM_Frame {
 public:
  ZEPH_FREE_LIST_OPERATORS(ZephVM_FilterFrame)

  // Gets the truth of what the filter has left; nothing is false.
  using Completion = void (ZephVM::*)(int);

  // Returns to where an accepted record is used. The saved place is where the machine goes on when
  // there are no more records.
  ZephVM_FilterFrame(int return_segment, int return_offset, int saved_segment, int saved_offset,
                     Completion completion);

  int type() override;

  Completion completion;
  int saved_offset;
  int saved_segment;
};

#endif

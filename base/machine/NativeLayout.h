// Where machine code finds the fields that it uses. Distances are in bytes from the beginning of
// the object.

#ifndef ZEPH_BASE_NATIVELAYOUT_H
#define ZEPH_BASE_NATIVELAYOUT_H

#include <cstddef>

#include "base/compiled/HotCode.h"
#include "base/compiled/Segment.h"
#include "base/compiled/VariableHash.h"
#include "base/core/Output.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/machine/ZephVM_Frame.h"
#include "base/machine/ZephVM_Stack.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"

// These classes have virtual operations, and the language leaves it to compilers whether the
// distance of a field is a constant then. Both of ours make it one.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

struct NativeLayout {
  struct OfVariable {
    static constexpr int state = offsetof(Variable, state);
    static constexpr int primary = offsetof(Variable, primary);
    static constexpr int integer = offsetof(Variable, integer_value);
    static constexpr int number = offsetof(Variable, double_value);
    static constexpr int aggregate = offsetof(Variable, aggregate);
    static constexpr int elements = offsetof(Variable, elements);
    static constexpr int reference = offsetof(Variable, reference);
    static constexpr int text = offsetof(Variable, string_value) + offsetof(String, data);
    static constexpr int holders = offsetof(Variable, refcount_);
    static constexpr int error = offsetof(Variable, error_) + offsetof(String, data);
    static constexpr int name_mark = offsetof(Variable, name_) + offsetof(String, allocated);
    static constexpr int shared_name = Variable::SharedMark;
    static constexpr int allocated = offsetof(Variable, string_value) + offsetof(String, allocated);
    static constexpr int most_kept = Variable::MostKept;
    static constexpr int all_forms = static_cast<int>(Variable::AllForms);
    static constexpr int asleep = static_cast<int>(Variable::Asleep);
    static constexpr int length = offsetof(Variable, string_value) + offsetof(String, length);
    // States, and bits of them.
    static constexpr int text_alone = Variable::TextForm;
    static constexpr int integer_alone = Variable::IntegerForm;
    static constexpr int double_alone = Variable::DoubleForm;
    static constexpr int both_numbers = Variable::IntegerForm | Variable::DoubleForm;
    static constexpr int reference_alone = static_cast<int>(Variable::Reference);
    static constexpr int not_plain = static_cast<int>(Variable::NotPlain);
  };
  // The row of an array, in its tree of elements.
  struct OfElements {
    static constexpr int row = offsetof(AggregateElementTree, dense);
    static constexpr int isolated = offsetof(AggregateElementTree, is_isolated);
    static constexpr int slots = row + static_cast<int>(offsetof(DenseElements, slots));
    static constexpr int count = row + static_cast<int>(offsetof(DenseElements, count_));
    static constexpr int base = row + static_cast<int>(offsetof(DenseElements, base));
    static constexpr int top = row + static_cast<int>(offsetof(DenseElements, top));
    static constexpr int expected = row + static_cast<int>(offsetof(DenseElements, expected));
    static constexpr int goal = row + static_cast<int>(offsetof(DenseElements, goal));
    static constexpr int step = row + static_cast<int>(offsetof(DenseElements, step));
    static constexpr int run_first = row + static_cast<int>(offsetof(DenseElements, run_first));
    static constexpr int capacity = row + static_cast<int>(offsetof(DenseElements, capacity));
    static constexpr int chain_count = row + static_cast<int>(offsetof(DenseElements, chain_count));
    static constexpr int history = row + static_cast<int>(offsetof(DenseElements, history));
    static constexpr int entries = offsetof(AggregateElementTree, entries);
    static constexpr int forgetful = row + static_cast<int>(offsetof(DenseElements, forgetful));
    static constexpr int shared = row + static_cast<int>(offsetof(DenseElements, is_shared));
    // These four flags as one word, and what it is if only the first is set.
    static constexpr int flags = row + static_cast<int>(offsetof(DenseElements, falling));
    static constexpr int falling_alone = 1;
    static_assert(forgetful == flags + 1 && shared == flags + 3 &&
                  offsetof(DenseElements, unnoted) == offsetof(DenseElements, falling) + 2);
  };
  // The members of a structure, in its tree of elements.
  struct OfMembers {
    static constexpr int members = offsetof(AggregateElementTree, members);
    static constexpr int layout = members + static_cast<int>(offsetof(FlatMembers, layout));
    static constexpr int slots = members + static_cast<int>(offsetof(FlatMembers, slots));
    static constexpr int top = members + static_cast<int>(offsetof(FlatMembers, top));
    static constexpr int notes = members + static_cast<int>(offsetof(FlatMembers, notes));
    static constexpr int notes_count = offsetof(FlatMembers::Notes, count);
    static constexpr int notes_capacity = offsetof(FlatMembers::Notes, capacity);
    static constexpr int first_note = sizeof(FlatMembers::Notes);
    static constexpr int shared = members + static_cast<int>(offsetof(FlatMembers, is_shared));
    static constexpr int serial = offsetof(MemberLayout, serial_);
  };
  struct OfSlot {
    static constexpr uint64_t double_offset = DenseSlot::DoubleOffset;
    static constexpr uint64_t integer_tag = DenseSlot::IntegerTag;
  };
  struct OfEntry {
    static constexpr uint64_t owned_variable =
        ZephVM_Stack::KindVariable | ZephVM_Stack::Stack_Entry::OwnedMark;
    static constexpr uint64_t owned_text =
        ZephVM_Stack::KindString | ZephVM_Stack::Stack_Entry::OwnedMark;
  };
  struct OfOutput {
    static constexpr int room = offsetof(Output, room);
    static constexpr int room_end = offsetof(Output, room_end);
  };
  struct OfMachine {
    static constexpr int application = offsetof(ZephVM, application);
    static constexpr int current_output = offsetof(ZephApplication, current_output);
    static constexpr int frame = offsetof(ZephVM, frame);
    static constexpr int stack = offsetof(ZephVM, stack);
    static constexpr int segment = offsetof(ZephVM, segment);
    static constexpr int code = offsetof(ZephVM, code);
    static constexpr int code_length = offsetof(ZephVM, code_length);
    static constexpr int loaded_segment = offsetof(ZephVM, loaded_segment);
    static constexpr int wanted_segment = offsetof(ZephVM, wanted_segment);
    static constexpr int hot_mode = offsetof(ZephVM, hot_mode);
    static constexpr int current_line = offsetof(ZephVM, current_line);
    static constexpr int traced_line = offsetof(ZephVM, traced_line);
    static constexpr int source_file = offsetof(ZephVM, source_file);
    static constexpr int source_name = offsetof(ZephVM, source_name);
    static constexpr int most_frames = ZephVM::MostFrames;
  };
  struct OfFrame {
    static constexpr int depth = offsetof(ZephVM_FunctionFrame, depth);
    static constexpr int return_code = offsetof(ZephVM_FunctionFrame, return_code);
    static constexpr int simple_parameters = offsetof(ZephVM_FunctionFrame, simple_parameters);
    static constexpr int variables = offsetof(ZephVM_FunctionFrame, variables);
    static constexpr int stack = offsetof(ZephVM_FunctionFrame, stack);
    static constexpr int return_offset = offsetof(ZephVM_FunctionFrame, return_offset);
    static constexpr int return_op = offsetof(ZephVM_FunctionFrame, return_op);
    static constexpr int return_to = offsetof(ZephVM_FunctionFrame, return_to);
    static constexpr int return_segment = offsetof(ZephVM_FunctionFrame, return_segment);
    static constexpr int native_return = offsetof(ZephVM_FunctionFrame, native_return);
    static constexpr int next_idle = offsetof(ZephVM_FunctionFrame, next_idle);
    static constexpr int uses = offsetof(ZephVM_FunctionFrame, uses);
    static constexpr int error_output = offsetof(ZephVM_FunctionFrame, error_output);
    static constexpr int output_mode = offsetof(ZephVM_FunctionFrame, output_mode);
    static constexpr int simple_mode = offsetof(ZephVM_FunctionFrame, simple_mode);
    static constexpr int previous = offsetof(ZephVM_FunctionFrame, previous);
    static constexpr int entry = offsetof(ZephVM_FunctionFrame, entry);
    static constexpr int entry_segment = offsetof(ZephVM_FunctionFrame, entry_segment);
    static constexpr int entry_code = offsetof(ZephVM_FunctionFrame, entry_code);
    static constexpr int entry_serial = offsetof(ZephVM_FunctionFrame, entry_serial);
    static constexpr int locals = offsetof(ZephVM_FunctionFrame, locals);
    static constexpr int place = offsetof(ZephVM_FunctionFrame, place);
  };
  struct OfRecord {
    static constexpr int native = offsetof(HotOp, native);
  };
  struct OfTable {
    static constexpr int entries = offsetof(VariableHash, entries);
    static constexpr int count = offsetof(VariableHash, entry_count);
    static constexpr int error = offsetof(VariableHash, error_) + offsetof(String, data);
  };
  struct OfStack {
    static constexpr int top = offsetof(ZephVM_Stack, top);
    static constexpr int entries = offsetof(ZephVM_Stack, entries);
    static constexpr int limit = offsetof(ZephVM_Stack, limit);
  };
  struct OfSegment {
    static constexpr int hot = offsetof(Segment, hot_code);
    static constexpr int data = offsetof(Segment, data);
    static constexpr int length = offsetof(Segment, data_length);
    static constexpr int serial = offsetof(HotCode, code_serial);
  };
  // A unique_ptr is the pointer.
  static_assert(sizeof(Segment::hot_code) == sizeof(void*) &&
                sizeof(Segment::data) == sizeof(void*));
};

#pragma GCC diagnostic pop

#endif

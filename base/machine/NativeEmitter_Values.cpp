// Machine code for records that operations in C++ do most of.

#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <cstddef>

// The records for texts, and for what is found or stored by an operation. Returns false for others.
bool NativeEmitter::EmitValues() {
  const HotAction action = op->action;
  const bool is_equality = op->orders == 2 || op->orders == 5;
  switch (action) {
    case HotAction::JumpIfText: {
      Label differs, next;
      SetFallback(&NativeRun::Compare<&NativeRun::OrderOfText>, op[1].target, 2);
      if (!is_equality || op->length > 64) {
        jmp(Leave());
        return true;
      }
      CompareWord(differs);
      if (op->orders == 2) {
        GoTo(op[1].target);
        L(differs);
      } else {
        jmp(next);
        L(differs);
        GoTo(op[1].target);
        L(next);
      }
      Continue(2);
      return true;
    }
    case HotAction::CompareTextOf:
    case HotAction::CompareTextTo:
      CallComparison(&NativeRun::Compare<&NativeRun::OrderOfText>);
      StoreCompared(action == HotAction::CompareTextTo);
      return true;
    case HotAction::CompareLoadedOf:
    case HotAction::CompareLoadedTo:
      CallComparison(&NativeRun::Compare<&NativeRun::OrderOfLoaded>);
      StoreCompared(action == HotAction::CompareLoadedTo);
      return true;
    case HotAction::MatchOf:
    case HotAction::MatchTo:
      CallComparison(&NativeRun::Match);
      StoreCompared(action == HotAction::MatchTo);
      return true;
    case HotAction::LoadElement: Do(&NativeRun::Do<&NativeRun::LoadElement>); return true;
    case HotAction::FindElement: Do(&NativeRun::Do<&NativeRun::FindElement>); return true;
    case HotAction::FindMember: Do(&NativeRun::Do<&NativeRun::FindMember>); return true;
    case HotAction::MoveElement: Do(&NativeRun::Do<&NativeRun::MoveElement>); return true;
    case HotAction::StoreElement: Do(&NativeRun::Do<&NativeRun::StoreElement>); return true;
    case HotAction::PushElement: Do(&NativeRun::Do<&NativeRun::PushElement>); return true;
    case HotAction::PushMember: Do(&NativeRun::Do<&NativeRun::PushMember>); return true;
    case HotAction::Element:
    case HotAction::ElementReadOnly: Do(&NativeRun::Do<&NativeRun::Element>); return true;
    case HotAction::Member:
    case HotAction::MemberReadOnly: Do(&NativeRun::Do<&NativeRun::Member>); return true;
    case HotAction::Store: Do(&NativeRun::Do<&NativeRun::StoreOnStack>); return true;
    case HotAction::Concatenate: Do(&NativeRun::Do<&NativeRun::Concatenate>); return true;
    case HotAction::ConcatenateText:
      Do(&NativeRun::Do<&NativeRun::ConcatenateText, 2>, 2);
      return true;
    case HotAction::ConcatenateVariable:
      Do(&NativeRun::Do<&NativeRun::ConcatenateVariable, 2>, 2);
      return true;
    case HotAction::ConcatenateTextVariable:
      Do(&NativeRun::Do<&NativeRun::ConcatenateTextVariable, 3>, 3);
      return true;
    case HotAction::ConcatenateVariableText:
      Do(&NativeRun::Do<&NativeRun::ConcatenateVariableText, 3>, 3);
      return true;
    case HotAction::OutText: Do(&NativeRun::Do<&NativeRun::OutText, 2>, 2); return true;
    case HotAction::OutVariable: Do(&NativeRun::Do<&NativeRun::OutVariable, 2>, 2); return true;
    case HotAction::OutRounded: Do(&NativeRun::Do<&NativeRun::OutRounded, 3>, 3); return true;
    case HotAction::OutVariableRounded:
      Do(&NativeRun::Do<&NativeRun::OutVariableRounded, 4>, 4);
      return true;
    case HotAction::Handler:
      CallWith(reinterpret_cast<const void*>(&NativeRun::Handler));
      mov(r12, ptr[rbx + kRows]);
      mov(r13, ptr[rbx + kRows + 8]);
      mov(rbp, ptr[rbx + kTop]);
      test(al, al);
      jnz(ends);
      return true;
    case HotAction::JoinTo:
      Do(&NativeRun::DoJoinTo, static_cast<size_t>(op->second) + 1);
      return true;
    case HotAction::JoinPush:
      Do(&NativeRun::DoJoinPush, static_cast<size_t>(op->second) + 1);
      return true;
    default: return false;
  }
}

#endif

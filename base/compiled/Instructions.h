// The table of instructions: word, name, operands, and how each is run. The machine's switch and
// handlers, the listing of a segment and the assembler are all made from the one list in
// base/compiled/Instructions.def, so that they cannot disagree.

#ifndef ZEPH_BASE_INSTRUCTIONS_H
#define ZEPH_BASE_INSTRUCTIONS_H

#include <array>

namespace Instruction {

// The instruction words, one enumerator each: Instruction::pushc is 0x4001.
enum Word : unsigned short {
#define INSTRUCTION(word, identifier, name, first, second, run, listed, effect) identifier = (word),
#include "base/compiled/Instructions.def"
#undef INSTRUCTION
};

// The kind of an operand. Double has 8 bytes in code, None has none, all others are signed integers
// of 4 bytes.
enum class Operand : unsigned char {
  None,
  Number,    // an integer constant
  Double,    // a double constant
  Text,      // dictionary id
  System,    // position in the file's table of system variables
  Global,    // position in the file's table of global variables
  Local,     // position in the function's table of local variables
  Function,  // index of a function
  Distance,  // signed, added to the offset of the byte after all operands
};

// How the machine runs an instruction; see the list.
enum class Run : unsigned char { InLine, Handler, HotHandler, Absent };

// How many entries an instruction that succeeds takes off the stack and puts on it.
struct StackEffect {
  signed char taken;      // at least this many if takes_more is set, otherwise exactly
  signed char least_put;  // it puts from least_put to most_put entries on the stack
  signed char most_put;
  bool takes_more;  // any number, which the instruction's operand or the called function tells
};

// One instruction. Rows live for ever.
struct Row {
  unsigned short word;
  const char* name;  // NUL-terminated, unique
  Operand first;
  Operand second;
  Run run;
  bool listed;         // whether Segment::Dump shows it by name
  const char* effect;  // the stack before and after, and the action
  StackEffect stack;   // the counts of the effect
};

// All rows, in the order of the list.
extern const Row* const Rows;
extern const int RowCount;

// The row of a word, null if it is not an instruction. Constant time.
const Row* Find(unsigned short word);

// The row of a name, with regard to case; null for an unknown name. A length of -1 means strlen.
const Row* Find(const char* name, int length);

// Bytes of the operands that a word's top bits declare, even if it is not an instruction.
constexpr int FirstOperandSize(unsigned short word) {
  return (word & 0xC000) == 0x4000 ? 4 : (word & 0xC000) == 0x8000 ? 8 : 0;
}
constexpr int SecondOperandSize(unsigned short word) {
  return (word & 0x3000) == 0x1000 ? 4 : (word & 0x3000) == 0x2000 ? 8 : 0;
}

constexpr int OperandSize(unsigned short word) {
  return FirstOperandSize(word) + SecondOperandSize(word);
}

// The instructions, numbered from 1 in the order of the list, for the machine's switch. CodeOf is 0
// for a word that is not an instruction; the table has a byte for every word.
enum Code : unsigned char {
  code_none,
#define INSTRUCTION(word, identifier, name, first, second, run, listed, effect) code_##identifier,
#include "base/compiled/Instructions.def"
#undef INSTRUCTION
};
extern const std::array<Code, 65536> Codes;
inline Code CodeOf(unsigned short word) {
  return Codes[word];
}

}  // namespace Instruction

#endif

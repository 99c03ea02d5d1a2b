// Writes instructions. Tested in tests/compiler/CodeTest.cpp.

#include "compiler/CodeWriter.h"

#include <algorithm>

#include "base/compiled/Instructions.h"

namespace {

// Whether an instruction can fail, or calls something that may: only these need to know their line.
bool CanFail(unsigned short word) {
  switch (word) {
    case Instruction::noop:
    case Instruction::pushc:
    case Instruction::pushi:
    case Instruction::pushf:
    case Instruction::pop:
    case Instruction::dup:
    case Instruction::swap:
    case Instruction::swapn:
    case Instruction::pushg:
    case Instruction::pushl:
    case Instruction::pushs:
    case Instruction::popg:
    case Instruction::popl:
    case Instruction::pops:
    case Instruction::add:
    case Instruction::sub:
    case Instruction::mul:
    case Instruction::div:
    case Instruction::mod:
    case Instruction::pow:
    case Instruction::cat:
    case Instruction::op_bitand:
    case Instruction::op_bitor:
    case Instruction::bitxor:
    case Instruction::bitoc:
    case Instruction::bitsl:
    case Instruction::bitsr:
    case Instruction::rounds:
    case Instruction::roundf:
    case Instruction::cmp:
    case Instruction::eq:
    case Instruction::ne:
    case Instruction::ge:
    case Instruction::le:
    case Instruction::lt:
    case Instruction::gt:
    case Instruction::op_and:
    case Instruction::op_or:
    case Instruction::op_not:
    case Instruction::isnull:
    case Instruction::in:
    case Instruction::cin:
    case Instruction::ein:
    case Instruction::ecin:
    case Instruction::jmp:
    case Instruction::jmp_eq:
    case Instruction::jmp_ne:
    case Instruction::jmp_lt:
    case Instruction::jmp_le:
    case Instruction::jmp_gt:
    case Instruction::jmp_ge:
    case Instruction::call:
    case Instruction::ret:
    case Instruction::retn:
    case Instruction::exit:
    case Instruction::tagerror:
    case Instruction::erroutput:
    case Instruction::stdoutput:
    case Instruction::out:
    case Instruction::out_comp:
    case Instruction::incg:
    case Instruction::cmpgg:
    case Instruction::cmpgi:
    case Instruction::storegi: return false;
    default: return true;
  }
}

}  // namespace

void CodeWriter::Begin(int number) {
  segment = program->SegmentAt(number);
  known_file = known_line = certain_file = -1;
  depth = 0;
  compressed = false;
}

int CodeWriter::Position() {
  FlushText();
  return segment->length();
}

// --- Instructions --------------------------------------------------------------------------------

void CodeWriter::Word(unsigned short word) {
  FlushText();
  if (every_line || CanFail(word)) NotePlace();
  segment->Write_Word(segment->length(), word);
}

void CodeWriter::Operand(int value) {
  segment->Write_Dword(segment->length(), static_cast<unsigned>(value));
}

void CodeWriter::Emit(unsigned short word) {
  Word(word);
}

void CodeWriter::Emit(unsigned short word, int operand) {
  Word(word);
  Operand(operand);
}

void CodeWriter::Emit(unsigned short word, int first, int second) {
  Word(word);
  Operand(first);
  Operand(second);
}

void CodeWriter::EmitDouble(unsigned short word, double operand) {
  Word(word);
  segment->Write_Double(segment->length(), operand);
}

void CodeWriter::PushText(std::string_view text) {
  Emit(Instruction::pushc, program->Intern(text));
}

void CodeWriter::Jump(unsigned short word, CodeLabel* label) {
  Word(word);
  const CodeLabel::Use use = {segment->length(), segment->length() + 4};
  Operand(0);
  if (label->offset >= 0) {
    Fill(use, label->offset);
  } else {
    label->uses.push_back(use);
  }
}

void CodeWriter::Jump(unsigned short word, CodeLabel* label, int second) {
  Word(word);
  const CodeLabel::Use use = {segment->length(), segment->length() + 8};
  Operand(0);
  Operand(second);
  if (label->offset >= 0) {
    Fill(use, label->offset);
  } else {
    label->uses.push_back(use);
  }
}

void CodeWriter::Fill(const CodeLabel::Use& use, int offset) {
  segment->Write_Dword(use.position, static_cast<unsigned>(offset - use.base));
}

void CodeWriter::PlaceLabel(CodeLabel* label) {
  label->offset = Position();
  for (const CodeLabel::Use& use : label->uses) Fill(use, label->offset);
  label->uses.clear();
  known_line = -1;
  known_file = certain_file;
}

// --- Texts ---------------------------------------------------------------------------------------

void CodeWriter::OutText(std::string_view text) {
  pending += text;
}

void CodeWriter::SetCompressed(bool on) {
  FlushText();
  compressed = on;
}

void CodeWriter::FlushText() {
  if (pending.empty()) return;
  std::string all;
  all.swap(pending);
  const std::string_view text = all;
  for (size_t at = 0; at < text.size(); at += kLongestText) {
    FlushPiece(text.substr(at, kLongestText));
  }
}

void CodeWriter::FlushPiece(std::string_view text) {
  Emit(Instruction::pushc, program->Intern(text));
  Emit(compressed ? Instruction::out_comp : Instruction::out);
}

// --- Places --------------------------------------------------------------------------------------

void CodeWriter::NoteFile(int file) {
  FlushText();
  if (known_file == file) return;
  known_file = file;
  known_line = -1;
  if (depth == 0) {
    certain_file = file;
  } else if (certain_file != file) {
    certain_file = -1;
  }
  const int id = program->Intern(diagnostics->file(file).name());
  segment->Write_Word(segment->length(), Instruction::sourcefile);
  Operand(id);
}

void CodeWriter::NotePlace() {
  FlushText();
  NoteFile(place_file);
  const int line = diagnostics->file(place_file).Line(place_offset);
  if (line == known_line) return;
  known_line = line;
  segment->Write_Word(segment->length(), Instruction::lineno);
  Operand(line);
}

void CodeWriter::ForgetPlace(bool several_files) {
  known_line = -1;
  if (several_files) known_file = certain_file = -1;
}

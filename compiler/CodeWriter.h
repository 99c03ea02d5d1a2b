// Writes instructions of one function, or of the page, into a segment: jumps with labels, texts in
// as few writes as possible, and the places that error messages name.

#ifndef ZEPH_COMPILER_CODEWRITER_H
#define ZEPH_COMPILER_CODEWRITER_H

#include <string>
#include <string_view>
#include <vector>

#include "compiler/Diagnostics.h"
#include "tools/AssemblyProgram.h"

// A place in the code that jumps lead to.
struct CodeLabel {
  int offset = -1;  // -1 until it is placed
  struct Use {
    int position;  // of the distance
    int base;      // the offset that it counts from
  };
  std::vector<Use> uses;
};

class CodeWriter {
 public:
  // The longest text that one instruction writes. A block of the dictionary has room for just this,
  // so that no text is searched for in a long one.
  static constexpr size_t kLongestText = 8191;

  // every_line says whether all instructions note their line, or only those that can fail. several
  // says whether the page has more than one source file.
  CodeWriter(const Diagnostics* diagnostics, AssemblyProgram* program, bool every_line)
      : diagnostics(diagnostics), program(program), every_line(every_line) {}

  // Goes on at the end of a segment, where nothing is known about line and file. The writer begins
  // each function with it.
  void Begin(int number);
  // Ends it: all texts are written.
  void End() { FlushText(); }
  int Position();

  // The source that the next instructions belong to.
  void SetPlace(int file, int offset) {
    place_file = file;
    place_offset = offset;
  }
  // Notes the source file at once, and the place of the next instruction.
  void NoteFile(int file);
  void NotePlace();

  void Emit(unsigned short word);
  void Emit(unsigned short word, int operand);
  void Emit(unsigned short word, int first, int second);
  void EmitDouble(unsigned short word, double operand);
  void PushText(std::string_view text);
  // A jump, with the second operand that one has.
  void Jump(unsigned short word, CodeLabel* label);
  void Jump(unsigned short word, CodeLabel* label, int second);
  void PlaceLabel(CodeLabel* label);

  // Writes a text to the output: at once with those before and after it.
  void OutText(std::string_view text);
  // Whether texts are written with less white space from here on.
  void SetCompressed(bool on);

  // Between the two, code may be skipped by jumps.
  void Enter() { depth++; }
  void Leave() { depth--; }
  // After a call the line is another one; several_files says whether the file is, too.
  void ForgetPlace(bool several_files);

 private:
  void FlushText();
  void FlushPiece(std::string_view text);
  void Word(unsigned short word);
  void Operand(int value);
  void Fill(const CodeLabel::Use& use, int offset);

  const Diagnostics* diagnostics;
  AssemblyProgram* program;
  bool every_line;
  Segment* segment = nullptr;
  int place_file = 0;
  int place_offset = 0;
  int known_file = -1;
  int known_line = -1;
  // The file that was noted where no jump skips it; -1 if none was.
  int certain_file = -1;
  int depth = 0;
  bool compressed = false;
  std::string pending;
};

#endif

// A machine whose code is an expression, compiled from its text into the start segment.

#ifndef ZEPH_TESTS_SUPPORT_EXPRESSIONMACHINE_H
#define ZEPH_TESTS_SUPPORT_EXPRESSIONMACHINE_H

#include <cstdio>
#include <string>
#include <string_view>

#include "base/machine/ExpressionCompiler.h"
#include "tests/support/Machine.h"

class ExpressionMachine : public Machine {
 public:
  // Arguments of the next compilation, besides the text.
  const char* alias = nullptr;
  const char* source_file = nullptr;
  int line = 0;
  int version = 0x1000B;
  FunctionManager* parent = nullptr;
  ExternalCallManager* calls = &external_calls;

  // Compiles to the end of the existing code. Returns false with the message in failure.
  bool Compile(std::string_view text) {
    ExpressionCompiler compiler(calls, &segments, &dictionary, &functions, parent, text.data(),
                                static_cast<int>(text.size()), alias, segments.Start(), end,
                                source_file, -1, line, version);
    const bool compiled = compiler.Run() == 1;
    start = end;
    end = compiler.position();
    operators = compiler.operators();
    failure.clear();
    if (compiler.error().data) {
      failure.assign(compiler.error().data, static_cast<size_t>(compiler.error().length));
    }
    EXPECT_EQ(compiled, failure.empty());
    return compiled;
  }

  // The code of a text: instructions with their operands after a blank, joined by "; ". Constants
  // are in quotes.
  std::string Code(std::string_view text) {
    return Compile(text) ? Listing() : "failed: " + failure;
  }
  std::string Message(std::string_view text) {
    return Compile(text) ? "compiled: " + Listing() : failure;
  }
  // The stack after the code of a text has run, as Machine::StackText writes it.
  std::string Run(std::string_view text) {
    if (!Compile(text)) return "failed: " + failure;
    return Go() == 1 ? StackText() : "stopped: " + Failure();
  }

  std::string Listing() {
    std::string all;
    const Segment* code = segments.Start();
    for (int at = start; at < end;) {
      unsigned short word = 0;
      at = code->Read_Word(at, &word);
      const Instruction::Row* row = Instruction::Find(word);
      if (at < 0 || !row) return all + "; no instruction";
      all += (all.empty() ? "" : "; ") + std::string(row->name);
      all += OperandText(word, row->first, &at);
      all += OperandText(word, row->second, &at);
    }
    return all;
  }

  std::string failure;
  int start = 0;
  int operators = 0;

 private:
  std::string OperandText(unsigned short word, Instruction::Operand kind, int* at) {
    if (kind == Instruction::Operand::None) return "";
    const Segment* code = segments.Start();
    if (kind == Instruction::Operand::Double) {
      double value = 0;
      char text[64];
      *at = code->Read_Double(*at, &value);
      snprintf(text, sizeof text, " %.15g", value);
      return text;
    }
    unsigned value = 0;
    *at = code->Read_Dword(*at, &value);
    const int number = static_cast<int>(value);
    if (kind == Instruction::Operand::Number) return " " + std::to_string(number);
    std::string name = "(no name)";
    if (kind == Instruction::Operand::Text) {
      int length = 0;
      if (const char* text = dictionary.Entry(number, &length)) {
        name.assign(text, static_cast<size_t>(length));
      }
    }
    if (kind == Instruction::Operand::Function) {
      if (Function* function = functions.Lookup(number)) name = function->name().data;
    }
    return word == Instruction::pushc ? " \"" + name + "\"" : " " + name;
  }
};

#endif

// The table of instructions and its look-ups. Tested in tests/base/compiled/InstructionsTest.cpp.
#include "base/compiled/Instructions.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "base/core/MeasuredLength.h"

namespace Instruction {
namespace {

constexpr bool Listed = true;
constexpr bool Unlisted = false;

// Counts the entries of an effect such as "( a b... -- [c] )  text". Runs at compile time, where a
// text of another form is an error.
constexpr StackEffect CountsOf(std::string_view effect) {
  StackEffect counts{};
  bool before = true;
  size_t i = 1;
  for (;;) {
    while (effect[i] == ' ') i++;
    if (effect[i] == ')') return counts;
    const size_t begin = i;
    while (effect[i] != ' ') i++;
    const std::string_view item = effect.substr(begin, i - begin);
    if (item == "--") {
      before = false;
    } else if (item.ends_with("...")) {
      counts.takes_more = true;
    } else if (before) {
      counts.taken++;
    } else {
      counts.most_put++;
      if (item[0] != '[') counts.least_put++;
    }
  }
}

constexpr Row rows[] = {
#define INSTRUCTION(word, identifier, name, first, second, run, listed, effect) \
  {word, name, Operand::first, Operand::second, Run::run, listed, effect, CountsOf(effect)},
#include "base/compiled/Instructions.def"
#undef INSTRUCTION
};
constexpr int row_count = sizeof rows / sizeof rows[0];

constexpr int OperandSize(Operand operand) {
  return operand == Operand::None ? 0 : operand == Operand::Double ? 8 : 4;
}

// Both the list and the top bits of a word declare the operands; they must agree.
constexpr bool OperandsMatchWords() {
  for (const Row& row : rows) {
    if (FirstOperandSize(row.word) != OperandSize(row.first)) return false;
    if (SecondOperandSize(row.word) != OperandSize(row.second)) return false;
  }
  return true;
}
static_assert(OperandsMatchWords());

constexpr bool WordsAreUnique() {
  for (int i = 0; i < row_count; i++) {
    for (int k = 0; k < i; k++) {
      if (rows[i].word == rows[k].word) return false;
    }
  }
  return true;
}
static_assert(WordsAreUnique());
static_assert(row_count < 255);

constexpr std::array<unsigned char, row_count> rows_by_name = [] {
  std::array<unsigned char, row_count> order{};
  for (int i = 0; i < row_count; i++) order[i] = static_cast<unsigned char>(i);
  std::sort(order.begin(), order.end(), [](unsigned char a, unsigned char b) {
    return std::string_view(rows[a].name) < std::string_view(rows[b].name);
  });
  return order;
}();

constexpr bool NamesAreUnique() {
  for (int i = 1; i < row_count; i++) {
    if (std::string_view(rows[rows_by_name[i - 1]].name) == rows[rows_by_name[i]].name)
      return false;
  }
  return true;
}
static_assert(NamesAreUnique());

}  // namespace

const Row* const Rows = rows;
const int RowCount = row_count;

constexpr std::array<Code, 65536> MakeCodes() {
  std::array<Code, 65536> codes{};
  for (int i = 0; i < row_count; i++) codes[rows[i].word] = static_cast<Code>(i + 1);
  return codes;
}
constinit const std::array<Code, 65536> Codes = MakeCodes();

const Row* Find(unsigned short word) {
  const int code = Codes[word];
  return code == code_none ? nullptr : &rows[code - 1];
}

const Row* Find(const char* name, int length) {
  std::string_view wanted(name, static_cast<size_t>(MeasuredLength(name, length)));
  auto found = std::lower_bound(
      rows_by_name.begin(), rows_by_name.end(), wanted,
      [](unsigned char i, std::string_view text) { return std::string_view(rows[i].name) < text; });
  if (found == rows_by_name.end() || rows[*found].name != wanted) return nullptr;
  return &rows[*found];
}

}  // namespace Instruction

// Arguments and results of the library's functions. Tested in
// tests/extensions/zephstd/ArgumentsTest.cpp.

#include "extensions/zephstd/Call.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>

#include "extensions/quote.h"

namespace zephstd {

std::string_view TextOf(ZPVARIABLE variable) {
  int length = 0;
  const char* const text = zpVariable_Value(variable, &length);
  // Never null, which functions of C do not take even with a length of 0.
  return length > 0 ? std::string_view(text, static_cast<size_t>(length)) : std::string_view("");
}

long long WholePart(double value) {
  if (std::isnan(value)) return 0;
  const auto most = static_cast<double>(kMostInteger);
  return static_cast<long long>(std::clamp(value, -most, most));
}

static bool ReadHexadecimal(std::string_view digits, double* value) {
  unsigned long long number = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stop, problem] = std::from_chars(digits.data(), end, number, 16);
  if (problem != std::errc() || stop != end) return false;
  *value = static_cast<double>(number);
  return true;
}

bool ReadNumber(std::string_view text, double* value) {
  if (text.size() > 2 && text[0] == '0' && (text[1] | 0x20) == 'x') {
    return ReadHexadecimal(text.substr(2), value);
  }
  // from_chars takes no plus, and words for what is no number.
  const bool positive = !text.empty() && text[0] == '+';
  if (positive) text.remove_prefix(1);
  const size_t digit = text.size() > 1 && text[0] == '-' && !positive ? 1 : 0;
  if (text.size() <= digit || !((text[digit] >= '0' && text[digit] <= '9') || text[digit] == '.')) {
    return false;
  }
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, problem] = std::from_chars(text.data(), end, number);
  if (problem == std::errc::invalid_argument || stop != end) return false;
  // A number that is too large for a double is none; one that is too small is 0.
  if (problem == std::errc::result_out_of_range) {
    const size_t exponent = text.find_first_of("eE");
    const size_t first = text.find_first_not_of("-0");
    const bool small =
        exponent != std::string_view::npos ? text[exponent + 1] == '-' : text[first] == '.';
    if (!small) return false;
    number = 0;
  }
  *value = number;
  return true;
}

void StoreNumber(ZPVARIABLE variable, double value) {
  if (value >= INT_MIN && value <= INT_MAX && value == std::trunc(value)) {
    zpVariable_SetValue_Integer(variable, static_cast<int>(value));
  } else {
    zpVariable_SetValue_Double(variable, value);
  }
}

void MakeArray(ZPVARIABLE variable) {
  zpVariable_SetValue(variable, "", 0);
  zpVariable_Delete_Array_Elements(1, -1, 1, variable);
}

void MakeStructure(ZPVARIABLE variable) {
  zpVariable_SetValue(variable, "", 0);
  zpVariable_Struct_Member("x", 1, variable, 1);
  zpVariable_Delete_Struct_Member("x", 1, variable);
}

// --- Calls ---------------------------------------------------------------------------------------

Call::Call(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, const Row& row)
    : running(program), returned(result), row(row) {
  for (int i = 0; i < row.count; i++) std::construct_at(&arguments[i]);
  for (int i = 0; i < row.count; i++) {
    // By position, because a script may declare them by other names.
    arguments[i].variable = zpVariableHash_Index(parameters, i, 0);
    if (arguments[i].variable == nullptr) {
      Fail(i, "is missing");
      return;
    }
    if (!Read(i)) return;
  }
}

bool Call::Read(int i) {
  Argument& argument = arguments[i];
  const Kind kind = row.parameters[i].kind;
  if (kind == Kind::Any) return true;
  const int type = zpVariable_Aggregate_Type(argument.variable);
  if (kind == Kind::List) {
    if (type == 1 || type == 2) return true;
    // What was never set is an empty array.
    if (TextOf(argument.variable).empty()) return true;
    return Fail(i, "is no array");
  }
  if (type == 1) return Fail(i, "is an array");
  if (type == 2) return Fail(i, "is a structure");
  if (kind == Kind::Text) {
    argument.text = TextOf(argument.variable);
    argument.given = !argument.text.empty();
    return true;
  }
  return ReadNumber(i);
}

bool Call::ReadNumber(int i) {
  Argument& argument = arguments[i];
  switch (zpVariable_Type(argument.variable)) {
    case 1:
      argument.integer = zpVariable_Value_Integer(argument.variable);
      argument.number = static_cast<double>(argument.integer);
      return true;
    case 2: argument.number = zpVariable_Value_Double(argument.variable); break;
    default: {
      const std::string_view text = TextOf(argument.variable);
      argument.given = !text.empty();
      if (argument.given && !zephstd::ReadNumber(text, &argument.number)) {
        return Fail(i, "is not a number");
      }
    }
  }
  argument.integer = WholePart(argument.number);
  return true;
}

bool Call::Fail(std::string_view message) {
  has_failed = true;
  std::string whole(row.name);
  whole += ": ";
  whole += message;
  zpProgram_FatalError(running, whole.data(), static_cast<int>(whole.size()));
  return false;
}

bool Call::Fail(int i, std::string_view message) {
  std::string whole = "'";
  whole += row.parameters[i].name;
  whole += "' ";
  whole += message;
  return Fail(whole);
}

bool Call::Fail(int i, std::string_view message, std::string_view quoted) {
  std::string whole(message);
  whole += ": '";
  whole += EncodedQuote(quoted);
  whole += "'";
  return Fail(i, whole);
}

bool Call::FailTooLarge() {
  return Fail("the result is larger than 64 MB");
}

void Call::Return(std::string_view text) const {
  zpVariable_SetValue(returned, text.empty() ? "" : text.data(), static_cast<int>(text.size()));
}

void Call::ReturnInteger(long long value) const {
  StoreNumber(returned, static_cast<double>(value));
}

void Call::ReturnNumber(double value) const {
  StoreNumber(returned, value);
}

// --- Results -------------------------------------------------------------------------------------

Builder::~Builder() {
  if (data != inside) zpProgram_Free(program, data);
}

bool Builder::Grow(size_t count) {
  if (call.failed()) return false;
  if (count > kMostBytes - used) return call.FailTooLarge();
  const size_t wanted = std::min<size_t>(std::max(used + count, capacity * 2), kMostBytes);
  // With room for a NUL, which the engine may add.
  char* const larger =
      static_cast<char*>(zpProgram_Allocate(program, static_cast<int>(wanted) + 1));
  memcpy(larger, data, used);
  if (data != inside) zpProgram_Free(program, data);
  data = larger;
  capacity = wanted;
  return true;
}

void Builder::Add(size_t count, char c) {
  if (char* to = Room(count)) memset(to, c, count);
}

void Builder::Return() {
  if (call.failed()) return;
  if (data == inside) {
    call.Return(text());
    return;
  }
  char* const adopted = data;
  data = inside;
  adopted[used] = '\0';
  zpVariable_SetValue_Nocopy(call.result(), adopted, static_cast<int>(used),
                             static_cast<int>(capacity) + 1);
}

ArrayBuilder::ArrayBuilder(Call& call, ZPVARIABLE array) : call(call), array(array) {
  MakeArray(array);
}

bool ArrayBuilder::HasRoom() {
  if (call.failed()) return false;
  return used < kMostElements || call.Fail("the result has more than 1,000,000 elements");
}

ZPVARIABLE ArrayBuilder::Next() {
  return HasRoom() ? zpVariable_Array_Element(++used, array, 1) : nullptr;
}

void ArrayBuilder::Add(std::string_view text) {
  if (ZPVARIABLE element = Next()) {
    zpVariable_SetValue(element, text.empty() ? "" : text.data(), static_cast<int>(text.size()));
  }
}

void ArrayBuilder::AddNumber(double value) {
  if (ZPVARIABLE element = Next()) StoreNumber(element, value);
}

void ArrayBuilder::Share(ZPVARIABLE element) {
  if (HasRoom()) zpVariable_Set_Array_Element(++used, element, array);
}

}  // namespace zephstd

// Reads the text that describes a new table's fields. Tested in
// tests/base/database/XBaseFieldSpecificationTest.cpp.

#include "base/database/XBaseFieldSpecification.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/core/ascii.h"
#include "base/core/memcmpi.h"
#include "base/database/XBaseList.h"
#include "base/database/XBaseMemoField.h"

using XBaseList::Trimmed;

namespace {

constexpr size_t kMostName = 10;
constexpr size_t kMostNumberText = 19;  // bytes of a length that are read
constexpr long kMostCharacter = 254;
constexpr long kMostNumeric = 19;
constexpr int kDateLength = 8;
constexpr int kLogicalLength = 1;
constexpr int kMemoLength = 10;

// The tabs are part of the texts.
constexpr char kDangling[] = "Dangling comma in field\tspecification";
constexpr char kNoFields[] = "Field specification does not define any\tfields";
constexpr char kLongName[] = "Field name is longer than the XBase limit of 10 characters";
constexpr char kUsedName[] = "Field name is used more than once in the field specification";
constexpr char kNoName[] = "Empty field name in field specification";
constexpr char kNoType[] = "Empty field type in field specification";
constexpr char kUnknownType[] = "Unknown field type in field specification";
constexpr char kNoLength[] = "Error in field specification: CHAR datatypes require a length";
constexpr char kLongCharacter[] =
    "CHAR fields may\tonly be\t254 characters long, field is too long";
constexpr char kLongNumeric[] = "NUMERIC\tfields may only\tbe 19 digits, field is too many digits";
constexpr char kUnexpected[] = "Unexpected character following field declaration";

// The number at the beginning of a text, 0 if there is none. A number that no field can have stays
// one, however large it is.
long NumberOf(std::string_view text) {
  constexpr long kTooMuch = 1000000;
  size_t i = 0;
  while (i < text.size() && zp_isspace(static_cast<unsigned char>(text[i]))) i++;
  const bool negative = i < text.size() && text[i] == '-';
  if (negative || (i < text.size() && text[i] == '+')) i++;
  long value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; i++)
    value = std::min(value * 10 + (text[i] - '0'), kTooMuch);
  return negative ? -value : value;
}

// One item of the text, with what was found out about it.
class Item {
 public:
  explicit Item(List<XBaseField>& fields) : fields(fields) {}

  // Appends the field. Returns null, or the message. The text is trimmed.
  const char* Read(std::string_view text) {
    if (text.empty()) return kDangling;
    const size_t name_end = std::min(text.find_first_of(XBaseList::kWhiteSpace), text.size());
    if (const char* message = ReadName(text.substr(0, name_end))) return message;
    const std::string_view type_text = Trimmed(text.substr(name_end));
    if (type_text.empty()) return kNoType;
    if (const char* message = ReadType(type_text)) return message;
    InsertOwned(fields, MakeField(), ListTail);
    return nullptr;
  }

 private:
  const char* ReadName(std::string_view text) {
    if (text.size() > kMostName) return kLongName;
    name_length = std::min(text.find('\0'), text.size());
    std::transform(text.begin(), text.begin() + name_length, name, [](char c) {
      return static_cast<char>(zp_toupper(static_cast<unsigned char>(c)));
    });
    const std::string_view folded(name, name_length);
    for (XBaseField* field = fields.First(); field; field = fields.Next())
      if (folded == field->name()) return kUsedName;
    return folded.empty() ? kNoName : nullptr;
  }

  const char* ReadType(std::string_view text) {
    if (Begins(text, "char")) return ReadCharacter(text.substr(4));
    if (Begins(text, "number")) return ReadNumeric(text.substr(6));
    if (Begins(text, "date")) return Fixed(XBaseField_Date, kDateLength);
    if (Begins(text, "bool")) return Fixed(XBaseField_Logical, kLogicalLength);
    if (Begins(text, "memo")) return Fixed(XBaseField_Memo, kMemoLength);
    return kUnknownType;
  }

  static bool Begins(std::string_view text, std::string_view word) {
    return text.size() >= word.size() && memcmpi(text.data(), word.data(), word.size()) == 0;
  }

  const char* Fixed(XBaseFieldType fixed_type, int fixed_length) {
    type = fixed_type;
    length = fixed_length;
    return nullptr;
  }

  // Anything may be between the word and its parenthesis: "character(10)".
  const char* ReadCharacter(std::string_view text) {
    const size_t open = text.find('(');
    if (open == std::string_view::npos) return kNoLength;
    if (const char* message = ReadParentheses(text.substr(open))) return message;
    length = NumberOf(number);
    type = XBaseField_Character;
    if (length < 1) return kNoLength;
    return length > kMostCharacter ? kLongCharacter : nullptr;
  }

  // "8.2" is eight digits, a point, and two decimals.
  const char* ReadNumeric(std::string_view text) {
    type = XBaseField_Numeric;
    length = kMostNumeric;
    text = Trimmed(text);
    if (text.empty() || text[0] != '(') return nullptr;
    if (const char* message = ReadParentheses(text)) return message;
    const size_t point = std::min(number.find('.'), number.size());
    const long digits = NumberOf(number.substr(0, point));
    decimals = point < number.size() ? NumberOf(number.substr(point + 1)) : 0;
    length = decimals == 0 ? digits : digits + decimals + 1;
    const bool fits = digits >= 0 && decimals >= 0 && length >= 1 && length <= kMostNumeric;
    return fits ? nullptr : kLongNumeric;
  }

  // REQUIRES: the text begins with "(". Without ")" the number goes up to the end.
  const char* ReadParentheses(std::string_view text) {
    const size_t close = std::min(text.find(')'), text.size());
    number = Trimmed(text.substr(1, close - 1)).substr(0, kMostNumberText);
    const bool ends = close == text.size() || Trimmed(text.substr(close + 1)).empty();
    return ends ? nullptr : kUnexpected;
  }

  std::unique_ptr<XBaseField> MakeField() const {
    const int bytes = static_cast<int>(length), count = static_cast<int>(name_length);
    if (type == XBaseField_Memo)
      return std::make_unique<XBaseMemoField>(nullptr, name, count, bytes, 0);
    return std::make_unique<XBaseField>(nullptr, name, count, type, bytes,
                                        static_cast<int>(decimals));
  }

  List<XBaseField>& fields;
  char name[kMostName] = {};
  size_t name_length = 0;
  std::string_view number;
  XBaseFieldType type = XBaseField_Character;
  long length = 0;
  long decimals = 0;
};

}  // namespace

bool XBaseFieldSpecification::Parse(const char* text, int length, List<XBaseField>& fields,
                                    String* error) {
  const std::string_view all = KeyText(text, length);
  const char* message = all.empty() ? kNoFields : nullptr;
  XBaseList::ForEach(all, [&](std::string_view item) {
    message = Item(fields).Read(item);
    return !message;
  });
  if (message) *error = message;
  return !message;
}

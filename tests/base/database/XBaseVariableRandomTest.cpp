// Random stores, reads and commits on the variables of a real table, compared step by step with a
// model of each kind, and the bytes of the file compared with what the model says was written.

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/support/FieldVariables.h"

namespace {

// --- Number texts --------------------------------------------------------------------------------

// Whole decimal numbers only; they wrap at 32 bits.
int IntegerOf(const std::string& text) {
  const bool minus = !text.empty() && text[0] == '-';
  if (!minus && (text.empty() || !isdigit(static_cast<unsigned char>(text[0])))) return 0;
  uint32_t value = 0;
  for (size_t i = minus ? 1 : 0; i < text.size(); i++) {
    if (!isdigit(static_cast<unsigned char>(text[i]))) return 0;
    value = value * 10 + static_cast<uint32_t>(text[i] - '0');
  }
  return static_cast<int32_t>(minus ? 0 - value : value);
}

double DoubleOf(const std::string& text, bool* bad = nullptr) {
  if (bad) *bad = false;
  char* end;
  const double value = strtod(text.c_str(), &end);
  if (*end == '\0' && (end != text.c_str() || text.empty())) return value;
  if (bad) *bad = true;
  return 0.0;
}

std::string TextOfDouble(double value) {
  char text[400];
  const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed);
  return {text, result.ptr};
}

int Truncated(double value) {
  return std::abs(value) < 2147483648.0 ? static_cast<int>(value) : INT32_MIN;
}

bool IsTrueText(const std::string& text) {
  int points = 0;
  for (const char c : text) {
    if (c == '.' && ++points < 2) continue;
    if (c != '0') return true;
  }
  return false;
}

std::string Trimmed(std::string text) {
  while (!text.empty() && strchr(" \t\n\v\f\r", text.back())) text.pop_back();
  return text;
}

// --- The models ----------------------------------------------------------------------------------

struct Source {
  std::string text;
  double number;
  bool is_true;
};

class Model {
 public:
  Model(Column column) : column(column) {}
  virtual ~Model() = default;

  virtual bool SetText(const std::string& t) = 0;
  virtual bool Adopt(const std::string& t) { return SetText(t); }
  virtual bool SetSource(const Source& s) = 0;
  virtual bool SetInteger(int i) = 0;
  virtual bool SetDouble(double d) = 0;
  virtual void ToText() = 0;
  virtual void ToInteger() = 0;
  virtual void ToDouble() = 0;
  virtual double Compare(bool* bad) = 0;
  virtual void Commit() = 0;

  std::string Value() {
    if (!(forms & kText)) ToText();
    return text;
  }
  int Integer() {
    if (!(forms & kInteger)) ToInteger();
    return integer;
  }
  double Double() {
    if (!(forms & kDouble)) ToDouble();
    return number;
  }
  bool IsTrue() {
    if (forms & kText) return IsTrueText(text);
    if (forms & kDouble) return number != 0.0;
    if (forms & kInteger) return integer != 0;
    return IsTrueText(Value());
  }
  bool IsNULL() const { return forms & kText ? text.empty() : forms == 0; }
  void SetNULL() { forms = 0, primary = 0; }
  void SetDirty() { forms = 0, primary = 0; }
  void SetOriginal() {
    saved_text = text, saved_integer = integer, saved_number = number;
    saved_forms = forms, saved_primary = primary;
    changed = false, forms = 0, primary = 0;
  }
  void SwapOriginal() {
    text = saved_text, integer = saved_integer, number = saved_number;
    forms = saved_forms, primary = saved_primary;
  }

  // The field: its text now and that of the file.
  void Set(const std::string& t) {
    now = column.type == XBaseField_Memo ? t : t.substr(0, static_cast<size_t>(column.length));
  }
  // The bytes of a record, but not for a memo.
  std::string Bytes() const {
    const std::string blanks(static_cast<size_t>(column.length) - now.size(), ' ');
    return column.type == XBaseField_Numeric ? blanks + now : now + blanks;
  }
  // What the field holds after the record was written and read again.
  std::string Reread() const {
    if (column.type == XBaseField_Memo) return now;
    std::string read = Bytes();
    if (column.type == XBaseField_Character) read.erase(read.find_last_not_of(' ') + 1);
    if (column.type == XBaseField_Numeric) read.erase(0, read.find_first_not_of(' '));
    return read;
  }
  std::string NumberText() const {
    return forms & kDouble ? TextOfDouble(number) : std::to_string(integer);
  }

  Column column;
  std::string now, before;
  bool changed = false;
  unsigned forms = 0;
  int primary = 0;
  std::string text;
  int integer = 0;
  double number = 0.0;

 protected:
  bool Text(const std::string& t) {
    text = t, forms = kText, primary = 1, changed = true;
    return true;
  }
  bool Whole(int i) {
    integer = i, forms = kInteger, primary = 2, changed = true;
    return true;
  }
  bool Real(double d) {
    number = d, forms = kDouble, primary = 3, changed = true;
    return true;
  }
  bool HasNumber() const { return forms & (kDouble | kInteger); }
  double CompareText(bool* bad) {
    number = DoubleOf(text, bad);
    if (!*bad) forms |= kDouble;
    return number;
  }

 private:
  std::string saved_text;
  int saved_integer = 0;
  double saved_number = 0.0;
  unsigned saved_forms = 0;
  int saved_primary = 0;
};

class StringModel : public Model {
 public:
  using Model::Model;
  bool memo() const { return column.type == XBaseField_Memo; }
  bool SetText(const std::string& t) override {
    return Text(memo() ? t : Trimmed(t.substr(0, static_cast<size_t>(column.length))));
  }
  bool SetSource(const Source& s) override { return SetText(s.text); }
  bool SetInteger(int i) override { return memo() ? Whole(i) : SetText(std::to_string(i)); }
  bool SetDouble(double d) override { return memo() ? Real(d) : SetText(TextOfDouble(d)); }
  void FromField() { text = now, forms |= kText, primary = 1; }
  void ToText() override {
    if (!HasNumber()) {
      FromField();
    } else {
      text = NumberText();
      forms |= kText;
    }
  }
  void ToInteger() override {
    if (!(forms & (kText | kDouble))) FromField();
    integer = forms & kText ? IntegerOf(text) : Truncated(number);
    forms |= kInteger;
  }
  void ToDouble() override {
    if (!(forms & (kText | kInteger))) FromField();
    number = forms & kText ? DoubleOf(text) : integer;
    forms |= kDouble;
  }
  double Compare(bool* bad) override {
    if (!(forms & kText) && HasNumber()) return DoubleOf(now, bad);
    if (!(forms & kText)) FromField();
    return CompareText(bad);
  }
  void Commit() override {
    if (changed && forms) Set(Value());
    changed = false;
  }
};

class BooleanModel : public Model {
 public:
  using Model::Model;
  bool SetText(const std::string& t) override { return Whole(IsTrueText(t)); }
  bool SetSource(const Source& s) override { return Whole(s.is_true); }
  bool SetInteger(int i) override { return Whole(i != 0); }
  bool SetDouble(double d) override { return Real(d != 0.0); }
  bool Field() const { return !now.empty() && strchr("TtYy", now[0]); }
  void ToText() override {
    if (HasNumber()) {
      text = NumberText();
    } else {
      text = Field() ? "1" : "0";
      primary = 1;
    }
    forms |= kText;
  }
  void ToInteger() override {
    if (forms & kText) {
      integer = IntegerOf(text);
    } else if (forms & kDouble) {
      integer = Truncated(number);
    } else {
      integer = Field();
      primary = 2;
    }
    forms |= kInteger;
  }
  void ToDouble() override {
    if (forms & kText) {
      number = DoubleOf(text);
    } else if (forms & kInteger) {
      number = integer;
    } else {
      number = Field();
      primary = 3;
    }
    forms |= kDouble;
  }
  double Compare(bool* bad) override {
    Value();
    return CompareText(bad);
  }
  void Commit() override {
    if (changed) Set(IsTrue() ? "T" : "F");
    changed = false;
  }
};

class NumberModel : public Model {
 public:
  using Model::Model;
  // The text with the decimals of the field.
  std::string Clean(std::string t) const {
    if (t.empty()) t = "0";
    const size_t point = t.find('.');
    if (column.decimals == 0) return t.substr(0, point);
    if (point == std::string::npos) t += '.';
    const size_t end = t.find('.') + 1 + static_cast<size_t>(column.decimals);
    t.resize(end, '0');
    return t;
  }
  bool SetText(const std::string& t) override {
    std::string digits = t;
    if (!digits.empty() && digits[0] == '-') digits.erase(0, 1);
    if (const size_t point = digits.find('.'); point != std::string::npos) digits.erase(point, 1);
    if (digits.find_first_not_of("0123456789") != std::string::npos) return false;
    return Text(Clean(t));
  }
  bool SetSource(const Source& s) override {
    const auto places = static_cast<int>(s.text.substr(0, s.text.find('.')).size());
    if (places > column.length - (column.decimals > 0 ? 1 + column.decimals : 0)) return false;
    return Real(s.number);
  }
  bool SetInteger(int i) override { return Whole(i); }
  bool SetDouble(double d) override {
    if (column.decimals == 0) return Real(Truncated(d));
    const double whole = std::trunc(d);
    const double power = std::pow(10, column.decimals);
    return Real(Truncated((d - whole) * power) / power + whole);
  }
  void ToText() override {
    text = HasNumber() ? Clean(NumberText()) : now;
    forms |= kText;
  }
  void ToInteger() override {
    integer = forms & kDouble ? Truncated(number) : IntegerOf(forms & kText ? text : now);
    forms |= kInteger;
  }
  void ToDouble() override {
    if (forms & kText) {
      number = DoubleOf(text);
    } else {
      number = forms & kInteger ? integer : DoubleOf(now);
    }
    forms |= kDouble;
  }
  double Compare(bool* bad) override {
    *bad = false;
    return Double();
  }
  void Commit() override {
    Value();
    if (changed) Set(text);
    changed = false;
  }
};

class DateModel : public Model {
 public:
  using Model::Model;
  static bool IsDate(const std::string& t) {
    return t.size() == 8 && t.find_first_not_of("0123456789") == std::string::npos &&
           t.substr(4, 2) <= "12" && t.substr(6, 2) <= "31";
  }
  bool Keep(const std::string& t) {
    text = t.substr(0, static_cast<size_t>(column.length)), forms = kText, changed = true;
    return true;
  }
  bool SetText(const std::string& t) override { return IsDate(t) && Keep(t); }
  bool Adopt(const std::string& t) override { return Keep(t); }
  bool SetSource(const Source& s) override { return SetText(s.text); }
  bool SetNumber(const std::string& t) {
    changed = true;
    if (IsDate(t)) return Keep(t);
    // The record must not lose its date.
    if (forms == 0) text = now, forms = kText;
    return false;
  }
  bool SetInteger(int i) override { return SetNumber(std::to_string(i)); }
  bool SetDouble(double d) override { return SetNumber(TextOfDouble(d)); }
  void ToText() override {
    text = HasNumber() ? NumberText() : now;
    forms |= kText;
  }
  void ToInteger() override {
    integer = forms & kDouble ? Truncated(number) : IntegerOf(forms & kText ? text : now);
    forms |= kInteger;
  }
  void ToDouble() override {
    if (forms & kText) {
      number = DoubleOf(text);
    } else {
      number = forms & kInteger ? integer : DoubleOf(now);
    }
    forms |= kDouble;
  }
  double Compare(bool* bad) override {
    if (!(forms & kText)) text = now, forms |= kText;
    return CompareText(bad);
  }
  void Commit() override {
    if (changed) Set(forms ? Value() : "");
    changed = false;
  }
};

// --- The comparison ------------------------------------------------------------------------------

const std::vector<Column> kColumns = {
    {"NAME", XBaseField_Character, 6, 0}, {"PRICE", XBaseField_Numeric, 8, 2},
    {"COUNT", XBaseField_Numeric, 5, 0},  {"DAY", XBaseField_Date, 8, 0},
    {"PAID", XBaseField_Logical, 1, 0},   {"NOTE", XBaseField_Memo, 10, 0}};
constexpr int kRecords = 3;

class XBaseVariableRandomTest : public FieldVariables, public ::testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    MakeTable(kColumns, {"first", "1.25", "7", "20040229", "T", "a memo"});
    ASSERT_TRUE(AppendRow(table(), {"", "", "", "", "", ""}));
    ASSERT_TRUE(AppendRow(table(), {"12", "-3.50", "123", "19991231", "y", "42"}));
    models.push_back(std::make_unique<StringModel>(kColumns[0]));
    models.push_back(std::make_unique<NumberModel>(kColumns[1]));
    models.push_back(std::make_unique<NumberModel>(kColumns[2]));
    models.push_back(std::make_unique<DateModel>(kColumns[3]));
    models.push_back(std::make_unique<BooleanModel>(kColumns[4]));
    models.push_back(std::make_unique<StringModel>(kColumns[5]));
    fields = {Make<XBaseStringVariable>(FieldOf(table(), 0)),
              Make<XBaseNumberVariable>(FieldOf(table(), 1)),
              Make<XBaseNumberVariable>(FieldOf(table(), 2)),
              Make<XBaseDateVariable>(FieldOf(table(), 3)),
              Make<XBaseBooleanVariable>(FieldOf(table(), 4)),
              Make<XBaseStringVariable>(FieldOf(table(), 5))};
    records[1] = {"first", "1.25", "7", "20040229", "T", "a memo"};
    records[2] = {"", "", "", "        ", " ", ""};
    records[3] = {"12", "-3.50", "123", "19991231", "y", "42"};
    Move(1);
  }

  int Pick(int count) { return static_cast<int>(random() % static_cast<unsigned>(count)); }
  std::string RandomText() {
    static const char* texts[] = {"",
                                  "0",
                                  "0.0",
                                  "1",
                                  "12.5",
                                  "-3.999",
                                  "abc",
                                  "  x  ",
                                  "20041231",
                                  "20041301",
                                  "T",
                                  ".",
                                  "-",
                                  "99999",
                                  "123456",
                                  "1.2.3",
                                  "long text here",
                                  "00000000",
                                  "20040230",
                                  "-12345.6",
                                  " 7",
                                  "4294967297"};
    const int pick = Pick(std::size(texts) + 3);
    if (pick < static_cast<int>(std::size(texts))) return texts[pick];
    return std::to_string(Pick(1000000) - 500000);
  }
  int RandomInteger() {
    static const int numbers[] = {0, 1, -1, 20041231, 20041301, 101, INT32_MAX, INT32_MIN};
    return Pick(2) ? numbers[Pick(std::size(numbers))] : Pick(200000) - 100000;
  }
  double RandomDouble() {
    static const double numbers[] = {0.0, -0.0, 1.0, 20041231.0, 1.999, -1.999, 5e9, 1e18, 0.001};
    return Pick(2) ? numbers[Pick(std::size(numbers))] : (Pick(2000000) - 1000000) / 64.0;
  }

  void Move(int record) {
    ASSERT_TRUE(table().Goto(record));
    current = record;
    for (size_t i = 0; i < fields.size(); i++) {
      fields[i]->SetDirty();
      models[i]->SetDirty();
      models[i]->now = models[i]->before = records[record][i];
    }
  }

  void StoreSomething(size_t i) {
    XBaseVariable* v = fields[i];
    Model& m = *models[i];
    const std::string text = RandomText();
    switch (Pick(7)) {
      case 0: EXPECT_EQ(Store(v, text), m.SetText(text)) << text; return;
      case 1: EXPECT_EQ(::Adopt(v, text), m.Adopt(text)) << text; return;
      case 2: {
        const int number = RandomInteger();
        EXPECT_EQ(v->SetValue_Integer(number), m.SetInteger(number)) << number;
        return;
      }
      case 3: {
        const double number = RandomDouble();
        EXPECT_EQ(v->SetValue_Double(number), m.SetDouble(number)) << number;
        return;
      }
      case 4: {
        const Source source = {text, DoubleOf(text), IsTrueText(text)};
        EXPECT_EQ(StoreVariable(v, text), m.SetSource(source)) << text;
        return;
      }
      case 5: {
        const double number = RandomDouble();
        const Source source = {TextOfDouble(number), number, number != 0.0};
        Variable plain;
        plain.SetValue_Double(number);
        EXPECT_EQ(v->SetValue(plain), m.SetSource(source)) << number;
        return;
      }
      default: v->SetNULL(); m.SetNULL();
    }
  }

  void ReadSomething(size_t i) {
    XBaseVariable* v = fields[i];
    Model& m = *models[i];
    switch (Pick(8)) {
      case 0: EXPECT_EQ(ValueOf(v), m.Value()); return;
      case 1: EXPECT_EQ(v->value_integer(), m.Integer()); return;
      case 2: EXPECT_EQ(v->value_double(), m.Double()); return;
      case 3: {
        int not_numeric = -1;
        bool bad = false;
        EXPECT_EQ(v->value_compare(&not_numeric), m.Compare(&bad));
        EXPECT_EQ(not_numeric, bad);
        return;
      }
      case 4: EXPECT_EQ(v->IsTrue(), m.IsTrue()); return;
      case 5: EXPECT_EQ(v->IsNULL(), m.IsNULL()); return;
      case 6: EXPECT_EQ(v->primary_type(), m.primary); return;
      default: {
        const VariableRef copy(v->Clone(nullptr));
        if (m.primary == 0 || m.forms == 0) m.Value();
        EXPECT_EQ(ValueOf(copy.get()), m.forms & kText ? m.text : m.NumberText());
      }
    }
  }

  // An index computes its key of the old record in between.
  void ReadTheOldRecord() {
    table().SwapOriginal();
    for (size_t i = 0; i < fields.size(); i++) {
      fields[i]->SetOriginal();
      models[i]->SetOriginal();
      std::swap(models[i]->now, models[i]->before);
    }
    for (int reads = Pick(6); reads > 0; reads--) ReadSomething(Any());
    table().SwapOriginal();
    for (size_t i = 0; i < fields.size(); i++) {
      fields[i]->SwapOriginal();
      models[i]->SwapOriginal();
      std::swap(models[i]->now, models[i]->before);
    }
  }

  void CommitAll() {
    for (size_t i = 0; i < fields.size(); i++) {
      fields[i]->Commit();
      models[i]->Commit();
      EXPECT_EQ(::ValueOf(table(), static_cast<int>(i)), models[i]->now) << "field " << i;
    }
  }

  // Writes the record and compares the file with the model.
  void Update() {
    CommitAll();
    if (Pick(2)) ReadTheOldRecord();
    ASSERT_TRUE(table().Update()) << ErrorOf(table());
    const std::string file = directory.Content(last_path);
    size_t at =
        static_cast<size_t>(table().header_length() + (current - 1) * table().record_length() + 1);
    for (size_t i = 0; i < fields.size(); i++) {
      const auto length = static_cast<size_t>(kColumns[i].length);
      if (kColumns[i].type != XBaseField_Memo) {
        EXPECT_EQ(file.substr(at, length), models[i]->Bytes()) << "field " << i;
      }
      at += length;
      models[i]->before = models[i]->now;
      records[current][i] = models[i]->Reread();
    }
  }

  size_t Any() { return static_cast<size_t>(Pick(static_cast<int>(fields.size()))); }

  std::mt19937 random{static_cast<unsigned>(GetParam())};
  std::vector<XBaseVariable*> fields;
  std::vector<std::unique_ptr<Model>> models;
  std::map<int, std::vector<std::string>> records;
  int current = 0;
};

TEST_P(XBaseVariableRandomTest, AgreesWithTheModels) {
  for (int step = 0; step < 4000 && !HasFailure(); step++) {
    SCOPED_TRACE("step " + std::to_string(step));
    const int choice = Pick(20);
    if (choice < 8) {
      const size_t i = Any();
      SCOPED_TRACE(kColumns[i].name);
      StoreSomething(i);
      EXPECT_EQ(fields[i]->primary_type(), models[i]->primary);
    } else if (choice < 16) {
      const size_t i = Any();
      SCOPED_TRACE(kColumns[i].name);
      ReadSomething(i);
    } else if (choice == 16) {
      CommitAll();
    } else if (choice == 17) {
      Update();
    } else if (choice == 18) {
      Move(1 + Pick(kRecords));
    } else {
      const size_t i = Any();
      fields[i]->SetDirty();
      models[i]->SetDirty();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, XBaseVariableRandomTest, ::testing::Range(1, 9));

}  // namespace

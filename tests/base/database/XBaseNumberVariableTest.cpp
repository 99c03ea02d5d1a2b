// The variables of numeric fields.

#include <climits>
#include <cmath>
#include <limits>
#include <string>

#include "tests/support/FieldVariables.h"

namespace {

class XBaseNumberVariableTest : public FieldVariables {
 protected:
  Opened<XBaseNumberVariable>* Number(int length, int decimals, const std::string& value) {
    return Field<XBaseNumberVariable>(XBaseField_Numeric, length, decimals, value);
  }
};

TEST_F(XBaseNumberVariableTest, ANumberHasDigitsAndAtMostOnePoint) {
  const struct {
    const char* text;
    int integer_digits;  // -1 for no number
    int decimal_digits;
  } cases[] = {{"12.5", 2, 1}, {"12", 2, 0},  {"-12.50", 2, 2}, {"", 0, 0},     {"-", 0, 0},
               {".", 0, 0},    {"-.", 0, 0},  {"12.", 2, 0},    {".5", 0, 1},   {"1.2.3", -1, 0},
               {"+1", -1, 0},  {" 1", -1, 0}, {"1 ", -1, 0},    {"abc", -1, 0}, {"1e3", -1, 0},
               {"--1", -1, 0}, {"1-", -1, 0}, {"0x1", -1, 0},   {"..", -1, 0},  {"NaN", -1, 0},
               {"1,5", -1, 0}, {"1/", -1, 0}, {"1:", -1, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    for (const int length : {-1, static_cast<int>(strlen(c.text))}) {
      int integer_digits = 77;
      int decimal_digits = 78;
      const bool valid =
          XBaseNumberVariable::Validate(c.text, length, &integer_digits, &decimal_digits);
      EXPECT_EQ(valid, c.integer_digits >= 0);
      EXPECT_EQ(integer_digits, valid ? c.integer_digits : 77);
      EXPECT_EQ(decimal_digits, valid ? c.decimal_digits : 78);
    }
  }
  int integer_digits, decimal_digits;
  EXPECT_TRUE(XBaseNumberVariable::Validate("12x", 2, &integer_digits, &decimal_digits));
  EXPECT_FALSE(
      XBaseNumberVariable::Validate("1\0"
                                    "2",
                                    3, &integer_digits, &decimal_digits));
}

TEST_F(XBaseNumberVariableTest, ATextGetsTheDecimalsOfTheField) {
  const struct {
    int decimals;
    const char* text;
    const char* kept;
  } cases[] = {{2, "12.5", "12.50"},   {2, "12.567", "12.56"}, {2, "", "0.00"},
               {2, "12.50", "12.50"},  {2, "12", "12.00"},     {2, "12.", "12.00"},
               {2, "-1.999", "-1.99"}, {2, ".5", ".50"},       {2, "-", "-.00"},
               {2, ".", ".00"},        {0, "3.9", "3"},        {0, "3.", "3"},
               {0, "3", "3"},          {0, "", "0"},           {0, ".5", ""},
               {0, ".", ""},           {0, "-3.99", "-3"},     {3, "007.1", "007.100"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " in " + std::to_string(c.decimals));
    const auto check = [&](Opened<XBaseNumberVariable>* v, int result) {
      EXPECT_EQ(result, 1);
      EXPECT_EQ(v->changed, 1);
      EXPECT_EQ(v->forms(), kText);
      EXPECT_EQ(v->primary_type(), 1);
      EXPECT_EQ(ValueOf(v), c.kept);
      EXPECT_STREQ(v->value().data, c.kept);
      v->Commit();
      EXPECT_EQ(v->changed, 0);
      EXPECT_EQ(Held(), c.kept);
    };
    auto* v = Number(8, c.decimals, "1");
    check(v, Store(v, c.text));
    v = Number(8, c.decimals, "1");
    check(v, Adopt(v, c.text));
  }
}

TEST_F(XBaseNumberVariableTest, ATextThatIsNoNumberIsRefused) {
  for (const std::string text : {"abc", "1e3", "12.5.6", " 1", "1 ", "+1"}) {
    auto* v = Number(8, 2, "7.25");
    EXPECT_EQ(Store(v, text), 0);
    EXPECT_EQ(Adopt(v, text), 0);
    EXPECT_EQ(v->changed, 0);
    EXPECT_EQ(v->forms(), 0u);
    EXPECT_EQ(v->error().length, 0);
    EXPECT_EQ(ValueOf(v), "7.25");
    v->SetValue_Integer(5);
    EXPECT_EQ(Store(v, text), 0);
    EXPECT_EQ(v->forms(), kInteger);
    EXPECT_EQ(ValueOf(v), "5.00");
    v->Commit();
    EXPECT_EQ(Adopt(v, text), 0);
    EXPECT_EQ(v->changed, 0);
    EXPECT_EQ(Held(), "5.00");
  }
}

// The whole text is stored; the field takes the bytes that it has room for.
TEST_F(XBaseNumberVariableTest, ATextThatIsTooLongIsCutByTheField) {
  auto* v = Number(5, 2, "1.00");
  EXPECT_EQ(Store(v, "1234567.5"), 1);
  EXPECT_EQ(ValueOf(v), "1234567.50");
  v->Commit();
  EXPECT_EQ(Held(), "12345");
}

TEST_F(XBaseNumberVariableTest, AVariableIsMeasuredByItsTextBeforeThePoint) {
  const struct {
    int length;
    int decimals;
    const char* text;
    int result;
  } cases[] = {
      {8, 2, "12345.5", 1},     {8, 2, "123456.5", 0}, {8, 2, "-1234", 1},  {8, 2, "-12345", 0},
      {8, 2, "1.123456789", 1}, {5, 0, "12345", 1},    {5, 0, "123456", 0}, {5, 0, "-1234", 1},
      {5, 0, "-12345", 0},      {5, 0, "12345.99", 1}, {5, 0, "", 1},       {2, 2, "", 0},
      {3, 2, ".5", 1},          {3, 2, "1", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " in " + std::to_string(c.length));
    auto* v = Number(c.length, c.decimals, "1");
    EXPECT_EQ(StoreVariable(v, std::string(c.text)), c.result);
    EXPECT_EQ(v->changed, c.result);
    EXPECT_EQ(v->forms(), c.result ? kDouble : 0u);
    EXPECT_EQ(v->primary_type(), c.result ? 3 : 0);
    EXPECT_EQ(v->value_double(), c.result ? strtod(c.text, nullptr) : 1.0);
  }
  // The same text is cut by the field instead, if it is stored as a text.
  auto* v = Number(8, 2, "1");
  EXPECT_EQ(Store(v, "123456.5"), 1);
}

// The double of the source is kept as it is; its text is cut.
TEST_F(XBaseNumberVariableTest, ADoubleOfAVariableIsCutWhenItBecomesText) {
  auto* v = Number(8, 2, "1");
  EXPECT_EQ(StoreVariable(v, 1.999), 1);
  EXPECT_EQ(v->value_double(), 1.999);
  EXPECT_EQ(ValueOf(v), "1.99");
  v->Commit();
  EXPECT_EQ(Held(), "1.99");
  EXPECT_EQ(StoreVariable(v, 7), 1);
  EXPECT_EQ(ValueOf(v), "7.00");
  // Not the text is tested, but its length.
  EXPECT_EQ(StoreVariable(v, std::string("abc")), 1);
  EXPECT_EQ(ValueOf(v), "0.00");
  EXPECT_EQ(StoreVariable(v, std::string("abcdef")), 0);
}

TEST_F(XBaseNumberVariableTest, AnIntegerIsStoredAsItIs) {
  auto* v = Number(8, 2, "1");
  EXPECT_EQ(v->SetValue_Integer(-5), 1);
  EXPECT_EQ(v->changed, 1);
  EXPECT_EQ(v->forms(), kInteger);
  EXPECT_EQ(v->primary_type(), 2);
  EXPECT_EQ(v->value_double(), -5.0);
  EXPECT_EQ(ValueOf(v), "-5.00");
  EXPECT_EQ(v->primary_type(), 2);
  v->SetValue_Integer(INT_MAX);
  EXPECT_EQ(ValueOf(v), "2147483647.00");
  v->Commit();
  EXPECT_EQ(Held(), "21474836");
}

TEST_F(XBaseNumberVariableTest, ADoubleLosesItsExcessDecimals) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double infinity = std::numeric_limits<double>::infinity();
  const struct {
    int decimals;
    double value;
    double kept;
    const char* text;
  } cases[] = {{2, 1.999, 1.99, "1.99"},
               {2, -1.999, -1.99, "-1.99"},
               {2, 5.0, 5.0, "5.00"},
               {2, 0.125, 0.12, "0.12"},
               {2, 1e12 + 0.5, 1e12 + 0.5, "1000000000000.50"},
               {0, 3.9, 3.0, "3"},
               {0, -3.9, -3.0, "-3"},
               {0, 5e9, INT_MIN, "-2147483648"},
               {0, -5e9, INT_MIN, "-2147483648"},
               {0, nan, INT_MIN, "-2147483648"},
               {0, infinity, INT_MIN, "-2147483648"},
               {2, infinity, infinity, "Infinity.00"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    auto* v = Number(10, c.decimals, "1");
    EXPECT_EQ(v->SetValue_Double(c.value), 1);
    EXPECT_EQ(v->changed, 1);
    EXPECT_EQ(v->forms(), kDouble);
    EXPECT_EQ(v->primary_type(), 3);
    EXPECT_DOUBLE_EQ(v->value_double(), c.kept);
    EXPECT_EQ(ValueOf(v), c.text);
  }
  auto* v = Number(10, 2, "1");
  EXPECT_EQ(v->SetValue_Double(nan), 1);
  EXPECT_TRUE(std::isnan(v->value_double()));
  EXPECT_EQ(ValueOf(v), "NaN.00");
}

// The power of ten wraps at 32 bits: 10 to the 10th is 1410065408, and from the 32nd on it is 0.
TEST_F(XBaseNumberVariableTest, ManyDecimalsWrapAndTrapNowhere) {
  const struct {
    int decimals;
    double kept;
  } cases[] = {
      {9, 1.5},  {10, 1 + 705032704 / 1410065408.0}, {12, 1.5}, {31, 1.5}, {32, 1.0}, {33, 1.0},
      {255, 1.0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.decimals);
    XBaseField field(nullptr, "F", XBaseField_Numeric, 19, c.decimals);
    auto* v = Make<XBaseNumberVariable>(&field);
    EXPECT_EQ(v->SetValue_Double(1.5), 1);
    EXPECT_EQ(v->value_double(), c.kept);
    EXPECT_EQ(ValueOf(v).size(), static_cast<size_t>(2 + c.decimals));
    v->Commit();
    EXPECT_EQ(strlen(field.data()), std::min<size_t>(19, static_cast<size_t>(2 + c.decimals)));
    for (const double large :
         {1e300, -1e300, 0.999999999999, -0.999999999999, std::numeric_limits<double>::infinity(),
          std::numeric_limits<double>::quiet_NaN()}) {
      EXPECT_EQ(v->SetValue_Double(large), 1);
      v->value();
      v->value_integer();
      v->Commit();
    }
    variables.clear();
  }
  XBaseField field(nullptr, "F", XBaseField_Numeric, 19, -3);
  auto* v = Make<XBaseNumberVariable>(&field);
  EXPECT_EQ(v->SetValue_Double(1.5), 1);
  EXPECT_EQ(ValueOf(v), "1");
  variables.clear();
}

// --- Reads ---------------------------------------------------------------------------------------

TEST_F(XBaseNumberVariableTest, TheTextOfTheFieldIsReadAsItIs) {
  for (const std::string text : {"12.5", "12.567", "", "abc", "1  ", "****"}) {
    auto* v = Number(8, 2, text);
    EXPECT_EQ(ValueOf(v), text);
    EXPECT_EQ(v->forms(), kText);
    EXPECT_EQ(v->primary_type(), 0);
    v->Commit();
    EXPECT_EQ(Held(), text);
  }
}

TEST_F(XBaseNumberVariableTest, NumbersComeStraightFromTheField) {
  const struct {
    const char* text;
    int integer;
    double number;
  } cases[] = {{"12", 12, 12.0}, {"-7", -7, -7.0}, {"12.50", 0, 12.5},
               {"", 0, 0.0},     {"abc", 0, 0.0},  {"1  ", 0, 0.0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    auto* v = Number(8, 2, c.text);
    EXPECT_EQ(v->value_integer(), c.integer);
    EXPECT_EQ(v->forms(), kInteger);
    EXPECT_EQ(v->primary_type(), 0);
    v = Number(8, 2, c.text);
    EXPECT_EQ(v->value_double(), c.number);
    EXPECT_EQ(v->forms(), kDouble);
    EXPECT_EQ(v->primary_type(), 0);
    v = Number(8, 2, c.text);
    int not_numeric = 1;
    EXPECT_EQ(v->value_compare(&not_numeric), c.number);
    EXPECT_EQ(not_numeric, 0);
    EXPECT_EQ(v->forms(), kDouble);
    // From a text that was read before.
    v = Number(8, 2, c.text);
    v->value();
    EXPECT_EQ(v->value_integer(), c.integer);
    EXPECT_EQ(v->value_double(), c.number);
    EXPECT_EQ(v->value_compare(&not_numeric), c.number);
    EXPECT_EQ(not_numeric, 0);
    EXPECT_EQ(v->forms(), kText | kInteger | kDouble);
  }
}

// A text with a point has no integer, and a text is made of the integer that was read first.
TEST_F(XBaseNumberVariableTest, ReadAsAnIntegerFirstDecimalsAreLost) {
  auto* v = Number(8, 2, "12.50");
  EXPECT_EQ(v->value_integer(), 0);
  EXPECT_EQ(ValueOf(v), "0.00");
  v->Commit();
  EXPECT_EQ(Held(), "12.50");
}

TEST_F(XBaseNumberVariableTest, ADoubleGoesFirstForTheIntegerAndTheText) {
  auto* v = Number(8, 2, "12.50");
  v->value_double();
  EXPECT_EQ(v->value_integer(), 12);
  EXPECT_EQ(ValueOf(v), "12.50");
  EXPECT_EQ(v->SetValue_Double(-3.75), 1);
  EXPECT_EQ(v->value_integer(), -3);
  int not_numeric = 1;
  EXPECT_EQ(v->value_compare(&not_numeric), -3.75);
  EXPECT_EQ(ValueOf(v), "-3.75");
}

// Unlike the other kinds, Commit reads the field if there is no text yet.
TEST_F(XBaseNumberVariableTest, CommitLeavesAText) {
  auto* v = Number(8, 2, "12.50");
  v->Commit();
  EXPECT_EQ(v->forms(), kText);
  EXPECT_EQ(v->IsNULL(), 0);
  v->SetValue_Double(2.5);
  v->Commit();
  EXPECT_EQ(v->forms(), kDouble | kText);
  EXPECT_EQ(Held(), "2.50");
}

}  // namespace

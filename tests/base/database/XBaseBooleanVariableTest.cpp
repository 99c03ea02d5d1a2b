// The variables of logical fields.

#include <limits>
#include <string>

#include "tests/support/FieldVariables.h"

namespace {

class XBaseBooleanVariableTest : public FieldVariables {
 protected:
  Opened<XBaseBooleanVariable>* Logical(const std::string& value) {
    return Field<XBaseBooleanVariable>(XBaseField_Logical, 1, 0, value);
  }
};

TEST_F(XBaseBooleanVariableTest, FourLettersAreTrue) {
  for (int letter = 1; letter < 256; letter++) {
    SCOPED_TRACE(letter);
    XBaseField field(nullptr, "F", XBaseField_Logical, 1, 0);
    const char text = static_cast<char>(letter);
    field.Set(&text, 1);
    const int truth = letter == 'T' || letter == 't' || letter == 'Y' || letter == 'y';
    const auto fresh = [&] { return Make<XBaseBooleanVariable>(&field); };
    auto* v = fresh();
    EXPECT_EQ(ValueOf(v), truth ? "1" : "0");
    EXPECT_EQ(v->forms(), kText);
    EXPECT_EQ(v->primary_type(), 1);
    v = fresh();
    EXPECT_EQ(v->value_integer(), truth);
    EXPECT_EQ(v->forms(), kInteger);
    EXPECT_EQ(v->primary_type(), 2);
    v = fresh();
    EXPECT_EQ(v->value_double(), truth);
    EXPECT_EQ(v->forms(), kDouble);
    EXPECT_EQ(v->primary_type(), 3);
    v = fresh();
    int not_numeric = 1;
    EXPECT_EQ(v->value_compare(&not_numeric), truth);
    EXPECT_EQ(not_numeric, 0);
    EXPECT_EQ(v->forms(), kText | kDouble);
    EXPECT_EQ(v->primary_type(), 1);
    EXPECT_EQ(fresh()->IsTrue(), truth);
    variables.clear();
  }
}

TEST_F(XBaseBooleanVariableTest, ABlankFieldIsFalse) {
  EXPECT_EQ(ValueOf(Logical("")), "0");
  EXPECT_EQ(Logical(" ")->value_integer(), 0);
}

TEST_F(XBaseBooleanVariableTest, OnlyTheTruthOfATextIsStored) {
  const struct {
    const char* text;
    int truth;
  } cases[] = {{"", 0},  {"0", 0}, {"0.0", 0}, {".", 0},  {"1", 1},
               {"x", 1}, {"F", 1}, {" ", 1},   {"00", 0}, {"0.0.0", 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const auto check = [&](Opened<XBaseBooleanVariable>* v, int result) {
      EXPECT_EQ(result, 1);
      EXPECT_EQ(v->changed, 1);
      EXPECT_EQ(v->forms(), kInteger);
      EXPECT_EQ(v->primary_type(), 2);
      EXPECT_EQ(v->value_integer(), c.truth);
      EXPECT_EQ(ValueOf(v), c.truth ? "1" : "0");
      v->Commit();
      EXPECT_EQ(v->changed, 0);
      EXPECT_EQ(Held(), c.truth ? "T" : "F");
    };
    auto* v = Logical("?");
    check(v, Store(v, c.text));
    v = Logical("?");
    check(v, Adopt(v, c.text));
    v = Logical("?");
    check(v, StoreVariable(v, std::string(c.text)));
  }
}

TEST_F(XBaseBooleanVariableTest, OnlyTheTruthOfANumberIsStored) {
  for (const int number : {0, 1, -1, 256, std::numeric_limits<int>::min()}) {
    auto* v = Logical("?");
    EXPECT_EQ(v->SetValue_Integer(number), 1);
    EXPECT_EQ(v->changed, 1);
    EXPECT_EQ(v->forms(), kInteger);
    EXPECT_EQ(v->primary_type(), 2);
    EXPECT_EQ(v->value_integer(), number != 0);
    v->Commit();
    EXPECT_EQ(Held(), number ? "T" : "F");
    v = Logical("?");
    EXPECT_EQ(StoreVariable(v, number), 1);
    EXPECT_EQ(v->value_integer(), number != 0);
  }
  for (const double number : {0.0, -0.0, 0.25, -3.0, std::numeric_limits<double>::quiet_NaN()}) {
    auto* v = Logical("?");
    EXPECT_EQ(v->SetValue_Double(number), 1);
    EXPECT_EQ(v->changed, 1);
    EXPECT_EQ(v->forms(), kDouble);
    EXPECT_EQ(v->primary_type(), 3);
    EXPECT_EQ(v->value_double(), number != 0.0 ? 1.0 : 0.0);
    EXPECT_EQ(ValueOf(v), number != 0.0 ? "1" : "0");
    v->Commit();
    EXPECT_EQ(Held(), number != 0.0 ? "T" : "F");
  }
}

TEST_F(XBaseBooleanVariableTest, FormsComeFromOneAnother) {
  auto* v = Logical("F");
  v->SetValue_Double(5.0);
  EXPECT_EQ(v->value_integer(), 1);
  int not_numeric = 1;
  EXPECT_EQ(v->value_compare(&not_numeric), 1.0);
  EXPECT_EQ(v->forms(), kText | kInteger | kDouble);
  v->SetValue_Integer(3);
  EXPECT_EQ(v->value_double(), 1.0);
  EXPECT_EQ(v->value_compare(&not_numeric), 1.0);
  v = Logical("Y");
  v->value();
  EXPECT_EQ(v->value_integer(), 1);
  EXPECT_EQ(v->primary_type(), 1);
  EXPECT_EQ(v->value_double(), 1.0);
}

// What another program has written stays as it is until a script stores something.
TEST_F(XBaseBooleanVariableTest, ALetterIsRewrittenOnlyAfterAStore) {
  auto* v = Logical("y");
  v->value();
  v->Commit();
  EXPECT_EQ(Held(), "y");
  v->SetValue_Integer(1);
  v->SetDirty();
  v->Commit();
  EXPECT_EQ(Held(), "T");
}

}  // namespace

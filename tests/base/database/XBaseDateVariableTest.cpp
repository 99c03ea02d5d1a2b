// The variables of date fields.

#include <string>

#include "tests/support/FieldVariables.h"

namespace {

class XBaseDateVariableTest : public FieldVariables {
 protected:
  Opened<XBaseDateVariable>* Date(const std::string& value) {
    return Field<XBaseDateVariable>(XBaseField_Date, 8, 0, value);
  }
};

const struct {
  const char* label;
  const char* text;
  bool valid;
} kDates[] = {{"a day", "20041231", true},
              {"no lower bound", "00000000", true},
              {"a day that no month has", "20040231", true},
              {"month 13", "20041301", false},
              {"day 32", "20041232", false},
              {"month 12, day 31", "99991231", true},
              {"month 99", "20049901", false},
              {"day 99", "20041299", false},
              {"seven digits", "2004123", false},
              {"nine digits", "200412310", false},
              {"empty", "", false},
              {"blanks", "        ", false},
              {"a letter", "2004123a", false},
              {"a sign", "-0041231", false},
              {"a point", "2004123.", false},
              {"words", "tomorrow", false},
              {"below the digits", "2004/231", false},
              {"above the digits", "2004:231", false}};

TEST_F(XBaseDateVariableTest, ADateHasEightDigitsAndUpperLimits) {
  for (const auto& c : kDates) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(XBaseDateVariable::Validate(c.text, -1), c.valid);
    EXPECT_EQ(XBaseDateVariable::Validate(c.text, static_cast<int>(strlen(c.text))), c.valid);
  }
  EXPECT_FALSE(XBaseDateVariable::Validate(nullptr, 8));
  EXPECT_FALSE(XBaseDateVariable::Validate("20041231", 7));
  EXPECT_FALSE(XBaseDateVariable::Validate("20041231", -2));
}

// Only the length says where the text ends: the digits after it are not the day's.
TEST_F(XBaseDateVariableTest, TheDayIsTwoDigitsWhateverFollowsThem) {
  EXPECT_TRUE(XBaseDateVariable::Validate("2004123199999", 8));
  EXPECT_FALSE(XBaseDateVariable::Validate("2004123299999", 8));
  const std::unique_ptr<char[]> exact(new char[8]);
  memcpy(exact.get(), "20041231", 8);
  EXPECT_TRUE(XBaseDateVariable::Validate(exact.get(), 8));
}

TEST_F(XBaseDateVariableTest, OnlyDatesAreStored) {
  for (const auto& c : kDates) {
    SCOPED_TRACE(c.label);
    const auto check = [&](Opened<XBaseDateVariable>* v, int result) {
      EXPECT_EQ(result, c.valid);
      EXPECT_EQ(v->changed, c.valid);
      EXPECT_EQ(v->forms(), c.valid ? kText : 0u);
      EXPECT_EQ(v->primary_type(), 0);
      EXPECT_EQ(v->error().length, 0);
      EXPECT_EQ(ValueOf(v), c.valid ? c.text : "19991230");
      v->Commit();
      EXPECT_EQ(v->changed, 0);
      EXPECT_EQ(Held(), c.valid ? c.text : "19991230");
    };
    auto* v = Date("19991230");
    check(v, Store(v, c.text));
    v = Date("19991230");
    check(v, StoreVariable(v, std::string(c.text)));
  }
}

TEST_F(XBaseDateVariableTest, AnAdoptedTextIsNotTested) {
  auto* v = Date("19991230");
  EXPECT_EQ(Adopt(v, "no date at all"), 1);
  EXPECT_EQ(v->changed, 1);
  EXPECT_EQ(v->forms(), kText);
  EXPECT_EQ(v->primary_type(), 0);
  EXPECT_EQ(ValueOf(v), "no date ");
  v->Commit();
  EXPECT_EQ(Held(), "no date ");
  EXPECT_EQ(Adopt(v, ""), 1);
  v->Commit();
  EXPECT_EQ(Held(), "");
}

TEST_F(XBaseDateVariableTest, ANumberIsStoredIfItsTextIsADate) {
  auto* v = Date("19991230");
  EXPECT_EQ(v->SetValue_Integer(20041231), 1);
  EXPECT_EQ(v->changed, 1);
  EXPECT_EQ(v->forms(), kText);
  EXPECT_EQ(ValueOf(v), "20041231");
  EXPECT_EQ(v->SetValue_Double(20030102.0), 1);
  EXPECT_EQ(ValueOf(v), "20030102");
  EXPECT_EQ(StoreVariable(v, 20020101), 1);
  EXPECT_EQ(StoreVariable(v, 20010101.0), 1);
  v->Commit();
  EXPECT_EQ(Held(), "20010101");
  for (const int number : {0, 20041301, -2004123, 2004123, 200412310}) {
    EXPECT_EQ(v->SetValue_Integer(number), 0);
    EXPECT_EQ(v->SetValue_Double(number), 0);
    EXPECT_EQ(ValueOf(v), "20010101");
  }
  EXPECT_EQ(v->SetValue_Double(20041231.5), 0);
  EXPECT_EQ(v->SetValue_Double(200412.5), 0);
}

// It counts as a change, but Commit writes the value that was there.
TEST_F(XBaseDateVariableTest, ANumberThatIsRefusedLeavesTheRecord) {
  auto* v = Date("19991230");
  EXPECT_EQ(v->SetValue_Integer(20041301), 0);
  EXPECT_EQ(v->changed, 1);
  v->Commit();
  EXPECT_EQ(v->changed, 0);
  EXPECT_EQ(Held(), "19991230");
  v = Date("19991230");
  Store(v, "20030102");
  EXPECT_EQ(v->SetValue_Double(0.5), 0);
  EXPECT_EQ(v->changed, 1);
  v->Commit();
  EXPECT_EQ(Held(), "20030102");
}

TEST_F(XBaseDateVariableTest, AChangeWithoutAValueEmptiesTheField) {
  auto* v = Date("19991230");
  Store(v, "20030102");
  v->SetDirty();
  v->Commit();
  EXPECT_EQ(v->changed, 0);
  EXPECT_EQ(Held(), "");
  v = Date("19991230");
  Store(v, "20030102");
  v->SetNULL();
  v->Commit();
  EXPECT_EQ(Held(), "");
}

TEST_F(XBaseDateVariableTest, ADateIsReadAsTextOrAsANumber) {
  auto* v = Date("20040229");
  EXPECT_EQ(ValueOf(v), "20040229");
  EXPECT_EQ(v->forms(), kText);
  EXPECT_EQ(v->primary_type(), 0);
  EXPECT_EQ(v->value_integer(), 20040229);
  EXPECT_EQ(v->value_double(), 20040229.0);
  v = Date("20040229");
  EXPECT_EQ(v->value_integer(), 20040229);
  EXPECT_EQ(v->forms(), kInteger);
  v = Date("20040229");
  EXPECT_EQ(v->value_double(), 20040229.0);
  EXPECT_EQ(v->forms(), kDouble);
  EXPECT_EQ(v->value_integer(), 20040229);
  EXPECT_EQ(ValueOf(v), "20040229");
  v = Date("20040229");
  int not_numeric = 1;
  EXPECT_EQ(v->value_compare(&not_numeric), 20040229.0);
  EXPECT_EQ(not_numeric, 0);
  EXPECT_EQ(v->forms(), kText | kDouble);
  EXPECT_EQ(v->primary_type(), 0);
}

TEST_F(XBaseDateVariableTest, ABlankDateIsNoNumber) {
  auto* v = Date("");
  EXPECT_EQ(ValueOf(v), "        ");
  EXPECT_EQ(v->value_integer(), 0);
  EXPECT_EQ(v->value_double(), 0.0);
  int not_numeric = 0;
  EXPECT_EQ(v->value_compare(&not_numeric), 0.0);
  EXPECT_EQ(not_numeric, 1);
  // A text is made of the number that was read first.
  v = Date("");
  v->value_integer();
  EXPECT_EQ(ValueOf(v), "0");
  // But it is compared by the text of the field, which is its text from then on.
  v = Date("00000101");
  EXPECT_EQ(v->value_integer(), 101);
  EXPECT_EQ(v->value_compare(&not_numeric), 101.0);
  EXPECT_EQ(ValueOf(v), "00000101");
}

// No view makes one, but the field's kind decides here as it does for character fields.
TEST_F(XBaseDateVariableTest, OfAMemoItStoresAsAVariableDoes) {
  auto* v = Field<XBaseDateVariable>(XBaseField_Memo, 10, 0, "a memo");
  EXPECT_EQ(Store(v, "20041231"), 1);
  EXPECT_EQ(v->primary_type(), 1);
  EXPECT_EQ(Adopt(v, "a text of any length"), 1);
  EXPECT_EQ(ValueOf(v), "a text of any length");
  EXPECT_EQ(v->SetValue_Integer(5), 0);
  EXPECT_EQ(v->forms(), kInteger);
  v->Commit();
  EXPECT_EQ(Held(), "5");
  EXPECT_EQ(v->SetValue_Double(2.5), 0);
  v->Commit();
  EXPECT_EQ(Held(), "2.5");
  EXPECT_EQ(v->forms(), kDouble | kText);
  EXPECT_EQ(v->SetValue_Integer(20041231), 1);
  EXPECT_EQ(v->forms(), kText);
}

}  // namespace

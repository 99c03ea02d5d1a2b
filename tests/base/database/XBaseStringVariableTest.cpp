// The variables of character and memo fields.

#include <limits>
#include <string>

#include "tests/support/FieldVariables.h"

namespace {

class XBaseStringVariableTest : public FieldVariables {
 protected:
  Opened<XBaseStringVariable>* Text(int length, const std::string& value) {
    return Field<XBaseStringVariable>(XBaseField_Character, length, 0, value);
  }
  Opened<XBaseStringVariable>* Memo(const std::string& value) {
    return Field<XBaseStringVariable>(XBaseField_Memo, 10, 0, value);
  }
};

// --- Stores --------------------------------------------------------------------------------------

TEST_F(XBaseStringVariableTest, ATextIsCutToTheFieldAndLosesItsTrailingWhiteSpace) {
  const struct {
    const char* label;
    const char* text;
    const char* kept;
  } cases[] = {{"trailing blanks", "ab   ", "ab"},
               {"too long", "abcdefgh", "abcde"},
               {"blanks only", "   ", ""},
               {"more blanks than fit", "          ", ""},
               {"empty", "", ""},
               {"just fits", "abcde", "abcde"},
               {"one too many", "abcdef", "abcde"},
               {"leading blanks stay", "  ab", "  ab"},
               {"inner blanks stay", "a b", "a b"},
               {"blank at the cut", "abcd efg", "abcd"},
               {"each kind of white space", "a\t\n\v\f\r ", "a"},
               {"another control byte stays", "ab\x01", "ab\x01"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    const auto check = [&](Opened<XBaseStringVariable>* v, int result) {
      EXPECT_EQ(result, 1);
      EXPECT_EQ(v->changed, 1);
      EXPECT_EQ(v->forms(), kText);
      EXPECT_EQ(v->primary_type(), 1);
      EXPECT_EQ(ValueOf(v), c.kept);
      EXPECT_EQ(v->value().data[v->value().length], '\0');
      v->Commit();
      EXPECT_EQ(v->changed, 0);
      EXPECT_EQ(Held(), c.kept);
    };
    auto* v = Text(5, "old");
    check(v, Store(v, c.text));
    v = Text(5, "old");
    check(v, Adopt(v, c.text));
    v = Text(5, "old");
    check(v, StoreVariable(v, std::string(c.text)));
  }
}

TEST_F(XBaseStringVariableTest, AMemoKeepsEveryText) {
  for (const std::string text : {"ab   ", "   ", "", "a text that is longer than a block number"}) {
    auto* v = Memo("old");
    EXPECT_EQ(Store(v, text), 1);
    EXPECT_EQ(ValueOf(v), text);
    EXPECT_EQ(v->changed, 1);
    v->Commit();
    EXPECT_EQ(Held(), text);
    v = Memo("old");
    EXPECT_EQ(Adopt(v, text), 1);
    v->Commit();
    EXPECT_EQ(Held(), text);
    v = Memo("old");
    EXPECT_EQ(StoreVariable(v, text), 1);
    v->Commit();
    EXPECT_EQ(Held(), text);
  }
}

TEST_F(XBaseStringVariableTest, ANumberIsStoredAsText) {
  auto* v = Text(5, "old");
  EXPECT_EQ(v->SetValue_Integer(-12), 1);
  EXPECT_EQ(v->forms(), kText);
  EXPECT_EQ(v->primary_type(), 1);
  EXPECT_EQ(ValueOf(v), "-12");
  EXPECT_EQ(v->SetValue_Integer(1234567), 1);
  EXPECT_EQ(ValueOf(v), "12345");
  EXPECT_EQ(v->SetValue_Double(2.5), 1);
  EXPECT_EQ(v->forms(), kText);
  EXPECT_EQ(ValueOf(v), "2.5");
  EXPECT_EQ(v->SetValue_Double(1.0 / 3), 1);
  EXPECT_EQ(ValueOf(v), "0.333");
  EXPECT_EQ(v->SetValue_Double(std::numeric_limits<double>::infinity()), 1);
  EXPECT_EQ(ValueOf(v), "Infin");
  EXPECT_EQ(StoreVariable(v, 7), 1);
  EXPECT_EQ(ValueOf(v), "7");
  v->Commit();
  EXPECT_EQ(Held(), "7");
}

TEST_F(XBaseStringVariableTest, AMemoKeepsANumberUntilItIsCommitted) {
  auto* v = Memo("old");
  EXPECT_EQ(v->SetValue_Integer(12), 1);
  EXPECT_EQ(v->changed, 1);
  EXPECT_EQ(v->forms(), kInteger);
  EXPECT_EQ(v->primary_type(), 2);
  v->Commit();
  EXPECT_EQ(Held(), "12");
  EXPECT_EQ(v->forms(), kInteger | kText);
  EXPECT_EQ(v->SetValue_Double(2.75), 1);
  EXPECT_EQ(v->forms(), kDouble);
  EXPECT_EQ(v->primary_type(), 3);
  EXPECT_EQ(v->value_integer(), 2);
  v->Commit();
  EXPECT_EQ(Held(), "2.75");
  EXPECT_EQ(v->forms(), kDouble | kInteger | kText);
  EXPECT_EQ(v->changed, 0);
}

// --- Reads ---------------------------------------------------------------------------------------

TEST_F(XBaseStringVariableTest, AReadMakesTheTextTheStoredForm) {
  auto* v = Text(5, "12");
  EXPECT_EQ(ValueOf(v), "12");
  EXPECT_EQ(v->forms(), kText);
  EXPECT_EQ(v->primary_type(), 1);
  EXPECT_EQ(v->changed, 0);
  v = Text(5, "12");
  EXPECT_EQ(v->value_integer(), 12);
  EXPECT_EQ(v->forms(), kText | kInteger);
  EXPECT_EQ(v->primary_type(), 1);
  v = Text(5, "12");
  EXPECT_EQ(v->value_double(), 12.0);
  EXPECT_EQ(v->forms(), kText | kDouble);
  EXPECT_EQ(v->primary_type(), 1);
  v = Text(5, "12");
  int not_numeric = 1;
  EXPECT_EQ(v->value_compare(&not_numeric), 12.0);
  EXPECT_EQ(not_numeric, 0);
  EXPECT_EQ(v->forms(), kText | kDouble);
  EXPECT_EQ(v->primary_type(), 1);
}

TEST_F(XBaseStringVariableTest, NumbersOfTexts) {
  const struct {
    const char* text;
    int integer;
    double number;
    int not_numeric;
  } cases[] = {{"12", 12, 12.0, 0},
               {"-7", -7, -7.0, 0},
               {"2.5", 0, 2.5, 0},
               {"12abc", 0, 0.0, 1},
               {"", 0, 0.0, 0},
               {"0x1f", 31, 31.0, 0},
               {"4294967297", 1, 4294967297.0, 0},
               {"x", 0, 0.0, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    for (const bool stored : {false, true}) {
      const auto fresh = [&] {
        auto* v = Text(20, stored ? "old" : c.text);
        if (stored) Store(v, c.text);
        return v;
      };
      EXPECT_EQ(fresh()->value_integer(), c.integer);
      EXPECT_EQ(fresh()->value_double(), c.number);
      int not_numeric = -1;
      auto* v = fresh();
      EXPECT_EQ(v->value_compare(&not_numeric), c.number);
      EXPECT_EQ(not_numeric, c.not_numeric);
      EXPECT_EQ(v->forms(), c.not_numeric ? kText : kText | kDouble);
    }
  }
}

// The text of the record is what a memo is compared by. The number is still stored afterwards.
TEST_F(XBaseStringVariableTest, AMemoWithAStoredNumberIsComparedByTheTextOfTheRecord) {
  auto* v = Memo("3");
  v->SetValue_Integer(12);
  int not_numeric = -1;
  EXPECT_EQ(v->value_compare(&not_numeric), 3.0);
  EXPECT_EQ(not_numeric, 0);
  EXPECT_EQ(v->value_integer(), 12);
  EXPECT_EQ(ValueOf(v), "12");
  EXPECT_EQ(v->value_compare(&not_numeric), 12.0);
  v->Commit();
  EXPECT_EQ(Held(), "12");
}

TEST_F(XBaseStringVariableTest, AMemoThatCannotBeReadIsEmpty) {
  auto* v = Memo("a memo");
  // No file has a block before its beginning.
  std::string file = directory.Content(last_path);
  file.replace(static_cast<size_t>(table().header_length() + 1), 10, "        -1");
  directory.File(last_path, file);
  ASSERT_TRUE(table().Goto(1));
  EXPECT_EQ(Held(), "(null)");
  EXPECT_EQ(ValueOf(v), "");
  EXPECT_NE(v->value().data, nullptr);
  v->SetDirty();
  EXPECT_EQ(v->value_integer(), 0);
  v->SetDirty();
  EXPECT_EQ(v->value_double(), 0.0);
  v->SetDirty();
  int not_numeric = -1;
  EXPECT_EQ(v->value_compare(&not_numeric), 0.0);
  EXPECT_EQ(not_numeric, 0);
  v->SetValue_Integer(5);
  EXPECT_EQ(v->value_compare(&not_numeric), 0.0);
  v->Commit();
  EXPECT_EQ(Held(), "5");
}

TEST_F(XBaseStringVariableTest, WithoutAStoreOrAValueCommitSetsNothing) {
  auto* v = Text(5, "old");
  Store(v, "new");
  v->SetDirty();
  v->Commit();
  EXPECT_EQ(v->changed, 0);
  EXPECT_EQ(Held(), "old");
}

TEST_F(XBaseStringVariableTest, AFieldWithoutBytesKeepsNothing) {
  XBaseField field(nullptr, "F", XBaseField_Character, 0, 0);
  auto* v = Make<XBaseStringVariable>(&field);
  EXPECT_EQ(Store(v, "abc"), 1);
  EXPECT_EQ(ValueOf(v), "");
  EXPECT_EQ(Adopt(v, "abc"), 1);
  EXPECT_EQ(v->SetValue_Integer(7), 1);
  v->Commit();
  EXPECT_STREQ(field.data(), "");
  EXPECT_EQ(v->SetValue("abc", -5), 1);
  EXPECT_EQ(ValueOf(v), "");
}

}  // namespace

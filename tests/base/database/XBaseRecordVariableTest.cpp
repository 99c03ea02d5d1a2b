// The variables recno, totrec, deleted and eof.

#include <string>
#include <vector>

#include "tests/support/FieldVariables.h"

namespace {

class XBaseRecordVariableTest : public FieldVariables {
 protected:
  XBaseRecordVariableTest() {
    XBaseTable& table = MakeTable({{"F", XBaseField_Character, 3, 0}}, {"a"});
    for (const char* value : {"b", "c"}) EXPECT_TRUE(AppendRow(table, {value}));
    EXPECT_TRUE(table.Goto(2));
    totrec = Make<XBaseTotalRecordsVariable>(&table);
    recno = Make<XBaseRecordNumberVariable>(&table);
    deleted = Make<XBaseDeletedVariable>(&table);
    eof = new Opened<XBaseEOFVariable>();
    variables.emplace_back(eof);
  }
  std::vector<XBaseVariable*> All() { return {totrec, recno, deleted, eof}; }

  Opened<XBaseTotalRecordsVariable>* totrec;
  Opened<XBaseRecordNumberVariable>* recno;
  Opened<XBaseDeletedVariable>* deleted;
  Opened<XBaseEOFVariable>* eof;
};

TEST_F(XBaseRecordVariableTest, EachFormIsTheNumber) {
  const std::vector<int> numbers = {3, 2, 0, 0};
  for (size_t i = 0; i < numbers.size(); i++) {
    XBaseVariable* v = All()[i];
    SCOPED_TRACE(TextOf(v->name()));
    EXPECT_EQ(ValueOf(v), std::to_string(numbers[i]));
    v->SetDirty();
    EXPECT_EQ(v->value_integer(), numbers[i]);
    v->SetDirty();
    EXPECT_EQ(v->value_double(), numbers[i]);
    v->SetDirty();
    int not_numeric = 1;
    EXPECT_EQ(v->value_compare(&not_numeric), numbers[i]);
    EXPECT_EQ(not_numeric, 0);
    EXPECT_EQ(v->IsTrue(), numbers[i] != 0);
    EXPECT_EQ(v->primary_type(), 2);
    EXPECT_EQ(v->preferred_type(), 2);
  }
  EXPECT_EQ(recno->forms(), kDouble);
}

TEST_F(XBaseRecordVariableTest, StoresAreRefused) {
  for (XBaseVariable* v : All()) {
    SCOPED_TRACE(TextOf(v->name()));
    const std::string before = ValueOf(v);
    EXPECT_EQ(Store(v, "7"), 0);
    EXPECT_EQ(Adopt(v, "7"), 0);
    EXPECT_EQ(v->SetValue_Integer(7), 0);
    EXPECT_EQ(v->SetValue_Double(7.0), 0);
    EXPECT_EQ(StoreVariable(v, 7), 0);
    EXPECT_EQ(ValueOf(v), before);
    v->SetDirty();
    EXPECT_EQ(ValueOf(v), before);
    v->Commit();
    EXPECT_EQ(v->error().length, 0);
  }
  EXPECT_EQ(recno->changed, 0);
}

TEST_F(XBaseRecordVariableTest, AMoveShowsAfterSetDirty) {
  EXPECT_EQ(ValueOf(recno), "2");
  ASSERT_TRUE(table().Goto(3));
  EXPECT_EQ(ValueOf(recno), "2");
  recno->SetDirty();
  EXPECT_EQ(recno->forms(), 0u);
  EXPECT_EQ(recno->primary_type(), 2);
  EXPECT_EQ(ValueOf(recno), "3");
  EXPECT_EQ(ValueOf(totrec), "3");
  ASSERT_TRUE(AppendRow(table(), {"d"}));
  totrec->SetDirty();
  recno->SetDirty();
  EXPECT_EQ(totrec->value_integer(), 4);
  EXPECT_EQ(recno->value_integer(), 4);
}

TEST_F(XBaseRecordVariableTest, DeletedFollowsTheFlag) {
  EXPECT_EQ(deleted->value_integer(), 0);
  ASSERT_TRUE(table().UpdateDeleted(1));
  deleted->SetDirty();
  EXPECT_EQ(ValueOf(deleted), "1");
  EXPECT_EQ(deleted->IsTrue(), 1);
  ASSERT_TRUE(table().Goto(1));
  deleted->SetDirty();
  EXPECT_EQ(ValueOf(deleted), "0");
  ASSERT_TRUE(table().Goto(2));
  deleted->SetDirty();
  EXPECT_EQ(ValueOf(deleted), "1");
}

TEST_F(XBaseRecordVariableTest, OnlySetEOFChangesEof) {
  for (const int eof_now : {1, 0, 5, 0, -1}) {
    eof->value();
    eof->value_double();
    eof->SetEOF(eof_now);
    EXPECT_EQ(eof->forms(), kInteger);
    EXPECT_EQ(eof->primary_type(), 2);
    eof->SetDirty();
    EXPECT_EQ(eof->forms(), kInteger);
    EXPECT_EQ(eof->value_double(), eof_now != 0);
    EXPECT_EQ(ValueOf(eof), eof_now ? "1" : "0");
    eof->SetNULL();
    EXPECT_EQ(eof->value_integer(), eof_now != 0);
  }
}

TEST_F(XBaseRecordVariableTest, AnAssignmentTakesAnInteger) {
  Variable target;
  EXPECT_EQ(target.SetValue(*recno), 1);
  EXPECT_EQ(target.primary_type(), 2);
  EXPECT_EQ(target.value_integer(), 2);
}

}  // namespace

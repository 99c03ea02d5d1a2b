// What holds for every variable of a view, whatever its kind.

#include "base/database/XBaseVariable.h"

#include <functional>
#include <string>
#include <vector>

#include "base/values/Aggregate.h"
#include "base/values/DeferredText.h"
#include "tests/support/FieldVariables.h"

namespace {

const std::vector<std::string> kRow = {"Ann", "12.50", "20040229", "T", "a memo"};

class XBaseVariableTest : public FieldVariables {
 protected:
  XBaseVariableTest() {
    XBaseTable& table = MakeTable(AllTypes(), kRow);
    name = Make<XBaseStringVariable>(FieldOf(table, 0));
    amount = Make<XBaseNumberVariable>(FieldOf(table, 1));
    day = Make<XBaseDateVariable>(FieldOf(table, 2));
    paid = Make<XBaseBooleanVariable>(FieldOf(table, 3));
    note = Make<XBaseStringVariable>(FieldOf(table, 4));
    totrec = Make<XBaseTotalRecordsVariable>(&table);
    recno = Make<XBaseRecordNumberVariable>(&table);
    deleted = Make<XBaseDeletedVariable>(&table);
    eof = new Opened<XBaseEOFVariable>();
    variables.emplace_back(eof);
    fields = {name, amount, day, paid, note};
    all = {name, amount, day, paid, note, totrec, recno, deleted, eof};
  }

  // A text that each of the fields accepts, and what its variable reads after it was stored.
  static std::string Other(size_t field) {
    static const char* texts[] = {"Bob", "7.25", "19991231", "0", "another"};
    return texts[field];
  }
  static void MakeArray(Variable* variable, const std::string& text) {
    Store(variable->Element(AggregateIndex(1), 1), text);
  }

  Opened<XBaseStringVariable>* name;
  Opened<XBaseNumberVariable>* amount;
  Opened<XBaseDateVariable>* day;
  Opened<XBaseBooleanVariable>* paid;
  Opened<XBaseStringVariable>* note;
  Opened<XBaseTotalRecordsVariable>* totrec;
  Opened<XBaseRecordNumberVariable>* recno;
  Opened<XBaseDeletedVariable>* deleted;
  Opened<XBaseEOFVariable>* eof;
  std::vector<XBaseVariable*> fields;
  std::vector<XBaseVariable*> all;
};

// --- What they are -------------------------------------------------------------------------------

TEST_F(XBaseVariableTest, NamesAreThoseOfTheFieldsAndOfTheFourPlaces) {
  std::vector<std::string> names;
  for (XBaseVariable* variable : all) names.push_back(TextOf(variable->name()));
  EXPECT_EQ(names, (std::vector<std::string>{"NAME", "AMOUNT", "DAY", "PAID", "NOTE", "totrec",
                                             "recno", "deleted", "eof"}));
}

TEST_F(XBaseVariableTest, AllAreComputedAndPreferTextOrAnInteger) {
  for (XBaseVariable* variable : all) {
    SCOPED_TRACE(TextOf(variable->name()));
    EXPECT_EQ(variable->type(), 5);
    EXPECT_EQ(variable->TypeReferredTo(), 5);
  }
  for (XBaseVariable* variable : fields) EXPECT_EQ(variable->preferred_type(), 1);
  for (XBaseVariable* variable : std::vector<XBaseVariable*>{totrec, recno, deleted, eof})
    EXPECT_EQ(variable->preferred_type(), 2);
}

TEST_F(XBaseVariableTest, TheStateAtFirst) {
  for (XBaseVariable* variable : fields) EXPECT_EQ(variable->primary_type(), 0);
  for (XBaseVariable* variable : std::vector<XBaseVariable*>{totrec, recno, deleted, eof})
    EXPECT_EQ(variable->primary_type(), 2);
  EXPECT_EQ(name->forms(), 0u);
  EXPECT_EQ(recno->forms(), 0u);
  EXPECT_EQ(eof->forms(), kInteger);
  EXPECT_EQ(eof->value_integer(), 0);
  for (XBaseVariable* variable : all) EXPECT_EQ(variable->refcount(), 1);
}

// The short ways of the interpreter would pass by the rules of the fields.
TEST_F(XBaseVariableTest, NoneCountsAsAPlainVariable) {
  for (XBaseVariable* variable : all) {
    SCOPED_TRACE(TextOf(variable->name()));
    for (int round = 0; round < 3; round++) {
      EXPECT_FALSE(variable->IsPlain());
      EXPECT_FALSE(variable->IsOrdinary());
      EXPECT_FALSE(variable->HoldsInteger());
      EXPECT_FALSE(variable->HoldsDouble());
      EXPECT_EQ(variable->plain_forms(), 0u);
      if (round == 0) variable->value_integer();
      if (round == 1) variable->Write_Integer(20041231);
    }
  }
  EXPECT_EQ(amount->changed, 1);
  EXPECT_EQ(day->Read_Integer(), 20041231);
  Variable source("s", -1, "x", 1);
  EXPECT_EQ(paid->Write_Value(source), 1);
  EXPECT_EQ(paid->Read_Integer(), 1);
  EXPECT_EQ(recno->Write_Double(4.0), 0);
  EXPECT_EQ(recno->Read_Double(), 1.0);
}

TEST_F(XBaseVariableTest, EachReadsItsField) {
  std::vector<std::string> values;
  for (XBaseVariable* variable : all) values.push_back(ValueOf(variable));
  EXPECT_EQ(values, (std::vector<std::string>{"Ann", "12.50", "20040229", "1", "a memo", "1", "1",
                                              "0", "0"}));
}

TEST_F(XBaseVariableTest, AFieldIsNULLUntilItIsRead) {
  for (XBaseVariable* variable : fields) {
    SCOPED_TRACE(TextOf(variable->name()));
    EXPECT_EQ(variable->IsNULL(), 1);
    variable->value();
    EXPECT_EQ(variable->IsNULL(), 0);
    variable->SetDirty();
    EXPECT_EQ(variable->IsNULL(), 1);
  }
}

TEST_F(XBaseVariableTest, ACloneIsADetachedPlainCopyOfTheValue) {
  const std::vector<std::string> values = {"Ann", "12.50", "20040229", "1", "a memo",
                                           "1",   "1",     "0",        "0"};
  for (const bool read_before : {false, true}) {
    for (size_t i = 0; i < all.size(); i++) {
      SCOPED_TRACE(TextOf(all[i]->name()));
      if (read_before) all[i]->value();
      const VariableRef copy(all[i]->Clone(nullptr));
      EXPECT_EQ(copy->type(), 0);
      EXPECT_TRUE(copy->IsPlain());
      EXPECT_EQ(TextOf(copy->name()), TextOf(all[i]->name()));
      EXPECT_EQ(ValueOf(copy.get()), values[i]);
      EXPECT_EQ(Store(copy.get(), "free"), 1);
      EXPECT_EQ(ValueOf(all[i]), values[i]);
    }
  }
}

TEST_F(XBaseVariableTest, AssignmentTakesTheValueOfAFieldThatWasNotReadYet) {
  for (size_t i = 0; i < fields.size(); i++) {
    Variable target("target", -1, "old", 3);
    EXPECT_EQ(target.SetValue(*fields[i]), 1);
    EXPECT_EQ(ValueOf(&target), i == 3 ? "1" : kRow[i]);
  }
}

// --- Stores and the record -----------------------------------------------------------------------

TEST_F(XBaseVariableTest, AStoreReachesTheFieldWithCommitOnly) {
  for (size_t i = 0; i < fields.size(); i++) {
    SCOPED_TRACE(TextOf(fields[i]->name()));
    const int at = static_cast<int>(i);
    EXPECT_EQ(Store(fields[i], Other(i)), 1);
    EXPECT_EQ(ValueOf(fields[i]), Other(i));
    EXPECT_EQ(::ValueOf(table(), at), kRow[i]);
    fields[i]->Commit();
    EXPECT_EQ(::ValueOf(table(), at), i == 3 ? "F" : Other(i));
  }
  ASSERT_TRUE(table().Update());
  ASSERT_TRUE(table().Goto(1));
  EXPECT_EQ(ValuesOf(table()),
            (std::vector<std::string>{"Bob", "7.25", "19991231", "F", "another"}));
}

TEST_F(XBaseVariableTest, CommitWithoutAStoreLeavesTheField) {
  for (XBaseVariable* variable : fields) {
    variable->value();
    variable->SetDirty();
  }
  for (int i = 0; i < 5; i++) SetField(table(), i, "1");
  for (XBaseVariable* variable : fields) variable->Commit();
  for (int i = 0; i < 5; i++) EXPECT_EQ(::ValueOf(table(), i), "1");
}

TEST_F(XBaseVariableTest, CommitHappensOncePerStore) {
  for (size_t i = 0; i < fields.size(); i++) {
    Store(fields[i], Other(i));
    fields[i]->Commit();
    SetField(table(), static_cast<int>(i), "1");
    fields[i]->Commit();
    EXPECT_EQ(::ValueOf(table(), static_cast<int>(i)), "1");
  }
}

TEST_F(XBaseVariableTest, SetDirtyDropsTheValueButNotTheChange) {
  EXPECT_EQ(Store(name, "Bob"), 1);
  name->SetDirty();
  EXPECT_EQ(name->forms(), 0u);
  EXPECT_EQ(name->primary_type(), 0);
  EXPECT_EQ(name->changed, 1);
  EXPECT_EQ(ValueOf(name), "Ann");
}

TEST_F(XBaseVariableTest, SetNULLGoesBackToTheField) {
  for (size_t i = 0; i < fields.size(); i++) {
    Store(fields[i], Other(i));
    fields[i]->SetNULL();
    EXPECT_EQ(fields[i]->IsNULL(), 1);
    EXPECT_EQ(ValueOf(fields[i]), i == 3 ? "1" : kRow[i]);
  }
  for (XBaseVariable* variable : std::vector<XBaseVariable*>{totrec, recno, deleted, eof}) {
    const std::string before = ValueOf(variable);
    variable->SetNULL();
    EXPECT_EQ(variable->primary_type(), 0);
    EXPECT_EQ(ValueOf(variable), before);
  }
}

// With a store before, and then no value: what each kind writes is its own rule.
TEST_F(XBaseVariableTest, CommitOfAChangeWithoutAValue) {
  for (const bool by_null : {false, true}) {
    ASSERT_TRUE(table().Goto(1));
    for (size_t i = 0; i < fields.size(); i++) {
      Store(fields[i], Other(i));
      if (by_null) {
        fields[i]->SetNULL();
      } else {
        fields[i]->SetDirty();
      }
      fields[i]->Commit();
    }
    EXPECT_EQ(ValuesOf(table()), (std::vector<std::string>{"Ann", "12.50", "", "T", "a memo"}));
  }
}

TEST_F(XBaseVariableTest, StoringItselfKeepsTheValue) {
  for (size_t i = 0; i < fields.size(); i++) {
    EXPECT_EQ(fields[i]->SetValue(*fields[i]), 1);
    EXPECT_EQ(ValueOf(fields[i]), i == 3 ? "1" : kRow[i]);
    const String& text = fields[i]->value();
    EXPECT_EQ(fields[i]->SetValue(text.data, text.length), 1);
    EXPECT_EQ(ValueOf(fields[i]), i == 3 ? "1" : kRow[i]);
    fields[i]->Commit();
  }
  EXPECT_EQ(ValuesOf(table()), kRow);
}

TEST_F(XBaseVariableTest, ANullTextIsAnEmptyOne) {
  EXPECT_EQ(name->SetValue(nullptr, 3), 1);
  EXPECT_EQ(ValueOf(name), "");
  EXPECT_EQ(amount->SetValue(nullptr, -1), 1);
  EXPECT_EQ(ValueOf(amount), "0.00");
  EXPECT_EQ(day->SetValue(nullptr, 8), 0);
  EXPECT_EQ(ValueOf(day), "20040229");
  EXPECT_EQ(paid->SetValue(nullptr, -1), 1);
  EXPECT_EQ(ValueOf(paid), "0");
  EXPECT_EQ(note->SetValue(nullptr, -1), 1);
  EXPECT_EQ(ValueOf(note), "");
  for (XBaseVariable* variable : fields) {
    variable->SetValue_Nocopy(nullptr, 0, 0);
    variable->value();
    variable->value_integer();
    variable->value_double();
    int not_numeric = 0;
    variable->value_compare(&not_numeric);
    variable->SetOriginal();
    variable->SwapOriginal();
    variable->Commit();
  }
}

TEST_F(XBaseVariableTest, ALengthOfMinusOneMeasuresTheText) {
  EXPECT_EQ(name->SetValue("Bob", -1), 1);
  EXPECT_EQ(amount->SetValue("7.25", -1), 1);
  EXPECT_EQ(day->SetValue("19991231", -1), 1);
  EXPECT_EQ(paid->SetValue("yes", -1), 1);
  EXPECT_EQ(note->SetValue("another", -1), 1);
  std::vector<std::string> values;
  for (XBaseVariable* variable : fields) values.push_back(ValueOf(variable));
  EXPECT_EQ(values, (std::vector<std::string>{"Bob", "7.25", "19991231", "1", "another"}));
}

// A buffer without a terminator is read to its end and no further.
TEST_F(XBaseVariableTest, AnAdoptedBufferOfUnknownLengthEndsWithTheBuffer) {
  const auto buffer_of = [](const char* text) {
    auto* buffer = new char[strlen(text)];
    memcpy(buffer, text, strlen(text));
    return buffer;
  };
  EXPECT_EQ(name->SetValue_Nocopy(buffer_of("Bob"), -1, 3), 1);
  EXPECT_EQ(amount->SetValue_Nocopy(buffer_of("7.25"), -1, 4), 1);
  EXPECT_EQ(amount->SetValue_Nocopy(buffer_of("x.25"), -1, 4), 0);
  EXPECT_EQ(day->SetValue_Nocopy(buffer_of("19991231"), -1, 8), 1);
  EXPECT_EQ(paid->SetValue_Nocopy(buffer_of("yes"), -1, 3), 1);
  EXPECT_EQ(note->SetValue_Nocopy(buffer_of("another"), -1, 7), 1);
  EXPECT_EQ(recno->SetValue_Nocopy(buffer_of("7"), -1, 1), 0);
  std::vector<std::string> values;
  for (XBaseVariable* variable : fields) values.push_back(ValueOf(variable));
  EXPECT_EQ(values, (std::vector<std::string>{"Bob", "7.25", "19991231", "1", "another"}));
}

// --- The old values of a record ------------------------------------------------------------------

TEST_F(XBaseVariableTest, BetweenSetOriginalAndSwapOriginalTheFieldIsRead) {
  for (size_t i = 0; i < fields.size(); i++) {
    Store(fields[i], Other(i));
    fields[i]->Commit();
  }
  table().SwapOriginal();
  for (XBaseVariable* variable : all) variable->SetOriginal();
  EXPECT_EQ(name->forms(), 0u);
  EXPECT_EQ(recno->primary_type(), 0);
  for (size_t i = 0; i < fields.size(); i++) EXPECT_EQ(ValueOf(fields[i]), i == 3 ? "1" : kRow[i]);
  EXPECT_EQ(ValueOf(recno), "1");
  EXPECT_EQ(ValueOf(eof), "0");
  table().SwapOriginal();
  for (XBaseVariable* variable : all) variable->SwapOriginal();
  for (size_t i = 0; i < fields.size(); i++) EXPECT_EQ(ValueOf(fields[i]), Other(i));
  EXPECT_EQ(recno->primary_type(), 2);
  EXPECT_EQ(ValueOf(eof), "0");
}

TEST_F(XBaseVariableTest, SwapOriginalRestoresEachForm) {
  amount->SetValue_Double(2.5);
  amount->SetOriginal();
  EXPECT_EQ(amount->changed, 0);
  EXPECT_EQ(ValueOf(amount), "12.50");
  amount->SwapOriginal();
  EXPECT_EQ(amount->forms(), kDouble);
  EXPECT_EQ(amount->primary_type(), 3);
  EXPECT_EQ(amount->value_double(), 2.5);
  amount->SetValue_Integer(-7);
  amount->SetOriginal();
  amount->value_integer();
  amount->SwapOriginal();
  EXPECT_EQ(amount->forms(), kInteger);
  EXPECT_EQ(amount->primary_type(), 2);
  EXPECT_EQ(amount->value_integer(), -7);
  eof->SetEOF(1);
  eof->SetOriginal();
  EXPECT_EQ(ValueOf(eof), "1");
  eof->SwapOriginal();
  EXPECT_EQ(eof->forms(), kInteger);
  EXPECT_EQ(eof->value_integer(), 1);
}

TEST_F(XBaseVariableTest, SwapOriginalRestoresTheStateBeforeAnyRead) {
  name->SetOriginal();
  EXPECT_EQ(ValueOf(name), "Ann");
  name->SwapOriginal();
  EXPECT_EQ(name->forms(), 0u);
  EXPECT_EQ(name->primary_type(), 0);
}

// One record after another: what was saved for the first is not restored for the second.
TEST_F(XBaseVariableTest, EachSetOriginalSavesAgain) {
  Store(name, "Bob");
  name->SetOriginal();
  name->SwapOriginal();
  name->SetDirty();
  name->SetOriginal();
  name->SwapOriginal();
  EXPECT_EQ(ValueOf(name), "Ann");
  note->SetValue_Integer(5);
  note->SetOriginal();
  EXPECT_EQ(ValueOf(note), "a memo");
  note->SwapOriginal();
  EXPECT_EQ(ValueOf(note), "5");
}

// --- Arrays and structures -----------------------------------------------------------------------

TEST_F(XBaseVariableTest, ElementsTakeThePlaceOfTheValueUntilTheNextStore) {
  for (size_t i = 0; i < fields.size(); i++) {
    SCOPED_TRACE(TextOf(fields[i]->name()));
    XBaseVariable* variable = fields[i];
    MakeArray(variable, "el");
    Store(variable->Element(AggregateIndex(2), 1), "em");
    for (int round = 0; round < 2; round++) {
      EXPECT_EQ(variable->aggregatetype(), AggregateArray);
      EXPECT_EQ(ValueOf(variable), "el,em");
      EXPECT_EQ(variable->value_integer(), 0);
      EXPECT_EQ(variable->value_double(), 0.0);
      int not_numeric = 0;
      EXPECT_EQ(variable->value_compare(&not_numeric), 0.0);
      EXPECT_EQ(not_numeric, 1);
      EXPECT_EQ(variable->IsNULL(), 0);
      EXPECT_EQ(variable->IsTrue(), 1);
      variable->SetDirty();
    }
    EXPECT_EQ(Store(variable, Other(i)), 1);
    EXPECT_EQ(variable->aggregatetype(), AggregateNone);
    EXPECT_EQ(ValueOf(variable), Other(i));
  }
}

TEST_F(XBaseVariableTest, EveryKindOfStoreDropsTheElements) {
  const std::vector<std::function<int(Variable*)>> stores = {
      [](Variable* v) { return Store(v, "20041231"); },
      [](Variable* v) { return Adopt(v, "20041231"); },
      [](Variable* v) { return v->SetValue_Integer(20041231); },
      [](Variable* v) { return v->SetValue_Double(20041231.0); },
  };
  for (XBaseVariable* variable : fields) {
    SCOPED_TRACE(TextOf(variable->name()));
    for (const auto& store : stores) {
      MakeArray(variable, "el");
      EXPECT_EQ(store(variable), 1);
      EXPECT_EQ(variable->aggregatetype(), AggregateNone);
      EXPECT_EQ(variable->aggregateelements(), nullptr);
      EXPECT_EQ(variable->IsTrue(), 1);
    }
    // Its own element.
    MakeArray(variable, variable == amount ? "42" : "20041231");
    EXPECT_EQ(variable->SetValue(*variable->Element(AggregateIndex(1), 0)), 1);
    EXPECT_EQ(variable->aggregatetype(), AggregateNone);
    // The whole array, as its text.
    MakeArray(variable, variable == amount ? "42" : "20041231");
    EXPECT_EQ(variable->SetValue(*variable), 1);
    EXPECT_EQ(variable->aggregatetype(), AggregateNone);
  }
}

TEST_F(XBaseVariableTest, ARefusedStoreKeepsTheElements) {
  MakeArray(amount, "el");
  EXPECT_EQ(Store(amount, "abc"), 0);
  EXPECT_EQ(Adopt(amount, "abc"), 0);
  EXPECT_EQ(ValueOf(amount), "el");
  MakeArray(day, "el");
  EXPECT_EQ(Store(day, "abc"), 0);
  EXPECT_EQ(day->SetValue_Integer(7), 0);
  EXPECT_EQ(ValueOf(day), "el");
  MakeArray(recno, "el");
  EXPECT_EQ(Store(recno, "7"), 0);
  EXPECT_EQ(ValueOf(recno), "el");
}

TEST_F(XBaseVariableTest, CommitNeverPutsElementsIntoTheField) {
  for (const bool stored_before : {false, true}) {
    ASSERT_TRUE(table().Goto(1));
    for (size_t i = 0; i < fields.size(); i++) {
      fields[i]->SetNULL();
      fields[i]->Commit();
      if (stored_before) Store(fields[i], Other(i));
    }
    ASSERT_TRUE(table().Goto(1));
    for (XBaseVariable* variable : fields) {
      MakeArray(variable, "0");
      variable->Commit();
      EXPECT_EQ(variable->aggregatetype(), AggregateArray);
      EXPECT_EQ(ValueOf(variable), "0");
    }
    std::vector<std::string> expected = kRow;
    if (stored_before) {
      expected[2] = "";
      expected[3] = "F";
    }
    EXPECT_EQ(ValuesOf(table()), expected);
  }
}

TEST_F(XBaseVariableTest, ElementsOutliveSetOriginalAndSwapOriginal) {
  for (XBaseVariable* variable : all) {
    MakeArray(variable, "el");
    variable->SetOriginal();
    EXPECT_EQ(ValueOf(variable), "el");
    variable->SwapOriginal();
    EXPECT_EQ(variable->aggregatetype(), AggregateArray);
    EXPECT_EQ(ValueOf(variable), "el");
    variable->Commit();
    variable->SetDirty();
    EXPECT_EQ(variable->primary_type(), 0);
  }
}

// A key's code may make elements. The saved value then takes their place again.
TEST_F(XBaseVariableTest, SwapOriginalRestoresAValueOverElements) {
  for (size_t i = 0; i < fields.size(); i++) {
    Store(fields[i], Other(i));
    fields[i]->SetOriginal();
    MakeArray(fields[i], "el");
    fields[i]->SwapOriginal();
    EXPECT_EQ(fields[i]->aggregatetype(), AggregateNone);
    EXPECT_EQ(ValueOf(fields[i]), Other(i));
  }
  // Without a saved value the elements stay.
  recno->SetOriginal();
  MakeArray(recno, "el");
  recno->SwapOriginal();
  EXPECT_EQ(ValueOf(recno), "el");
  EXPECT_EQ(recno->primary_type(), 0);
}

TEST_F(XBaseVariableTest, SetEOFTakesThePlaceOfElements) {
  MakeArray(eof, "el");
  eof->SetEOF(1);
  EXPECT_EQ(eof->aggregatetype(), AggregateNone);
  EXPECT_EQ(ValueOf(eof), "1");
}

// --- References and NULL -------------------------------------------------------------------------

TEST_F(XBaseVariableTest, AsAReferenceItLeavesItsFieldAlone) {
  for (XBaseVariable* variable : all) {
    SCOPED_TRACE(TextOf(variable->name()));
    Store(variable, "20041231");
    Variable* target = new Variable("target", -1, "abc", 3);
    variables.emplace_back(target);
    variable->Make_Reference(target);
    EXPECT_EQ(variable->type(), 1);
    EXPECT_EQ(variable->TypeReferredTo(), 0);
    EXPECT_EQ(variable->preferred_type(), 1);
    EXPECT_EQ(ValueOf(variable), "abc");
    EXPECT_EQ(Store(variable, "not a number "), 1);
    EXPECT_EQ(ValueOf(target), "not a number ");
    EXPECT_EQ(Adopt(variable, "adopted"), 1);
    EXPECT_EQ(ValueOf(target), "adopted");
    EXPECT_EQ(variable->SetValue_Double(1.999), 1);
    EXPECT_EQ(target->value_double(), 1.999);
    EXPECT_EQ(variable->SetValue_Integer(77), 1);
    EXPECT_EQ(target->value_integer(), 77);
    EXPECT_EQ(StoreVariable(variable, std::string("from")), 1);
    EXPECT_EQ(ValueOf(target), "from");
    int not_numeric = 0;
    variable->value_compare(&not_numeric);
    EXPECT_EQ(not_numeric, 1);
    EXPECT_EQ(variable->value_integer(), 0);
    EXPECT_EQ(variable->value_double(), 0.0);
    variable->SetDirty();
    variable->Convert_String();
    variable->Commit();
    variable->SetOriginal();
    variable->SwapOriginal();
    EXPECT_EQ(ValueOf(target), "from");
    EXPECT_EQ(target->primary_type(), 1);
  }
  eof->SetEOF(1);
  EXPECT_EQ(ValueOf(eof), "from");
  EXPECT_EQ(ValuesOf(table()), kRow);
}

// A view ends while a script still has its variables: neither field nor table exists any more.
TEST_F(XBaseVariableTest, AfterMakeNULLNothingTouchesFieldOrTable) {
  for (XBaseVariable* variable : all) {
    Store(variable, "20041231");
    variable->Make_NULL();
  }
  tables.clear();
  Variable source("source", -1, "x", 1);
  for (XBaseVariable* variable : all) {
    EXPECT_EQ(variable->type(), 2);
    EXPECT_EQ(Store(variable, "1"), 1);
    EXPECT_EQ(Adopt(variable, "1"), 1);
    EXPECT_EQ(variable->SetValue_Integer(1), 1);
    EXPECT_EQ(variable->SetValue_Double(1.0), 1);
    EXPECT_EQ(variable->SetValue(source), 1);
    variable->SetNULL();
    variable->SetDirty();
    variable->Convert_String();
    variable->Commit();
    variable->SetOriginal();
    variable->SwapOriginal();
    EXPECT_EQ(ValueOf(variable), "");
    EXPECT_EQ(variable->value_integer(), 0);
    EXPECT_EQ(variable->value_double(), 0.0);
    int not_numeric = 1;
    EXPECT_EQ(variable->value_compare(&not_numeric), 0.0);
    EXPECT_EQ(not_numeric, 0);
    EXPECT_EQ(variable->IsTrue(), 0);
    EXPECT_EQ(variable->IsNULL(), 1);
    EXPECT_EQ(variable->Element(AggregateIndex(1), 1), variable);
    const VariableRef copy(variable->Clone(nullptr));
    EXPECT_EQ(copy->type(), 2);
  }
  eof->SetEOF(1);
  EXPECT_EQ(eof->value_integer(), 0);
}

// The text of a long memo is on the operand stack while the variable changes.
TEST_F(XBaseVariableTest, ATextThatIsBeingBuiltKeepsTheValueThatItBeganWith) {
  const std::string longer(1000, 'x');
  const std::vector<std::function<void()>> changes = {
      [this] { note->SetDirty(); },         [this] { note->SetOriginal(); },
      [this] { note->SwapOriginal(); },     [this] { Store(note, "short"); },
      [this] { note->SetValue_Double(2); }, [this] { note->Convert_String(); },
      [this] { note->Make_NULL(); }};
  for (size_t i = 0; i < changes.size(); i++) {
    Store(note, longer);
    std::unique_ptr<DeferredText> text(DeferredText::Begin(note));
    if (!text) {
      text = std::make_unique<DeferredText>();
      text->Append(note);
    }
    changes[i]();
    if (i + 1 < changes.size()) note->value();
    text->Append("y", 1);
    int length;
    const std::unique_ptr<char[]> flat(text.release()->Release(&length));
    EXPECT_EQ(std::string(flat.get(), static_cast<size_t>(length)), longer + "y") << i;
  }
}

TEST_F(XBaseVariableTest, AConcatenationIsStoredByTheRulesOfTheField) {
  for (const bool adopt : {false, true}) {
    auto* text = new DeferredText();
    text->Append("12.5", 4);
    text->Append("67", 2);
    text->Assign(amount, adopt);
    EXPECT_EQ(ValueOf(amount), "12.56");
    text = new DeferredText();
    text->Append("no number", 9);
    text->Assign(amount, adopt);
    EXPECT_EQ(ValueOf(amount), "12.56");
  }
}

}  // namespace

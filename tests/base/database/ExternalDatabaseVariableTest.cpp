// When a field of an external database asks its library, and what the library gets.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "base/database/ExternalDatabase.h"
#include "base/values/Aggregate.h"
#include "base/values/VariableRef.h"
#include "tests/support/LibraryFixture.h"
#include "tests/support/Machine.h"
#include "tests/support/Rounds.h"

namespace {

// A field whose library has the values that a test sets, and notes what it is asked for: S, D and I
// for reads, the value in brackets for what is set.
class ExternalDatabaseVariableTest : public testing::Test {
 protected:
  ExternalDatabaseVariableTest() {
    current = this;
    table.version = 6;
    table.variable_get_integer = [](ZPDATABASEVARIABLE, int* value) {
      current->calls += "I";
      if (current->integer) *value = *current->integer;
      return current->integer != nullptr ? 1 : 0;
    };
    table.variable_get_double = [](ZPDATABASEVARIABLE, double* value) {
      current->calls += "D";
      if (current->number) *value = *current->number;
      return current->number != nullptr ? 1 : 0;
    };
    table.variable_get_string = [](ZPDATABASEVARIABLE, char** text, int* length, int* owned) {
      current->calls += "S";
      if (!current->text) return 0;
      *owned = current->hand_over;
      *length = current->text_length;
      *text = current->hand_over ? OwnedText(current->text) : const_cast<char*>(current->text);
      return 1;
    };
    table.variable_set_integer = [](ZPDATABASEVARIABLE, int value) {
      current->calls += "[i" + std::to_string(value) + "]";
      return current->accepts;
    };
    table.variable_set_double = [](ZPDATABASEVARIABLE, double value) {
      current->calls += "[d" + std::to_string(value) + "]";
      return current->accepts;
    };
    table.variable_set_string = [](ZPDATABASEVARIABLE, const char* value, int length) {
      EXPECT_EQ(value[length], '\0');
      current->calls += "[s" + std::string(value, static_cast<size_t>(length)) + "]";
      return current->accepts;
    };
    table.variable_type = [](ZPDATABASEVARIABLE) { return current->kind; };
    table.variable_free = [](ZPDATABASEVARIABLE) { current->freed++; };
    database = std::make_unique<ExternalDatabase>(&machine.vm(), "shop", -1, 0, nullptr, &table);
    view = database->Add_View("v", -1, nullptr);
    field = view->Add_Variable("f", -1, nullptr);
  }
  ~ExternalDatabaseVariableTest() override {
    database.reset();
    machine.Close();
  }

  std::string Read() { return Text(field->value()); }
  std::string Asked() { return std::exchange(calls, ""); }

  static inline ExternalDatabaseVariableTest* current = nullptr;
  Machine machine;
  _ZP_EL_Database table = {};
  std::unique_ptr<ExternalDatabase> database;
  ExternalDatabaseView* view = nullptr;
  ExternalDatabaseVariable* field = nullptr;
  std::string calls;
  const int* integer = nullptr;
  const double* number = nullptr;
  const char* text = nullptr;
  int text_length = -1;
  int hand_over = 0;
  int accepts = 1;
  int kind = 1;
  int freed = 0;
  const int seven = 7;
  const double half = 2.5;
};

// --- Reads ---------------------------------------------------------------------------------------

TEST_F(ExternalDatabaseVariableTest, EachFormIsRequestedInItsOrder) {
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(Asked(), "SDI");
  EXPECT_EQ(field->value_integer(), 0);
  EXPECT_EQ(Asked(), "IDS");
  EXPECT_EQ(field->value_double(), 0.0);
  EXPECT_EQ(Asked(), "DIS");
}

TEST_F(ExternalDatabaseVariableTest, TheFirstValueThatArrivesIsConverted) {
  integer = &seven;
  EXPECT_EQ(Read(), "7");
  EXPECT_EQ(Asked(), "SDI");
  number = &half;
  view->Clear();
  field = view->Add_Variable("f", -1, nullptr);
  EXPECT_EQ(Read(), "2.5");
  EXPECT_EQ(Asked(), "SD");
  text = "12.75";
  view->Clear();
  field = view->Add_Variable("f", -1, nullptr);
  integer = nullptr;
  number = nullptr;
  EXPECT_EQ(field->value_integer(), 12);
  EXPECT_EQ(Asked(), "IDS");
  EXPECT_EQ(field->value_double(), 12.75);
  EXPECT_EQ(Asked(), "");
}

TEST_F(ExternalDatabaseVariableTest, AWholeNumberInATextIsReadAsInPlainVariables) {
  for (const char* each : {"12", "-5", "4294967297", "12.75", "x", ""}) {
    SCOPED_TRACE(each);
    text = each;
    view->Clear();
    field = view->Add_Variable("f", -1, nullptr);
    Variable plain("p", -1, each, -1);
    EXPECT_EQ(field->value_integer(), plain.value_integer());
    EXPECT_EQ(field->value_double(), plain.value_double());
  }
}

TEST_F(ExternalDatabaseVariableTest, AFormThatHasArrivedIsKept) {
  text = "12";
  EXPECT_EQ(Read(), "12");
  EXPECT_EQ(Read(), "12");
  EXPECT_EQ(Asked(), "S");
  // Another form is requested, and then kept too.
  integer = &seven;
  EXPECT_EQ(field->value_integer(), 7);
  EXPECT_EQ(field->value_integer(), 7);
  EXPECT_EQ(Asked(), "I");
  EXPECT_EQ(Read(), "12");
  EXPECT_EQ(Asked(), "");
}

TEST_F(ExternalDatabaseVariableTest, WithoutAValueEachReadAsksAgain) {
  Read();
  Read();
  EXPECT_EQ(Asked(), "SDISDI");
  EXPECT_EQ(field->IsNULL(), 1);
  text = "now";
  EXPECT_EQ(Read(), "now");
}

TEST_F(ExternalDatabaseVariableTest, FormsThatTheLibraryDoesNotHaveAreNotRequested) {
  table.variable_get_string = nullptr;
  integer = &seven;
  EXPECT_EQ(Read(), "7");
  EXPECT_EQ(Asked(), "DI");
  table.variable_get_integer = nullptr;
  table.variable_get_double = nullptr;
  view->Clear();
  field = view->Add_Variable("f", -1, nullptr);
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(field->value_integer(), 0);
  EXPECT_EQ(field->value_double(), 0.0);
  EXPECT_EQ(Asked(), "");
}

TEST_F(ExternalDatabaseVariableTest, TextsAreTakenOverOrCopied) {
  for (const int handed : {0, 1}) {
    for (const int length : {-1, 5, 3, 0, -7}) {
      SCOPED_TRACE(testing::Message() << handed << " " << length);
      text = "bytes";
      hand_over = handed;
      text_length = length;
      view->Clear();
      field = view->Add_Variable("f", -1, nullptr);
      EXPECT_EQ(Read(), length == -1 || length == 5 ? "bytes" : length == 3 ? "byt" : "");
      EXPECT_EQ(strlen(field->value().data), strlen(Read().c_str()));
    }
  }
}

TEST_F(ExternalDatabaseVariableTest, AComparisonReadsAFieldInThePreferredForm) {
  integer = &seven;
  number = &half;
  text = "abc";
  const struct {
    int kind;
    double value;
    int not_numeric;
    const char* asked;
  } cases[] = {{1, 0.0, 1, "S"}, {2, 7.0, 0, "I"}, {3, 2.5, 0, "D"}};
  for (const auto& each : cases) {
    SCOPED_TRACE(each.asked);
    kind = each.kind;
    view->Clear();
    field = view->Add_Variable("f", -1, nullptr);
    int not_numeric = -1;
    EXPECT_EQ(field->value_compare(&not_numeric), each.value);
    EXPECT_EQ(not_numeric, each.not_numeric);
    field->value_compare(&not_numeric);
    EXPECT_EQ(Asked(), each.asked);
  }
  // Nothing compares as the number 0.
  integer = nullptr;
  number = nullptr;
  text = nullptr;
  view->Clear();
  field = view->Add_Variable("f", -1, nullptr);
  int not_numeric = -1;
  EXPECT_EQ(field->value_compare(&not_numeric), 0.0);
  EXPECT_EQ(not_numeric, 0);
}

TEST_F(ExternalDatabaseVariableTest, ACopyIsMadeInThePreferredForm) {
  number = &half;
  kind = 3;
  Variable copy;
  copy.SetValue(*field);
  EXPECT_EQ(copy.primary_type(), PrimaryDouble);
  EXPECT_EQ(Asked(), "D");
  for (const int other : {0, 1, 4, -1}) {
    kind = other;
    EXPECT_EQ(field->preferred_type(), 1);
  }
}

// --- Stores --------------------------------------------------------------------------------------

// A library may give a field its value by a store, and then mark it as clean.
TEST_F(ExternalDatabaseVariableTest, ACopyOfAStoredValueAsksForNothing) {
  kind = 3;
  number = &half;
  const VariableRef copy(new Variable("c", -1));
  for (const char* stored : {"12.50", "", "x"}) {
    field->SetValue(stored, -1);
    field->SetDirty(0);
    copy->SetValue(*field);
    EXPECT_EQ(Text(copy->value()), stored);
    EXPECT_EQ(copy->primary_type(), PrimaryText);
  }
  field->SetValue_Integer(7);
  field->SetDirty(0);
  copy->Element(AggregateIndex(1), 1);
  copy->SetValue(*field);
  EXPECT_EQ(copy->aggregatetype(), AggregateNone);
  EXPECT_EQ(copy->primary_type(), PrimaryInteger);
  EXPECT_EQ(Text(copy->value()), "7");
  EXPECT_EQ(Asked(), "");
  // After that the elements of the field are its value, or what a reference refers to.
  field->Element(AggregateIndex(1), 1)->SetValue("e", -1);
  copy->SetValue(*field);
  EXPECT_EQ(copy->aggregatetype(), AggregateArray);
  const VariableRef target(new Variable("t", -1, "referred", -1));
  field->Make_Reference(target.get());
  copy->SetValue(*field);
  EXPECT_EQ(Text(copy->value()), "referred");
  EXPECT_EQ(Asked(), "");
}

TEST_F(ExternalDatabaseVariableTest, AStoredValueIsNeverRequested) {
  text = "library";
  field->SetValue("12", -1);
  EXPECT_EQ(Read(), "12");
  EXPECT_EQ(field->value_integer(), 12);
  EXPECT_EQ(field->value_double(), 12.0);
  field->SetValue_Integer(5);
  EXPECT_EQ(Read(), "5");
  field->SetValue_Double(0.5);
  EXPECT_EQ(Read(), "0.5");
  EXPECT_EQ(field->value_integer(), 0);
  field->SetValue_Nocopy(OwnedText("own"), 3, 4);
  EXPECT_EQ(Read(), "own");
  Variable source("s", -1, "source", -1);
  field->SetValue(source);
  EXPECT_EQ(Read(), "source");
  EXPECT_EQ(Asked(), "");
}

TEST_F(ExternalDatabaseVariableTest, CommitSetsTheTypeThatWasStored) {
  EXPECT_EQ(field->Commit(), 1);
  EXPECT_EQ(Asked(), "");
  field->SetValue("12", -1);
  field->value_double();
  EXPECT_EQ(field->Commit(), 1);
  EXPECT_EQ(Asked(), "[s12]");
  field->SetValue_Integer(5);
  Read();
  field->Commit();
  EXPECT_EQ(Asked(), "[i5]");
  field->SetValue_Double(2.5);
  Read();
  field->Commit();
  EXPECT_EQ(Asked(), "[d2.500000]");
  // It stays dirty until the library says otherwise.
  field->Commit();
  EXPECT_EQ(Asked(), "[d2.500000]");
}

TEST_F(ExternalDatabaseVariableTest, AMarkedFieldIsSetInItsPreferredType) {
  text = "8";
  Read();
  Asked();
  const struct {
    int kind;
    const char* set;
  } cases[] = {{2, "[i8]"}, {3, "[d8.000000]"}, {1, "[s8]"}, {0, "[s8]"}};
  for (const auto& each : cases) {
    kind = each.kind;
    field->SetDirty(1);
    EXPECT_EQ(field->Commit(), 1);
    EXPECT_EQ(Asked(), each.set);
  }
  // A field that was never read has nothing.
  view->Clear();
  field = view->Add_Variable("f", -1, nullptr);
  view->SetDirty(1);
  kind = 1;
  EXPECT_EQ(view->Commit(), 1);
  EXPECT_EQ(Asked(), "[s]");
}

TEST_F(ExternalDatabaseVariableTest, ACleanFieldIsNotSet) {
  field->SetValue("12", -1);
  field->SetDirty(0);
  EXPECT_EQ(field->Commit(), 1);
  EXPECT_EQ(Read(), "12");
  EXPECT_EQ(Asked(), "");
}

TEST_F(ExternalDatabaseVariableTest, AnAggregateIsSetAsItsText) {
  field->Element(AggregateIndex(2), 1)->SetValue("b", -1);
  field->Element(AggregateIndex(1), 1)->SetValue("a", -1);
  kind = 2;
  EXPECT_EQ(field->Commit(), 1);
  EXPECT_EQ(Asked(), "[sa,b]");
  // Without a function for texts, a dirty one has no number.
  table.variable_set_string = nullptr;
  EXPECT_EQ(field->Commit(), 1);
  EXPECT_EQ(Asked(), "");
  field->SetDirty(1);
  EXPECT_EQ(field->Commit(), 1);
  EXPECT_EQ(Asked(), "[i0]");
}

// A view knows without a look at each field whether there is something to commit.
TEST_F(ExternalDatabaseVariableTest, CommitFindsWhateverIsStoredInAnyOrder) {
  std::mt19937 random(5);
  const VariableRef array(new Variable("a", -1));
  array->Element(AggregateIndex(1), 1)->SetValue("x", -1);
  const VariableRef target(new Variable("b", -1));
  std::vector<ExternalDatabaseVariable*> fields;
  int committed = 0;
  for (int i = 0; i < Rounds(20000); i++) {
    if (fields.empty() || random() % 50 == 0) {
      view->Clear();
      fields.clear();
      for (const char* name : {"f", "g", "h"}) {
        fields.push_back(view->Add_Variable(name, -1, nullptr));
      }
    }
    ExternalDatabaseVariable* const of = fields[random() % fields.size()];
    switch (random() % 16) {
      case 0: of->SetValue("t", 1); break;
      case 1: of->SetValue_Integer(7); break;
      case 2: of->SetValue_Double(0.5); break;
      case 3: of->SetValue(*array); break;
      case 4: of->Element(AggregateIndex(1), 1); break;
      case 5: of->SetNULL(); break;
      case 6: view->SetDirty(1); break;
      case 7: of->SetDirty(1); break;
      case 8: (void)of->value(); break;
      case 9:
        if (random() % 10 == 0) of->Make_Reference(target.get());
        break;
      default: of->SetDirty(0); break;
    }
    size_t stored = 0;
    for (const ExternalDatabaseVariable* each : fields) stored += each->HasStore();
    calls.clear();
    EXPECT_EQ(view->Commit(), 1);
    ASSERT_EQ(static_cast<size_t>(std::count(calls.begin(), calls.end(), '[')), stored);
    committed += stored > 0;
  }
  EXPECT_GT(committed, 0);
}

TEST_F(ExternalDatabaseVariableTest, ARefusedValueIsReportedAfterAllOthersWereSet) {
  view->Add_Variable("g", -1, nullptr)->SetValue_Integer(2);
  field->SetValue_Integer(1);
  accepts = 0;
  EXPECT_EQ(view->Commit(), 0);
  EXPECT_EQ(Asked(), "[i1][i2]");
  accepts = 1;
  EXPECT_EQ(view->Commit(), 1);
  table.variable_set_integer = nullptr;
  table.variable_set_double = nullptr;
  table.variable_set_string = nullptr;
  EXPECT_EQ(view->Commit(), 0);
  field->SetValue_Double(1);
  EXPECT_EQ(field->Commit(), 0);
  field->SetValue("1", -1);
  EXPECT_EQ(field->Commit(), 0);
}

// --- The end -------------------------------------------------------------------------------------

TEST_F(ExternalDatabaseVariableTest, ClearingFreesEachFieldOnce) {
  view->Add_Variable("g", -1, nullptr);
  view->Clear();
  EXPECT_EQ(freed, 2);
  EXPECT_EQ(view->FindField("f", -1), nullptr);
  view->Add_Variable("f", -1, nullptr);
  database.reset();
  EXPECT_EQ(freed, 3);
}

TEST_F(ExternalDatabaseVariableTest, AHeldFieldReadsAsNullAndIgnoresStores) {
  text = "value";
  const VariableRef held = VariableRef::Share(field);
  view->Clear();
  EXPECT_EQ(freed, 1);
  EXPECT_EQ(Read(), "");
  field->SetValue("new", -1);
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(field->IsNULL(), 1);
  EXPECT_EQ(field->Commit(), 1);
  EXPECT_EQ(field->preferred_type(), 1);
  field->SetDirty(1);
  EXPECT_EQ(field->view(), nullptr);
  EXPECT_EQ(Asked(), "");
}

TEST_F(ExternalDatabaseVariableTest, AReferenceThatAScriptMadeOfItIsNotTouched) {
  Variable* target = new Variable("t", -1, "target", -1);
  field->Make_Reference(target);
  EXPECT_EQ(Read(), "target");
  field->SetValue("stored", -1);
  EXPECT_EQ(Text(target->value()), "stored");
  EXPECT_EQ(field->Commit(), 1);
  EXPECT_EQ(Asked(), "");
  view->Clear();
  EXPECT_EQ(freed, 1);
  target->DecRefCount();
}

// The variable is in the middle of its read.
TEST_F(ExternalDatabaseVariableTest, ALibraryCannotClearTheFieldsWhileItReadsOne) {
  table.variable_get_string = [](ZPDATABASEVARIABLE variable, char** result, int* length, int*) {
    variable->view()->Clear();
    *result = const_cast<char*>("value");
    *length = 5;
    return 1;
  };
  EXPECT_EQ(Read(), "value");
  EXPECT_EQ(freed, 0);
  EXPECT_EQ(view->FindField("f", -1), field);
}

// A script that the library calls may have stored something better.
TEST_F(ExternalDatabaseVariableTest, AStoreDuringAReadWins) {
  table.variable_get_string = [](ZPDATABASEVARIABLE variable, char** result, int* length,
                                 int* owned) {
    variable->SetValue_Integer(42);
    *result = OwnedText("value");
    *length = 5;
    *owned = 1;
    return 1;
  };
  EXPECT_EQ(Read(), "42");
  EXPECT_EQ(field->Commit(), 1);
  EXPECT_EQ(Asked(), "[i42]");
}

// The reader may hold the text of another field, or of this one.
TEST_F(ExternalDatabaseVariableTest, ALibraryCannotClearOtherViewsWhileItReadsAField) {
  static ExternalDatabaseView* other;
  ExternalDatabase second(&machine.vm(), "second", -1, 0, nullptr, &table);
  for (ExternalDatabase* const owner : {database.get(), &second}) {
    other = owner->Add_View("other", -1, nullptr);
    other->Add_Variable("g", -1, nullptr);
    for (const int each : {PrimaryText, PrimaryInteger, PrimaryDouble}) {
      view->Clear();
      field = view->Add_Variable("f", -1, nullptr);
      table.variable_get_string = [](ZPDATABASEVARIABLE, char**, int*, int*) {
        other->Clear();
        return 0;
      };
      table.variable_get_integer = [](ZPDATABASEVARIABLE, int*) {
        other->Clear();
        return 0;
      };
      table.variable_get_double = [](ZPDATABASEVARIABLE, double*) {
        other->Clear();
        return 0;
      };
      table.variable_type = [](ZPDATABASEVARIABLE) {
        other->Clear();
        return 1;
      };
      if (each == PrimaryText) Read();
      if (each == PrimaryInteger) field->value_integer();
      if (each == PrimaryDouble) field->value_double();
      field->preferred_type();
      EXPECT_NE(other->FindField("g", -1), nullptr);
    }
    other->Clear();
    EXPECT_EQ(other->FindField("g", -1), nullptr);
  }
}

// A store, a move, or a call of any other kind would take away what the reader works on.
TEST_F(ExternalDatabaseVariableTest, NoCodeOfTheScriptRunsWhileAFieldIsRead) {
  static int ran;
  static ZephVM* vm;
  static Segment* expression;
  ran = 0;
  vm = &machine.vm();
  expression = vm->Compile_Dynamic_Expression("1", -1, nullptr, nullptr, nullptr, nullptr, 0, 0);
  ASSERT_NE(expression, nullptr);
  static const auto run = [] {
    ran += vm->Go_Recursive();
    int truth = 0;
    ran += vm->Execute_Dynamic_Expression(expression, nullptr, nullptr, &truth);
  };
  table.variable_get_integer = [](ZPDATABASEVARIABLE, int* value) {
    run();
    *value = 7;
    return 1;
  };
  table.variable_get_double = [](ZPDATABASEVARIABLE, double* value) {
    run();
    *value = 7;
    return 1;
  };
  table.variable_get_string = [](ZPDATABASEVARIABLE, char** result, int* length, int*) {
    run();
    *result = const_cast<char*>("7");
    *length = 1;
    return 1;
  };
  table.variable_type = [](ZPDATABASEVARIABLE) {
    run();
    return 2;
  };
  EXPECT_EQ(field->value_integer(), 7);
  EXPECT_EQ(field->value_double(), 7.0);
  EXPECT_EQ(Read(), "7");
  EXPECT_EQ(field->preferred_type(), 2);
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(machine.Failure(), "Script code cannot run while a field of a database is read");
}

TEST_F(ExternalDatabaseVariableTest, AStoredValueThatIsMarkedAsCleanIsReadInOtherFormsAgain) {
  integer = &seven;
  field->SetValue("12", -1);
  field->SetDirty(0);
  EXPECT_EQ(Read(), "12");
  EXPECT_EQ(Asked(), "");
  EXPECT_EQ(field->value_integer(), 7);
  EXPECT_EQ(Asked(), "I");
  EXPECT_EQ(field->Commit(), 1);
  EXPECT_EQ(view->Commit(), 1);
  EXPECT_EQ(Asked(), "");
}

TEST_F(ExternalDatabaseVariableTest, AnOwnedTextMayBeNull) {
  static int asked, bytes;
  for (const int length_of_null : {0, 5, -1}) {
    asked = 0;
    bytes = length_of_null;
    table.variable_get_string = [](ZPDATABASEVARIABLE, char** result, int* length, int* owned) {
      asked++;
      *result = nullptr;
      *length = bytes;
      *owned = 1;
      return 1;
    };
    view->Clear();
    field = view->Add_Variable("f", -1, nullptr);
    EXPECT_EQ(Read(), "");
    EXPECT_EQ(Read(), "");
    EXPECT_EQ(asked, 1);
  }
}

// --- Names ---------------------------------------------------------------------------------------

// What constant names mean is remembered, and a library may replace fields and views at any time.
TEST(ExternalDatabaseField, AConstantNameMeansTheFieldThatIsThere) {
  Machine machine;
  const std::string show = "pushdc \"v\", \"f\"\nout\n";
  machine.Assemble(show + show + "pushc \"|\"\nout\n");
  _ZP_EL_Database table = {};
  table.version = 6;
  const auto add = [](ExternalDatabaseView* view, const char* value) {
    view->Add_Variable("f", -1, nullptr)->SetValue(value, -1);
  };
  const auto run = [&machine] { EXPECT_EQ(machine.vm().Go_Recursive(), 1); };
  run();
  {
    ExternalDatabase first(&machine.vm(), "first", -1, 0, nullptr, &table);
    ExternalDatabaseView* view = first.Add_View("v", -1, nullptr);
    add(view, "1");
    run();
    view->Clear();
    run();
    add(view, "2");
    run();
    // An earlier field and an earlier view of the same names come first.
    add(view, "hidden");
    ExternalDatabase second(&machine.vm(), "second", -1, 0, nullptr, &table);
    add(second.Add_View("v", -1, nullptr), "3");
    run();
    // A new view may get the memory of the old one.
    for (const char* value : {"4", "5"}) {
      first.CloseView("v", -1, 0, nullptr);
      run();
      add(first.Add_View("v", -1, nullptr), value);
      second.CloseView("v", -1, 0, nullptr);
      run();
      add(second.Add_View("v", -1, nullptr), "3");
    }
  }
  run();
  EXPECT_EQ(machine.Output(), "|11||22|22|33|44|33|55||");
  machine.Close();
}

}  // namespace

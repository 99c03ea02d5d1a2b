#include "base/values/LogRecord.h"

#include <gtest/gtest.h>

#include <memory>

#include "base/request/SpecialVariable.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"
#include "tests/support/Rounds.h"
#include "tests/support/TestApplication.h"

namespace {

ZPTIME SomeMoment() {
  ZPTIME time = {};
  time.microseconds = 4711;
  time.second = 5;
  time.minute = 4;
  time.hour = 3;
  time.day = 7;
  time.month_name = "Nov";
  time.year = 2026;
  return time;
}

const std::string begin = "Nov 7  2026 03:04:05.004711\t1234.8\tTrace";

std::string RecordOf(std::vector<LogParameter> parameters) {
  TestApplication application;
  parameters.push_back(LogParameter::OfEnd());
  LogRecord record(SomeMoment(), 1234, 8, "Trace");
  record.Append(&application, parameters.data());
  return record.Finish();
}

// A variable's part of a record.
std::string Shown(Variable* variable) {
  const std::string record = RecordOf({LogParameter::OfVariable(variable)});
  EXPECT_EQ(record.substr(0, begin.size() + 1), begin + "\t");
  EXPECT_EQ(record.back(), '\n');
  return record.substr(begin.size() + 1, record.size() - begin.size() - 2);
}

void Add(Variable* aggregate, const AggregateIndex& index, Variable* adopted) {
  const VariableRef held(adopted);
  aggregate->SetElement(index, adopted);
}

TEST(LogRecord, TypesHaveDescriptions) {
  const struct {
    unsigned type;
    const char* description;
  } cases[] = {
      {16, "Function Call"},
      {32, "Function Parameter"},
      {64, "Function Return Value"},
      {128, "Function Return"},
      {256, "External Function Call"},
      {512, "External Function Parameter"},
      {1024, "External Function Return Value"},
      {2048, "External Function Return"},
      {4096, "ZpDO Enter"},
      {8192, "ZpDO Exit"},
      {1048576, "ZpCALL"},
      {2097152, "ZpSMTP"},
      {134217728, "Application Timed Out"},
      {268435456, "Runtime Error"},
      {536870912, "Fatal Error"},
      {1073741824, "Trace"},
      {0, "Unknown"},
      {8, "Unknown"},
      {48, "Unknown"},
      {0xFF0, "Unknown"},
      {0x80000000, "Unknown"},
  };
  TestApplication application;
  for (const auto& c : cases) EXPECT_STREQ(application.Log_Description(c.type), c.description);
}

TEST(LogRecord, BeginsWithTimeProcessThreadAndType) {
  EXPECT_EQ(RecordOf({}), begin + "\n");
}

TEST(LogRecord, LongMonthsAreCutAndDaysHaveTwoPlaces) {
  ZPTIME time = SomeMoment();
  time.month_name = "November";
  time.day = 17;
  time.year = 999;
  time.microseconds = 999999;
  EXPECT_EQ(LogRecord(time, -1, -2, "T").Finish(),
            "Nov 17 999  03:04:05.999999\t4294967295.4294967294\tT\n");
}

TEST(LogRecord, ParametersOfAllKinds) {
  Variable variable("v", -1, "value", -1);
  EXPECT_EQ(RecordOf({LogParameter::OfText("page.zpc", -1), LogParameter::OfText("cut off", 3),
                      LogParameter::OfText("", 0), LogParameter::OfInteger(-17),
                      LogParameter::OfDouble(0.5), LogParameter::OfVariable(&variable)}),
            begin + "\tpage.zpc\tcut\t\t-17\t0.5\tvalue\n");
}

TEST(LogRecord, NothingBreaksTheLine) {
  EXPECT_EQ(RecordOf({LogParameter::OfText("a\nb\tc\r\0d\x1f\x20\x7f\\", 12)}),
            begin + "\ta\\x0ab\\x09c\\x0d\\x00d\\x1f \x7f\\\n");
  EXPECT_EQ(RecordOf({LogParameter::OfText("\xc3\xa4\xff", 3)}), begin + "\t\xc3\xa4\xff\n")
      << "bytes are unsigned";
}

TEST(LogRecord, ATextThatIsNotThereIsEmpty) {
  EXPECT_EQ(RecordOf({LogParameter::OfText(nullptr, 0), LogParameter::OfText(nullptr, -1),
                      LogParameter::OfText("x", -7)}),
            begin + "\t\t\t\n");
}

TEST(LogRecord, ScalarsAreShownAsTheyWereStored) {
  Variable text("v", -1, "1\n", 2);
  EXPECT_EQ(Shown(&text), "1\\x0a");
  text.value_integer();
  EXPECT_EQ(Shown(&text), "1\\x0a") << "what was read since makes no difference";
  Variable integer("v", -1, -5);
  EXPECT_EQ(Shown(&integer), "-5");
  Variable number("v", -1, 2.50);
  EXPECT_EQ(Shown(&number), "2.5");
  number.value_integer();
  EXPECT_EQ(Shown(&number), "2.5");
}

TEST(LogRecord, NULLIsEmptyAndStaysNULL) {
  Variable null("v", -1);
  EXPECT_EQ(Shown(&null), "");
  EXPECT_EQ(null.plain_forms(), 0u);
  NULLVariable nobody;
  EXPECT_EQ(Shown(&nobody), "");
}

TEST(LogRecord, ComputedValuesAreRead) {
  TestApplication application;
  TimeRemainingVariable remaining("r", &application);
  EXPECT_EQ(Shown(&remaining), "-1");
  LanguageVariable language("l", &application);
  EXPECT_EQ(Shown(&language), "en-US");
}

TEST(LogRecord, ReferencesAreShownAsWhatTheyReferTo) {
  const VariableRef target(new Variable("t", -1, 7));
  const VariableRef reference(new ReferenceVariable("r", -1, target.get()));
  EXPECT_EQ(Shown(reference.get()), "7");
}

TEST(LogRecord, Arrays) {
  const VariableRef array(new Variable("a", -1));
  array->Convert_Aggregate(AggregateArray);
  EXPECT_EQ(Shown(array.get()), "[0] = [  ]");
  Add(array.get(), AggregateIndex(1), new Variable("", 0, "x\ny", 3));
  EXPECT_EQ(Shown(array.get()), "[1] = [ x\\x0ay ]");
  Add(array.get(), AggregateIndex(9), new Variable("", 0, 12));
  Add(array.get(), AggregateIndex(3), new Variable("", 0, 0.25));
  EXPECT_EQ(Shown(array.get()), "[9] = [ x\\x0ay, 0.25, 12 ]") << "gaps are left out";
}

TEST(LogRecord, Structures) {
  const VariableRef structure(new Variable("s", -1));
  structure->Convert_Aggregate(AggregateStructure);
  EXPECT_EQ(Shown(structure.get()), "{  }");
  Add(structure.get(), AggregateIndex("name", -1), new Variable("", 0, "tea", 3));
  Add(structure.get(), AggregateIndex("Grams", -1), new Variable("", 0, 100));
  EXPECT_EQ(Shown(structure.get()), "{ Grams: 100, name: tea }");
}

// A client can send a form's field with such a name.
TEST(LogRecord, NamesOfMembersBreakNoLineEither) {
  const VariableRef structure(new Variable("s", -1));
  Add(structure.get(), AggregateIndex("a\nb", -1), new Variable("", 0, 1));
  EXPECT_EQ(Shown(structure.get()), "{ a\\x0ab: 1 }");
}

TEST(LogRecord, AggregatesWithinAggregates) {
  const VariableRef array(new Variable("a", -1));
  auto* inner = new Variable("", 0);
  Add(inner, AggregateIndex("k", -1), new Variable("", 0, "v", 1));
  Add(array.get(), AggregateIndex(1), inner);
  auto* list = new Variable("", 0);
  Add(list, AggregateIndex(2), new Variable("", 0, 5));
  Add(array.get(), AggregateIndex(2), list);
  Add(array.get(), AggregateIndex(3), new Variable("", 0, 6));
  EXPECT_EQ(Shown(array.get()), "[3] = [ { k: v }, [2] = [ 5 ], 6 ]");
}

TEST(LogRecord, AValueThatContainsItselfEnds) {
  const VariableRef array(new Variable("a", -1));
  Add(array.get(), AggregateIndex(1), new Variable("", 0, 1));
  array->SetElement(AggregateIndex(2), array.get());
  EXPECT_EQ(Shown(array.get()), "[2] = [ 1,  ]");
  array->SetNULL();
}

TEST(LogRecord, NestingHasNoLimit) {
  const VariableRef outermost(new Variable("a", -1));
  Variable* variable = outermost.get();
  for (int i = 0; i < Rounds(100000); i++) variable = variable->Element(AggregateIndex(1), 1);
  variable->SetValue("x", 1);
  const std::string shown = Shown(outermost.get());
  EXPECT_EQ(shown.substr(0, 20), "[1] = [ [1] = [ [1] ");
  EXPECT_EQ(shown.substr(shown.size() - 8), " ] ] ] ]");
}

// Each array holds the next one twice, so the whole is 2^60 elements long.
TEST(LogRecord, AValueThatIsTooLargeIsCut) {
  std::vector<VariableRef> arrays;
  for (int i = 0; i < 60; i++) {
    arrays.emplace_back(new Variable("a", -1));
    if (i == 0) continue;
    for (int at : {1, 2}) arrays[i]->SetElement(AggregateIndex(at), arrays[i - 1].get());
  }
  const std::string record = RecordOf({LogParameter::OfVariable(arrays.back().get())});
  EXPECT_EQ(record.size(), LogRecord::MostBytes);
  EXPECT_EQ(record.back(), '\n');
  EXPECT_EQ(record.find('\n'), record.size() - 1);
}

TEST(LogRecord, AScriptThatHasToEndWritesNoLargeValue) {
  TestApplication application;
  application.SetCancelled(1);
  const VariableRef array(new Variable("a", -1));
  for (int i = 1; i < 1000; i++) array->Element(AggregateIndex(i), 1)->SetValue("x", 1);
  LogRecord record(SomeMoment(), 1, 1, "T");
  const LogParameter parameters[] = {LogParameter::OfVariable(array.get()), LogParameter::OfEnd()};
  record.Append(&application, parameters);
  EXPECT_LT(record.Finish().size(), 100u);
}

}  // namespace

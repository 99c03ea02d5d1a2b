// Work that one instruction can make long: its cost is linear in the size of its operands, and it
// ends soon after the time limit passes. In these tests the limit passes when an operand is read,
// or before the work begins; small work is done completely all the same.

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/core/RunLimit.h"
#include "base/core/string_search.h"
#include "base/extensions/ExternalCall.h"
#include "base/machine/ExpressionCompiler.h"
#include "base/request/MultipartFormParser.h"
#include "base/request/URLEncodedParser.h"
#include "base/values/Aggregate.h"
#include "base/values/DeferredText.h"
#include "base/values/VariableRef.h"
#include "tests/support/FormBodies.h"
#include "tests/support/GrowthOfTime.h"
#include "tests/support/Machine.h"
#include "tests/support/Work.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const char kTimedOut[] = "Application timed out";

// As long as one exists, the time limit of all work has passed.
class TimeIsOver {
 public:
  TimeIsOver() : limit(&flag) {}

 private:
  int flag = 1;
  RunLimit limit;
};

VariableRef ArrayOf(int count, const char* text) {
  VariableRef array(new Variable("array", -1));
  for (int i = 1; i <= count; i++) array->At(i, 1)->SetValue(text, -1);
  return array;
}

// Keeps its elements in a tree, while ArrayOf makes a row.
VariableRef StructureOf(int count) {
  VariableRef structure(new Variable("structure", -1));
  for (int i = 1; i <= count; i++) {
    const std::string name = "m" + std::to_string(i);
    structure->Element(AggregateIndex(name.data(), static_cast<int>(name.size())), 1)
        ->SetValue_Integer(i);
  }
  return structure;
}

std::string TextOfValue(Variable* variable) {
  return TextOf(variable->value());
}

// --- Texts that grow -----------------------------------------------------------------------------

TEST(LongWork, AStringGrowsInLinearTimeByteAfterByte) {
  ExpectNearLinear(400000, [](int size) {
    String text("x");
    for (int i = 0; i < size; i++) text.cat('x');
  });
}

TEST(LongWork, AStringGrowsInLinearTimeTextAfterText) {
  ExpectNearLinear(400000, [](int size) {
    String text("x");
    for (int i = 0; i < size; i++) text.cat("abc", 3);
  });
}

// As nested calls leave them, each on a stack of its own.
TEST(LongWork, ConcatenationsThatWaitAreDroppedInLinearTime) {
  ExpectNearLinear(10000, [](int size) {
    std::vector<VariableRef> variables;
    std::vector<std::unique_ptr<DeferredText>> texts;
    const std::string text(DeferredText::ShortestPrefix, 'x');
    for (int i = 0; i < size; i++) {
      variables.emplace_back(new Variable("v", 1, text.data(), static_cast<int>(text.size())));
      texts.emplace_back(DeferredText::Begin(variables.back().get()));
    }
    while (!texts.empty()) texts.pop_back();
  });
}

TEST(LongWork, ConcatenationsThatBeginWithOneVariableAreDroppedInLinearTime) {
  const std::string text(DeferredText::ShortestPrefix, 'x');
  const VariableRef variable(new Variable("v", 1, text.data(), static_cast<int>(text.size())));
  ExpectNearLinear(10000, [&variable](int size) {
    std::vector<std::unique_ptr<DeferredText>> texts;
    for (int i = 0; i < size; i++) texts.emplace_back(DeferredText::Begin(variable.get()));
    for (auto& first : texts) first.reset();
    EXPECT_TRUE(variable->IsPlain());
  });
}

TEST(LongWork, AnArrayAsATextIsMadeInLinearTime) {
  ExpectNearLinear(30000, [](int size) {
    const VariableRef array = ArrayOf(size, "element");
    array->value();
  });
}

TEST(LongWork, AnArrayOfReferencesAsATextIsMadeInLinearTime) {
  const VariableRef target(new Variable("t", 1, "text", 4));
  ExpectNearLinear(20000, [&target](int size) {
    const VariableRef array(new Variable("array", -1));
    for (int i = 1; i <= size; i++) array->At(i, 1)->Make_Reference(target.get());
    array->value();
  });
}

TEST(LongWork, PastTheTimeAnArrayIsNoText) {
  const VariableRef row = ArrayOf(200000, "element");
  const VariableRef tree = StructureOf(50000);
  const TimeIsOver over;
  EXPECT_EQ(TextOfValue(row.get()), "");
  EXPECT_EQ(TextOfValue(tree.get()), "");
  EXPECT_TRUE(RunLimit::WasCut());
}

TEST(LongWork, PastTheTimeWhatWasThereBeforeAnArrayStays) {
  const VariableRef array = ArrayOf(200000, "element");
  String out("before");
  const TimeIsOver over;
  array->Serialize(out);
  EXPECT_EQ(TextOf(out), "before");
  EXPECT_STREQ(out.data, "before");
}

TEST(LongWork, PastTheTimeASmallArrayIsWhole) {
  const VariableRef array = ArrayOf(100, "e");
  const TimeIsOver over;
  EXPECT_EQ(array->value().length, 199);
  EXPECT_FALSE(RunLimit::WasCut());
}

TEST(LongWork, WithoutALimitNothingIsCut) {
  const VariableRef array = ArrayOf(200000, "element");
  EXPECT_EQ(array->value().length, 200000 * 8 - 1);
}

// --- Values that are met again and again ---------------------------------------------------------

// An array whose text or copy would have 2 to the power of levels elements.
class Doubling {
 public:
  explicit Doubling(Machine* machine, int levels)
      : leaf(new Alarm("leaf", "", machine->application.timedoutflag())),
        held(leaf),
        array(MakeDoublingArrays(levels, leaf)) {
    // Two names for one value.
    machine->global.SetVariable(new ReferenceVariable("big", 3, array.get()));
  }
  int readings() const { return leaf->readings; }

 private:
  Alarm* leaf;
  VariableRef held;
  VariableRef array;
};

// An empty text that says when it is read.
class Signal : public Variable {
 public:
  Signal(const char* name, std::atomic<bool>* read) : Variable(name, -1, "", 0), was_read(read) {}
  String& value() override {
    was_read->store(true);
    return Variable::value();
  }
  int type() override { return VariableComputedText; }

 private:
  std::atomic<bool>* was_read;
};

struct LongInstruction {
  const char* name;
  const char* code;
};

// Without the limit, each would practically never end.
TEST(LongWork, AValueBeyondAllBoundsIsLeftWhenTheTimeIsOver) {
  const LongInstruction instructions[] = {
      {"as a text", "pushg big\nout\n"},
      {"as a truth", "pushg big\nnot\npop\n"},
      {"compared", "pushg big\npushc \"x\"\neq\npop\n"},
      {"compared with itself", "pushg big\npushg big\neq\npop\n"},
      {"concatenated", "pushg big\npushc \"x\"\ncat\npop\n"},
      {"appended", "pushc \"x\"\npushg big\ncat\npop\n"},
      {"searched", "pushc \"x\"\npushg big\nin\npop\n"},
      {"compressed", "pushg big\nout_comp\n"},
      {"as a name", "pushg big\npushn\npop\n"},
      {"as a hash", "pushg big\npushc \"ab\"\ncrypt\npop\n"},
      {"as a list of names", "pushg big\nhide\n"},
      {"hidden", "pushc \"big\"\nhide\n"},
      {"copied", "pushg big\npopg copy\n"},
      {"copied to a variable", "pushg big\npushg copy\nstore\n"},
      {"exported", "pushc \"out\"\npushc \",\"\npushc \"big\"\nexport\n"},
      {"in a localized text", "pushg big\npoplvnc p\n"},
      {"as an error's prefix", "pushg big\nop_errmsg\n"},
      {"as a member's name", "pushg copy\npushg big\nmemb\npop\n"},
  };
  for (const LongInstruction& instruction : instructions) {
    SCOPED_TRACE(instruction.name);
    Machine machine;
    machine.Assemble(std::string(".global copy\n.global big\npushc \"begun;\"\nout\n") +
                     instruction.code + "pushc \"behind\"\nout\n");
    // 2 to the 25th.
    Doubling value(&machine, 25);
    EXPECT_EQ(machine.Go(), 0);
    EXPECT_LT(value.readings(), 100000);
    EXPECT_THAT(machine.Output(), StartsWith("begun;"));
    EXPECT_THAT(machine.Output(), EndsWith(kTimedOut));
    EXPECT_THAT(machine.Output(), Not(HasSubstr("behind")));
    EXPECT_THAT(machine.Output(), Not(HasSubstr("error")));
    machine.Close();
    machine.global.Dump();
  }
}

// Another thread sets the flag after the script has begun.
TEST(LongWork, AnotherThreadEndsAnInstruction) {
  Machine machine;
  machine.Assemble(".global big\nl: pushg big\nnot\npop\njmp l\n");
  std::atomic<bool> begun = false;
  const VariableRef leaf(new Signal("leaf", &begun));
  const VariableRef array(MakeDoublingArrays(60, leaf.get()));
  machine.global.SetVariable(new ReferenceVariable("big", 3, array.get()));
  std::thread host([&] {
    while (!begun) std::this_thread::yield();
    std::atomic_ref<int>(*machine.application.timedoutflag()).store(1);
  });
  EXPECT_EQ(machine.Go(), 0);
  host.join();
  EXPECT_EQ(machine.Output(), kTimedOut);
  machine.Close();
  machine.global.Dump();
}

TEST(LongWork, AnExportThatWasCutWritesNothing) {
  Machine machine;
  machine.Assemble(
      ".global big\n.global name\npushc \"out\"\npushc \",\"\npushc \"name, big\"\nexport\n");
  Doubling value(&machine, 20);
  machine.global.SetVariable("name", -1, "first", 5);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.files.files["out"], "");
  machine.Close();
  machine.global.Dump();
}

// --- Copies --------------------------------------------------------------------------------------

TEST(LongWork, PastTheTimeACopyIsEmptyAndSound) {
  const int count = 5000;
  for (const bool row : {true, false}) {
    SCOPED_TRACE(row);
    const VariableRef source = row ? ArrayOf(count, "element") : StructureOf(count);
    // Elements that were lent are copied at once. Others are shared, in no time.
    source->aggregateelements();
    const auto cut = [&source] {
      VariableRef copy(new Variable());
      const TimeIsOver over;
      copy->SetValue(*source);
      EXPECT_TRUE(RunLimit::WasCut());
      return copy;
    };
    VariableRef copy = cut();
    EXPECT_EQ(source->ElementsUsed(), count);
    EXPECT_EQ(copy->ElementsUsed(), 0);
    EXPECT_EQ(TextOfValue(copy.get()), "");
    // It can be used like any other.
    copy->SetValue(*source);
    EXPECT_EQ(TextOfValue(copy.get()), TextOfValue(source.get()));

    copy = cut();
    const VariableRef numbers = cut();
    for (int i = count; i >= 1; i--) {
      DenseSlot slot;
      EXPECT_FALSE(copy->FindBare(i, &slot));
      EXPECT_EQ(copy->At(i, 0), nullptr);
      copy->At(i, 1)->SetValue_Integer(i);
      EXPECT_EQ(copy->At(i, 0)->value_integer(), i);
      if (!numbers->WriteElement(i, i)) numbers->At(i, 1)->SetValue_Integer(i);
      EXPECT_EQ(numbers->At(i, 0)->value_integer(), i);
    }
    EXPECT_EQ(copy->ElementsUsed(), count);
    EXPECT_EQ(numbers->ElementsUsed(), count);
    for (int i = 1; i <= count; i += row ? 1 : 50) {
      copy = cut();
      copy->DeleteElements(i, i % 2 ? 1 : -1, i % 3 == 0);
      copy->DeleteElement(AggregateIndex(i), i % 2 == 0);
      EXPECT_EQ(copy->ElementsUsed(), 0);
    }
  }
}

TEST(LongWork, PastTheTimeElementsAreNotMoved) {
  const VariableRef source = ArrayOf(5000, "element");
  const TimeIsOver over;
  const VariableRef merged(new Variable());
  merged->MergeElements(source.get(), 0, -1, 0, true);
  EXPECT_LT(merged->ElementsUsed(), 5000);
  const VariableRef upward(new Variable());
  upward->CopyElements(source.get(), 100, -1, 1, true);
  EXPECT_LT(upward->ElementsUsed(), 4000);
  const VariableRef downward(new Variable());
  downward->CopyElements(source.get(), 1, -1, 100, true);
  EXPECT_LT(downward->ElementsUsed(), 5000);
  const VariableRef deleted = ArrayOf(5000, "element");
  deleted->DeleteElements(1, -1, false);
  EXPECT_GT(deleted->ElementsUsed(), 0);
  deleted->DeleteElements(1, 4000, true);
  EXPECT_GT(deleted->ElementsUsed(), 1000);
}

TEST(LongWork, PastTheTimeATableIsNotClonedWhole) {
  Dictionary dictionary;
  VariableHash table(&dictionary, 12, 512);
  for (int i = 0; i < 5000; i++) {
    table.SetVariable(("v" + std::to_string(i)).c_str(), -1, "x", 1);
  }
  TestApplication application;
  const TimeIsOver over;
  VariableHash clone(&application, &dictionary, table);
  VariableList made;
  clone.AllocatedVars(&made);
  EXPECT_LT(made.Entries(), 5000);
  EXPECT_TRUE(RunLimit::WasCut());
}

// --- References ----------------------------------------------------------------------------------

// As many holders as the chain of references has links: counted one by one, that is quadratic.
TEST(LongWork, ManyHoldersOfALongChainAreCountedTogether) {
  ExpectNearLinear(20000, [](int size) {
    const VariableRef first(new Variable());
    Variable* last = first.get();
    for (int i = 0; i < size; i++) {
      // Only the previous link holds it, and it is linked before it has a successor, so that each
      // link costs the same.
      auto* next = new Variable();
      last->Make_Reference(next);
      next->DecRefCount();
      last = next;
    }
    const VariableRef held(new Variable());
    for (int i = 0; i < size; i++) held->IncRefCount();
    held->Make_Reference(first.get());
    const VariableRef other(new Variable());
    held->Make_Reference(other.get());
    for (int i = 0; i < size; i++) held->DecRefCount();
  });
}

// --- Expressions ---------------------------------------------------------------------------------

std::string Sum(int terms) {
  std::string text = "1";
  while (--terms > 0) text += "+1";
  return text;
}

Segment* CompileIn(Machine* machine, const std::string& text, String* error) {
  return machine->vm().Compile_Dynamic_Expression(text.data(), static_cast<int>(text.size()),
                                                  nullptr, nullptr, error, nullptr, 0, 1);
}

TEST(LongWork, AnExpressionIsCompiledInLinearTime) {
  ExpectNearLinear(60000, [](int size) {
    Machine machine;
    String error;
    EXPECT_TRUE(CompileIn(&machine, Sum(size), &error));
  });
}

TEST(LongWork, PastTheTimeALongExpressionIsNotCompiled) {
  const std::string names = "a" + std::string(1000, ' ') + "+ b";
  std::string many = "a";
  for (int i = 0; i < 1000; i++) many += " + b" + std::to_string(i);
  std::string nested;
  for (int i = 0; i < 400; i++) nested += "(";
  nested += Sum(10000) + std::string(400, ')');
  std::string subscripts = "a";
  for (int i = 0; i < 400; i++) subscripts += "[a";
  subscripts += std::string(5000, ' ') + std::string(400, ']');
  for (const std::string& text : {Sum(1 << 20), many, nested, subscripts}) {
    SCOPED_TRACE(text.substr(0, 20));
    Machine machine;
    String error;
    const TimeIsOver over;
    EXPECT_FALSE(CompileIn(&machine, text, &error));
    EXPECT_STREQ(error.data, kTimedOut);
  }
}

TEST(LongWork, AFilterThatIsNotCompiledInTimeIsNoError) {
  Machine machine;
  machine.Assemble(R"(
        .global filter
        .global ZpIMPORT_Error
        pushc "in"
        pushc ","
        pushc "a"
        pushg filter
        importf done
  done: pushc "behind"
        out
)");
  machine.files.files["in"] = "1\n";
  auto* filter = new Alarm("filter", Sum(1 << 20), machine.application.timedoutflag());
  machine.global.SetVariable(filter);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Output(), kTimedOut);
  EXPECT_EQ(machine.Value("ZpIMPORT_Error"), "(none)");
}

// --- Libraries -----------------------------------------------------------------------------------

// Reads its argument as a text, which takes until the time limit passes, and then asks for a new
// time limit.
void ReadAndAskForTime(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
  if (!program) return;
  Variable* argument = nullptr;
  static_cast<VariableHash*>(parameters)->Find(&argument, "a", 1, 0);
  static_cast<Variable*>(result)->SetValue_Integer(argument->value().length);
  static_cast<ZephVM*>(program)->Application()->ResetGlobalTimeout();
}

TEST(LongWork, ALibraryGetsNoNewTimeForPartsOfValues) {
  Machine machine;
  machine.Assemble(
      ".global big\npushg big\ncall f\npushc \"behind\"\nout\n.function f(a var) external");
  _ZP_EL_Parameter parameter = {"a", 1, _ZP_EL_ByReference};
  _ZP_EL_Function row = {"f", 1, 1, &parameter, ReadAndAskForTime};
  ExternalCall call(&row);
  machine.functions.Function_Get("f", 1)->calldata = &call;
  Doubling value(&machine, 20);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Output(), kTimedOut);
  machine.Close();
  machine.global.Dump();
}

// It might keep or send what it is given.
TEST(LongWork, ALibraryIsNotCalledWithPartsOfValues) {
  static bool was_called;
  was_called = false;
  Machine machine;
  machine.Assemble(".global big\npushg big\ncall f\n.function f(a) external");
  _ZP_EL_Parameter parameter = {"a", 1, 0};
  _ZP_EL_Function row = {"f", 1, 1, &parameter,
                         [](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE, void**) {
                           if (program) was_called = true;
                         }};
  ExternalCall call(&row);
  machine.functions.Function_Get("f", 1)->calldata = &call;
  Doubling value(&machine, 20);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Output(), kTimedOut);
  EXPECT_FALSE(was_called);
  machine.Close();
  machine.global.Dump();
}

// --- Lists of names and fields -------------------------------------------------------------------

TEST(LongWork, AListOfNamesIsLeftWhenTheTimeIsOver) {
  std::string names;
  for (int i = 0; i < 20000; i++) names += "n" + std::to_string(i) + ",";
  for (const char* code : {
           "pushg names\nhide\n",
           "pushc \"out\"\npushc \",\"\npushg names\nexport\n",
           "pushc \"in\"\npushc \",\"\npushg names\nimport done\ndone: noop\n",
       }) {
    SCOPED_TRACE(code);
    Machine machine;
    machine.Assemble(std::string(".global names\n") + code);
    machine.files.files["in"] = "1\n";
    machine.global.SetVariable(new Alarm("names", names, machine.application.timedoutflag()));
    EXPECT_EQ(machine.Go(), 0);
    EXPECT_LT(machine.global.Entries(), 100);
    EXPECT_LT(machine.Output().size(), 1000U);
    EXPECT_THAT(machine.Output(), EndsWith(kTimedOut));
    EXPECT_EQ(machine.files.files["out"], "");
  }
}

TEST(LongWork, AnImportedRecordIsDealtOutInTime) {
  Dictionary dictionary;
  std::string names, record;
  for (int i = 0; i < 5000; i++) {
    names += "n" + std::to_string(i) + ",";
    record += "x,";
  }
  Machine machine;
  machine.Assemble(R"(
        .global names
        .global n0
        .global recno
        pushc "in"
        pushc ","
        pushg names
        import done
  l:    pushc "body"
        out
        import_loop l
  done: noop
)");
  machine.files.files["in"] = record + "\n";
  machine.global.SetVariable("names", -1, names.data(), static_cast<int>(names.size()));
  // The variable of the record's first field: storing it sets the flag.
  class Stored : public Variable {
   public:
    explicit Stored(int* timedout) : Variable("n0", 2), timedout(timedout) {}
    int SetValue(const char* text, int length) override {
      *timedout = 1;
      return Variable::SetValue(text, length);
    }

   private:
    int* timedout;
  };
  machine.global.SetVariable(new Stored(machine.application.timedoutflag()));
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Value("n0"), "x");
  EXPECT_EQ(machine.Value("n4999"), "");
  EXPECT_EQ(machine.Output(), kTimedOut);
}

TEST(LongWork, AFormIsLeftWhenTheTimeIsOver) {
  Dictionary dictionary;
  VariableHash table(&dictionary, 12, 512);
  URLEncodedParser parser(&table, 0);
  const TimeIsOver over;
  const std::string body = "a=1&b=2&c=3";
  EXPECT_FALSE(parser.Parse(body.data(), static_cast<int>(body.size())));
  EXPECT_EQ(TextOf(parser.error()), "Timeout processing POST data");
  EXPECT_EQ(table.Entries(), 0);
}

TEST(LongWork, AFormInPartsIsLeftWhenTheTimeIsOver) {
  Dictionary dictionary;
  VariableHash table(&dictionary, 12, 512);
  MultipartFormParser parser(nullptr, nullptr, &table, "multipart/form-data; boundary=B", 0);
  const TimeIsOver over;
  const std::string body =
      "--B\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--B\r\n"
      "Content-Disposition: form-data; name=\"b\"\r\n\r\n2\r\n--B--\r\n";
  EXPECT_FALSE(parser.Parse(body.data(), static_cast<int>(body.size())));
  EXPECT_EQ(TextOf(parser.error()), "Timeout processing POST data");
  EXPECT_EQ(table.Entries(), 0);
}

TEST(LongWork, AFieldThatRepeatsIsStoredInLinearTime) {
  ExpectNearLinear(20000, [](int size) {
    std::string body;
    for (int i = 0; i < size; i++) body += "name=value&";
    Dictionary dictionary;
    VariableHash table(&dictionary, 12, 512);
    URLEncodedParser parser(&table, 0);
    EXPECT_TRUE(parser.Parse(body.data(), static_cast<int>(body.size())));
  });
}

// --- Searches ------------------------------------------------------------------------------------

TEST(LongWork, SearchesOfTextsThatRepeatThemselvesAreLinear) {
  using Search = int (*)(const char*, int, const char*, int);
  for (const Search search :
       {bf_search, bf_searchi, bf_search_reverse, bf_searchi_reverse, bm_search, bm_searchi}) {
    // The texts are made before, because large blocks cost more for each byte than small ones.
    const auto make = [](int size) {
      const std::string half(static_cast<size_t>(size / 2), 'a');
      return std::vector<std::string>{std::string(static_cast<size_t>(size), 'a'), half + "b",
                                      "b" + half};
    };
    ExpectNearLinear(100000, make, [search](const std::vector<std::string>* texts) {
      const std::string& text = texts->front();
      for (size_t i = 1; i < texts->size(); i++) {
        const std::string& needle = (*texts)[i];
        EXPECT_EQ(search(needle.data(), static_cast<int>(needle.size()), text.data(),
                         static_cast<int>(text.size())),
                  -1);
      }
    });
  }
}

// A match in the second part of a text that is searched in parts, or across their border.
TEST(LongWork, AMatchIsFoundWhereverThePartsOfALongTextEnd) {
  const int border = RunLimit::Bytes;
  const std::string needle = "Needle";
  for (const int at : {0, border - 6, border - 5, border - 1, border, border + 5, 2 * border - 3,
                       3 * border - 6}) {
    SCOPED_TRACE(at);
    std::string text(static_cast<size_t>(3 * border), 'n');
    text.replace(static_cast<size_t>(at), needle.size(), needle);
    for (const char* name : {"in", "cin", "ein", "ecin"}) {
      Machine machine;
      machine.Assemble(std::string(".global text\npushc \"Needle\"\npushg text\n") + name + "\n");
      machine.global.SetVariable("text", -1, text.data(), static_cast<int>(text.size()));
      EXPECT_EQ(machine.Go(), 1);
      EXPECT_EQ(machine.stack().PopI(), name[0] == 'e' ? at + 6 : at + 1) << name;
    }
  }
}

TEST(LongWork, ALongSearchIsLeftWhenTheTimeIsOver) {
  const std::string text = std::string(static_cast<size_t>(3 * RunLimit::Bytes), 'n') + "Needle";
  for (const char* name : {"in", "cin", "ein", "ecin"}) {
    Machine machine;
    machine.Assemble(std::string(".global text\npushc \"Needle\"\npushg text\n") + name + "\n");
    machine.global.SetVariable(new Alarm("text", text, machine.application.timedoutflag()));
    EXPECT_EQ(machine.Go(), 0);
    EXPECT_EQ(machine.stack().PopI(), 0) << name;
  }
}

// --- Output --------------------------------------------------------------------------------------

TEST(LongWork, ALongTextIsWrittenWhole) {
  std::string text;
  for (int i = 0; text.size() < 5 * static_cast<size_t>(RunLimit::Bytes) / 2; i++) {
    text += std::to_string(i);
  }
  for (const char* code : {"pushg text\nout\n", "pushg text\npushc \"\"\ncat\nout\n"}) {
    Machine machine;
    machine.Assemble(std::string(".global text\n") + code);
    machine.global.SetVariable("text", -1, text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_TRUE(machine.Output() == text);
  }
}

TEST(LongWork, ALongTextIsNotWrittenToItsEndPastTheTime) {
  const std::string text(static_cast<size_t>(3 * RunLimit::Bytes), 'x');
  std::string words;
  for (int i = 0; i < 200000; i++) words += "w  ";
  const struct {
    const char* code;
    const std::string* text;
  } cases[] = {{"pushg text\nout\n", &text}, {"stdoutput 2\npushg text\nout_comp\n", &words}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.code);
    Machine machine;
    machine.Assemble(std::string(".global text\n") + c.code);
    machine.global.SetVariable(new Alarm("text", *c.text, machine.application.timedoutflag()));
    EXPECT_EQ(machine.Go(), 0);
    EXPECT_LT(machine.Output().size(), c.text->size() / 2);
    EXPECT_THAT(machine.Output().substr(machine.Output().size() - 30), EndsWith(kTimedOut));
  }
}

// --- Conversions ---------------------------------------------------------------------------------

TEST(LongWork, PastTheTimeALongTextIsNotEncoded) {
  using Application = ZephApplication;
  std::string text;
  while (text.size() < 3 * static_cast<size_t>(RunLimit::Bytes)) text += "a&lt;%41<\"+";
  const int all = static_cast<int>(text.size());
  TestApplication application;
  const auto convert = [&](int which, int count, int* length) {
    int size;
    switch (which) {
      case 0: return Application::EncodeAttribute(text.data(), count, length, &size);
      case 1: return Application::DecodeAttribute(text.data(), count, length, &size);
      case 2: return Application::EncodeEntities(text.data(), count, length, &size);
      case 3: return Application::DecodeEntities(text.data(), count, length, &size);
      case 4: return Application::StripNULLs(text.data(), count, length, &size);
      default: return application.EncodeJavaScriptString(text.data(), count, length, &size);
    }
  };
  for (int which = 0; which < 6; which++) {
    SCOPED_TRACE(which);
    int whole, cut, small;
    const std::unique_ptr<char[]> before(convert(which, all, &whole));
    const std::unique_ptr<char[]> small_before(convert(which, 1000, &small));
    const TimeIsOver over;
    const std::unique_ptr<char[]> after(convert(which, all, &cut));
    EXPECT_GT(whole, all / 2);
    EXPECT_EQ(cut, 0);
    EXPECT_EQ(after[0], '\0');
    const std::unique_ptr<char[]> small_after(convert(which, 1000, &cut));
    EXPECT_EQ(cut, small);
    EXPECT_STREQ(small_after.get(), small_before.get());
  }
}

// A quarter of the text becomes as long as the whole is, and so as long as a text in which nothing
// is to be encoded.
TEST(LongWork, PastTheTimeTheLengthOfAPartIsNotTakenForThatOfThePlainText) {
  const std::string text(4 * static_cast<size_t>(RunLimit::Bytes), '<');
  const TimeIsOver over;
  int length, size;
  const std::unique_ptr<char[]> encoded(
      ZephApplication::EncodeEntities(text.data(), static_cast<int>(text.size()), &length, &size));
  EXPECT_EQ(length, 0);
  EXPECT_EQ(encoded[0], '\0');
}

TEST(LongWork, PastTheTimeANumberOfManyDecimalsIsNotWritten) {
  const TimeIsOver over;
  int length;
  const std::unique_ptr<char[]> text(ZephApplication::dtos(0.5, &length, nullptr, 100000000));
  EXPECT_EQ(length, 0);
  EXPECT_EQ(text[0], '\0');
}

}  // namespace

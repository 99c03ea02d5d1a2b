#include "base/extensions/ExternalParameters.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/extensions/ExternalCall.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

namespace {

constexpr int kMostKept = ExternalParameters::kMostKept;

// External functions of one text parameter each.
class ExternalParametersTest : public testing::Test {
 protected:
  using Taken = std::unique_ptr<ExternalParameters>;

  Function* Declare(const std::string& name) {
    Function* function =
        functions.Function_Add(name.data(), static_cast<int>(name.size()), Function_External);
    function->AddParameter(0, "text", 4);
    return function;
  }
  Taken Begin(Function* function) {
    Taken taken = idle.Take(function, function->index());
    return taken ? std::move(taken) : idle.Make(function, &call);
  }
  void End(Taken taken) {
    const int index = taken->function()->index();
    idle.Keep(std::move(taken), index);
  }
  static Variable* Argument(const Taken& taken, bool gets_text = false) {
    return taken->Argument(&taken->parameters()[0], gets_text);
  }
  // A call with that text, stored as the machine does.
  void Call(Function* function, const std::string& text) {
    Taken taken = Begin(function);
    Variable* argument = Argument(taken, true);
    const int length = static_cast<int>(text.size());
    argument->SetValue(text.data(), length);
    EXPECT_EQ(std::string(argument->value().data, static_cast<size_t>(length)), text);
    End(std::move(taken));
  }

  Dictionary dictionary;
  FunctionManager functions{&dictionary};
  _ZP_EL_Parameter text_parameter = {"text", 4, 0};
  _ZP_EL_Function row = {"f", 1, 1, &text_parameter,
                         [](ZPPROGRAM, ZPVARIABLEHASH, ZPVARIABLE, void**) {}};
  ExternalCall call{&row};
  IdleParameters idle;
};

TEST_F(ExternalParametersTest, ATableIsUsedAgainAndIsAsNew) {
  Function* f = Declare("f");
  Taken taken = Begin(f);
  ExternalParameters* const first = taken.get();
  Argument(taken)->SetValue("text", 4);
  Argument(taken)->value_integer();
  End(std::move(taken));
  taken = Begin(f);
  EXPECT_EQ(taken.get(), first);
  EXPECT_TRUE(Argument(taken)->IsNULL());
  EXPECT_EQ(Argument(taken)->value().length, 0);
  End(std::move(taken));
}

TEST_F(ExternalParametersTest, EachCallInProgressHasATable) {
  Function* f = Declare("f");
  Taken outer = Begin(f);
  Argument(outer)->SetValue("outer", 5);
  Taken inner = Begin(f);
  EXPECT_NE(inner.get(), outer.get());
  EXPECT_EQ(inner->table()->Index(0, 0), nullptr);
  Argument(inner)->SetValue("inner", 5);
  End(std::move(inner));
  EXPECT_STREQ(Argument(outer)->value().data, "outer");
  End(std::move(outer));
}

TEST_F(ExternalParametersTest, TheFlagsAreComparedOnce) {
  Function* f = Declare("f");
  EXPECT_FALSE(Begin(f)->parameters()[0].differs);
  text_parameter.flags = _ZP_EL_ByReference;
  EXPECT_TRUE(Begin(f)->parameters()[0].differs);
}

TEST_F(ExternalParametersTest, AShortTextGoesIntoTheMemoryOfTheOneBefore) {
  if (kMostKept == 0) GTEST_SKIP() << "none is kept with the address sanitizer";
  Function* f = Declare("f");
  Call(f, std::string(100, 'a'));
  Taken taken = Begin(f);
  Variable* const argument = Argument(taken, true);
  const char* const memory = argument->value().data;
  argument->SetValue("abc", 3);
  EXPECT_EQ(argument->value().data, memory);
  EXPECT_STREQ(argument->value().data, "abc");
  End(std::move(taken));
}

TEST_F(ExternalParametersTest, AnArgumentThatIsNoTextFindsNone) {
  Function* f = Declare("f");
  Call(f, "text");
  Taken taken = Begin(f);
  Variable* const argument = Argument(taken);
  EXPECT_TRUE(argument->IsNULL());
  EXPECT_EQ(argument->plain_text().data, nullptr);
  argument->SetValue_Integer(7);
  End(std::move(taken));
  taken = Begin(f);
  EXPECT_EQ(Argument(taken)->primary_type(), PrimaryNone);
  End(std::move(taken));
}

TEST_F(ExternalParametersTest, ATextGrowsAndShrinks) {
  Function* f = Declare("f");
  for (const int length :
       {0, 1, 23, 24, 25, 7, 200, 199, 4000, 3, 4095, 4096, 5000, 9, 100'000, 1}) {
    SCOPED_TRACE(length);
    Call(f, std::string(static_cast<size_t>(length), static_cast<char>('a' + length % 26)));
    EXPECT_LE(idle.kept(), kMostKept);
  }
}

TEST_F(ExternalParametersTest, NoLongTextIsKept) {
  Function* f = Declare("f");
  Call(f, std::string(100'000'000, 'x'));
  EXPECT_EQ(idle.kept(), 0);
  Call(f, std::string(1000, 'x'));
  Call(f, std::string(100'000'000, 'x'));
  EXPECT_EQ(idle.kept(), 0);
}

TEST_F(ExternalParametersTest, AllFunctionsTogetherKeepALimitedAmount) {
  std::vector<Function*> declared;
  for (int i = 0; i < 600; i++) declared.push_back(Declare("f" + std::to_string(i)));
  for (int round = 0; round < 2; round++) {
    for (Function* function : declared) {
      Call(function, std::string(4000, 'x'));
      ASSERT_LE(idle.kept(), IdleParameters::kMostBytes);
    }
  }
  if (kMostKept > 0) {
    EXPECT_GT(idle.kept(), IdleParameters::kMostBytes / 2);
  }
}

TEST_F(ExternalParametersTest, AParameterThatIsHeldKeepsItsText) {
  Function* f = Declare("f");
  Taken taken = Begin(f);
  Argument(taken)->SetValue("held", 4);
  const VariableRef held = VariableRef::Share(Argument(taken));
  End(std::move(taken));
  EXPECT_EQ(held->refcount(), 1);
  Call(f, "other");
  EXPECT_STREQ(held->value().data, "held");
}

// The file may say that two parameters have one variable, or that there are further ones.
TEST_F(ExternalParametersTest, ATableOfADamagedFileKeepsNoText) {
  Function* f = Declare("f");
  EXPECT_TRUE(Begin(f)->is_usual());
  f->variables().Insert("local", 5);
  EXPECT_FALSE(Begin(f)->is_usual());
  Taken taken = Begin(f);
  Argument(taken)->SetValue("text", 4);
  End(std::move(taken));
  EXPECT_EQ(idle.kept(), 0);
  EXPECT_EQ(Begin(f)->table()->Index(0, 0), nullptr);
}

TEST_F(ExternalParametersTest, ATableWithFurtherNamesIsNotUsedAgain) {
  Function* f = Declare("f");
  Taken taken = Begin(f);
  taken->table()->SetVariable("more", 4, "1", 1);
  End(std::move(taken));
  taken = Begin(f);
  EXPECT_EQ(taken->table()->Entries(), 1);
  End(std::move(taken));
}

// Functions of two machines have the same index.
TEST_F(ExternalParametersTest, ATableIsOfOneFunction) {
  Function* f = Declare("f");
  FunctionManager others(&dictionary);
  Function* g = others.Function_Add("g", 1, Function_External);
  Call(f, "text");
  EXPECT_EQ(g->index(), f->index());
  EXPECT_EQ(idle.Take(g, g->index()), nullptr);
  EXPECT_EQ(idle.Take(f, -1), nullptr);
}

}  // namespace

#include "api/zeph.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/api/ProgramFixture.h"

namespace {

using testing::HasSubstr;

class zpExpression : public ProgramFixture {
 protected:
  // Runs the body inside a script whose global variable x is 7.
  int Inside(std::function<void(ZPPROGRAM)> body, const std::string& more = "") {
    second = [body](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) { body(program); };
    return Run("pushi 7\npopg x\ncall second\npop\nexit\n" + more);
  }
  static ZPEXPRESSION Compiled(ZPPROGRAM program, const char* text) {
    char* error = &unset;
    int length = -1;
    ZPEXPRESSION expression =
        zpProgram_Compile_Dynamic_Expression(program, text, -1, &error, &length);
    EXPECT_NE(expression, nullptr) << text;
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(length, 0);
    return expression;
  }
  // The value of an expression as a text, and how the call ended.
  static std::string Value(ZPPROGRAM program, const char* text) {
    ZPVARIABLE result = zpVariable_Allocate("", -1, "untouched", -1);
    const int done = zpProgram_Execute_Dynamic_Expression(program, Compiled(program, text), result);
    const std::string value = std::to_string(done) + ":" + TextOf(zpVariable_Value, result);
    zpVariable_Free(result);
    return value;
  }
  static int Truth(ZPPROGRAM program, const char* text) {
    int truth = -1;
    EXPECT_EQ(
        zpProgram_Execute_Dynamic_Expression_Boolean(program, Compiled(program, text), &truth), 1);
    return truth;
  }

  static inline char unset = 'x';
};

TEST_F(zpExpression, AreCompiledAndEvaluated) {
  EXPECT_EQ(Inside([](ZPPROGRAM program) {
              EXPECT_EQ(Value(program, "1 + 2 * 3"), "1:7");
              EXPECT_EQ(Value(program, "g.x $ 'a'"), "1:7a");
              EXPECT_EQ(Value(program, "x - 0.5"), "1:6.5");
              EXPECT_EQ(Truth(program, "x EQ 7 AND 1"), 1);
              EXPECT_EQ(Truth(program, "x EQ 8"), 0);
            }),
            1);
}

TEST_F(zpExpression, AreEvaluatedAgain) {
  Inside([](ZPPROGRAM program) {
    ZPEXPRESSION expression = Compiled(program, "x + 1");
    ZPVARIABLE x = zpProgram_Lookup_Variable(program, "x", -1);
    ZPVARIABLE result = zpVariable_Allocate("", -1, nullptr, 0);
    for (int i = 0; i < 1000; i++) {
      zpVariable_SetValue_Integer(x, i);
      EXPECT_EQ(zpProgram_Execute_Dynamic_Expression(program, expression, result), 1);
      EXPECT_EQ(zpVariable_Value_Integer(result), i + 1);
    }
    // The result may be what the expression works on.
    EXPECT_EQ(zpProgram_Execute_Dynamic_Expression(program, expression, x), 1);
    EXPECT_EQ(zpVariable_Value_Integer(x), 1000);
    zpVariable_Free(result);
  });
}

TEST_F(zpExpression, WithALengthEndThere) {
  Inside([](ZPPROGRAM program) {
    ZPEXPRESSION expression =
        zpProgram_Compile_Dynamic_Expression(program, "2 + 3 and more", 5, nullptr, nullptr);
    ASSERT_NE(expression, nullptr);
    int truth = -1;
    EXPECT_EQ(zpProgram_Execute_Dynamic_Expression_Boolean(program, expression, &truth), 1);
    EXPECT_EQ(truth, 1);
  });
}

TEST_F(zpExpression, ThatAreWrongHaveTheirErrorHandedOver) {
  EXPECT_EQ(Inside([](ZPPROGRAM program) {
              char* error = nullptr;
              int length = -1;
              EXPECT_EQ(zpProgram_Compile_Dynamic_Expression(program, "+ 1", -1, &error, &length),
                        nullptr);
              EXPECT_STREQ(error, "Argument expected in Expression");
              EXPECT_EQ(length, 31);
              zpProgram_Free(program, error);
              EXPECT_EQ(zpProgram_Compile_Dynamic_Expression(program, "(1", -1, &error, nullptr),
                        nullptr);
              EXPECT_THAT(error, HasSubstr("Mismatched Parentheses"));
              zpProgram_Free(program, error);
              EXPECT_EQ(zpProgram_Compile_Dynamic_Expression(program, "(1", -1, nullptr, nullptr),
                        nullptr);
            }),
            1);
}

TEST_F(zpExpression, WithoutAValueChangeNoResult) {
  Inside([](ZPPROGRAM program) {
    EXPECT_EQ(Value(program, ""), "0:untouched");
    EXPECT_EQ(Value(program, "  "), "0:untouched");
    int truth = 5;
    EXPECT_EQ(zpProgram_Execute_Dynamic_Expression_Boolean(program, Compiled(program, " "), &truth),
              0);
    EXPECT_EQ(truth, 5);
  });
}

TEST_F(zpExpression, ThatFailEndTheScript) {
  EXPECT_EQ(Inside([](ZPPROGRAM program) { EXPECT_EQ(Value(program, "1 +"), "0:untouched"); }), 0);
  EXPECT_THAT(output.text, HasSubstr("Stack underflow"));
}

// Functions that an expression calls may evaluate expressions themselves.
TEST_F(zpExpression, MayBeEvaluatedWithinOneAnother) {
  first = [](ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result) {
    const int depth = zpVariable_Value_Integer(zpVariableHash_Find(parameters, "a", -1));
    if (depth == 0) return;
    const std::string call = "'<' $ first(" + std::to_string(depth - 1) + ", g.x) $ '>'";
    EXPECT_EQ(
        zpProgram_Execute_Dynamic_Expression(program, Compiled(program, call.c_str()), result), 1);
  };
  Inside([](ZPPROGRAM program) { EXPECT_EQ(Value(program, "first(3, g.x)"), "1:<<<>>>"); });
}

TEST_F(zpExpression, HaveAStackOfTheirOwnThatEndsWithTheRequest) {
  Inside([](ZPPROGRAM program) {
    EXPECT_EQ(zpProgram_Lookup_Persistent(program, "__zephvm_dynamic_stack", -1), nullptr);
    Value(program, "1");
    void* stack = zpProgram_Lookup_Persistent(program, "__zephvm_dynamic_stack", -1);
    EXPECT_NE(stack, nullptr);
    Value(program, "2");
    EXPECT_EQ(zpProgram_Lookup_Persistent(program, "__zephvm_dynamic_stack", -1), stack);
  });
  End();
}

// The last value is the result, and the next expression finds an empty stack.
TEST_F(zpExpression, LeaveNothingOnTheStack) {
  EXPECT_EQ(Inside([&](ZPPROGRAM program) {
              for (int i = 0; i < 600; i++) EXPECT_EQ(Value(program, "1 (2) (3)"), "1:3");
              EXPECT_EQ(Value(program, ""), "0:untouched");
            }),
            1);
}

// An element, which the array holds until the expression replaces the array.
TEST_F(zpExpression, HoldTheirResultWhileTheyAreEvaluated) {
  int counts_within = 0;
  ZPVARIABLE element = nullptr;
  first = [&](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    zpVariable_SetValue(zpProgram_Lookup_Variable(program, "g.list", -1), "dropped", -1);
    counts_within = element->refcount();
  };
  Inside([&](ZPPROGRAM program) {
    ZPVARIABLE list = zpProgram_Lookup_Variable(program, "g.list", -1);
    element = zpVariable_Array_Element(1, list, 1);
    ZPEXPRESSION expression = Compiled(program, "first(1, g.x) $ 'value'");
    EXPECT_EQ(zpProgram_Execute_Dynamic_Expression(program, expression, element), 1);
    EXPECT_STREQ(zpVariable_Value(list, nullptr), "dropped");
  });
  EXPECT_EQ(counts_within, 1);
}

TEST_F(zpExpression, MayHaveAnUnwantedTruth) {
  Inside([](ZPPROGRAM program) {
    EXPECT_EQ(
        zpProgram_Execute_Dynamic_Expression_Boolean(program, Compiled(program, "1"), nullptr), 1);
  });
}

}  // namespace

// The functions of zephstd for arrays and structures.

#include <algorithm>
#include <sstream>
#include <vector>

#include "tests/extensions/Library.h"

namespace {

class StdArray : public Library {
 protected:
  void Decode(const std::string& variable, const std::string& json) {
    Set("g.json", json);
    Set(variable, "");
    const std::string value = Value("jsondecode(g.json)");
    char message[80] = "";
    ZPEXPRESSION const compiled =
        zpProgram_Compile_Dynamic_Expression(program(), "jsondecode(g.json)", -1, nullptr, nullptr);
    ASSERT_NE(compiled, nullptr) << message;
    zpProgram_Execute_Dynamic_Expression(program(), compiled, Variable(variable));
  }
  std::string Encoded(const std::string& variable) { return Value("jsonencode(" + variable + ")"); }
  // The value of an expression, a bar, and what g.a is then.
  std::string After(const std::string& json, const std::string& expression) {
    Decode("g.a", json);
    const std::string value = Value(expression);
    return value[0] == '!' ? value : value + "|" + Encoded("g.a");
  }
};

TEST_F(StdArray, ElementsAreAppendedAndRemoved) {
  const struct {
    const char* before;
    const char* expression;
    const char* after;
  } cases[] = {
      {"[1,2,3]", "count(g.a)", "3|[1,2,3]"},
      {"{\"x\":1}", "count(g.a)", "1|{\"x\":1}"},
      {"\"text\"", "count(g.a)", "0|\"text\""},
      {"[]", "count(g.a)", "0|[]"},
      {"[1]", "push(g.a, 'x')", "2|[1,\"x\"]"},
      {"\"\"", "push(g.a, 5)", "1|[5]"},
      {"\"text\"", "push(g.a, 5)", "1|[5]"},
      {"[1]", "push(g.a, g.a)", "2|[1,[1]]"},
      {"{\"x\":1}", "push(g.a, 5)", "!push: 'array' is a structure"},
      {"[1,2]", "pop(g.a)", "2|[1]"},
      {"[]", "pop(g.a)", "|[]"},
      {"\"x\"", "pop(g.a)", "|\"x\""},
      {"{\"x\":1}", "pop(g.a)", "!pop: 'array' is a structure"},
      {"[1,[2,3]]", "jsonencode(pop(g.a))", "[2,3]|[1]"},
      {"[1,2]", "insert(g.a, 1, 0)", "1|[0,1,2]"},
      {"[1,2]", "insert(g.a, 2, 'x')", "2|[1,\"x\",2]"},
      {"[1,2]", "insert(g.a, 3, 'x')", "3|[1,2,\"x\"]"},
      {"[1,2]", "insert(g.a, 99, 'x')", "3|[1,2,\"x\"]"},
      {"[1,2]", "insert(g.a, -1, 'x')", "3|[1,2,\"x\"]"},
      {"\"\"", "insert(g.a, 5, 'x')", "1|[\"x\"]"},
      {"[1,2,3]", "remove(g.a, 2)", "2|[1,3]"},
      {"[1,2,3]", "remove(g.a, 9)", "|[1,2,3]"},
      {"[1,2,3]", "remove(g.a, 'x')", "|[1,2,3]"},
      {"[1,2,3]", "remove(g.a, 0)", "|[1,2,3]"},
      {"{\"x\":1,\"y\":2}", "remove(g.a, 'X')", "1|{\"y\":2}"},
      {"{\"x\":1}", "remove(g.a, 'z')", "|{\"x\":1}"},
      {"[1,2]", "has(g.a, 2)", "1|[1,2]"},
      {"[1,2]", "has(g.a, 3)", "0|[1,2]"},
      {"[1,2]", "has(g.a, '')", "0|[1,2]"},
      {"{\"x\":1}", "has(g.a, 'X')", "1|{\"x\":1}"},
      {"\"x\"", "has(g.a, 1)", "0|\"x\""},
  };
  for (const auto& each : cases)
    EXPECT_EQ(After(each.before, each.expression), each.after)
        << each.before << " " << each.expression;
}

TEST_F(StdArray, Sorting) {
  const struct {
    const char* before;
    const char* expression;
    const char* after;
  } cases[] = {
      {R"(["b","a","C"])", "sort(g.a, '')", R"(3|["C","a","b"])"},
      {R"(["b","a","C"])", "sort(g.a, 'nocase')", R"(3|["a","b","C"])"},
      {R"(["b","a","C"])", "sort(g.a, 'nocase desc')", R"(3|["C","b","a"])"},
      {"[10,9,2.5,-1]", "sort(g.a, 'number')", "4|[-1,2.5,9,10]"},
      {"[10,9]", "sort(g.a, '')", "2|[10,9]"},
      {R"(["10","9",8,"x",""])", "sort(g.a, 'number')", R"(5|["x","",8,"9","10"])"},
      {R"(["f10","f9","f1"])", "sort(g.a, 'natural')", R"(3|["f1","f9","f10"])"},
      {"[]", "sort(g.a, '')", "0|[]"},
      {"\"\"", "sort(g.a, '')", "0|[]"},
      {"{\"x\":1}", "sort(g.a, '')", "!sort: 'array' is a structure"},
      {"[1]", "sort(g.a, 'up')", "!sort: 'how' has an unknown word: 'up'"},
      {R"([[2,1],[1,9]])", "sort(g.a, '')", "2|[[1,9],[2,1]]"},
      {R"([{"n":"b","v":1},{"n":"a","v":2},{"v":3}])", "sortby(g.a, 'N', '')",
       R"(3|[{"v":3},{"n":"a","v":2},{"n":"b","v":1}])"},
      {R"([{"v":10},{"v":9},5])", "sortby(g.a, 'v', 'number desc')", R"(3|[{"v":10},{"v":9},5])"},
  };
  for (const auto& each : cases)
    EXPECT_EQ(After(each.before, each.expression), each.after)
        << each.before << " " << each.expression;
}

TEST_F(StdArray, SortingKeepsTheOrderOfEqualElements) {
  std::string json = "[";
  for (int i = 0; i < 500; i++) {
    json += (i > 0 ? "," : "") + std::string("{\"k\":\"") + std::to_string(i * 7 % 5) +
            "\",\"i\":" + std::to_string(i) + "}";
  }
  for (const char* how : {"", "number", "desc", "number desc"}) {
    Decode("g.a", json + "]");
    EXPECT_EQ(Value("sortby(g.a, 'k', '" + std::string(how) + "')"), "500");
    std::istringstream rows(
        Value("join(column(g.a, 'k'), ' ') $ ' ' $ join(column(g.a, 'i'), ' ')"));
    std::vector<int> keys(500), numbers(500);
    for (int& key : keys) rows >> key;
    for (int& number : numbers) rows >> number;
    const int sign = std::string(how).find("desc") != std::string::npos ? -1 : 1;
    for (size_t i = 1; i < 500; i++) {
      EXPECT_TRUE(keys[i - 1] * sign < keys[i] * sign ||
                  (keys[i - 1] == keys[i] && numbers[i - 1] < numbers[i]));
    }
  }
}

// A gap has no element, and a shared element stays shared.
TEST_F(StdArray, SortingMovesTheVariablesThemselves) {
  Set("g.first", "b");
  zpVariable_Make_Reference(zpVariable_Array_Element(3, Variable("g.a"), 1), Variable("g.first"));
  zpVariable_SetValue(zpVariable_Array_Element(9, Variable("g.a"), 1), "a", 1);
  EXPECT_EQ(Value("sort(g.a, '')"), "2");
  EXPECT_EQ(Encoded("g.a"), R"(["a","b"])");
  Set("g.first", "changed");
  EXPECT_EQ(Encoded("g.a"), R"(["a","changed"])");
}

TEST_F(StdArray, ShufflingKeepsAllElements) {
  Decode("g.a", "[1,2,3,4,5,6,7,8,9,10]");
  bool changed = false;
  for (int i = 0; i < 20; i++) {
    EXPECT_EQ(Value("shuffle(g.a)"), "10");
    changed = changed || Encoded("g.a") != "[1,2,3,4,5,6,7,8,9,10]";
  }
  EXPECT_TRUE(changed);
  Value("sort(g.a, 'number')");
  EXPECT_EQ(Encoded("g.a"), "[1,2,3,4,5,6,7,8,9,10]");
}

TEST_F(StdArray, ArraysAreMadeOfOthers) {
  Decode("g.a", R"(["x","y","z"])");
  Decode("g.s", R"({"b":1,"a":[2]})");
  Decode("g.rows", R"([{"n":1},{"n":[2]},{},3])");
  const ValueCase cases[] = {
      {"jsonencode(keys(g.a))", "[1,2,3]"},
      {"jsonencode(keys(g.s))", R"(["a","b"])"},
      {"jsonencode(keys(''))", "[]"},
      {"jsonencode(values(g.s))", "[[2],1]"},
      {"jsonencode(column(g.rows, 'N'))", R"([1,[2],"",""])"},
      {"jsonencode(slice(g.a, 2, ''))", R"(["y","z"])"},
      {"jsonencode(slice(g.a, 1, 2))", R"(["x","y"])"},
      {"jsonencode(slice(g.a, -2, 1))", R"(["y"])"},
      {"jsonencode(slice(g.a, 1, -1))", R"(["x","y"])"},
      {"jsonencode(slice(g.a, 0, 2))", R"(["x"])"},
      {"jsonencode(slice(g.a, 9, 2))", "[]"},
      {"jsonencode(slice(g.a, -9, 7))", R"(["x"])"},
      {"jsonencode(slice(g.s, 2, 1))", "[1]"},
      {"search(g.a, 'y')", "2"},
      {"search(g.a, 'Y')", "0"},
      {"search(g.s, 1)", "b"},
      {"search(g.s, '1.0')", "b"},
      {"search('', 'x')", "0"},
      {"jsonencode(reverse(g.a))", R"(["z","y","x"])"},
      {"jsonencode(reverse(g.s))", "[1,[2]]"},
      {"jsonencode(unique(split('a,b,a,A,b', ',')))", R"(["a","b","A"])"},
      {"sum(split('1,2.5,-1', ','))", "2.5"},
      {"sum('')", "0"},
      {"sum(split('1,,2', ','))", "3"},
      {"sum(g.a)", "!sum: 'array' has an element that is no number"},
  };
  for (const ValueCase& each : cases) {
    Decode("g.a", R"(["x","y","z"])");
    Decode("g.s", R"({"b":1,"a":[2]})");
    Decode("g.rows", R"([{"n":1},{"n":[2]},{},3])");
    EXPECT_EQ(Value(each.expression), each.value) << each.expression;
  }
  const ValueCase more[] = {
      {"least(split('10,9,8.5', ','))", "8.5"},
      {"most(split('10,9,8.5', ','))", "10"},
      {"most(split('b,a,c', ','))", "c"},
      {"least('')", ""},
      {"jsonencode(range(1, 5, ''))", "[1,2,3,4,5]"},
      {"jsonencode(range(5, 1, 2))", "[5,3,1]"},
      {"jsonencode(range(1, 6, -2))", "[1,3,5]"},
      {"jsonencode(range(3, 3, 1))", "[3]"},
      {"range(1, 5, 0)", "!range: 'step' is 0"},
      {"range(1, 1000001, 1)", "!range: the result has more than 1,000,000 elements"},
      {"range('-1e300', '1e300', 1)", "!range: the result has more than 1,000,000 elements"},
      {"jsonencode(merge(split('a,b', ','), split('c', ',')))", R"(["a","b","c"])"},
      {"jsonencode(merge('', split('c', ',')))", R"(["c"])"},
      {R"(jsonencode(merge(jsondecode('{\"a\":1,\"b\":2}'), jsondecode('{\"B\":3}'))))",
       R"({"a":1,"b":3})"},
      {R"(merge(jsondecode('{\"a\":1}'), split('a', ',')))",
       "!merge: 'other' is not of the kind of 'array'"},
      {"type(g.none)", ""},
  };
  EXPECT_VALUES(more);
}

TEST_F(StdArray, TypesHaveNames) {
  const struct {
    const char* json;
    const char* name;
  } cases[] = {
      {"5", "integer"}, {"2.5", "number"}, {"\"x\"", "text"}, {"[]", "array"}, {"{}", "structure"}};
  for (const auto& each : cases) {
    Decode("g.a", each.json);
    EXPECT_EQ(Value("type(g.a)"), each.name);
  }
}

// Results are copies: what is done to them later does not show in what they were made of.
TEST_F(StdArray, ResultsDoNotShareWithArguments) {
  Decode("g.a", "[[1],[2]]");
  for (const char* made : {"values(g.a)", "slice(g.a, 1, '')", "reverse(g.a)", "unique(g.a)",
                           "merge(g.a, g.a)", "merge('', g.a)"}) {
    ZPEXPRESSION const compiled =
        zpProgram_Compile_Dynamic_Expression(program(), made, -1, nullptr, nullptr);
    Set("g.b", "");
    zpProgram_Execute_Dynamic_Expression(program(), compiled, Variable("g.b"));
    zpVariable_SetValue(
        zpVariable_Array_Element(1, zpVariable_Array_Element(1, Variable("g.b"), 1), 1), "changed",
        -1);
    EXPECT_EQ(Encoded("g.a"), "[[1],[2]]") << made;
  }
  Value("pop(g.a)");
  EXPECT_EQ(Encoded("g.a"), "[[1]]");
}

TEST_F(StdArray, LargeArraysAreSortedInTime) {
  ZPEXPRESSION const compiled =
      zpProgram_Compile_Dynamic_Expression(program(), "range(1, 100000, '')", -1, nullptr, nullptr);
  zpProgram_Execute_Dynamic_Expression(program(), compiled, Variable("g.a"));
  EXPECT_EQ(Value("shuffle(g.a)"), "100000");
  EXPECT_EQ(Value("sort(g.a, 'number')"), "100000");
  EXPECT_EQ(Value("join(slice(g.a, 1, 3), ',') $ join(slice(g.a, -2, ''), ',')"),
            "1,2,399999,100000");
}

TEST_F(StdArray, NothingIsRemovedFromAGap) {
  ZPVARIABLE const array = Variable("g.gaps");
  zpVariable_SetValue_Integer(zpVariable_Array_Element(1, array, 1), 1);
  zpVariable_SetValue_Integer(zpVariable_Array_Element(3, array, 1), 3);
  EXPECT_EQ(Value("ISNULL remove(g.gaps, 2)"), "1");
  EXPECT_EQ(Encoded("g.gaps"), "[1,null,3]");
  EXPECT_EQ(Value("remove(g.gaps, 3)"), "3");
  EXPECT_EQ(Encoded("g.gaps"), "[1]");
}

}  // namespace

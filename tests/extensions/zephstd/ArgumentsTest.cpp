// All functions of zephstd with all kinds of arguments, whether they suit or not: each returns, and
// says what is wrong. The functions are those of the library's own table.

#include <limits>
#include <vector>

#include "tests/extensions/LibraryWithFiles.h"

namespace {

struct Declared {
  std::string name;
  std::string parameters;
};

const Declared kDeclared[] = {
#define FUNCTION(name, parameters, result, help) {#name, parameters},
#include "extensions/zephstd/Functions.def"
};

std::vector<std::string> Parameters(const Declared& function) {
  std::vector<std::string> parameters;
  std::string rest = function.parameters;
  while (!rest.empty()) {
    const size_t end = rest.find(", ");
    parameters.push_back(rest.substr(0, end));
    rest = end == std::string::npos ? "" : rest.substr(end + 2);
  }
  return parameters;
}

class StdArguments : public LibraryWithFiles {
 protected:
  StdArguments() { SetServer("apitype", "CGI"); }
  void Prepare() override {
    LibraryWithFiles::Prepare();
    if (manager) SetServer("apitype", "CGI");
  }

  // A value of each sort.
  static constexpr int kSorts = 18;
  static ZPVARIABLE Make(int sort) {
    ZPVARIABLE const value = zpVariable_Allocate(nullptr, 0, nullptr, 0);
    const auto text = [value](const std::string& bytes) {
      zpVariable_SetValue(value, bytes.data(), static_cast<int>(bytes.size()));
    };
    switch (sort) {
      case 0: break;
      case 1: text(""); break;
      case 2: zpVariable_SetValue_Integer(value, 0); break;
      case 3: zpVariable_SetValue_Integer(value, -1); break;
      case 4: zpVariable_SetValue_Integer(value, std::numeric_limits<int>::max()); break;
      case 5: zpVariable_SetValue_Integer(value, std::numeric_limits<int>::min()); break;
      case 6: zpVariable_SetValue_Double(value, 1e300); break;
      case 7: zpVariable_SetValue_Double(value, -1e300); break;
      case 8: zpVariable_SetValue_Double(value, std::numeric_limits<double>::quiet_NaN()); break;
      case 9: zpVariable_SetValue_Double(value, std::numeric_limits<double>::infinity()); break;
      case 10: text("\xFF\xC3\x80\xED\xA0\x80\xF4\x90\x80\x80\xE2\x82"); break;
      case 11: text(std::string("a\0b\r\n", 5)); break;
      case 12: text("%Y-%m-%d %H:%M:%S %j %s %z %"); break;
      case 13:
        for (int i = 1; i < 4; i++) {
          zpVariable_SetValue_Integer(zpVariable_Array_Element(i * i, value, 1), 5 - i);
        }
        break;
      case 14:
        zpVariable_SetValue(zpVariable_Struct_Member("x", 1, value, 1), "\xFF", 1);
        zpVariable_SetValue_Integer(
            zpVariable_Array_Element(2, zpVariable_Struct_Member("y", 1, value, 1), 1), 7);
        break;
      case 15: text("[1,{\"a\":\"</script>\"},null]"); break;
      case 16: zpVariable_SetValue_Integer(value, 3); break;
      default: text(std::string(5000, '&')); break;
    }
    return value;
  }
};

TEST_F(StdArguments, TheExportHasTheRowsOfTheList) {
  for (const Declared& function : kDeclared) {
    const _ZP_EL_Function* const row =
        zpProgram_Lookup_ExternalFunction(program(), function.name.c_str(), -1);
    ASSERT_NE(row, nullptr) << function.name;
    const std::vector<std::string> parameters = Parameters(function);
    ASSERT_EQ(row->parametercount, static_cast<int>(parameters.size())) << function.name;
    for (size_t i = 0; i < parameters.size(); i++) {
      EXPECT_EQ(
          std::string(row->parameters[i].name, static_cast<size_t>(row->parameters[i].namelength)),
          parameters[i].substr(0, parameters[i].find_first_of(" ?")));
      EXPECT_EQ(row->parameters[i].flags,
                parameters[i].find(" var") != std::string::npos ? _ZP_EL_ByReference : 0)
          << parameters[i];
    }
  }
}

TEST_F(StdArguments, AnyArgumentsAreBorne) {
  unsigned state = 11;
  for (const Declared& function : kDeclared) {
    SCOPED_TRACE(function.name);
    const std::vector<std::string> parameters = Parameters(function);
    const int count = static_cast<int>(parameters.size());
    const int rounds = count == 0 ? 1 : count == 1 ? kSorts : 4 * kSorts;
    const bool is_slow = function.name == "passwordhash" || function.name == "passwordverify";
    for (int round = 0; round < (is_slow ? std::min(rounds, 20) : rounds); round++) {
      ZPVARIABLEHASH const table = zpVariableHash_Allocate();
      ZPVARIABLE const result = zpVariable_Allocate(nullptr, 0, nullptr, 0);
      std::vector<int> sorts;
      for (int i = 0; i < count; i++) {
        state = state * 1664525 + 1013904223;
        sorts.push_back(i == 0 ? round % kSorts : static_cast<int>((state >> 16) % kSorts));
        ZPVARIABLE const value = Make(sorts.back());
        ZPVARIABLE const named = zpVariable_Allocate(("p" + std::to_string(i)).c_str(), -1, "", 0);
        zpVariable_SetValue_Variable(named, value);
        zpVariable_Free(value);
        zpVariableHash_Insert(table, named);
      }
      const _ZP_EL_Function* const row =
          zpProgram_Lookup_ExternalFunction(program(), function.name.c_str(), -1);
      void* state_word = nullptr;
      row->function(program(), table, result, &state_word);
      EXPECT_EQ(state_word, nullptr);
      TextOf(result);
      const std::string error = machine->Error().empty() ? "" : machine->Failure();
      // An error names the function; that of a wrong kind names the parameter too.
      if (!error.empty()) {
        EXPECT_THAT(error, testing::StartsWith(function.name + ": "));
      }
      for (int i = 0; i < count; i++) {
        const std::string& parameter = parameters[static_cast<size_t>(i)];
        const std::string named = "'" + parameter.substr(0, parameter.find_first_of(" ?")) + "'";
        const int sort = sorts[static_cast<size_t>(i)];
        const bool takes_list = parameter.find(" list") != std::string::npos;
        const bool takes_any = parameter.find(" any") != std::string::npos;
        const bool is_wrong = takes_any    ? false
                              : takes_list ? sort > 1 && sort != 13 && sort != 14
                                           : sort == 13 || sort == 14;
        if (!is_wrong) continue;
        // The first one that is wrong is named.
        const std::string kind = takes_list   ? " is no array"
                                 : sort == 13 ? " is an array"
                                              : " is a structure";
        if (i == 0) {
          EXPECT_EQ(error, function.name + ": " + named + kind);
        } else {
          EXPECT_NE(error, "");
        }
      }
      zpVariable_Free(result);
      zpVariableHash_Free(table);
      if (!error.empty()) Restart();
    }
  }
}

// A script may declare other parameters than the library has; the engine compares their number, and
// the library finds them by their place.
TEST_F(StdArguments, NamesOfParametersDoNotMatter) {
  ZPVARIABLEHASH const table = zpVariableHash_Allocate();
  ZPVARIABLE const result = zpVariable_Allocate(nullptr, 0, nullptr, 0);
  const _ZP_EL_Function* const row = zpProgram_Lookup_ExternalFunction(program(), "upper", -1);
  void* state = nullptr;
  row->function(program(), table, result, &state);
  EXPECT_EQ(machine->Failure(), "upper: 'text' is missing");
  Restart();
  zpVariableHash_Insert(table, zpVariable_Allocate("whatever", -1, "x", -1));
  row->function(program(), table, result, &state);
  EXPECT_EQ(TextOf(result), "X");
  // The call that frees the state.
  row->function(nullptr, nullptr, nullptr, &state);
  zpVariable_Free(result);
  zpVariableHash_Free(table);
}

TEST_F(StdArguments, WrongNumbersOfArgumentsAreTold) {
  EXPECT_EQ(Value("upper()"),
            "?Function 'upper' is defined with 1 parameters and was called with 0");
  EXPECT_EQ(Value("substr('a', 1)"),
            "?Function 'substr' is defined with 3 parameters and was called with 2");
}

// Errors are on pages, and an argument may be what a visitor has sent.
TEST_F(StdArguments, WhatAMessageQuotesIsEncoded) {
  const ValueCase cases[] = {
      {"formattime(0, '%F', g.x)",
       "!formattime: 'zone' is no known time zone: '&lt;img src=x onerror=alert(1)&gt;'"},
      {"compare('a', 'b', g.x)", "!compare: 'how' has an unknown word: '&lt;img'"},
      {"setcookie('a', 'b', g.x)",
       "!setcookie: 'options' has a wrong part: '&lt;img src=x onerror=alert(1)&gt;'"},
      {"formattime(0, '%F', '\"&' $ character(39))",
       "!formattime: 'zone' is no known time zone: '&quot;&amp;&#39;'"},
      {"formattime(0, '%F', 'x' $ repeat('\u00E4', 40))",
       "!formattime: 'zone' is no known time zone: "
       "'x\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4"
       "\u00E4"
       "\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4'"},
  };
  for (const ValueCase& each : cases) {
    Set("g.x", "<img src=x onerror=alert(1)>");
    EXPECT_EQ(Value(each.expression), each.value);
  }
}

}  // namespace

// What names mean, see docs/language.md.

#include <gtest/gtest.h>

#include "tests/support/CompiledPages.h"
#include "tests/support/Machine.h"

namespace {

// Runs a page on a machine whose host sets a few variables.
std::string RunPage(const std::string& source) {
  const CompileResult result = CompileText(source);
  EXPECT_TRUE(result.succeeded) << result.formatted;
  if (!result.succeeded) return "";
  Machine machine;
  machine.Load(result.image);
  machine.system.SetVariable(new Variable("server_name", 11, 77));
  machine.global.SetVariable(new Variable("field", 5, 12));
  EXPECT_EQ(machine.Go(), 1) << machine.Failure();
  return machine.Output();
}

struct NameCase {
  const char* label;
  const char* source;
  const char* output;
};

TEST(PageNames, MeanWhatTheirPlaceSays) {
  const NameCase cases[] = {
      {"a request's variable", "{{{ field }}} {{{ g.field }}} {{{ FIELD }}}", "12 12 12"},
      {"a variable of the web server", "{{{ server_name }}} {{{ s.server_name }}}", "77 77"},
      {"a global variable of the page in a function",
       "<ZpASSIGN x = 1><ZpFUNCTION f()>{{{ x }}}</ZpFUNCTION><ZpEVAL f()>", "1"},
      {"a name that a function assigns",
       "<ZpASSIGN x = 1><ZpFUNCTION f()><ZpASSIGN x = 2>{{{ x }}}</ZpFUNCTION><ZpEVAL f()>{{{ x "
       "}}}",
       "21"},
      {"a global variable that a function assigns",
       "<ZpASSIGN x = 1><ZpFUNCTION f()><ZpASSIGN g.x = 2>{{{ x }}}</ZpFUNCTION><ZpEVAL f()>{{{ x "
       "}}}",
       "22"},
      {"a declared local",
       "<ZpASSIGN x = 1><ZpFUNCTION f()><ZpDIMENSION x>[{{{ x }}}]</ZpFUNCTION><ZpEVAL f()>", "[]"},
      {"a local of each call",
       "<ZpFUNCTION f(n)><ZpASSIGN x = n><ZpIF n GT 0><ZpEVAL f(n - 1)></ZpIF>{{{ x "
       "}}}</ZpFUNCTION>"
       "<ZpEVAL f(3)>",
       "0123"},
      {"local outside of functions", "<ZpASSIGN l.x = 3>{{{ g.x }}}{{{ x }}}", "33"},
      {"the case of letters", "<ZpASSIGN Abc = 3>{{{ aBC }}}{{{ G.ABC }}}", "33"},
      {"a parameter by reference",
       "<ZpFUNCTION f(a var)><ZpASSIGN a = 9></ZpFUNCTION><ZpEVAL f(field)><ZpEVAL f(x[2])>"
       "{{{ field }}} {{{ x[2] }}}",
       "9 9"},
      {"a list of names in a function",
       "<ZpFUNCTION f(a)><ZpASSIGN b = 2><ZpHIDE fields=\"a, b\"></ZpFUNCTION><ZpEVAL f(1)>",
       "<input type=\"hidden\" name=\"a\" value=\"1\"><input type=\"hidden\" name=\"b\" "
       "value=\"2\">"},
      {"a list of names outside of one", "<ZpASSIGN a = 3><ZpHIDE fields=\"a, field\">",
       "<input type=\"hidden\" name=\"a\" value=\"3\"><input type=\"hidden\" name=\"field\" "
       "value=\"12\">"},
      {"a setting", "<ZpASSIGN zeph_language = 'de'>{{{ zeph_language }}}", ""},
  };
  for (const NameCase& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(RunPage(c.source), c.output);
  }
}

}  // namespace

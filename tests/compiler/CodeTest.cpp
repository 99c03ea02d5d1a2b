// The instructions that tags become.

#include <gtest/gtest.h>

#include "tests/support/CompiledPages.h"

namespace {

struct CodeCase {
  const char* source;
  const char* code;
};

void ExpectCodes(const std::vector<CodeCase>& cases) {
  for (const CodeCase& c : cases) {
    SCOPED_TRACE(c.source);
    EXPECT_EQ(CodeOf(c.source), c.code);
  }
}

TEST(PageCode, TextsAreWrittenAtOnce) {
  ExpectCodes({
      {"", ""},
      {"a\nb", "pushc \"a\\nb\"; out"},
      {"a<ZpCOMMENT>x</ZpCOMMENT>b{{ \"<\" }}{{{ '>' }}}", "pushc \"ab&lt;>\"; out"},
      {"{{ 5 }}{{ 1 + 2 }}", "pushi 5; out; pushi 1; pushi 2; add; out"},
  });
}

TEST(PageCode, KnownVariablesArePositions) {
  ExpectCodes({
      {"<ZpASSIGN a = 1 b = a>{{{ b }}}", "storegi a, 1; pushg a; popg b; pushg b; out"},
      {"{{{ x }}}{{{ g.x }}}", "lineno 1; pushnc x; out; pushg x; out"},
      {"{{{ s.x }}}{{{ zeph_language }}}", "pushs x; out; pushs zeph_language; out"},
      {"{{{ list.d.x }}}{{{ d.x }}}", "lineno 1; pushdc list, x; out; pushnc \"d.x\"; out"},
      {"<ZpASSIGN list.d.x = 1 d.x = 2 zeph_language = 'de'>",
       "lineno 1; pushi 1; popdc list, x; pushi 2; popdc \"\", x; pushc \"de\"; pops "
       "zeph_language"},
      {"<ZpASSIGN a:b[2] = 5>{{{ a:b[2] }}}",
       "lineno 1; pushi 5; pushg a; pushc \"b\"; memb; pushi 2; elem; store; pushg a; pushc \"b\"; "
       "memb_readonly; pushi 2; elem_readonly; out"},
  });
}

TEST(PageCode, ComparisonsOfGlobalsAreOneInstruction) {
  ExpectCodes({
      {"<ZpASSIGN a = 1 b = 2><ZpIF a LT 5>x</ZpIF><ZpIF NOT (a EQ b)>y</ZpIF>",
       "storegi a, 1; storegi b, 2; cmpgi a, 5; jmp_ge L1; pushc \"x\"; out; L1:; cmpgg a, b; "
       "jmp_eq L2; pushc \"y\"; out; L2:"},
      {"<ZpASSIGN a = 1><ZpFOR a = 1 to 9>x</ZpFOR>",
       "storegi a, 1; storegi a, 1; jmp L1; L2:; pushc \"x\"; out; incg a, 1; L1:; cmpgi a, 9; "
       "jmp_le L2"},
  });
}

TEST(PageCode, LoopsTestAtTheirEnd) {
  ExpectCodes(
      {{"<ZpASSIGN n = 3><ZpWHILE n GT 0><ZpEVAL n--></ZpWHILE>",
        "storegi n, 3; jmp L1; L2:; pushg n; pushi 1; sub; popg n; L1:; cmpgi n, 0; jmp_gt L2"}});
}

TEST(PageCode, APathThatChangesItselfIsLookedUpOnce) {
  ExpectCodes({
      {"<ZpASSIGN s:n = s:n + 1>",
       "lineno 1; pushg s; pushc \"n\"; memb; dup; pushi 1; add; swap; store"},
      {"<ZpEVAL ++s:n>", "lineno 1; pushg s; pushc \"n\"; memb; dup; pushi 1; add; swap; store"},
      {"<ZpASSIGN s:n = s:m + 1>{{{ s }}}",
       "lineno 1; pushg s; pushc \"m\"; memb_readonly; pushi 1; add; pushg s; pushc \"n\"; memb; "
       "store; pushg s; out"},
      // Not the path alone is on the left of the operator.
      {"<ZpASSIGN s:n = s:n - 1 - 2>{{{ s }}}",
       "lineno 1; pushg s; pushc \"n\"; memb_readonly; pushi 1; sub; pushi 2; sub; pushg s; pushc "
       "\"n\"; memb; store; pushg s; out"},
  });
}

TEST(PageCode, OnlyWhatCanFailNotesItsLine) {
  ExpectCodes({
      {"\n<ZpASSIGN a = 1>\n\n<ZpASSIGN a = a + 1>\n{{{ a }}}",
       "pushc \"\\n\"; out; storegi a, 1; pushc \"\\n\"; out; pushg a; pushi 1; add; popg a; pushg "
       "a; "
       "out"},
      {"\n<ZpADD>\n<ZpADD><ZpADD>",
       "pushc \"\\n\"; out; pushc \"\"; pushc \"\"; lineno 2; dbadd; pushc \"\"; pushc \"\"; "
       "lineno "
       "3; dbadd; pushc \"\"; pushc \"\"; dbadd"},
  });
  CompileOptions options;
  options.every_line = true;
  const CompileResult traced = CompileText("\n<ZpASSIGN a = 1>\n{{{ a }}}", {}, options);
  std::string text, error;
  ASSERT_TRUE(traced.succeeded && ListScript(traced.image, &text, &error));
  EXPECT_NE(text.find("lineno 2"), std::string::npos);
  EXPECT_NE(text.find("lineno 3"), std::string::npos);
}

TEST(PageCode, FunctionsAreASegmentOfTheirOwn) {
  EXPECT_EQ(CodeOf("<ZpFUNCTION f(a, b var)><ZpASSIGN b = a></ZpFUNCTION>{{{ f(1, x) }}}"),
            "lineno 1; pushi 1; pushnc x; call f; out; .segment 1; .function f(a, b var); pushl a; "
            "popl b; retn");
}

TEST(PageCode, MailCommerceAndCallsWithFewOrManyArguments) {
  ExpectCodes({
      {"<ZpSMTP to='a' from='b' host='c'>x</ZpSMTP>",
       "pushc \"a\"; pushc \"b\"; pushc \"c\"; pushc \"\"; pushc \"\"; lineno 1; op_smtp L1; pushc "
       "\"x\"; out; op_smtp_end; L1:"},
      {"<ZpSMTP to='a' from='b' host='c' flags='tls'></ZpSMTP>",
       "pushc \"a\"; pushc \"b\"; pushc \"c\"; pushc \"\"; pushc \"\"; pushi 25; pushc \"tls\"; "
       "lineno 1; op_smtpn L1, 7; op_smtp_end; L1:"},
      {"<ZpPOP host='h' user='u' password='p'><ZpPOPDELETE></ZpPOP>",
       "pushc \"h\"; pushc \"u\"; pushc \"p\"; pushc \"\"; lineno 1; pop3 L1; L2:; lineno 1; "
       "pop3delete; lineno 1; pop3loop L2; L1:"},
      {"<ZpCOMMERCE method='m' action='a'>x</ZpCOMMERCE>",
       "pushc \"m\"; pushc \"a\"; pushc \"\"; lineno 1; op_commerce L1; L2:; pushc \"x\"; out; "
       "lineno 1; op_commerce_loop L2; L1:"},
      {"<ZpCALL url='u'></ZpCALL>",
       "pushc \"u\"; pushc \"GET\"; pushc \"\"; pushc \"\"; pushc \"\"; lineno 1; op_http L1; L2:; "
       "lineno 1; op_http_loop L2; L1:"},
  });
}

// The same source gives the same bytes, whatever was compiled before.
TEST(PageCode, IsDeterministic) {
  const std::string page =
      "<ZpFUNCTION f(a)>{{ a }}</ZpFUNCTION><ZpFOREACH x = list at=n>{{ f(x) $ n }}</ZpFOREACH>"
      "<ZpLOCALIZED token='t'><ZpLOCALIZED-TEXT language='en'>a{{ b }}</ZpLOCALIZED-TEXT>"
      "</ZpLOCALIZED><ZpLOCALIZED-TOKEN token='t' b=n>{{ one }}{{ two }}{{ three:four }}";
  const CompileResult first = CompileText(page);
  ASSERT_TRUE(first.succeeded) << first.formatted;
  CompileText("{{ three }}{{ two }}{{ one }}");
  EXPECT_EQ(CompileText(page).image, first.image);
}

}  // namespace

// Errors and warnings: their texts and places, and that hostile sources end in errors.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/CompiledPages.h"

namespace {

using testing::HasSubstr;

// All messages of a page, one a line: line, column, length and text.
std::string MessagesOf(const std::string& source,
                       const std::map<std::string, std::string>& files = {}) {
  const CompileResult result = CompileText(source, files);
  std::string all;
  for (const CompileMessage& message : result.messages) {
    if (message.file != "page.zeph") all += message.file + ":";
    all += std::to_string(message.line) + ":" + std::to_string(message.column) + "+" +
           std::to_string(message.length) + (message.is_error ? " " : " warning: ") + message.text +
           "\n";
  }
  return all;
}

struct MessageCase {
  const char* source;
  const char* messages;
};

void ExpectMessages(const std::vector<MessageCase>& cases) {
  for (const MessageCase& c : cases) {
    SCOPED_TRACE(c.source);
    EXPECT_EQ(MessagesOf(c.source), c.messages);
  }
}

TEST(CompileErrors, OfTags) {
  ExpectMessages({
      {"<ZpASIGN x=1>", "1:1+8 there is no tag 'ZpASIGN'; did you mean 'ZpASSIGN'?\n"},
      {"a\n </Zpwhatever>", "2:2+12 there is no tag 'Zpwhatever'\n"},
      {"<ZpIF 1", "1:1+5 there is no '>' that ends this tag\n"},
      {"<ZpIF 1>", "1:1+5 there is no closing '</ZpIF>'\n"},
      {"</ZpIF>", "1:1+6 '</ZpIF>' closes no tag\n"},
      {"<ZpWHILE 1>\n<ZpIF 1></ZpWHILE>", "2:1+5 there is no closing '</ZpIF>'\n"},
      {"<ZpELSE>", "1:1+7 '<ZpELSE>' is outside of a '<ZpIF>'\n"},
      {"<ZpIF 1><ZpELSE><ZpELSE></ZpIF>", "1:17+7 '<ZpELSE>' comes after the '<ZpELSE>'\n"},
      {"<ZpIFDEF a><ZpELSEIF 1></ZpIFDEF>", "1:12+9 '<ZpIFDEF>' has no '<ZpELSEIF>'\n"},
      {"<ZpCOMMENT>", "1:1+11 there is no closing '</ZpCOMMENT>'\n"},
      {"<ZpEXIT 1>", "1:9+1 expected '>', found '1'\n"},
      {"<ZpIF>x</ZpIF>", "1:6+1 expected a value, found the end\n"},
      {"<ZpPOPDELETE>", "1:1+12 '<ZpPOPDELETE>' is outside of a '<ZpPOP>'\n"},
      {"<ZpWHILESTOP>", "1:1+12 '<ZpWHILESTOP>' is outside of a '<ZpWHILE>'\n"},
      {"<ZpFUNCTION f()><ZpFORCONTINUE></ZpFUNCTION>{{{ f() }}}",
       "1:17+14 '<ZpFORCONTINUE>' is outside of a '<ZpFOR>'\n"},
      {"<ZpFUNCTIONRETURN 1>", "1:1+17 '<ZpFUNCTIONRETURN>' is outside of a '<ZpFUNCTION>'\n"},
      {"<ZpFOR i = 1 to 2><ZpASYNC><ZpFORSTOP></ZpASYNC></ZpFOR>",
       "1:28+10 this cannot leave the '<ZpASYNCHRONOUS>' around it\n"},
      {"<ZpFUNCTION f()><ZpSMTP to=1 from=2 host=3><ZpFUNCTIONRETURN></ZpSMTP></ZpFUNCTION>"
       "{{{ f() }}}",
       "1:44+17 this cannot leave the '<ZpSMTP>' around it\n"},
      {"{{ 1", "1:1+2 there is no '}}' that ends this\n"},
      {"{{{ 1 }}", "1:1+3 there is no '}}}' that ends this\n"},
      {"<ZpIF 'x>", "1:7+1 this text has no closing quote\n"},
  });
}

TEST(CompileErrors, OfAttributes) {
  ExpectMessages({
      {"<ZpOPEN name=\"a\" pth=\"b\">",
       "1:18+3 'ZpOPEN' has no attribute 'pth'; did you mean 'path'?\n"},
      {"<ZpOPEN name=\"a\">", "1:1+7 'ZpOPEN' needs the attribute 'path'\n"},
      {"<ZpGO to=1 to=2>", "1:12+2 the attribute 'to' is given twice\n"},
      {"<ZpGO to>", "1:9+1 expected '=' and a value for 'to', found the end\n"},
      {"<ZpGO to=1 2>", "1:12+1 expected an operator, an attribute or '>', found '2'\n"},
      {"<ZpFIND key=1 exact exakt>",
       "1:21+5 'ZpFIND' has no attribute 'exakt'; did you mean 'exact'?\n"},
      {"<ZpDO file=\"a\" call=\"b()\" into=5>", "1:32+1 expected a variable, found '5'\n"},
      {"<ZpDO file=\"a\" into=x>", "1:21+1 'into' needs the attribute 'call'\n"},
      {"<ZpREVEALSTRUCTURE>", "1:1+18 'ZpREVEALSTRUCTURE' needs either 'path' or 'into'\n"},
      {"<ZpFOR i = 1 to 2 step 0></ZpFOR>",
       "1:24+1 the step has to be a whole number that is not 0\n"},
      {"<ZpFOR i = 1 2></ZpFOR>", "1:14+1 expected an operator or 'to', found '2'\n"},
      {"<ZpFOREACH x = 5></ZpFOREACH>", "1:16+1 expected a variable with an array\n"},
      {"<ZEPH show=0>", "1:1+5 'show' and 'stop' need the attribute 'tag'\n"},
      {"<ZEPH tag=\"ZpOPN\" show=0>", "1:11+8 there is no tag 'ZpOPN'; did you mean 'ZpOPEN'?\n"},
      {"<ZEPH errors=x>", "1:14+1 this has to be a number from 0 to 1\n"},
      {"<ZpINCLUDE name>", "1:12+4 the file has to be a text in quotes\n"},
      {"<ZpINCLUDE \"none\">", "1:12+6 there is no file 'none'\n"},
  });
}

TEST(CompileErrors, OfExpressions) {
  ExpectMessages({
      {"{{ 1 + }}", "1:8+1 expected a value after '+', found the end\n"},
      {"{{ * 2 }}", "1:4+1 '*' needs a value on its left\n"},
      {"{{ -x }}",
       "1:4+1 a '-' before anything but a number needs a value on its left; write 0 - and the "
       "value\n"},
      {"{{ (1 }}", "1:4+1 this parenthesis is not closed\n"},
      {"{{ a[1 }}", "1:5+1 this bracket is not closed\n"},
      {"{{ f(1 }}", "1:5+1 this parenthesis is not closed\n"},
      {"{{ a b }}", "1:6+1 expected an operator or the closing braces, found 'b'\n"},
      {"{{ a = b }}", "1:6+1 expected an operator or the closing braces, found '='\n"},
      {"{{ a == b }}", "1:6+2 '==' is no operator; did you mean 'EQ'?\n"},
      {"{{ a != b }}", "1:6+2 '!=' is no operator; did you mean 'NE'?\n"},
      {"{{ a && b }}", "1:6+2 '&&' is no operator; did you mean 'AND'?\n"},
      {"{{ a % b }}", "1:6+1 '%' is no operator; did you mean 'MOD'?\n"},
      {"{{ !a }}", "1:4+1 '!' is no operator; did you mean 'NOT'?\n"},
      {"{{ 5++ }}", "1:5+2 '++' needs a variable\n"},
      {"{{ 2 * BITOC 1 }}", "1:8+5 'BITOC' after '*' needs parentheses around it and its value\n"},
      {"{{ a:in }}", "1:6+2 'in' is an operator and cannot be a member's name\n"},
      {"{{ q.x }}", "1:4+3 there is no scope 'q'\n"},
      {"{{ gobal.x }}", "1:4+7 there is no scope 'gobal'; did you mean 'global'?\n"},
      {"{{ g. }}", "1:7+1 expected a name after '.', found the end\n"},
      {"<ZpASSIGN 5 = 1>", "1:11+1 expected a variable, found '5'\n"},
      {"<ZpASSIGN f(1) = 1>", "1:11+4 expected a variable, found a call\n"},
      {"<ZpASSIGN x>", "1:12+1 expected '=', found the end\n"},
      {"<ZpASSIGN tm_sec = 1>", "1:11+6 the system variable 'tm_sec' cannot be assigned\n"},
      {"<ZpREFERENCE a = 5>", "1:18+1 expected a variable to refer to\n"},
  });
}

// The rest of the page is still looked at.
TEST(CompileErrors, OfHalfReadTags) {
  for (const char* source :
       {"<ZpFOREACH 5>{{ + }}</ZpFOREACH>", "<ZpFOREACH a = >{{ + }}</ZpFOREACH>",
        "<ZpFOR 5>{{ + }}</ZpFOR>", "<ZpFOR i = 1 to >{{ + }}</ZpFOR>",
        "<ZpFOR i = 1 to 2 step x>{{ + }}</ZpFOR>", "<ZpFOR i = 1 to 2 step - 1>{{ + }}</ZpFOR>",
        "<ZpFOR i = 1 to 2 step </b>{{ + }}</ZpFOR>", "<ZpMEMBER 5>{{ + }}",
        "<ZpASSIGNARRAY a>{{ + }}", "<ZpWHILE >{{ + }}</ZpWHILE>", "<ZpIF (1>{{ + }}</ZpIF>",
        "<ZpCAPTURE >{{ + }}</ZpCAPTURE>", "<ZpIMPORT file=>{{ + }}</ZpIMPORT>",
        "<ZpFUNCTION (>{{ + }}</ZpFUNCTION>"}) {
    SCOPED_TRACE(source);
    EXPECT_EQ(CompileText(source).messages.size(), 2u) << MessagesOf(source);
  }
}

TEST(CompileErrors, OfTextsThatAreExpressions) {
  ExpectMessages({
      {"<ZpFILTER filter=\"a ==1\">", "1:21+2 '==' is no operator; did you mean 'EQ'?\n"},
      {"<ZpFILTER filter=\"\"><ZpFILTER filter=\" \"><ZpFILTER filter=\"a EQ \\\"b\">", ""},
      {"<ZpMAKEINDEX path='x' key='d.a +'>", "1:33+1 expected a value after '+', found the end\n"},
      {"<ZpFIND key='a +'>", ""},
      {"<ZpDO file='x' call='f(1'>", "1:23+1 this parenthesis is not closed\n"},
  });
}

TEST(CompileErrors, OfFunctionsAndMessages) {
  ExpectMessages({
      {"<ZpFUNCTION htmlencode()></ZpFUNCTION>{{ x }}",
       "1:13+10 'htmlencode' has to have one parameter, by value\n"},
      {"<ZpIF 1><ZpLOCALIZED token='a'></ZpIF>", "1:9+12 there is no closing '</ZpLOCALIZED>'\n"},
      {"{{ pric(1) }}<ZpFUNCTION price(a)></ZpFUNCTION>",
       "1:4+4 there is no function 'pric'; did you mean 'price'?\n"},
      {"{{ f(1) }}<ZpFUNCTION f()></ZpFUNCTION>",
       "1:4+1 function 'f' has 0 parameters, this call has 1\n"},
      {"{{ f(1) }}<ZpFUNCTION f(a var)></ZpFUNCTION>",
       "1:6+1 the parameter 'a' of 'f' needs a variable\n"},
      {"<ZpFUNCTION f()></ZpFUNCTION><ZpFUNCTION F()></ZpFUNCTION>",
       "1:42+1 there is another function 'F' already\n"},
      {"<ZpFUNCTION f(a, A)></ZpFUNCTION>", "1:18+1 there are two parameters 'A'\n"},
      {"<ZpFUNCTION f() extern></ZpFUNCTION>",
       "1:17+6 a function has no word 'extern'; did you mean 'external'?\n"},
      {"<ZpIF 1><ZpFUNCTION f()></ZpFUNCTION></ZpIF>",
       "1:9+11 a function has to be outside of all other tags\n"},
      {"<ZpLOCALIZED-TOKEN token=\"a\">", "1:26+3 there is no message 'a'\n"},
      {"<ZpLOCALIZED token=\"a\"><ZpLOCALIZED-TEXT language=\"en\">x{{ n }}</ZpLOCALIZED-TEXT>"
       "</ZpLOCALIZED><ZpLOCALIZED-TOKEN token=\"a\" m=1>",
       "1:126+1 the message 'a' has no parameter 'm'\n"},
      {"<ZpLOCALIZED token=\"a\">x</ZpLOCALIZED>",
       "1:24+1 a '<ZpLOCALIZED>' has only '<ZpLOCALIZED-TEXT>'\n"},
      {"<ZpASSEMBLY>\n push 1\n jmp x\n pushc a\n</ZpASSEMBLY>",
       "2:2+1 expected an instruction, found 'push'; did you mean 'pushc'?\n"
       "3:6+1 there is no label 'x'\n4:8+1 expected a text in quotes, found 'a'\n"},
  });
}

TEST(CompileErrors, AreListedTogetherUpToTwenty) {
  EXPECT_EQ(MessagesOf("{{ 1 + }}\n{{ f() }}\n<ZpIF a == b></ZpIF>"),
            "1:8+1 expected a value after '+', found the end\n2:4+1 there is no function 'f'\n"
            "3:9+2 '==' is no operator; did you mean 'EQ'?\n");
  std::string many;
  for (int i = 0; i < 50; i++) many += "{{ + }}\n";
  EXPECT_EQ(CompileText(many).messages.size(), 20u);
}

TEST(CompileErrors, ShowTheLineAndThePlace) {
  EXPECT_EQ(CompileText("a\n\t<p>{{ \"\xC3\xA4\" $ nope(1) }}\n").formatted,
            "page.zeph:2:15: error: there is no function 'nope'\n"
            "\t<p>{{ \"\xC3\xA4\" $ nope(1) }}\n\t            ^~~~\n");
  // Of a long line only the part around the place.
  const std::string text =
      CompileText(std::string(5000, 'x') + "{{ + }}" + std::string(5000, 'y')).formatted;
  EXPECT_LT(text.size(), 400u);
  EXPECT_THAT(text, HasSubstr("{{ + }}"));
  // Control bytes do not reach a terminal.
  EXPECT_EQ(CompileText("\x1B[2J{{ + }}").formatted.find('\x1B'), std::string::npos);
}

TEST(CompileErrors, InIncludedFilesNameThem) {
  EXPECT_EQ(MessagesOf("<ZpINCLUDE \"a\">", {{"a", "\n{{ + }}"}}),
            "a:2:4+1 '+' needs a value on its left\n");
  EXPECT_EQ(
      MessagesOf("<ZpINCLUDE \"a\">", {{"a", "<ZpINCLUDE \"b\">"}, {"b", "<ZpINCLUDE \"a\">"}}),
      "b:1:12+3 'a' includes itself\n");
  EXPECT_EQ(MessagesOf("<ZpIF 1><ZpINCLUDE \"a\"></ZpIF>", {{"a", "</ZpIF>"}}),
            "a:1:1+6 '</ZpIF>' closes no tag\n");
}

TEST(CompileWarnings, OfWhatIsNeverUsed) {
  ExpectMessages({
      {"x<ZpFUNCTION f()></ZpFUNCTION>", "1:14+1 warning: function 'f' is never called\n"},
      {"<ZpFUNCTION f()></ZpFUNCTION>", ""},
      {"x<ZpFUNCTION Zeph_ProcessFileUpload(a, b, c, d, e, f)></ZpFUNCTION>", ""},
      {"<ZpASSIGN x = 1>", "1:11+1 warning: 'x' is assigned and never read\n"},
      {"<ZpASSIGN x = 1>{{ x }}", ""},
      {"<ZpASSIGN x = 1><ZpASSIGN x:m = 1>", "1:11+1 warning: 'x' is assigned and never read\n"},
      {"<ZpASSIGN x = 1><ZpHIDE fields=\"x\">", ""},
      {"<ZpASSIGN x = 1><ZpFILTER filter=\"d.a EQ x\">", ""},
      {"<ZpASSIGN x = 1><ZpDO file=\"a\">", ""},
      {"<ZpASSIGN x = 1><ZpREFERENCE y = x>", ""},
      {"{{{ f() }}}<ZpFUNCTION f()><ZpASSIGN x = 1></ZpFUNCTION>",
       "1:38+1 warning: 'x' is assigned and never read\n"},
      {"{{{ f(1) }}}<ZpFUNCTION f(x)></ZpFUNCTION>", ""},
  });
}

TEST(CompileWarnings, OfWhatIsNeverReached) {
  ExpectMessages({
      {"<ZpEXIT>x", "1:9+1 warning: this is never reached\n"},
      {"<ZpEXIT> \n ", ""},
      {"<ZpWHILE 1><ZpWHILESTOP>x{{ 1 }}</ZpWHILE>", "1:25+1 warning: this is never reached\n"},
      {"{{{ f() }}}<ZpFUNCTION f()><ZpFUNCTIONRETURN 1><ZpEVAL 1></ZpFUNCTION>",
       "1:48+7 warning: this is never reached\n"},
      {"<ZpIF 1><ZpEXIT></ZpIF>x", ""},
  });
}

TEST(CompileWarnings, OfAComparisonThatEndsATag) {
  EXPECT_THAT(MessagesOf("<ZpIF a > b>x</ZpIF>"),
              HasSubstr("1:9+1 warning: '>' ends the tag; did you mean 'GT'?"));
  EXPECT_THAT(MessagesOf("<ZpIF a >= b>x</ZpIF>"),
              HasSubstr("1:9+1 warning: '>' ends the tag; did you mean 'GE'?"));
  EXPECT_EQ(MessagesOf("<ZpIF a >b</ZpIF>"), "");
}

TEST(CompileWarnings, OfAnIntegerThatLosesDigits) {
  ExpectMessages({
      {"{{{ 2147483647 }}}{{{ -2147483648 }}}{{{ 0xFFFFFFFF }}}{{{ 00002147483647 }}}", ""},
      {"{{{ 2147483648 }}}",
       "1:5+10 warning: 2147483648 does not fit into 32 bits and becomes -2147483648; "
       "2147483648.0 is kept as it is\n"},
      {"{{{ -2147483649 }}}",
       "1:5+11 warning: -2147483649 does not fit into 32 bits and becomes 2147483647; "
       "-2147483649.0 is kept as it is\n"},
      {"{{{ 99999999999999999999999 + 1 }}}",
       "1:5+23 warning: 99999999999999999999999 does not fit into 32 bits and becomes -159383553; "
       "99999999999999999999999.0 is kept as it is\n"},
      {"{{{ 0x100000001 }}}",
       "1:5+11 warning: 0x100000001 does not fit into 32 bits and becomes 1\n"},
  });
}

// --- Hostile sources -----------------------------------------------------------------------------

std::string Repeated(const std::string& text, int count) {
  std::string all;
  for (int i = 0; i < count; i++) all += text;
  return all;
}

TEST(CompileLimits, NestingEndsInAnError) {
  EXPECT_THAT(MessagesOf(Repeated("<ZpIF 1>", 100000)), HasSubstr("nested too deep"));
  EXPECT_THAT(MessagesOf("{{ " + Repeated("(", 100000)), HasSubstr("no '}}'"));
  EXPECT_THAT(MessagesOf("{{ " + Repeated("(", 100000) + " }}"), HasSubstr("nested too deep"));
  EXPECT_THAT(MessagesOf("{{ " + Repeated("a[", 100000) + " }}"), HasSubstr("nested too deep"));
  EXPECT_THAT(MessagesOf("{{ " + Repeated("f(", 100000) + " }}"), HasSubstr("nested too deep"));
  EXPECT_THAT(MessagesOf("{{ " + Repeated("NOT ", 100000) + "1 }}"), HasSubstr("nested too deep"));
  EXPECT_EQ(MessagesOf(Repeated("<ZpIF 1>", 99) + Repeated("</ZpIF>", 99)), "");
  EXPECT_EQ(MessagesOf("{{ " + Repeated("(", 150) + "1" + Repeated(")", 150) + " }}"), "");
}

TEST(CompileLimits, LongListsAreNotNesting) {
  EXPECT_EQ(MessagesOf("{{ 1" + Repeated(" + 1", 200000) + " }}"), "");
  EXPECT_EQ(MessagesOf("<ZpASSIGNARRAY a = 1" + Repeated(", 1", 100000) + ">{{ a }}"), "");
  EXPECT_EQ(MessagesOf("<ZpIF 1>" + Repeated("<ZpELSEIF 2>", 20000) + "</ZpIF>"), "");
  EXPECT_EQ(MessagesOf("<ZpASSIGN" + Repeated(" a[1]:b[2] = 5", 50000) + ">{{ a }}"), "");
}

TEST(CompileLimits, CountsAreBounded) {
  std::string functions, variables;
  for (int i = 0; i < 70000; i++) {
    functions += "<ZpFUNCTION f" + std::to_string(i) + "()></ZpFUNCTION>";
    variables += "{{{ v" + std::to_string(i) + " }}}";
  }
  EXPECT_THAT(MessagesOf(functions), HasSubstr("more than 65535 functions"));
  EXPECT_THAT(MessagesOf(variables), HasSubstr("more than 65535 names"));
  EXPECT_THAT(MessagesOf("{{ a" + Repeated("[1]", 1000) + " }}"), HasSubstr("more than 100"));
  EXPECT_THAT(MessagesOf("<ZpLOCALIZED-TOKEN token=\"t\"" + Repeated(" x=1", 1000) + ">"),
              HasSubstr("given twice"));
  EXPECT_THAT(MessagesOf(std::string((size_t{64} << 20) + 1, 'x')), HasSubstr("larger than 64 MB"));
}

TEST(CompileLimits, IncludedFilesAreBounded) {
  std::map<std::string, std::string> files;
  for (int i = 0; i < 40; i++) {
    files["f" + std::to_string(i)] = "<ZpINCLUDE \"f" + std::to_string(i + 1) + "\">";
  }
  EXPECT_THAT(MessagesOf("<ZpINCLUDE \"f0\">", files), HasSubstr("more than 32 deep"));
  // Each includes the next one ten times.
  for (int i = 0; i < 20; i++) {
    files["g" + std::to_string(i)] = Repeated("<ZpINCLUDE \"g" + std::to_string(i + 1) + "\">", 10);
  }
  files["g20"] = "x";
  EXPECT_THAT(MessagesOf("<ZpINCLUDE \"g0\">", files), HasSubstr("more than 1000 files"));
}

TEST(CompileLimits, EveryBeginningOfAPageIsAPageOrAnError) {
  const std::string page =
      "<h1>{{ a }}</h1><ZpIF a EQ 'x' AND NOT b[1]:c>{{{ f(a, 2) }}}<ZpELSEIF 0>y<ZpELSE>z</ZpIF>"
      "<ZpFUNCTION f(a, b var)><ZpFUNCTIONRETURN a $ b></ZpFUNCTION><ZpFOR i = 1 to 2 step 1>"
      "</ZpFOR><ZpASSEMBLY>x: jmp x\n</ZpASSEMBLY><ZpCOMMENT>c</ZpCOMMENT><ZpLOCALIZED token='t'>"
      "<ZpLOCALIZED-TEXT language='en'>a{{ b }}</ZpLOCALIZED-TEXT></ZpLOCALIZED>"
      "<ZpLOCALIZED-TOKEN token='t' b=1><ZpIFDEF q>1<ZpELSE>2</ZpIFDEF><ZpOPEN name=a path=b>";
  for (size_t length = 0; length <= page.size(); length++) {
    const CompileResult result = CompileText(page.substr(0, length));
    EXPECT_EQ(result.succeeded, result.image.size() > 0) << length;
    const CompileResult rest = CompileText(page.substr(length));
    EXPECT_EQ(rest.succeeded, rest.image.size() > 0) << length;
  }
}

}  // namespace

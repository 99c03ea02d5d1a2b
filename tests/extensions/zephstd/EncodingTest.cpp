// The functions of zephstd that encode and decode. The second opinion is Python's library.

#include <sstream>

#include "tests/extensions/Library.h"

namespace {

class StdEncoding : public Library {};

TEST_F(StdEncoding, HTMLIsSafeInTextAndAttributes) {
  const ValueCase cases[] = {
      {R"(htmlencode("<a href='x'>\"T\" & co</a>"))",
       "&lt;a href=&#39;x&#39;&gt;&quot;T&quot; &amp; co&lt;/a&gt;"},
      {"htmlencode('plain (text) äö')", "plain (text) äö"},
      {"htmlencode('')", ""},
      {"htmlencode(12)", "12"},
      {"htmlencode('\xFF<')", "\xFF&lt;"},
      {"htmllines(urldecode('a%0Ab%0D%0A<'))", "a<br>\nb<br>\r\n&lt;"},
      {"htmllines(urldecode('%0D'))", "<br>\r"},
      {"htmldecode('&lt;&GT;&amp;amp;&quot;&#39;&apos;')", "<&GT;&amp;\"''"},
      {"htmldecode('&eacute;&Eacute;&euro;&nbsp;')", "éÉ€\xC2\xA0"},
      {"htmldecode('&#8364;&#x20AC;&#X20ac;')", "€€€"},
      {"htmldecode('&#0;&#xD800;&#x110000;')", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"htmldecode('& &; &x; &#; &#x; &#99999999999; &lt')",
       "& &; &x; &#; &#x; &#99999999999; &lt"},
      {"htmldecode('&&lt;')", "&<"},
      {"htmldecode('&thetasym;&thetasymx;')", "ϑ&thetasymx;"},
  };
  EXPECT_VALUES(cases);
}

// Short texts are encoded in another way than long ones.
TEST_F(StdEncoding, HTMLOfTextsOfEveryLengthUpToTheLongOnes) {
  for (size_t length = 0; length < 140; length++) {
    SCOPED_TRACE(length);
    std::string mixed(length, 'x'), quotes, encoded;
    for (size_t i = 0; i < length; i++) {
      quotes += "&quot;";
      if (i % 3 == 1) mixed[i] = '&';
      encoded += i % 3 == 1 ? "&amp;" : "x";
    }
    Set("g.t", std::string(length, '"'));
    EXPECT_EQ(Value("htmlencode(g.t)"), quotes);
    Set("g.t", mixed);
    EXPECT_EQ(Value("htmlencode(g.t)"), encoded);
  }
}

TEST_F(StdEncoding, HTMLWithOneEntityAtEachPlace) {
  const std::pair<char, std::string> entities[] = {
      {'<', "&lt;"}, {'>', "&gt;"}, {'&', "&amp;"}, {'"', "&quot;"}, {'\'', "&#39;"}};
  for (const size_t length : {1, 15, 16, 17, 40, 64, 65, 100}) {
    // All bytes that stay, but for the NUL: some differ from the five in one bit.
    std::string plain;
    for (size_t i = 0; i < length; i++) plain += "\x02\x06#$()%*89=?:;\x36.z"[i % 17];
    Set("g.t", plain);
    EXPECT_EQ(Value("htmlencode(g.t)"), plain);
    for (size_t at = 0; at < length; at++) {
      const auto& [byte, entity] = entities[at % 5];
      std::string text = plain;
      text[at] = byte;
      Set("g.t", text);
      EXPECT_EQ(Value("htmlencode(g.t)"), plain.substr(0, at) + entity + plain.substr(at + 1));
    }
  }
}

TEST_F(StdEncoding, URLs) {
  const ValueCase cases[] = {
      {"urlencode('a b&c=d/é?~-._')", "a%20b%26c%3Dd%2F%C3%A9%3F~-._"},
      {"urlencode('\xFF')", "%FF"},
      {"urldecode('a+b%26%c3%A9')", "a b&é"},
      {"urldecode('100%')", "100%"},
      {"urldecode('%4')", "%4"},
      {"urldecode('%zz%41')", "%zzA"},
      {"urlquery(jsondecode('{\"b\": \"x y\", \"a\": \"1&2\"}'))", "a=1%262&b=x%20y"},
      {"urlquery(split('x,y', ','))", "1=x&2=y"},
      {"urlquery('')", ""},
  };
  EXPECT_VALUES(cases);
}

TEST_F(StdEncoding, StringsOfJavaScript) {
  const ValueCase cases[] = {
      {R"(jsencode("a'b\"c</script>&`${x}"))",
       R"(a\u0027b\u0022c\u003c/script\u003e\u0026\u0060\u0024{x})"},
      {R"(jsencode(urldecode("%0A%0D%09%5C%00%7F")))", R"(\n\r\t\\\u0000\u007f)"},
      {"jsencode('äö€😀')", "äö€😀"},
      {"jsencode('\xE2\x80\xA8\xE2\x80\xA9')", "\\u2028\\u2029"},
      {"jsencode('\xFF')", "\\ufffd"},
      {R"(jsdecode('\u0041\x42\n\q\\ \'))", "?Mismatched Quotes found in Expression"},
      {R"(jsdecode('\u0041\x42\n\q\\ ') $ jsdecode(urldecode('%5C')))", "AB\n\\q\\ \\"},
      {R"(jsdecode('\ud83d\ude00 \ud83d \ude00x'))", "😀 \xEF\xBF\xBD \xEF\xBF\xBDx"},
      {R"(jsdecode('\u12g4 \x4 '))", "\\u12g4 \\x4 "},
      {R"(length(jsdecode('\0')))", "1"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(StdEncoding, Base64OfRFC4648) {
  const ValueCase cases[] = {
      {"base64encode('')", ""},
      {"base64encode('f')", "Zg=="},
      {"base64encode('fo')", "Zm8="},
      {"base64encode('foo')", "Zm9v"},
      {"base64encode('foob')", "Zm9vYg=="},
      {"base64encode('fooba')", "Zm9vYmE="},
      {"base64encode('foobar')", "Zm9vYmFy"},
      {"base64decode('Zm9vYmE=')", "fooba"},
      {"base64decode('Zm9vYmE')", "fooba"},
      {"base64decode(' Zm9v YmE= ')", "fooba"},
      {"base64decode('Zm9vYm-')", ""},
      {"base64decode('Z')", ""},
      {"base64decode('Z=m')", ""},
      {"base64decode('')", ""},
      {"base64urlencode('\xFB\xFF\xFE')", "-__-"},
      {"base64encode('\xFB\xFF\xFE')", "+//+"},
      {"base64urldecode('-__-')", "\xFB\xFF\xFE"},
      {"base64urldecode('+//+')", ""},
      {"base64urlencode('f')", "Zg"},
      {"base64urldecode('Zg==')", "f"},
      {"hexencode('foo\xFF')", "666f6fff"},
      {"hexdecode('666F6f')", "foo"},
      {"hexdecode('6')", ""},
      {"hexdecode('6g')", ""},
  };
  EXPECT_VALUES(cases);
}

TEST_F(StdEncoding, CSV) {
  const ValueCase cases[] = {
      {"csvencode(split('a|b c|d,e|f\"g|', '|'), '')", R"(a,b c,"d,e","f""g",)"},
      {"csvencode(split('a|b;c|d,e', '|'), ';')", R"(a;"b;c";d,e)"},
      {"csvencode(split(urldecode('a%0Ab| x'), '|'), '')", "\"a\nb\",\" x\""},
      {"csvencode('', '')", ""},
      {"csvencode(split('a,b', ','), 'ab')",
       "!csvencode: 'delimiter' is not one byte, or is a quote, a line end or NUL"},
      {"jsonencode(csvdecode(urldecode('a,\"b,\"\"c\"\"\",%0D%0Ad%0A'), ''))",
       R"([["a","b,\"c\"",""],["d"]])"},
      {"jsonencode(csvdecode('a;b', ';'))", R"([["a","b"]])"},
      {"jsonencode(csvdecode('', ''))", "[]"},
      {"csvdecode('a', character(0))",
       "!csvdecode: 'delimiter' is not one byte, or is a quote, a line end or NUL"},
      {"jsonencode(csvdecode('\"a', ''))", R"([["a"]])"},
      {"jsonencode(csvdecode('\"a\"b,c', ''))", R"([["ab","c"]])"},
      {"jsonencode(csvdecode('a\"b', ''))", R"([["a\"b"]])"},
      {"jsonencode(csvdecode(urldecode('a%0A%0Ab'), ''))", R"([["a"],[""],["b"]])"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(StdEncoding, JSONThatIsReadHasLimits) {
  const ValueCase cases[] = {
      {"jsonproblem('[' $ repeat('1,', 999998) $ '1]')", ""},
      {"jsonproblem('[' $ repeat('1,', 999999) $ '1]')", "line 1, byte 2000000: too many values"},
      {"jsonproblem('[' $ repeat('[],', 999999) $ '1]')", "line 1, byte 2999999: too many values"},
  };
  EXPECT_VALUES(cases);
  SetRemaining(0);
  EXPECT_EQ(Value("jsonproblem('[' $ repeat('1,', 2000) $ '1]')"),
            "line 1, byte 2046: the time limit of the script has passed");
}

// The argument is a copy, in which a circle is cut.
TEST_F(StdEncoding, JSONOfAnArrayInItself) {
  ZPVARIABLE const array = Variable("g.circle");
  zpVariable_SetValue_Integer(zpVariable_Array_Element(1, array, 1), 1);
  zpVariable_Set_Array_Element(2, array, array);
  EXPECT_EQ(Value("jsonencode(g.circle)"), "[1,null]");
  zpVariable_Delete_Array_Elements(2, 1, 1, array);
}

TEST_F(StdEncoding, JSON) {
  const ValueCase cases[] = {
      {"jsonencode(jsondecode('{\"a\":[1,2.5,\"x\",null,true]}'))", R"({"a":[1,2.5,"x",null,1]})"},
      {"jsonencode(jsondecode('{\"a\":null}'))", R"({"a":null})"},
      {"jsonencode(jsondecode('{\"a\":1,\"A\":null}'))", R"({"a":null})"},
      {"jsonencode(jsondecode('null'))", "null"},
      {"jsonencode(jsondecode('[1e-30,0.1,5e-324,1.7976931348623157e308,-2.5e15]'))",
       "[1e-30,0.1,5e-324,1.7976931348623157e+308,-2.5e+15]"},
      {"jsonencode(0.1 + 0.2)", "0.30000000000000004"},
      {"jsonencode('<!--<script>&')", R"("\u003c!--\u003cscript\u003e\u0026")"},
      {"jsonencode(character(8232) $ character(8233) $ character(8230))",
       "\"\\u2028\\u2029\xE2\x80\xA6\""},
      {"jsonencode('a\"b')", R"("a\"b")"},
      {"jsonencode(5)", "5"},
      {"jsonencode('5')", R"("5")"},
      {"jsondecode('5') + 1", "6"},
      {"jsondecode('[1,')", ""},
      {"ISNULL jsondecode('[1,')", "1"},
      {"jsonproblem('[1,')", "line 1, byte 4: a value is expected"},
      {"jsonproblem('[1]')", ""},
      {"jsonproblem('')", "line 1, byte 1: a value is expected"},
      {"jsondecode(split('a', ','))", "!jsondecode: 'text' is an array"},
  };
  EXPECT_VALUES(cases);
}

// Random bytes, encoded by the library, and encoded and decoded by Python.
TEST_F(StdEncoding, AnotherLibraryEncodesInTheSameWay) {
  const std::string program = R"(
import base64, html, random, urllib.parse, sys
random.seed(3)
def hexed(b): return b.hex() or '-'
for i in range(200):
  b = bytes(random.choices(range(256), k=i % 40))
  t = ''.join(random.choices(['a', '<', '>', '&', '"', "'", 'é', '€', '😀', ' ', '+', '%', '/'], k=i % 30))
  print(hexed(b), hexed(base64.b64encode(b)), hexed(base64.urlsafe_b64encode(b).rstrip(b'=')),
        hexed(urllib.parse.quote(b, safe='~').encode()), hexed(t.encode()),
        hexed(html.escape(t).replace('&#x27;', '&#39;').encode()))
)";
  const std::string all = Python(program);
  if (all.empty()) GTEST_SKIP() << "no Python";
  std::istringstream rows(all);
  const auto bytes = [](const std::string& hex) {
    std::string text;
    for (size_t i = 0; hex != "-" && i < hex.size(); i += 2) {
      text += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return text;
  };
  std::string row[6];
  int compared = 0;
  while (rows >> row[0] >> row[1] >> row[2] >> row[3] >> row[4] >> row[5]) {
    Set("g.b", bytes(row[0]));
    Set("g.t", bytes(row[4]));
    EXPECT_EQ(Value("base64encode(g.b)"), bytes(row[1]));
    EXPECT_EQ(Value("base64urlencode(g.b)"), bytes(row[2]));
    EXPECT_EQ(Value("urlencode(g.b)"), bytes(row[3]));
    EXPECT_EQ(Value("htmlencode(g.t)"), bytes(row[5]));
    EXPECT_EQ(Value("hexencode(g.b)"), row[0] == "-" ? "" : row[0]);
    EXPECT_EQ(Value("base64decode(base64encode(g.b))"), bytes(row[0]));
    EXPECT_EQ(Value("base64urldecode(base64urlencode(g.b))"), bytes(row[0]));
    EXPECT_EQ(Value("urldecode(urlencode(g.b))"), bytes(row[0]));
    EXPECT_EQ(Value("hexdecode(hexencode(g.b))"), bytes(row[0]));
    EXPECT_EQ(Value("htmldecode(htmlencode(g.t))"), bytes(row[4]));
    EXPECT_EQ(Value("jsdecode(jsencode(g.t))"), bytes(row[4]));
    compared++;
  }
  EXPECT_EQ(compared, 200);
}

TEST_F(StdEncoding, AllEntitiesOfHTMLFourAreKnown) {
  const std::string all = Python(
      "import html.entities\n"
      "for n, c in html.entities.name2codepoint.items(): print(n, chr(c).encode().hex())");
  if (all.empty()) GTEST_SKIP() << "no Python";
  std::istringstream rows(all);
  std::string entity, hex;
  int compared = 0;
  while (rows >> entity >> hex) {
    EXPECT_EQ(Value("hexencode(htmldecode('&" + entity + ";'))"), hex) << entity;
    compared++;
  }
  EXPECT_EQ(compared, 252);
}

}  // namespace

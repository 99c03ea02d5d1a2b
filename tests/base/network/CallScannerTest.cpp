// The elements of response bodies: a table of bodies, and random ones against a model.

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "base/core/RunLimit.h"
#include "base/network/HTTPResponseStream.h"
#include "base/values/VariableRef.h"
#include "tests/support/CallHost.h"
#include "tests/support/CallModel.h"
#include "tests/support/GrowthOfTime.h"
#include "tests/support/Rounds.h"

namespace {

// A text as 'text'; a tag as [element name{value} ...]; a pass without an element as (); an error
// after '!'. Attributes that a comment has left from the tag before come after a bar.
std::string Shown(const CallLoopSeen& seen) {
  std::string all;
  for (const CallPass& pass : seen.passes) {
    if (!all.empty()) all += ' ';
    if (pass.type == "(none)") {
      all += "()";
      continue;
    }
    if (pass.type == "text") {
      all += "'" + pass.value + "'";
    } else {
      all += "[" + pass.element;
    }
    const size_t count = std::stoul(pass.count);
    for (size_t i = 0; i < pass.attributes.size(); i++) {
      const auto& [name, value] = pass.attributes[i];
      if (i >= count && name.empty() && value.empty()) continue;
      all += (i == count ? " | " : " ") + name + "{" + value + "}";
    }
    if (pass.type == "tag") all += "]";
  }
  if (!seen.error.empty()) all += (all.empty() ? "!" : " !") + seen.error;
  return all;
}

struct ElementCase {
  const char* body;
  const char* elements;
};

const char kTag[] = "!Unexpected EOF in tag";
const char kComment[] = "!Unexpected EOF in HTML comment or CDATA section";
const char kOther[] = "!Unexpected EOF in DOCTYPE or other XML tag";

const ElementCase kCases[] = {
    // Texts
    {"", "()"},
    {"a", "'a'"},
    {" ", "' '"},
    {"a<b>c", "'a' [b] 'c'"},
    {"a > b", "'a > b'"},
    {"&lt;b&gt;", "'&lt;b&gt;'"},
    {"<a> <b>\r\n<c>", "[a] ' ' [b] '\r\n' [c]"},
    {"{\"json\": [1, 2]}", "'{\"json\": [1, 2]}'"},
    // Names
    {"<b>", "[b]"},
    {"</p>", "[/p]"},
    {"</p >", "[/p]"},
    {"< /p>", "[/p]"},
    {"< b>", "[b]"},
    {"<\r\n\t b>", "[b]"},
    {"<br/>", "[br/]"},
    {"<br />", "[br]"},
    {"<>", "[]"},
    {"< >", "[]"},
    {"</>", "[/]"},
    {"<a<b>", "[a<b]"},
    {"<a=b>", "[a=b]"},
    {"<a'b c'>", "[a'b c'{c'}]"},
    {"<?xml?>", "[?xml?]"},
    {"<?xml version=\"1.0\"?>", "[?xml version{1.0} ?{?}]"},
    {"1 < 2 > 1", "'1 ' [2] ' 1'"},
    {"<<b>", "[<b]"},
    {"<b>>", "[b] '>'"},
    // Attributes
    {"<a href=x y='1 2' z>", "[a href{x} y{1 2} z{z}]"},
    {"<a b=c'd e'f>", "[a b{c'd e'} f{f}]"},
    {"<a b=c'd e'f=g>", "[a b{c'd e'} f{g}]"},
    {"<a b>", "[a b{b}]"},
    {"<a b >", "[a b{b}]"},
    {"<a b/>", "[a b/{b/}]"},
    {"<a b />", "[a b{b}]"},
    {"<a b=c/>", "[a b{c/}]"},
    {"<a b=c />", "[a b{c}]"},
    {"<a b='c'/>", "[a b{c}]"},
    {"<a b=/>", "[a b{/}]"},
    {"<a b=>", "[a b{}]"},
    {"<a b= >", "[a b{}]"},
    {"<a b=''>", "[a b{}]"},
    {"<a b=\"\" c>", "[a b{} c{c}]"},
    {"<a b = c>", "[a b{c}]"},
    {"<a b\n=\n'c'>", "[a b{c}]"},
    {"<a =b>", "[a {b}]"},
    {"<a ==b>", "[a {=b}]"},
    {"<a =>", "[a {}]"},
    {"<a b=c=d>", "[a b{c=d}]"},
    {"<a b='c'd='e'>", "[a b{c} d{e}]"},
    {"<a b='c\"d'>", "[a b{c\"d}]"},
    {"<a b=\"c'd\">", "[a b{c'd}]"},
    {"<a b='>'>", "[a b{>}]"},
    {"<a b='<c>'>", "[a b{<c>}]"},
    {"<a b=c\">\">", "[a b{c\">\"}]"},
    {"<a b='c' 'd'>", "[a b{c} 'd'{'d'}]"},
    {"<a \"b\">", "[a \"b\"{\"b\"}]"},
    {"<a 'b c'>", "[a 'b{'b} c'{c'}]"},
    {"<a b='c''d'>", "[a b{c} 'd'{'d'}]"},
    {"<a B=C>", "[a B{C}]"},
    {"<a b b b=1>", "[a b{b} b{b} b{1}]"},
    {"<a b=c><d>", "[a b{c}] [d]"},
    {"<a b c><d e>", "[a b{b} c{c}] [d e{e}]"},
    {"<a b=c>x", "[a b{c}] 'x'"},
    {"<a <b>", "[a <b{<b}]"},
    // A slash
    {"<a / >", "!Found &quot; &quot; in tag following /"},
    {"<a /b>", "!Found &quot;b&quot; in tag following /"},
    {"<a b /c>", "!Found &quot;c&quot; in tag following /"},
    {"<a //>", "!Found &quot;/&quot; in tag following /"},
    {"<a b=c //>", "!Found &quot;/&quot; in tag following /"},
    {"<a b=c/d>", "[a b{c/d}]"},
    {"<a b/c>", "[a b/c{b/c}]"},
    // Comments and sections
    {"<!-- a > b -->", "[!--]"},
    {"<!---->", "[!----]"},
    {"<!-->", "[!--]"},
    {"<!--->", "[!---]"},
    {"<!--a-->b", "[!--a--] 'b'"},
    {"<!--a>b-->", "[!--a]"},
    {"<!--a->b-->", "[!--a-]"},
    {"<!-- -- -->", "[!--]"},
    {"<!-- ---->", "[!--]"},
    {"<!-- -]->", "[!--]"},
    {"<!-- ->->", "[!--]"},
    {"<!-- - ->-->", "[!--]"},
    {"<!-- ]]>-->", "[!--]"},
    {"<!--\n<b c='d'>\n-->e", "[!--] 'e'"},
    {"< !-- a -->", "[!--]"},
    {"<a b=c><!-- d --><e>", "[a b{c}] [!-- | b{c}] [e]"},
    {"<![CDATA[x>y]]>", "[![CDATA[x]"},
    {"<![CDATA[x y]]>", "[![CDATA[x]"},
    {"<![CDATA[]]>", "[![CDATA[]]]"},
    {"<![CDATA[>]]>", "[![CDATA[]"},
    {"<![CDATA[ --> ]>]]>", "[![CDATA[]"},
    {"<![cdata[x>y]]>", "[![cdata[x] 'y]]>'"},
    {"<![CDATA>", "[![CDATA]"},
    // Other constructs
    {"<!DOCTYPE html>", "[!DOCTYPE]"},
    {"<!DOCTYPE>", "[!DOCTYPE]"},
    {"<!DOCTYPE a [<!ENTITY b 'c'>]>d", "[!DOCTYPE] 'd'"},
    {"<!D0CTYPE a [<!ENTITY b 'c'>]>d", "[!D0CTYPE] 'd'"},
    {"<!>", "[!]"},
    {"<! a>", "[!]"},
    {"<!-a>b", "[!-a] 'b'"},
    {"<!a<b>c>", "[!a<b] 'c>'"},
    // The end of the data
    {"<", kTag},
    {"<  ", kTag},
    {"<a", kTag},
    {"<a ", kTag},
    {"<a b", kTag},
    {"<a b ", kTag},
    {"<a b=", kTag},
    {"<a b= ", kTag},
    {"<a b=c", kTag},
    {"<a b='", kTag},
    {"<a b='c", kTag},
    {"<a b=c'd", kTag},
    {"<a b='c'", kTag},
    {"<a /", kTag},
    {"<a b /", kTag},
    {"<!", kTag},
    {"<!--", kTag},
    {"<!-- ", kComment},
    {"<!-- a --", kComment},
    {"<!--a>", kComment},
    {"<![CDATA[ ]]", kComment},
    {"<![CDATA[a]>", kComment},
    {"<!DOCTYPE a", kOther},
    {"<!DOCTYPE a [<!b>", kOther},
    // The byte that reads as the end
    {"a\xFF"
     "b",
     "'a'"},
    {"\xFF"
     "b",
     "()"},
    {"<a>\xFF<b>", "[a]"},
    {"<a b\xFF>", kTag},
    {"\xFE\x80<\xC3\xA4>", "'\xFE\x80' [\xC3\xA4]"},
};

TEST(CallScanner, ATableOfBodies) {
  CallHost host;
  size_t count = 0;
  for (const ElementCase& row : kCases) {
    SCOPED_TRACE(row.body);
    EXPECT_EQ(Shown(host.Read(row.body)), row.elements);
    EXPECT_EQ(Shown(CallModel(row.body).Read()), row.elements);
    count++;
  }
  EXPECT_GE(count, 80u);
}

TEST(CallScanner, ABodyWithNULBytes) {
  const std::string body("a\0b<c\0d e=\0>", 12);
  const CallLoopSeen seen = CallHost().Read(body);
  ASSERT_EQ(seen.passes.size(), 2u);
  EXPECT_EQ(seen.passes[0].value, std::string("a\0b", 3));
  EXPECT_EQ(seen.passes[1].element, std::string("c\0d", 3));
  EXPECT_EQ(seen.passes[1].attributes[0].second, std::string(1, '\0'));
  EXPECT_EQ(seen, CallModel(body).Read());
}

TEST(CallScanner, TheValuesOfAllElementsAreTheBody) {
  const std::string body = "<!DOCTYPE a>\n<b c = 'd' e>f</b ><!-- g --><![CDATA[ h ]]><br />i";
  std::string all;
  for (const CallPass& pass : CallHost().Read(body).passes) all += pass.value;
  EXPECT_EQ(all, body);
}

// Every byte may be the last one of a read.
TEST(CallScanner, CutsDoNotMatter) {
  CallHost host;
  for (const ElementCase& row : kCases) {
    SCOPED_TRACE(row.body);
    const std::string body = row.body;
    std::set<size_t> cuts;
    for (size_t i = 1; i < body.size(); i++) cuts.insert(i);
    EXPECT_EQ(Shown(host.Read(body, cuts)), row.elements);
  }
}

std::string RandomBody(std::mt19937& random) {
  static const std::string kMarkup = "<<<>>>!--[]]''\"\"==/  \n\tab";
  static const char* const kPieces[] = {"<a b='c'>", "<!--",  "-->",        "<![CDATA[", "]]>",
                                        "<br />",    " c=d ", "<!DOCTYPE ", "/>",        "\xFF"};
  std::string body;
  const size_t length = random() % 40;
  while (body.size() < length) {
    if (random() % 8 == 0) {
      body += kPieces[random() % std::size(kPieces)];
    } else {
      body += kMarkup[random() % kMarkup.size()];
    }
  }
  return body;
}

TEST(CallScanner, RandomBodiesHaveTheElementsThatAModelFinds) {
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  CallHost host;
  size_t elements = 0;
  size_t errors = 0;
  constexpr int bodies = Rounds(100000);
  for (int i = 0; i < bodies; i++) {
    const std::string body = RandomBody(random);
    std::set<size_t> cuts;
    for (size_t n = random() % 4; n > 0 && !body.empty(); n--) cuts.insert(random() % body.size());
    cuts.erase(0);
    const CallLoopSeen expected = CallModel(body).Read();
    const CallLoopSeen seen = host.Read(body, cuts);
    ASSERT_EQ(Shown(seen), Shown(expected)) << "seed " << seed << ", body " << i << ": " << body;
    ASSERT_EQ(seen, expected) << "seed " << seed << ", body " << i << ": " << body;
    elements += seen.passes.size();
    errors += !seen.error.empty();
  }
  // The bodies are neither all text nor all broken.
  EXPECT_GT(elements, size_t{bodies});
  EXPECT_GT(errors, size_t{bodies / 20});
  EXPECT_LT(errors, size_t{bodies / 20 * 19});
}

// A peer falls silent after each byte of each sound body.
TEST(CallScanner, AFailedReadEndsTheLoopWithTheTextOfTheConnection) {
  size_t failures = 0;
  for (const ElementCase& row : kCases) {
    SCOPED_TRACE(row.body);
    const std::string body = row.body;
    // An error of its own, or the byte that is an end, may come before the read that fails.
    if (strchr(row.elements, '!') || body.find('\xFF') != std::string::npos) continue;
    CallHost host;
    const std::string whole = Shown(host.Read(body));
    for (size_t sent = 0; sent <= body.size(); sent++) {
      const CallLoopSeen seen = host.Read(body.substr(0, sent), {}, true);
      EXPECT_EQ(seen.error, kReadTimeout);
      CallLoopSeen before = seen;
      before.error.clear();
      EXPECT_EQ(whole.rfind(Shown(before), 0), 0u) << "elements before the failure at " << sent;
      failures++;
    }
  }
  EXPECT_GE(failures, 500u);
}

TEST(CallScanner, ReferencesToOldAttributesAreEmptied) {
  CallHost host;
  host.peer.bytes = "HTTP/1.1 200 OK\r\n\r\n<a b=c>d";
  const auto call = host.Connect(CallHost::Arguments("GET"));
  ASSERT_EQ(call->Find_Next_Element(), Call::Found);
  Variable* values = nullptr;
  ASSERT_TRUE(host.variables.Find(&values, "callobjectvalue", -1, 0));
  const VariableRef element = VariableRef::Share(values->At(1, 0));
  EXPECT_EQ(BytesOf(element->value()), "c");
  ASSERT_EQ(call->Find_Next_Element(), Call::Found);
  EXPECT_EQ(BytesOf(element->value()), "");
  EXPECT_EQ(host.Value("callobjectvalue"), "");
  EXPECT_EQ(values->aggregatetype(), AggregateNone);
}

TEST(CallScanner, TheLoopEndsWhenTheTimeIsOver) {
  CallHost host;
  host.application.config()->SetValue_Integer(Config_bufsz_call, 4);
  host.peer.bytes = "HTTP/1.1 200 OK\r\n\r\n" + std::string(1000, 'x');
  const auto call = host.Connect(CallHost::Arguments("GET"));
  int over = 1;
  const RunLimit limit(&over);
  ASSERT_EQ(call->Find_Next_Element(), Call::Found);
  EXPECT_EQ(host.Value("callvalue"), "(none)");
  EXPECT_EQ(call->Find_Next_Element(), Call::End);
  EXPECT_LT(host.peer.at, 100u);
}

// --- Long bodies ---------------------------------------------------------------------------------

std::string Repeated(const std::string& piece, int size) {
  std::string all;
  while (all.size() < static_cast<size_t>(size)) all += piece;
  return all;
}

void ExpectLinear(const std::string& begin, const std::string& piece, const std::string& end) {
  SCOPED_TRACE(begin + piece + end);
  CallHost host;
  ExpectNearLinear(
      100000, [&](int size) { return begin + Repeated(piece, size) + end; },
      [&](std::string* body) {
        host.peer = ScriptedPeer();
        host.peer.bytes = "HTTP/1.1 200 OK\r\n\r\n" + *body;
        const auto call = host.Connect(CallHost::Arguments("GET"));
        while (call->Find_Next_Element() == Call::Found) {
        }
      });
}

TEST(CallScanner, LongBodiesTakeLinearTime) {
  ExpectLinear("", "x", "");
  ExpectLinear("", "<a b='c'>text</a>", "");
  ExpectLinear("<", "x", ">");
  ExpectLinear("<a b='", "x", "'>");
  ExpectLinear("<a", " ", ">");
  // A tag of many attributes makes two variables for each.
  ExpectLinear("<a", " bcdef", ">");
  ExpectLinear("<a b='c'/><a", " bcdef", "><d>");
  ExpectLinear("<!-- ", "->", "-->");
  ExpectLinear("<!a ", "<", "");
  ExpectLinear("<![CDATA[ ", "]x>", "]]>");
}

TEST(CallScanner, APageOfTenMegabytes) {
  CallHost host;
  const std::string body =
      Repeated("<p class=\"c\" id=x>Some text of a page.</p>\n", Rounds(10 << 20));
  host.peer.bytes = "HTTP/1.1 200 OK\r\n\r\n" + body;
  const auto call = host.Connect(CallHost::Arguments("GET"));
  size_t bytes = 0;
  while (call->Find_Next_Element() == Call::Found) bytes += host.Value("callvalue").size();
  EXPECT_EQ(bytes, body.size());
}

// --- The buffer ----------------------------------------------------------------------------------

class BufferOfAPeer {
 public:
  explicit BufferOfAPeer(const std::string& body, int size) {
    peer.bytes = "HTTP/1.1 200 OK\r\n\r\n" + body;
    EXPECT_TRUE(stream.Read_Headers());
    buffer = std::make_unique<CallBuffer>(&stream, size);
  }
  int Next() {
    int c = 0;
    EXPECT_TRUE(buffer->GetNextChar(&c));
    return c;
  }
  std::string Run() {
    const char *begin, *end;
    EXPECT_TRUE(buffer->Run(&begin, &end));
    return std::string(begin, end);
  }

  ScriptedPeer peer;
  ScriptedConnection connection{&peer};
  HTTPResponseStream stream{&connection, 1};
  std::unique_ptr<CallBuffer> buffer;
};

TEST(CallBuffer, BytesAreSignedAndTheEndIsMinusOne) {
  BufferOfAPeer body("a\x7F\x80\xFE", 3);
  EXPECT_EQ(body.Next(), 'a');
  EXPECT_EQ(body.Next(), 127);
  EXPECT_EQ(body.Next(), -128);
  EXPECT_EQ(body.Next(), -2);
  EXPECT_EQ(body.Next(), -1);
  EXPECT_EQ(body.Next(), -1);
}

TEST(CallBuffer, TheByteFFEndsTheDataForGood) {
  BufferOfAPeer body(
      "a\xFF"
      "b",
      2);
  EXPECT_EQ(body.Next(), 'a');
  EXPECT_EQ(body.Next(), -1);
  EXPECT_EQ(body.Next(), -1);
  EXPECT_EQ(body.Run(), "");
}

TEST(CallBuffer, CharactersGivenBackComeOutInReverseOrder) {
  BufferOfAPeer body("abcd", 2);
  EXPECT_EQ(body.Next(), 'a');
  body.buffer->UnGetChar();
  EXPECT_EQ(body.Next(), 'a');
  body.buffer->UnGetChar();
  EXPECT_EQ(body.Run(), "a");
  body.buffer->Take(1);
  EXPECT_EQ(body.Next(), 'b');
  body.buffer->UnGetChar();
  body.buffer->UnGetChar();
  EXPECT_EQ(body.Next(), 'b');
  EXPECT_EQ(body.Next(), 'b');
  EXPECT_EQ(body.Next(), 'c');
  EXPECT_EQ(body.Run(), "d");
}

TEST(CallBuffer, AnEndGivenBackIsAnEnd) {
  BufferOfAPeer body("a", 2);
  EXPECT_EQ(body.Next(), 'a');
  EXPECT_EQ(body.Next(), -1);
  body.buffer->UnGetChar();
  EXPECT_EQ(body.Run(), "");
  EXPECT_EQ(body.Next(), -1);
  EXPECT_EQ(body.Next(), -1);
}

TEST(CallBuffer, PlaceCountsTheBytesThatWereUsed) {
  BufferOfAPeer body("abcde", 2);
  for (int i = 0; i < 5; i++) {
    EXPECT_EQ(body.buffer->Place(), i);
    body.Next();
  }
  body.Next();
  EXPECT_EQ(body.buffer->Place(), 5);
}

TEST(CallBuffer, AFailedReadIsFalseWithTheTextOfTheStream) {
  BufferOfAPeer body("a", 2);
  body.peer.stays = true;
  EXPECT_EQ(body.Next(), 'a');
  int c = 0;
  EXPECT_FALSE(body.buffer->GetNextChar(&c));
  EXPECT_EQ(c, -1);
  EXPECT_EQ(BytesOf(body.buffer->error()), kReadTimeout);
}

}  // namespace

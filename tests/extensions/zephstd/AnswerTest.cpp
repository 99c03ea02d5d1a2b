// The functions of zephstd for the head of the answer. tests/e2e/StandardLibraryTest.cpp has them
// in the engine.

#include "tests/extensions/Library.h"

namespace {

using testing::ElementsAre;

class StdAnswer : public Library {
 protected:
  StdAnswer() { Prepare(); }
  void Prepare() override { SetServer("apitype", "Redirect"); }
  // The headers that an expression sets; its error, if it has one.
  std::string Headers(const std::string& expression) {
    Restart();
    const std::string value = Value(expression);
    if (value[0] == '!') return value;
    EXPECT_EQ(value, "1") << expression;
    std::string all;
    for (const std::string& header : machine->output.headers) {
      all += (all.empty() ? "" : "|") + header;
    }
    return all;
  }
};

TEST_F(StdAnswer, HeadersAreChecked) {
  const struct {
    const char* expression;
    const char* headers;
  } cases[] = {
      {"setheader('X-Tea', 'Assam; 2')", "X-Tea: Assam; 2"},
      {"setheader('X-Tea', '')", "X-Tea: "},
      {"setheader('X Tea', 'a')", "!setheader: 'name' is no name of a header"},
      {"setheader('', 'a')", "!setheader: 'name' is no name of a header"},
      {"setheader('X:', 'a')", "!setheader: 'name' is no name of a header"},
      {"setheader('X', urldecode('a%0D%0AY: b'))", "!setheader: 'value' has CR, LF or NUL"},
      {"setheader('X', urldecode('a%0AY: b'))", "!setheader: 'value' has CR, LF or NUL"},
      {"setheader('X', urldecode('a%00'))", "!setheader: 'value' has CR, LF or NUL"},
      {"setheader(urldecode('X%0D%0AY'), 'a')", "!setheader: 'name' is no name of a header"},
      {"setheader('X', repeat('a', 8193))", "!setheader: 'value' has more than 8192 bytes"},
      {"setstatus(404, '')", "Status: 404 Not Found"},
      {"setstatus(404, 'Gone fishing')", "Status: 404 Gone fishing"},
      {"setstatus(599, '')", "Status: 599"},
      {"setstatus(199, '')", "!setstatus: 'code' is not 200 to 599"},
      {"setstatus(600, '')", "!setstatus: 'code' is not 200 to 599"},
      {"setstatus(404, urldecode('a%0A'))", "!setstatus: 'reason' has CR, LF or NUL"},
      {"redirect('/tea?x=1', '')", "Location: /tea?x=1|Status: 303 See Other"},
      {"redirect('/ä b%20\"<', 301)",
       "Location: /%C3%A4%20b%20%22%3C|Status: 301 Moved Permanently"},
      {"redirect('/', 200)", "!redirect: 'code' is not 301, 302, 303, 307 or 308"},
      {"redirect('', '')", "!redirect: 'url' is empty"},
      {"redirect(urldecode('/%0D%0AX: y'), '')", "!redirect: 'url' has CR, LF or NUL"},
      {"contenttype('text/plain')", "Content-Type: text/plain; charset=utf-8"},
      {"contenttype('text/plain; charset=latin1')", "Content-Type: text/plain; charset=latin1"},
      {"contenttype('Text/HTML')", "Content-Type: Text/HTML; charset=utf-8"},
      {"contenttype('Application/JavaScript')",
       "Content-Type: Application/JavaScript; charset=utf-8"},
      {"contenttype('text/html; CHARSET=latin1')", "Content-Type: text/html; CHARSET=latin1"},
      {"contenttype('application/json')", "Content-Type: application/json"},
      {"contenttype('text')", "!contenttype: 'type' is no content type"},
      {"contenttype('/')", "!contenttype: 'type' is no content type"},
      {"contenttype('')", "!contenttype: 'type' is no content type"},
      {"contenttype(urldecode('text/html;%0Ax'))", "!contenttype: 'type' has CR, LF or NUL"},
      {"nocache()", "Cache-Control: no-store"},
      {"download('Übersicht \"1\".csv')",
       "Content-Disposition: attachment; filename=\"_bersicht _1_.csv\"; "
       "filename*=UTF-8''%C3%9Cbersicht%20%221%22.csv"},
      {"download('../x')", "!download: 'name' is no name of a file"},
      {"download('')", "!download: 'name' is no name of a file"},
  };
  for (const auto& each : cases)
    EXPECT_EQ(Headers(each.expression), each.headers) << each.expression;
}

TEST_F(StdAnswer, Cookies) {
  const struct {
    const char* expression;
    const char* headers;
  } cases[] = {
      {"setcookie('tea', 'a b;ä', '')",
       "Set-Cookie: tea=a%20b%3B%C3%A4; Path=/; SameSite=Lax; HttpOnly"},
      {"setcookie('tea', '', 'Max-Age=0')",
       "Set-Cookie: tea=; Max-Age=0; Path=/; SameSite=Lax; HttpOnly"},
      {"setcookie('t', 'x', 'max-age=60; PATH=/shop ;domain=example.org; samesite=strict; secure')",
       "Set-Cookie: t=x; Max-Age=60; Path=/shop; Domain=example.org; SameSite=Strict; Secure; "
       "HttpOnly"},
      {"setcookie('t', 'x', 'SameSite=None; Secure; script')",
       "Set-Cookie: t=x; Path=/; SameSite=None; Secure"},
      {"setcookie('t', 'x', 'HttpOnly;;')", "Set-Cookie: t=x; Path=/; SameSite=Lax; HttpOnly"},
      {"setcookie('', 'x', '')", "!setcookie: 'name' is no name of a cookie"},
      {"setcookie('a=b', 'x', '')", "!setcookie: 'name' is no name of a cookie"},
      {"setcookie('ä', 'x', '')", "!setcookie: 'name' is no name of a cookie"},
      {"setcookie('t', 'x', 'Max-Age=soon')",
       "!setcookie: 'options' has a wrong part: 'Max-Age=soon'"},
      {"setcookie('t', 'x', 'Max-Age=')", "!setcookie: 'options' has a wrong part: 'Max-Age='"},
      {"setcookie('t', 'x', 'Path=shop')", "!setcookie: 'options' has a wrong part: 'Path=shop'"},
      {"setcookie('t', 'x', urldecode('Path=/%0D%0AX: y'))",
       "!setcookie: 'options' has a wrong part: 'Path=/\r\nX: y'"},
      {"setcookie('t', 'x', 'Domain=a_b')", "!setcookie: 'options' has a wrong part: 'Domain=a_b'"},
      {"setcookie('t', 'x', 'SameSite=No')",
       "!setcookie: 'options' has a wrong part: 'SameSite=No'"},
      {"setcookie('t', 'x', 'SameSite=None')",
       "!setcookie: 'options' has SameSite=None without Secure"},
      {"setcookie('t', 'x', 'Secure=1')", "!setcookie: 'options' has a wrong part: 'Secure=1'"},
      {"setcookie('t', 'x', 'Expires=1')", "!setcookie: 'options' has a wrong part: 'Expires=1'"},
      {"setcookie('t', repeat('x', 5000), '')",
       "!setcookie: 'value' makes the cookie larger than 4096 bytes"},
      {"setcookie('a', 1, '') + setcookie('a', 2, '') - 1",
       "Set-Cookie: a=1; Path=/; SameSite=Lax; HttpOnly|"
       "Set-Cookie: a=2; Path=/; SameSite=Lax; HttpOnly"},
      {"setcookie('a', 1, '') + setcookie('b', 2, '')",
       "!setcookie: 'name' is a second cookie: the answer has 'a' already"},
  };
  for (const auto& each : cases)
    EXPECT_EQ(Headers(each.expression), each.headers) << each.expression;
  Restart();
  SetServer("HTTPS", "on");
  EXPECT_EQ(Value("setcookie('t', 'x', '')"), "1");
  EXPECT_THAT(machine->output.headers,
              ElementsAre("Set-Cookie: t=x; Path=/; SameSite=Lax; Secure; HttpOnly"));
}

// Refuses headers, as an output does that has sent them.
class SentOutput : public RecordingOutput {
 public:
  using RecordingOutput::Header;
  int Header(const char* name, int namelength, int nameowned, const char* value, int valuelength,
             int valueowned) override {
    RecordingOutput::Header(name, namelength, nameowned, value, valuelength, valueowned);
    return 0;
  }
};

TEST_F(StdAnswer, ALateHeaderIsAnErrorThatSaysSo) {
  SentOutput sent;
  machine->application.SetOutput(&sent);
  EXPECT_EQ(Value("setheader('X', 'y')"), "!setheader: the head of the answer is sent already");
  machine->application.SetOutput(&sent);
  EXPECT_EQ(Value("redirect('/', '')"), "!redirect: the head of the answer is sent already");
}

class StdAnswerWithoutServer : public Library {};

TEST_F(StdAnswerWithoutServer, ThereIsNoHead) {
  EXPECT_EQ(Value("setheader('X', 'y') + redirect('/', '') + setcookie('a', 'b', '')"), "0");
  EXPECT_THAT(machine->output.headers, ElementsAre());
  EXPECT_EQ(Value("setstatus(1, '')"), "!setstatus: 'code' is not 200 to 599");
}

}  // namespace

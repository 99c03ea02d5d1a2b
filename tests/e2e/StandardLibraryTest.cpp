// The libraries zephstd and zephregex as a site uses them: pages of the tag language, compiled with
// the lists of their functions, in the engine and in zprun.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class StandardLibrary : public testing::Test {
 protected:
  StandardLibrary() {
    for (const char* library : {"zephstd", "zephregex"}) {
      engine.settings += "[[library]]\nkind = \"builtin\"\npath = \"" +
                         InBuild("lib/" + std::string(library) + ".so") + "\"\n";
    }
  }

  void Page(const std::string& name, const std::string& source) {
    const std::string page = engine.Write(name + ".zeph", source);
    Command compile({InBuild("bin/zephc"), "--functions", InBuild("lib/zephstd.functions"), page,
                     "-o", engine.Folder("scripts") + "/" + name + ".zpc"});
    EXPECT_EQ(compile.Run(), 0) << compile.errors;
  }
  FastCGIResponse Get(const std::string& name, const FastCGIParameters& more = {}) {
    EXPECT_TRUE(engine.Running() || engine.Start());
    return engine.Get(("/" + name + ".zpc").c_str(), more);
  }

  EngineProcess engine;
};

// A page that takes an order, with everything that such a page needs.
constexpr char kShop[] =
    R"(<ZpIF NOT isposted()><ZpEVAL redirect("/shop.zpc?x=1", 303)><ZpEXIT></ZpIF>
<ZpEVAL setcookie("visitor", randomtoken(16), "Max-Age=3600")>
<ZpEVAL nocache()>
<ZpASSIGN customer = trim(title(cookie("name")))>
<ZpASSIGN teas = split(requestheader("X-Teas"), ",")>
<ZpEVAL sort(teas, "nocase")>
<ZpASSIGN total = 0>
<h1>{{ customer }} of {{ requesthost() }}, {{ upper(requestmethod()) }}</h1>
<ZpFOREACH tea = teas at=n>
<ZpASSIGN price = length(tea) * 1.255>
<ZpASSIGN total = total + price>
<ZpASSIGN order[n]:name = tea order[n]:price = round(price, 2)>
<li>{{ padleft(n, 2, "0") }} {{ tea }} {{ formatnumber(price, 2, ",", ".") }}
</ZpFOREACH>
<p>{{ count(teas) }} teas, {{ formatnumber(total, 2, ",", ".") }}, {{ join(column(order, "name"), " & ") }}
<ZpEVAL writefile("order.json", jsonencode(order))>
<p>{{ filesize("order.json") }} bytes, {{{ readfile("order.json") }}}
<p>{{ left(sha256(customer), 8) }} {{ formattime(0, "%d.%m.%Y", "UTC") }} {{ preferredlanguage("en, de") }}
<a href="/tea?{{ urlquery(order[1]) }}">{{ shorten("a long description", 8, "") }}</a>
<script>var name = "{{{ jsencode(customer) }}}";</script>
)";

TEST_F(StandardLibrary, APageUsesManyFunctions) {
  Page("shop", kShop);
  const FastCGIResponse response = Get("shop", {{"REQUEST_METHOD", "POST"},
                                                {"HTTP_HOST", "Tea.example.org:80"},
                                                {"HTTP_COOKIE", "name=%20ann%20%3C%27lee%27%3E"},
                                                {"HTTP_X_TEAS", "sencha,Assam,<Tea>"},
                                                {"HTTP_ACCEPT_LANGUAGE", "de-AT, en;q=0.5"}});
  EXPECT_EQ(response.Body(),
            "<h1>Ann &lt;&#39;Lee&#39;&gt; of tea.example.org, POST</h1>\n"
            "<li>01 &lt;Tea&gt; 6,28\n"
            "<li>02 Assam 6,28\n"
            "<li>03 sencha 7,53\n"
            "<p>3 teas, 20,08, &lt;Tea&gt; &amp; Assam &amp; sencha\n"
            "<p>102 bytes, "
            "[{\"name\":\"\\u003cTea\\u003e\",\"price\":6.28},{\"name\":\"Assam\",\"price\":6.28},"
            "{\"name\":\"sencha\",\"price\":7.53}]\n"
            "<p>600e0081 01.01.1970 de\n"
            "<a href=\"/tea?name=%3CTea%3E&amp;price=6.28\">a long …</a>\n"
            "<script>var name = \"Ann \\u003c\\u0027Lee\\u0027\\u003e\";</script>\n");
  EXPECT_THAT(response.Header("Set-Cookie"), StartsWith("visitor="));
  EXPECT_THAT(response.Header("Set-Cookie"),
              HasSubstr("; Max-Age=3600; Path=/; SameSite=Lax; HttpOnly"));
  EXPECT_EQ(response.Header("Cache-Control"), "no-store");

  const FastCGIResponse redirected = Get("shop", {{"REQUEST_METHOD", "GET"}});
  EXPECT_EQ(redirected.Header("Status"), "303 See Other");
  EXPECT_EQ(redirected.Header("Location"), "/shop.zpc?x=1");
  EXPECT_EQ(redirected.Body(), "");
}

// Any visitor can make a field an array, by sending it twice.
TEST_F(StandardLibrary, AFieldThatIsSentTwiceIsWrittenEncoded) {
  Page("greet", "<p>{{ name }}</p>");
  EXPECT_EQ(Get("greet", {{"QUERY_STRING", "name=%3Cb%3E&name=Lee"}}).Body(),
            "<p>&lt;b&gt;,Lee</p>");
}

TEST_F(StandardLibrary, HeadersAfterTheHeadAreErrors) {
  engine.settings = "bufsz_output_flush = 1000\n" + engine.settings;
  Page("late", "{{ repeat(\"x\", 2000) }}<ZpEVAL setheader(\"X-Late\", \"1\")>not here");
  const FastCGIResponse response = Get("late");
  EXPECT_THAT(response.Body(), HasSubstr("setheader: the head of the answer is sent already"));
  EXPECT_THAT(response.Body(), testing::Not(HasSubstr("not here")));
  EXPECT_FALSE(response.HasHeader("X-Late"));
}

// Headers pass around a capture, and a page without a web server has none.
TEST_F(StandardLibrary, HeadersAreSetInACaptureAndNotInZprun) {
  Page("capture", "<ZpCAPTURE c>{{ setstatus(404, \"\") }}</ZpCAPTURE>[{{ c }}]");
  const FastCGIResponse response = Get("capture");
  EXPECT_EQ(response.Header("Status"), "404 Not Found");
  EXPECT_EQ(response.Body(), "[1]");
  Command run({InBuild("bin/zprun"), "--config", engine.Path("zeph.toml"),
               engine.Path("scripts/capture.zpc")});
  run.environment = {{"ZpCONFIG_LIBRARY", ""}};
  EXPECT_EQ(run.Run(), 0) << run.errors;
  EXPECT_EQ(run.output, "[0]");
}

TEST_F(StandardLibrary, WrongArgumentsEndThePage) {
  Page("wrong", "before {{ padleft(\"x\", \"wide\", \"\") }} after");
  const std::string body = Get("wrong").Body();
  EXPECT_THAT(body, StartsWith("before "));
  EXPECT_THAT(body, HasSubstr("padleft: 'width' is not a number"));
  EXPECT_THAT(body, testing::Not(HasSubstr("after")));
}

// Files stay in the data directory, whatever a visitor sends as a name.
TEST_F(StandardLibrary, FilesStayInTheDataDirectory) {
  engine.Write("secret", "outside");
  Page("read", "[{{ readfile(requestheader(\"X-Name\")) }}] {{ fileerror() }}");
  EXPECT_EQ(Get("read", {{"HTTP_X_NAME", "../secret"}}).Body(),
            "[] The specified path references a path outside the configured data directory");
  EXPECT_THAT(Get("read", {{"HTTP_X_NAME", "/etc/passwd"}}).Body(), StartsWith("[] "));
}

TEST_F(StandardLibrary, RegularExpressions) {
  Page("regex",
       "<ZpFUNCTION regexreplace(text, pattern, with) external>"
       "{{ regexreplace(\"2026-11-22\", \"(\\d+)-(\\d+)-(\\d+)\", \"$3.$2.$1\") }}");
  EXPECT_EQ(Get("regex").Body(), "22.11.2026");
}

// Each of many matches takes long, and none longer than the limit.
TEST_F(StandardLibrary, APatternEndsWithinTheTimeOfTheScript) {
  engine.settings = "timeout_global = 2\n" + engine.settings;
  Page("slow",
       "<ZpFUNCTION regexreplace(text, pattern, with) external>"
       "{{ regexreplace(repeat(repeat(\"a\", 15) $ \"b\", 90000), \"(a+)+$|b\", \"\") }}");
  EXPECT_THAT(Get("slow").Body(), HasSubstr("the time limit of the script has passed"));
}

TEST_F(StandardLibrary, AnErrorQuotesAVisitorEncodedOnce) {
  Page("wrong", "{{ formattime(0, \"%F\", cookie(\"zone\")) }}");
  const std::string body =
      Get("wrong", {{"HTTP_COOKIE", "zone=<img src=x onerror=alert(1)>"}}).Body();
  EXPECT_THAT(body, testing::HasSubstr("'&lt;img src=x onerror=alert(1)&gt;'"));
  EXPECT_THAT(body, testing::Not(testing::HasSubstr("<img")));
}

}  // namespace

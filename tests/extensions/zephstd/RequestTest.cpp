// The functions of zephstd for facts of the request.

#include <map>

#include "tests/extensions/Library.h"

namespace {

class StdRequest : public Library {
 protected:
  std::string With(const std::map<std::string, std::string>& variables,
                   const std::string& expression) {
    Restart();
    for (const auto& [variable, value] : variables) SetServer(variable, value);
    return Value(expression);
  }
};

TEST_F(StdRequest, FactsComeFromTheServersVariables) {
  const std::map<std::string, std::string> request = {
      {"REQUEST_METHOD", "post"},       {"HTTP_HOST", "Tea.Example.org:8080"},
      {"SERVER_NAME", "other"},         {"REQUEST_URI", "/shop/tea.zpc?x=1"},
      {"QUERY_STRING", "x=1"},          {"REMOTE_ADDR", "192.0.2.7"},
      {"HTTP_USER_AGENT", "Browser/1"}, {"HTTP_X_TEA", "Assam"},
      {"CONTENT_TYPE", "text/plain"},   {"HTTPS", "on"},
  };
  const ValueCase cases[] = {
      {"requestmethod()", "POST"},
      {"isposted()", "1"},
      {"requesthost()", "tea.example.org"},
      {"requestpath()", "/shop/tea.zpc"},
      {"requestquery()", "x=1"},
      {"clientaddress()", "192.0.2.7"},
      {"useragent()", "Browser/1"},
      {"requestheader('x-tea')", "Assam"},
      {"requestheader('X-Tea')", "Assam"},
      {"requestheader('Content-Type')", "text/plain"},
      {"ISNULL requestheader('X-Coffee')", "1"},
      {"requestheader('')", ""},
      {"issecure()", "1"},
  };
  for (const ValueCase& each : cases) EXPECT_EQ(With(request, each.expression), each.value);
  EXPECT_EQ(With({}, "requestmethod() $ requesthost() $ requestpath() $ clientaddress()"), "");
  EXPECT_EQ(With({}, "isposted() + issecure()"), "0");
  EXPECT_EQ(With({{"HTTPS", "off"}}, "issecure()"), "0");
  EXPECT_EQ(With({{"HTTPS", ""}}, "issecure()"), "0");
  EXPECT_EQ(With({{"HTTP_HOST", "[2001:DB8::1]:443"}}, "requesthost()"), "[2001:db8::1]");
  EXPECT_EQ(With({{"HTTP_HOST", "[2001"}}, "requesthost()"), "[2001");
  EXPECT_EQ(With({{"SERVER_NAME", "Name"}}, "requesthost()"), "name");
  EXPECT_EQ(With({{"PATH_INFO", "/a.zpc"}}, "requestpath()"), "/a.zpc");
}

TEST_F(StdRequest, Cookies) {
  const std::map<std::string, std::string> request = {
      {"HTTP_COOKIE", "xtea=no; tea=a%20b; milk=\"1\" ;  empty=; tea=second; flag; sum=1+1"}};
  const ValueCase cases[] = {
      {"cookie('tea')", "a b"}, {"cookie('milk')", "1"}, {"ISNULL cookie('empty')", "1"},
      {"cookie('none')", ""},   {"cookie('flag')", ""},  {"cookie('')", ""},
      {"cookie('sum')", "1+1"},
  };
  for (const ValueCase& each : cases) EXPECT_EQ(With(request, each.expression), each.value);
  EXPECT_EQ(With({}, "cookie('tea')"), "");
}

TEST_F(StdRequest, TheLanguageIsTheOneThatTheVisitorPrefers) {
  const struct {
    const char* wanted;
    const char* offered;
    const char* chosen;
  } cases[] = {
      {"de", "en, de, fr", "de"},
      {"de-CH, de;q=0.9, en;q=0.8", "en, de", "de"},
      {"fr;q=0.5, en;q=0.9", "fr, en", "en"},
      {"fr-CA", "en, fr", "fr"},
      {"fr", "en, fr-CA", "fr-CA"},
      {"pt-BR, pt", "pt-PT, pt-BR", "pt-BR"},
      {"ja", "en, de", "en"},
      {"", "en, de", "en"},
      {"*", "en, de", "en"},
      {"de;q=0, *", "de, fr", "fr"},
      {"de;q=2", "en, de", "en"},
      {"de;q=x", "en, de", "en"},
      {"EN-us", "de, en-US", "en-US"},
      {"den", "en, de", "en"},
      {",,;q=1,de", "en, de", "de"},
      {"de", "", ""},
      {"de", " , ", ""},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(With({{"HTTP_ACCEPT_LANGUAGE", each.wanted}},
                   "preferredlanguage('" + std::string(each.offered) + "')"),
              each.chosen)
        << each.wanted << " of " << each.offered;
  }
}

}  // namespace

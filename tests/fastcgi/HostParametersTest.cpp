#include "fastcgi/HostParameters.h"

#include <fcgiapp.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

// Each value is the one that libfcgi finds under the name.
void ExpectThoseOfLibfcgi(std::vector<std::string> texts) {
  std::vector<char*> list;
  for (std::string& text : texts) list.push_back(text.data());
  list.push_back(nullptr);
  const HostParameters found(list.data());
  const struct {
    const char* name;
    const char* value;
  } cases[] = {
      {"ZpCONFIG_LIBRARY", found.config_library},
      {"CONTENT_LENGTH", found.content_length},
      {"CONTENT_TYPE", found.content_type},
      {"HTTP_COOKIE", found.cookie},
      {"HTTPS", found.https},
      {"PATH_INFO", found.path_info},
      {"QUERY_STRING", found.query_string},
      {"SCRIPT_NAME", found.script_name},
      {"SERVER_NAME", found.server_name},
      {"SERVER_PORT", found.server_port},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.value, FCGX_GetParam(c.name, list.data()));
  }
}

const std::vector<std::string> kAll = {
    "ZpCONFIG_LIBRARY=a", "CONTENT_LENGTH=b", "CONTENT_TYPE=c", "HTTP_COOKIE=d", "HTTPS=e",
    "PATH_INFO=f",        "QUERY_STRING=g",   "SCRIPT_NAME=h",  "SERVER_NAME=i", "SERVER_PORT=j"};

TEST(HostParameters, AreAllFound) {
  ExpectThoseOfLibfcgi(kAll);
  std::vector<char*> none = {nullptr};
  EXPECT_EQ(HostParameters(none.data()).path_info, nullptr);
  EXPECT_EQ(HostParameters(nullptr).path_info, nullptr);
}

TEST(HostParameters, OfTwoWithOneNameTheFirstCounts) {
  ExpectThoseOfLibfcgi({"PATH_INFO=", "PATH_INFO=second", "HTTPS=on", "HTTPS="});
}

TEST(HostParameters, ANameIsWholeAndInItsOwnCase) {
  ExpectThoseOfLibfcgi({"PATH_INFO", "PATH_INFOS=1", "PATH_INF=1", "path_info=1", "=1", "", "HTTPS",
                        "HTTP=1", "SERVER_NAME_X=1", "XSERVER_NAME=1", "Z", "C="});
}

TEST(HostParameters, AreThoseOfLibfcgiInAnyList) {
  std::mt19937 random(1);
  const std::string letters = "=HTPSCOKIE_QX";
  for (int round = 0; round < 2000; round++) {
    std::vector<std::string> texts;
    for (int i = 0; i < 12; i++) {
      std::string text = kAll[random() % kAll.size()];
      if (random() % 2) text[random() % text.size()] = letters[random() % letters.size()];
      if (random() % 4 == 0) text.resize(random() % (text.size() + 1));
      texts.push_back(text);
    }
    ExpectThoseOfLibfcgi(texts);
    if (testing::Test::HasFailure()) return;
  }
}

}  // namespace

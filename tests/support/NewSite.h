// Sites for tests of zeph.

#ifndef ZEPH_TESTS_SUPPORT_NEWSITE_H
#define ZEPH_TESTS_SUPPORT_NEWSITE_H

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"

// The settings of a site with the function that {{ }} calls.
inline std::string EncodingSettings() {
  return "[[library]]\nkind = \"builtin\"\npath = \"" + InBuild("lib/test/HtmlEncode.so") + "\"\n";
}

// Lets the site that zeph new has made use the library of the tests if the standard library is not
// built.
inline void ProvideLibrary(const std::string& site) {
  if (std::filesystem::exists(InBuild("lib/zephstd.so"))) return;
  std::ostringstream text;
  text << std::ifstream(site + "/zeph.toml").rdbuf();
  std::string settings = text.str();
  const std::string name = "zephstd.so";
  settings.replace(settings.find(name), name.size(), InBuild("lib/test/HtmlEncode.so"));
  std::ofstream(site + "/zeph.toml") << settings;
}

#endif

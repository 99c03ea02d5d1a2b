// Names of certificates: a host name matches a name exactly if a second comparison, which takes
// both apart by labels, says so.

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/NetworkInput.h"
#include "tests/support/ScriptedConnection.h"
#include "tests/support/TestApplication.h"

namespace {

std::string Lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::vector<std::string> Labels(const std::string& name) {
  std::vector<std::string> labels;
  size_t begin = 0;
  for (size_t dot; (dot = name.find('.', begin)) != std::string::npos; begin = dot + 1) {
    labels.push_back(name.substr(begin, dot - begin));
  }
  labels.push_back(name.substr(begin));
  return labels;
}

// A wildcard is the last byte of the first label, has two labels with text after it, and matches
// the rest of one label of the host.
bool Expected(const std::string& host, const std::string& pattern) {
  if (Lower(host) == Lower(pattern)) return true;
  std::vector<std::string> wanted = Labels(Lower(pattern));
  std::vector<std::string> given = Labels(Lower(host));
  std::string prefix = wanted.front();
  if (!prefix.ends_with('*')) return false;
  prefix.pop_back();
  wanted.erase(wanted.begin());
  if (std::count_if(wanted.begin(), wanted.end(), [](auto& label) { return !label.empty(); }) < 2) {
    return false;
  }
  for (const std::string& label : wanted) {
    if (label.find('*') != std::string::npos) return false;
  }
  if (prefix.find('*') != std::string::npos || given.size() < 2) return false;
  const std::string first = given.front();
  given.erase(given.begin());
  if (!prefix.empty() && Lower(host).starts_with("xn--")) return false;
  return first.starts_with(prefix) && given == wanted;
}

}  // namespace

// A line with the host name, then the name of the certificate. Many inputs would never match, so
// the first byte may ask for a name that is made from the host's.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static TestApplication application;
  static ScriptedPeer peer;
  static ScriptedNetworkManager manager(&application, &peer);

  NetworkInput input(data, size);
  const unsigned made = input.Byte();
  const std::string host = std::string(input.Line().c_str());
  std::string pattern = input.Rest();
  const size_t dot = host.find('.');
  if (made % 4 == 1 && dot != std::string::npos) {
    pattern = host.substr(0, (made / 4) % (dot + 1)) + "*" + host.substr(dot);
  } else if (made % 4 == 2 && dot != std::string::npos) {
    pattern += host.substr(dot);
  }
  const std::unique_ptr<char[]> block = WithoutEnd(pattern);
  Require(manager.CompareX509Hostname(host.c_str(), block.get(),
                                      static_cast<int>(pattern.size())) == Expected(host, pattern));
  Require(!manager.CompareX509Hostname(host.c_str(), block.get(), -1));
  return 0;
}

// URLs: any text is cut into the parts that the grammar says, and whatever a visitor puts into a
// URL, the request has one line for the target and one for the host.

#include <algorithm>
#include <memory>
#include <string>

#include "fuzz/NetworkInput.h"
#include "tests/support/ScriptedConnection.h"
#include "tests/support/TestApplication.h"

namespace {

struct Parts {
  bool good = false;
  std::string scheme;
  std::string host;
  std::string port;
  std::string path;
  bool operator==(const Parts&) const = default;
};

// The parts, by searches in the whole text.
Parts Expected(const std::string& url) {
  Parts p;
  const size_t colon = url.find(':');
  if (colon == std::string::npos || url.compare(colon, 3, "://") != 0) return p;
  p.scheme = url.substr(0, colon);
  std::string rest = url.substr(colon + 3);
  size_t end;
  if (rest.starts_with('[')) {
    end = rest.find(']');
    if (end == std::string::npos) return p;
    end++;
  } else {
    end = std::min(rest.find_first_of(std::string("\0/:", 3)), rest.size());
  }
  p.host = rest.substr(0, end);
  rest.erase(0, end);
  if (rest.starts_with(':')) {
    end = std::min(rest.find_first_of("/?"), rest.size());
    p.port = rest.substr(1, end - 1);
    rest.erase(0, end);
  }
  if (!rest.empty() && rest[0] != '/' && rest[0] != '?') return p;
  p.path = rest.starts_with('/') ? rest.substr(1) : rest;
  p.good = true;
  return p;
}

Parts Found(NetworkManager& manager, const std::string& url) {
  const std::unique_ptr<char[]> block = WithoutEnd(url);
  const char *scheme, *host, *port, *path;
  int scheme_length, host_length, port_length, path_length;
  Parts p;
  p.good = manager.SplitURL(block.get(), static_cast<int>(url.size()), &scheme, &scheme_length,
                            &host, &host_length, &port, &port_length, &path, &path_length) == 1;
  if (!p.good) return p;
  auto part = [](const char* at, int length) {
    return std::string(at, static_cast<size_t>(length));
  };
  p.scheme = part(scheme, scheme_length);
  p.host = part(host, host_length);
  p.port = part(port, port_length);
  p.path = part(path, path_length);
  return p;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string url(reinterpret_cast<const char*>(data), size);
  static TestApplication application;
  ScriptedPeer peer;
  ScriptedNetworkManager manager(&application, &peer);

  const Parts expected = Expected(url);
  const Parts found = Found(manager, url);
  Require(found.good == expected.good);
  if (found.good) Require(found == expected);

  const std::string text = url.c_str();
  const bool clean = text.find_first_of("\r\n") == std::string::npos;
  Require(manager.CheckURL(url.data(), static_cast<int>(size)) ==
          (clean && text.size() == url.size()));
  std::unique_ptr<NetworkConnection> connection(
      manager.OpenURL("GET", text.c_str(), nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr,
                      nullptr, 0, 1.0, 1));
  if (!connection) {
    Require(manager.error().length > 0 && peer.written.empty());
    return 0;
  }
  const Parts sent = Expected(text);
  Require(clean && sent.good);
  std::string host = sent.host;
  if (!sent.port.empty()) {
    const int length = static_cast<int>(sent.port.size());
    host += ":" + std::to_string(ZephApplication::stoi(sent.port.data(), length, nullptr));
  }
  Require(peer.written == "GET /" + sent.path + " HTTP/1.0\r\nHost: " + host + "\r\n\r\n");
  return 0;
}

// A second reader of the challenge of DIGEST-MD5, which first cuts it into entries.

#ifndef ZEPH_TESTS_SUPPORT_DIGESTMODEL_H
#define ZEPH_TESTS_SUPPORT_DIGESTMODEL_H

#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct DigestModel {
  std::optional<std::string> realm;
  std::optional<std::string> nonce;
  std::optional<std::string> charset;
  std::string error;  // empty for a good challenge

  static bool IsSpace(char c) { return c != '\0' && strchr(" \t\n\v\f\r", c); }
  static std::string Strip(std::string text) {
    while (!text.empty() && IsSpace(text.back())) text.pop_back();
    while (!text.empty() && IsSpace(text.front())) text.erase(0, 1);
    return text;
  }
  static std::string Lower(std::string text) {
    for (char& c : text) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    }
    return text;
  }

  // Names in lower case, and values.
  static std::vector<std::pair<std::string, std::string>> Pairs(const std::string& text) {
    std::vector<std::pair<std::string, std::string>> pairs;
    size_t at = 0;
    while (at < text.size()) {
      // An entry ends at a comma that is not in a quoted value. A value is quoted if the quote is
      // the first thing after the "=" that follows the entry's first word.
      size_t end = at;
      while (end < text.size() && IsSpace(text[end])) end++;
      const size_t word = end;
      while (end < text.size() && text[end] != '=' && text[end] != ',' && !IsSpace(text[end])) {
        end++;
      }
      const std::string name = text.substr(word, end - word);
      size_t sign = end;
      while (sign < text.size() && IsSpace(text[sign])) sign++;
      const bool pair = sign < text.size() && text[sign] == '=';
      std::string value;
      if (pair) {
        size_t from = sign + 1;
        while (from < text.size() && IsSpace(text[from])) from++;
        if (from < text.size() && text[from] == '"') {
          const size_t close = text.find('"', from + 1);
          value = text.substr(from + 1, close == std::string::npos ? close : close - from - 1);
          end = close == std::string::npos ? text.size() : close + 1;
        } else {
          end = from;
          while (end < text.size() && text[end] != ',' && !IsSpace(text[end])) value += text[end++];
        }
      }
      const size_t comma = text.find(',', end);
      if (pair) pairs.emplace_back(Lower(name), value);
      at = comma == std::string::npos ? text.size() : comma + 1;
    }
    return pairs;
  }

  static DigestModel Read(const std::string& challenge) {
    DigestModel model;
    std::string qop;
    int algorithms = 0;
    for (const auto& [name, value] : Pairs(challenge)) {
      if (name == "realm" && !model.realm) model.realm = value;
      if (name == "charset") model.charset = value;
      if (name == "qop") qop = value;
      if (name == "nonce") {
        if (model.nonce) return model.Fail("Server returned multiple nonce values");
        model.nonce = value;
      }
      if (name == "algorithm") {
        if (++algorithms > 1) {
          return model.Fail("Server returned multiple algorithm values in challenge");
        }
        if (value != "md5-sess") return model.Fail("Server returned an unrecognized algorithm");
      }
    }
    if (model.nonce.value_or("").empty()) return model.Fail("Unable to determine nonce");
    if (model.charset && *model.charset != "utf-8") {
      return model.Fail("Server specified unrecognized charset");
    }
    if (!qop.empty()) {
      bool found = false;
      for (size_t at = 0; at <= qop.size();) {
        const size_t comma = std::min(qop.find(',', at), qop.size());
        found |= Strip(qop.substr(at, comma - at)) == "auth";
        at = comma + 1;
      }
      if (!found) return model.Fail("Server does not support required qop \"auth\"");
    }
    return model;
  }

 private:
  DigestModel& Fail(const std::string& what) {
    error = what + " during DIGEST-MD5 authentication";
    return *this;
  }
};

#endif

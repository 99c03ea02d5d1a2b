// The pages that the end-to-end tests expect, and the smallest scripts.

#ifndef ZEPH_TESTS_E2E_PAGES_H
#define ZEPH_TESTS_E2E_PAGES_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/EngineProcess.h"

// Program text that writes text.
inline std::string Writes(const std::string& text) {
  return "pushc \"" + text + "\"\nout\n";
}

// Program text that writes 8000 bytes that many times, from one text. With a client that reads
// slowly it runs as long as a test needs.
constexpr size_t flood_part = 8000;
inline std::string Floods(int times) {
  std::string source = ".entry \"" + std::string(flood_part, 'x') + "\"\n";
  for (int i = 0; i < times; i++) source += "pushc 0\nout\n";
  return source;
}

// The page of a request that fails in its configuration, with the default administrator.
inline std::string ConfigurationErrorPage(const std::string& text) {
  return "Configuration Error: " + text +
         "<br>Please contact the server administrator: webmaster@localhost";
}

// A complete valid response: the fields of a whole page, and the body.
inline void ExpectPage(const FastCGIResponse& response, const std::string& body) {
  EXPECT_TRUE(response.ended) << response.problem;
  EXPECT_EQ(response.application_status, 0);
  EXPECT_EQ(response.protocol_status, 0);
  EXPECT_EQ(response.Header("Content-Type"), "text/html");
  EXPECT_EQ(response.Header("Content-Length"), std::to_string(body.size()));
  EXPECT_EQ(response.Body(), body);
  EXPECT_EQ(response.standard_error, "");
}

// The response of a failure, which was flushed before its length was known.
inline void ExpectFailure(const FastCGIResponse& response, const std::string& body) {
  EXPECT_TRUE(response.ended) << response.problem;
  EXPECT_EQ(response.Header("Content-Type"), "text/html");
  EXPECT_EQ(response.CountOfHeader("Set-Cookie"), 1);
  EXPECT_FALSE(response.HasHeader("Content-Length"));
  EXPECT_FALSE(response.HasHeader("Status"));
  EXPECT_EQ(response.Body(), body);
}

#endif

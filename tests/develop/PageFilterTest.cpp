#include "develop/PageFilter.h"

#include <gtest/gtest.h>

namespace {

// The response in pieces of a size, and what becomes of it.
std::string Filtered(const std::string& response, size_t piece, bool is_visit = true,
                     std::string* body = nullptr) {
  PageFilter filter(is_visit, [&](std::string_view text) {
    if (body) *body = text;
    return std::string("+");
  });
  std::string passed;
  for (size_t at = 0; at < response.size(); at += piece) {
    passed += filter.Take(std::string_view(response).substr(at, piece));
  }
  return passed + filter.Finish();
}

TEST(PageFilter, AddsToHTMLWithoutItsLength) {
  const std::string page =
      "Content-Type: text/html; charset=utf-8\r\nContent-Length: 7\r\nX: 1\r\n\r\n<p>\r\n\r\n";
  for (size_t piece = 1; piece <= page.size(); piece++) {
    std::string body;
    EXPECT_EQ(Filtered(page, piece, true, &body),
              "Content-Type: text/html; charset=utf-8\r\nX: 1\r\n\r\n<p>\r\n\r\n+");
    EXPECT_EQ(body, "<p>\r\n\r\n");
  }
}

TEST(PageFilter, LeavesAllOtherResponsesAsTheyAre) {
  for (const char* response : {
           "Content-Type: application/json\r\nContent-Length: 2\r\n\r\n{}",
           "Content-Type: text/csv\r\n\r\na,b\r\n",
           "Content-Type: text/plain\r\n\r\n<html>",
           "Content-Type: application/xhtml+xml\r\n\r\n<html/>",
           "Content-Type: text/html\r\nContent-Encoding: gzip\r\nContent-Length: 1\r\n\r\nx",
           "Content-Type: text/html\r\nContent-Disposition: attachment\r\n\r\nx",
           "Content-Type: text/html\r\nStatus: 302 Found\r\nLocation: /\r\n\r\nx",
           "Status: 304 Not Modified\r\nContent-Type: text/html\r\n\r\n",
           "Content-Type: text/html; charset=UTF-16LE\r\nContent-Length: 2\r\n\r\nx",
           "Content-Type: text/html;charset=\"utf-32\"\r\n\r\nx",
           "Content-Length: 1\r\n\r\nx",
           "Content-Type: text/html\r\nContent-Length: 9",
           "\r\n",
           "",
       }) {
    SCOPED_TRACE(response);
    for (size_t piece : {1, 2, 7, 1000}) EXPECT_EQ(Filtered(response, piece), response);
  }
}

TEST(PageFilter, LeavesWhatIsNoVisitAsItIs) {
  const std::string page = "Content-Type: text/html\r\nContent-Length: 1\r\n\r\nx";
  EXPECT_EQ(Filtered(page, 3, false), page);
}

TEST(PageFilter, AnErrorPageIsAPage) {
  EXPECT_EQ(Filtered("Status: 404 Not Found\nContent-type:text/html\n\nx", 4),
            "Status: 404 Not Found\nContent-type:text/html\n\nx+");
}

TEST(PageFilter, ABrowserIsNeverToldThatItsCopyIsGood) {
  EXPECT_EQ(
      Filtered("Content-Type: text/html\r\nETag: \"1\"\r\nLAST-MODIFIED: x\r\nX-ETag: 2\r\n\r\nx",
               9),
      "Content-Type: text/html\r\nX-ETag: 2\r\n\r\nx+");
}

TEST(PageFilter, CharsetsWithASCIIGetTheAddition) {
  for (const char* charset : {"utf-8", "ISO-8859-1", "windows-1252", "Shift_JIS", "ibm850"}) {
    const std::string page =
        "Content-Type: text/html; charset=" + std::string(charset) + "\r\n\r\nx";
    EXPECT_EQ(Filtered(page, 5), page + "+");
  }
}

TEST(PageFilter, WhatIsOpenAtTheEndOfAPageIsClosed) {
  const struct {
    const char* page;
    const char* closing;
  } rows[] = {
      {"", ""},
      {"<p>a", ""},
      {"<form><textarea name=a>x <b>", "</textarea>"},
      {"<TextArea>x</TEXTAREA>", ""},
      {"<textarea>x</textarea><textarea>", "</textarea>"},
      {"<textareas>", ""},
      {"<script>if (a < b) \"<!--\"", "</script>"},
      {"<title>x", "</title>"},
      {"<style>x</style>", ""},
      {"<style>x", "</style>"},
      {"<!-- <textarea>", "-->"},
      {"<!-- <textarea> -->", ""},
      {"<!--><b>", ""},
      {"<textarea", "</textarea>"},
      {"<", ""},
  };
  for (const auto& row : rows) EXPECT_EQ(ClosingOf(row.page), row.closing) << row.page;
}

TEST(PageFilter, TooManyHeaderFieldsPass) {
  const std::string response = "Content-Type: text/html\r\nX: " + std::string(500000, 'x');
  EXPECT_EQ(Filtered(response, 8192), response);
}

TEST(PageFilter, AVisitIsWhatABrowserShows) {
  EXPECT_TRUE(IsVisit("GET", "document", "text/html,*/*"));
  EXPECT_TRUE(IsVisit("POST", "iframe", ""));
  EXPECT_TRUE(IsVisit("GET", "", "text/html,application/xhtml+xml"));
  EXPECT_FALSE(IsVisit("GET", "empty", "text/html"));
  EXPECT_FALSE(IsVisit("GET", "image", "text/html"));
  EXPECT_FALSE(IsVisit("GET", "", "*/*"));
  EXPECT_FALSE(IsVisit("HEAD", "document", "text/html"));
}

}  // namespace

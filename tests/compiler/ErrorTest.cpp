// Errors and warnings: their texts and places, and that hostile sources end in errors.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/CompiledPages.h"

namespace {

using testing::HasSubstr;

// All messages of a page, one a line: line, column, length and text.
std::string MessagesOf(const std::string& source,
                       const std::map<std::string, std::string>& files = {}) {
  const CompileResult result = CompileText(source, files);
  std::string all;
  for (const CompileMessage& message : result.messages) {
    if (message.file != "page.zeph") all += message.file + ":";
    all += std::to_string(message.line) + ":" + std::to_string(message.column) + "+" +
           std::to_string(message.length) + (message.is_error ? " " : " warning: ") + message.text +
           "\n";
  }
  return all;
}

struct MessageCase {
  const char* source;
  const char* messages;
};

void ExpectMessages(const std::vector<MessageCase>& cases) {
  for (const MessageCase& c : cases) {
    SCOPED_TRACE(c.source);
    EXPECT_EQ(MessagesOf(c.source), c.messages);
  }
}

TEST(CompileErrors, OfTags) {
  ExpectMessages({
      {"<ZpASIGN x=1>", "1:1+8 there is no tag 'ZpASIGN'; did you mean 'ZpASSIGN'?\n"},
      {"a\n </Zpwhatever>", "2:2+12 there is no tag 'Zpwhatever'\n"},
      {"<ZpIF 1", "1:1+5 there is no '>' that ends this tag\n"},
      {"<ZpIF 1>", "1:1+5 there is no closing '</ZpIF>'\n"},
      {"</ZpIF>", "1:1+6 '</ZpIF>' closes no tag\n"},
      {"<ZpWHILE 1>\n<ZpIF 1></ZpWHILE>", "2:1+5 there is no closing '</ZpIF>'\n"},
      {"<ZpELSE>", "1:1+7 '<ZpELSE>' is outside of a '<ZpIF>'\n"},
      {"<ZpIF 1><ZpELSE><ZpELSE></ZpIF>", "1:17+7 '<ZpELSE>' comes after the '<ZpELSE>'\n"},
      {"<ZpIFDEF a><ZpELSEIF 1></ZpIFDEF>", "1:12+9 '<ZpIFDEF>' has no '<ZpELSEIF>'\n"},
      {"<ZpCOMMENT>", "1:1+11 there is no closing '</ZpCOMMENT>'\n"},
      {"<ZpEXIT 1>", "1:9+1 expected '>', found '1'\n"},
      {"<ZpIF>x</ZpIF>", "1:6+1 expected a value, found the end\n"},
      {"<ZpPOPDELETE>", "1:1+12 '<ZpPOPDELETE>' is outside of a '<ZpPOP>'\n"},
      {"<ZpWHILESTOP>", "1:1+12 '<ZpWHILESTOP>' is outside of a '<ZpWHILE>'\n"},


  });
}

}  // namespace

// The assembler behind zpasm: turns program text (.zpa) into the bytes of a compiled script (.zpc).
// Tests link it to build scripts in memory. docs/zpasm.md describes the text.

#ifndef ZEPH_TOOLS_ASSEMBLER_H
#define ZEPH_TOOLS_ASSEMBLER_H

#include <string>
#include <string_view>

// Assembles source. On success *image holds the whole compiled file and *errors is empty. On
// failure *image is empty and *errors has one line an error, "name:line:column: expected ...";
// line and column count from 1, the column in bytes. name is what the errors call the source.
[[nodiscard]] bool AssembleScript(std::string_view source, std::string_view name,
                                  std::string* image, std::string* errors);

#endif

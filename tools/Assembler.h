// The assembler of zpasm: turns program text (.zpa) into the bytes of a compiled script (.zpc).
// Tests link it to build scripts in memory. docs/zpasm.md describes the text.

#ifndef ZEPH_TOOLS_ASSEMBLER_H
#define ZEPH_TOOLS_ASSEMBLER_H

#include <string>
#include <string_view>

struct AssemblyOptions {
  // The code notes the name and the lines of the source, so that errors at run time show them. The
  // notes take room in the code: distances and places of functions that are given as numbers have
  // to count them.
  bool lines = false;
};

// Assembles source. On success returns true, *image holds the whole compiled file and *errors is
// empty. On failure returns false, *image is empty and *errors has one line for each error,
// "name:line:column: expected ..."; line and column count from 1, the column in bytes. Errors use
// name for the source.
[[nodiscard]] bool AssembleScript(std::string_view source, std::string_view name,
                                  const AssemblyOptions& options, std::string* image,
                                  std::string* errors);
// The same with the default options.
[[nodiscard]] bool AssembleScript(std::string_view source, std::string_view name,
                                  std::string* image, std::string* errors);

#endif

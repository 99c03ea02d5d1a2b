// The other direction of zpasm: prints a compiled script as text that assembles to the same bytes.

#ifndef ZEPH_TOOLS_LISTER_H
#define ZEPH_TOOLS_LISTER_H

#include <string>
#include <string_view>

// Lists the compiled file that image holds. What the assembler would do by itself is left out of
// the text; a file that departs from it, in the order of its dictionary, the layout of a section or
// the order of the sections, gets directives that say so. The text was assembled and compared
// before it is answered. Fails, with one line in *error, when image is no compiled file at all.
[[nodiscard]] bool ListScript(std::string_view image, std::string* text, std::string* error);

#endif

// The opposite of the assembler: prints a compiled script as text that assembles to the same bytes.

#ifndef ZEPH_TOOLS_LISTER_H
#define ZEPH_TOOLS_LISTER_H

#include <string>
#include <string_view>

// Lists the compiled file that image holds. The text leaves out what the assembler would do by
// itself. If the file differs from that, in the order of its dictionary, the layout of a section or
// the order of the sections, the text has directives for it. The text is assembled and compared
// with image before it is returned. Fails, with one line in *error, when image is not a compiled
// file.
[[nodiscard]] bool ListScript(std::string_view image, std::string* text, std::string* error);

#endif

// Patterns of script paths: which scripts a [[script]] section is for.

#ifndef ZEPH_CONFIG_GLOB_H
#define ZEPH_CONFIG_GLOB_H

#include <string>
#include <string_view>

// Returns true if the whole text matches the pattern. "*" matches any run of bytes, slashes
// included, "?" any one byte, "[a-z]" and "[!a-z]" one byte in or outside a set, and "\" means that
// the byte after it matches only itself. A "[" without its "]" matches itself. The time is at most
// proportional to the product of both lengths.
bool MatchesGlob(std::string_view pattern, std::string_view text);

// Returns the path without empty components, "." and "..", and without a leading slash, the way the
// file manager will walk it: "shop//./a/../b.zpc" is "shop/b.zpc". So no spelling of a request
// avoids a pattern.
std::string NormalizedPath(std::string_view path);

#endif

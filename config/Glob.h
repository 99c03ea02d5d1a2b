// Which scripts a [[script]] section is for.

#ifndef ZEPH_CONFIG_GLOB_H
#define ZEPH_CONFIG_GLOB_H

#include <string>
#include <string_view>

// Whether the whole text matches the pattern. "*" stands for any run of bytes, slashes included,
// "?" for any one byte, "[a-z]" and "[!a-z]" for one byte of a set or outside it, and "\" takes the
// byte behind it as it stands. A "[" without its "]" stands for itself. Takes time of at most the
// product of both lengths.
bool MatchesGlob(std::string_view pattern, std::string_view text);

// The path without empty components, "." and "..", and without a leading slash, as the file
// service will walk it: "shop//./a/../b.zpc" is "shop/b.zpc". So no spelling of a request slips
// past a pattern.
std::string NormalizedPath(std::string_view path);

#endif

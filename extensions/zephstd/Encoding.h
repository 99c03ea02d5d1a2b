// Encoders that functions of other groups use, too. Each appends to a text.

#ifndef ZEPH_EXTENSIONS_ZEPHSTD_ENCODING_H
#define ZEPH_EXTENSIONS_ZEPHSTD_ENCODING_H

#include <string_view>

#include "extensions/zephstd/Call.h"

namespace zephstd {

// All bytes but letters, digits, "-", ".", "_" and "~" as %XX.
void EncodeURL(std::string_view text, Builder* to);
// Only bytes that no URL can have as %XX: what has a meaning in a URL keeps it.
void EncodeWholeURL(std::string_view text, Builder* to);
// A % without two digits stays.
void DecodeURL(std::string_view text, bool plus_is_blank, Builder* to);
// Two hexadecimal digits for each byte, in small letters.
void AddHex(std::string_view bytes, Builder* to);

}  // namespace zephstd

#endif

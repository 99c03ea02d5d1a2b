// The order of the keys of an index: by number where both are numbers, else by their bytes.

#ifndef ZEPH_BASE_ZIXINDEXKEY_H
#define ZEPH_BASE_ZIXINDEXKEY_H

#include <memory>

// Bits of an index file's flags.
enum ZIXIndexFlag : unsigned {
  ZIXIndex_Unique = 1,      // a key occurs once
  ZIXIndex_Descending = 2,  // the order is reversed
  ZIXIndex_Text = 4,        // keys are never compared as numbers
  ZIXIndex_Range = 8,       // for views: a search without a match lands on the entry before
};

namespace ZIXIndexOrder {

// Result of NumberCompare for texts that are not both numbers.
constexpr int kNotNumbers = -2;

// A text as strtod reads it in the "C" locale.
struct Number {
  double value;
  bool whole;         // nothing follows the number; the empty text is the number 0
  bool out_of_range;  // strtod reported it: too large, or too close to 0
};

Number Read(const unsigned char* text);

// Returns -1, 0 or 1, or kNotNumbers. A first text that is too large is not a number. A second text
// that is too large counts as infinity, unless the first one spells infinity out ("inf"): then the
// two are not numbers.
int NumberCompare(const Number& a, const unsigned char* b);

}  // namespace ZIXIndexOrder

// A key that entries are compared with. It is cut to the size of an entry's key and parsed as a
// number once.
class ZIXIndexKey {
 public:
  // Copies the text up to its first NUL, at most keysize - 1 bytes. A negative length means strlen;
  // a null text counts as an empty one.
  ZIXIndexKey(const unsigned char* text, int length, int keysize, unsigned flags);

  // Negative when this key sorts before the entry, 0 when they are equal.
  int Compare(const unsigned char* entry) const;
  // 0 when the entry begins with this key; compares bytes, never numbers.
  int ComparePrefix(const unsigned char* entry) const;

  const unsigned char* text() const { return copy; }

 private:
  unsigned char local[128];
  std::unique_ptr<unsigned char[]> heap;
  unsigned char* copy = local;
  unsigned flags;
  ZIXIndexOrder::Number number = {};
};

#endif

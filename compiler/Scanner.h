// Splits a page into pieces: text, written values and tags. It finds where each of them ends, and
// looks at nothing else inside; the parser reads a tag's content.

#ifndef ZEPH_COMPILER_SCANNER_H
#define ZEPH_COMPILER_SCANNER_H

#include <vector>

#include "compiler/Diagnostics.h"
#include "compiler/Tags.h"

struct PagePiece {
  enum class Kind {
    Text,
    Encoded,  // {{ e }}
    Plain,    // {{{ e }}}
    Open,     // <ZpNAME ...>; for a Raw tag the whole of it, with inner being its body
    Close,    // </ZpNAME>
  };
  Kind kind;
  const TagRow* tag = nullptr;
  // Offsets of the whole piece, and of what is between the name and the ">", or in the braces.
  int begin;
  int end;
  int inner_begin;
  int inner_end;
};

// Returns the pieces of a file, in order. A tag that is unknown or has no end is an error, and no
// piece. Texts are what is to be written: lines with nothing but tags are not in them, see
// docs/language.md.
std::vector<PagePiece> ScanPage(int file, Diagnostics* diagnostics);

#endif

// A file that is written beside the one that it is to replace.

#ifndef ZEPH_BASE_XBASETEMPORARYFILE_H
#define ZEPH_BASE_XBASETEMPORARYFILE_H

#include "base/core/StringClass.h"

// Both paths are below the data directory. Pack and reindex collect one for each file, and replace
// the originals only when all of them are complete.
struct XBaseTemporaryFile {
  String original;
  String temporary;
};

#endif

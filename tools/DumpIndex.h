// The half of zpdbf that reads index files.

#ifndef ZEPH_TOOLS_DUMPINDEX_H
#define ZEPH_TOOLS_DUMPINDEX_H

#include <ostream>

#include "tools/Dump.h"

// Writes the header and, in their order, the keys with their record numbers. Answers an exit
// status.
int ShowIndex(const DumpRequest& request, std::ostream& out, std::ostream& errors);

// Walks the tree and writes a line for each thing that is wrong with it: "problem: ". Pages that no
// way leads to are noted. Holds the index's shared lock meanwhile, so that it meets no half change.
// Answers an exit status, of failure for problems alone.
int CheckIndex(const DumpRequest& request, std::ostream& out, std::ostream& errors);

#endif

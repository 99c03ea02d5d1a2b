// The half of zpdbf for index files.

#ifndef ZEPH_TOOLS_DUMPINDEX_H
#define ZEPH_TOOLS_DUMPINDEX_H

#include <ostream>

#include "tools/Dump.h"

// Writes the header and, in the order of the index, the keys with their record numbers. Returns an
// exit status.
int ShowIndex(const DumpRequest& request, std::ostream& out, std::ostream& errors);

// Walks the tree and writes a line for each fault: "problem: ". Pages that are not part of the tree
// are noted. Holds the index's shared lock during the walk, so that it never sees half of a change.
// Returns an exit status, which is a failure only for problems.
int CheckIndex(const DumpRequest& request, std::ostream& out, std::ostream& errors);

#endif

// The half of zpdbf for tables.

#ifndef ZEPH_TOOLS_DUMPTABLE_H
#define ZEPH_TOOLS_DUMPTABLE_H

#include <ostream>

#include "tools/Dump.h"

// Writes header, fields and records. Records that can't be read are reported among the errors and
// left out; memos that can't be read are written as if there were none. Returns an exit status.
int ShowTable(const DumpRequest& request, std::ostream& out, std::ostream& errors);

// Compares header, records and memos with what they should be, and writes a line for each fault:
// "problem: " where data is lost or will be, "note: " where another program may have trouble.
// Returns an exit status, which is a failure only for problems.
int CheckTable(const DumpRequest& request, std::ostream& out, std::ostream& errors);

#endif

// The half of zpdbf that reads tables.

#ifndef ZEPH_TOOLS_DUMPTABLE_H
#define ZEPH_TOOLS_DUMPTABLE_H

#include <ostream>

#include "tools/Dump.h"

// Writes header, fields and records. Records that can't be read are told among the errors and left
// out, memos that can't are written as if there were none. Answers an exit status.
int ShowTable(const DumpRequest& request, std::ostream& out, std::ostream& errors);

// Compares header, records and memos with what they should be, and writes a line for each thing
// that is wrong: "problem: " where data is lost or will be, "note: " where another program may
// stumble. Answers an exit status, of failure for problems alone.
int CheckTable(const DumpRequest& request, std::ostream& out, std::ostream& errors);

#endif

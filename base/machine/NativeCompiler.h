// Makes machine code of decoded code (base/compiled/HotCode.h): of each record of the fast list
// that it knows, in the order of the list. The code does what the loop
// (base/machine/ZephVM_Hot.cpp) does at the record, but only what is usual of it: if an operand is
// anything else, it goes back to the loop, which runs that one record and comes back at the next
// one that has machine code. So a record without machine code, or a processor without it, is no
// special case.
//
// Machine code is made in the process that runs it and lasts as long as the decoded code. It is for
// x86-64 processors; elsewhere there is none.

#ifndef ZEPH_BASE_NATIVECOMPILER_H
#define ZEPH_BASE_NATIVECOMPILER_H

class HotCode;
struct HotOp;
struct NativeRun;

namespace NativeCompiler {

// Makes the machine code of all records and gives it to them (HotOp::native). Returns false and
// does nothing if there is no memory that may be executed, or the processor is another one.
// What the variables of the run hold is what they are expected to hold often.
bool Compile(const HotCode* hot, const NativeRun* run);

// Runs machine code from a record on, which has some. Returns the record at which the loop goes on;
// null if that is not decoded, and then the machine's place is where to go on. The run's variables
// are up to date at the call and after it. If its patience is 0 afterwards, the host's flags are to
// be polled first.
const HotOp* Run(const HotCode* hot, NativeRun* run, const HotOp* op);

}  // namespace NativeCompiler

#endif

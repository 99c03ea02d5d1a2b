// First sizes of buffers, tables and stores, which grow when they are full. Scripts cannot observe
// them. In the torture build (preset `torture`) they are so small that growing, refilling and
// running over happen in every test instead of in a rare one.
//
// Not here are the numbers of a file format, and limits that a script can meet, such as the 8192
// bytes of an imported record.

#ifndef ZEPH_BASE_LIMITS_H
#define ZEPH_BASE_LIMITS_H

#ifdef ZEPH_TORTURE
#define ZEPH_LIMIT(usual, small) small
#else
#define ZEPH_LIMIT(usual, small) usual
#endif

// Bytes of a buffer in front of an output if no size is asked for, and the first bytes of a capture
// (BufferedOutput.cpp). A capture of a normal page would grow at most once.
inline constexpr int kOutputBuffer = ZEPH_LIMIT(8192, 16);

// Bytes of a compiled file that are kept while it is loaded (TaggedFile.cpp). Hardly any script is
// larger than the usual window, so that it would never move. Not smaller than the file's header.
inline constexpr int kCompiledFileWindow = ZEPH_LIMIT(131072, 64);

// Bytes that a block of dictionary texts grows by (Dictionary.cpp).
inline constexpr int kDictionaryBlock = ZEPH_LIMIT(8192, 32);

// Entries that a stack has without a block of its own (ZephVM_Stack.h).
inline constexpr int kFirstStackEntries = ZEPH_LIMIT(16, 2);

// First bytes of a request body that no parser knows (HTTPContentParser.cpp).
inline constexpr int kFirstBodyRoom = ZEPH_LIMIT(65536, 8);

// Reads of a file before it is mapped (FileWindow.cpp).
inline constexpr int kReadsBeforeMapping = ZEPH_LIMIT(32, 2);

#endif

// The library of MemoryDatabase.cpp with version 4 of the interface.

#define MEMORY_DATABASE_VERSION 4
#include "tests/support/libraries/MemoryDatabase.cpp"

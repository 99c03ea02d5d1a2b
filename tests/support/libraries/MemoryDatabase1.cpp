// The library of MemoryDatabase.cpp with version 1 of the interface.

#define MEMORY_DATABASE_VERSION 1
#include "tests/support/libraries/MemoryDatabase.cpp"

// The library of MemoryDatabase.cpp with version 3 of the interface.

#define MEMORY_DATABASE_VERSION 3
#include "tests/support/libraries/MemoryDatabase.cpp"

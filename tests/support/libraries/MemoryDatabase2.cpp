// The library of MemoryDatabase.cpp with version 2 of the interface.

#define MEMORY_DATABASE_VERSION 2
#include "tests/support/libraries/MemoryDatabase.cpp"

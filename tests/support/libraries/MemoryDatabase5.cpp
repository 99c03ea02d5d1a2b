// The library of MemoryDatabase.cpp with version 5 of the interface.

#define MEMORY_DATABASE_VERSION 5
#include "tests/support/libraries/MemoryDatabase.cpp"

// The library of OldTLS.cpp without one of the functions that the engine needs.

#define WITHOUT_PRIVATE_KEYS
#include "tests/support/libraries/OldTLS.cpp"

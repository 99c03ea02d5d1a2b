// The engine's containers, all of them: each has a header of its own with its contract.
//
//   List            doubly linked, one cursor
//   Stack           singly linked, a reading cursor that Pop unwinds to
//   SearchableList  a List that is searched by a key
//   HashTable       names to elements, walked in the order of insertion
//   NamedHashTable  the HashTable that nearly every table of names is an instance of
//   SplayTree       ordered by key, the last element touched at its root
//
// All of them hold pointers, have a flag that says whether they own the elements, and are virtual
// where an instance adds its key rules. None of them locks.

#ifndef ZEPH_BASE_BASETEMPLATES_H
#define ZEPH_BASE_BASETEMPLATES_H

#include "base/core/HashTable.h"
#include "base/core/List.h"
#include "base/core/SearchableList.h"
#include "base/core/SplayTree.h"
#include "base/core/Stack.h"

#endif

// The key hash of every name table, in memory and in compiled files: Bob Jenkins' lookup2 of 1996.
// Tables stored in a compiled file hold bucket numbers made with it, so its values never change.

#ifndef ZEPH_BASE_HASH_H
#define ZEPH_BASE_HASH_H

// Hashes length bytes. The seed is 0, or, for a key of several parts, the hash of the parts before.
// The result depends neither on alignment nor on the byte order of the machine.
unsigned hash(const void* key, unsigned length, unsigned seed);

// The same over the bytes in lower case: keys that differ only in the case of ASCII letters have
// the same hash.
unsigned hashi(const void* key, unsigned length, unsigned seed);

#endif

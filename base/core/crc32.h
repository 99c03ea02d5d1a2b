// CRC-32 from the most significant bit down, polynomial 0x04C11DB7: the parameters of bzip2, not
// those of zlib. Offered to extension libraries.

#ifndef ZEPH_BASE_CRC32_H
#define ZEPH_BASE_CRC32_H

// The value to begin with.
unsigned crc32_init();
// Returns the value after that many more bytes; a length of 0 or less changes nothing.
unsigned crc32_data(unsigned crc, const void* bytes, int length);
// The checksum of all bytes given.
unsigned crc32_final(unsigned crc);

#endif

// Base64 with the alphabet of RFC 4648 and "=" padding: cookies, mail, HTTP authorisation and the
// scripts' own use.

#ifndef ZEPH_BASE_BASE64_H
#define ZEPH_BASE_BASE64_H

typedef unsigned char uchar;

// Writes no line breaks and no terminator. Returns the count of bytes written: 4 for every 3 bytes
// begun. A destination of 4 * (length / 3) + 5 bytes is always enough. A length below 1 writes
// nothing.
int zp_base64_encode(const uchar* source, uchar* destination, int length);

// Decodes whole groups of four bytes, ignores an incomplete last one, and returns the count of
// bytes written. length + 1 bytes of destination are enough, and it may be the source. No input is
// rejected: a byte outside the alphabet counts as the value 0 and keeps its place, so callers strip
// line breaks first. In each group a "=" in the third place drops the second byte, one in the
// fourth place the third.
int zp_base64_decode(const uchar* source, uchar* destination, int length);

#endif

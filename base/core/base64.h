// Base64 with the alphabet of RFC 4648 and "=" padding: cookies, mail, HTTP authorisation and the
// scripts' own use.

#ifndef ZEPH_BASE_BASE64_H
#define ZEPH_BASE_BASE64_H

typedef unsigned char uchar;

// Writes no line breaks and no terminator, and answers the bytes written: 4 for every 3 begun. A
// destination of 4 * (length / 3) + 5 bytes is always enough. A length below 1 writes nothing.
int zp_base64_encode(const uchar* source, uchar* destination, int length);

// Decodes whole groups of four bytes, ignores an incomplete last one, and answers the bytes
// written; length + 1 bytes of destination are enough, and it may be the source. Nothing is ever
// rejected: a byte outside the alphabet counts as the value 0 and keeps its place, so text that may
// be wrapped is stripped first. In each group a "=" in the third place drops the second byte, one
// in the fourth the third.
int zp_base64_decode(const uchar* source, uchar* destination, int length);

#endif

// MD5 of RFC 1321 and HMAC-MD5 of RFC 2104: session identifiers, mail authentication, and the
// scripts' own use. Too weak for secrets today.

#ifndef ZEPH_BASE_MD5_H
#define ZEPH_BASE_MD5_H

typedef unsigned char uchar;

// One digest in progress. A text that comes in pieces goes through Reset, Encode_Block for all but
// the last piece, and Encode_Final. A digest is 16 bytes. The count of bytes wraps at 32 bits, also
// in the padding. The order of the fields is fixed.
class MD5Encoder {
 public:
  MD5Encoder() { Reset(); }

  void Reset();
  // Hashes the whole blocks of 64 bytes. REQUIRES: length is a multiple of 64; the bytes after the
  // last whole block are counted but dropped.
  void Encode_Block(const uchar* bytes, unsigned length);
  // Hashes the last piece, of any length, and writes the digest. Does not reset the object.
  void Encode_Final(const uchar* bytes, unsigned length, uchar* digest);
  // Reset and Encode_Final: the digest of one text.
  void Encode(const uchar* bytes, unsigned length, uchar* digest);
  // Writes the digest as 32 lower-case hexadecimal digits, without a terminator.
  void Make_Printable(const uchar* digest, char* text);
  // The digest of the text under a key of any length; a key of 65 bytes or more is replaced by its
  // digest.
  void HMAC(const uchar* text, unsigned text_length, const uchar* key, unsigned key_length,
            uchar* digest);

  // Hashes one block of 16 words; and reads 64 bytes into 16 words.
  void MD5_Hash(const unsigned* block);
  void Decode_Block(const uchar* bytes, unsigned* block);

 private:
  void Hash_Blocks(const uchar* bytes, unsigned length);
  void HMAC_Pass(const uchar* pad, const uchar* bytes, unsigned length, uchar* digest);

  unsigned a;
  unsigned b;
  unsigned c;
  unsigned d;
  unsigned count;  // bytes processed
};

#endif

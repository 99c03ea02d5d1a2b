// The password hash of scripts: the traditional crypt(3), DES under a salt of 12 bits. It agrees
// with the system's crypt(3) for every password, so that hashes made elsewhere can be compared.

#ifndef ZEPH_BASE_UFCRYPT_H
#define ZEPH_BASE_UFCRYPT_H

#include <cstdint>

// crypt(3) over tables that join the S-boxes to the permutations around them, 147 KB. An
// application makes one at its first hash and keeps it, since filling the tables costs as much as
// dozens of hashes. The tables hold the salt of the last call, so each thread needs its own object.
class UFCrypt {
 public:
  UFCrypt();
  virtual ~UFCrypt();
  UFCrypt(const UFCrypt&) = delete;
  UFCrypt& operator=(const UFCrypt&) = delete;

  // Hashes the first 8 bytes of the password, up to a NUL if there is one; a length of -1 means
  // strlen. The result begins with the first two characters of salt, unchanged; a character that is
  // not a salt character hashes as 0. result receives 13 characters and a NUL. A salt that differs
  // from that of the last call costs a pass over the tables.
  void crypt(const char* password, int length, const char* salt, char* result);

 private:
  // 48 bits of an expanded half block, or of a round key: bits 0 to 23 in high, 24 to 47 in low. In
  // each word the first 12 bits are bits 27 to 16 and the others bits 11 to 0, so that the inputs
  // of two neighbouring S-boxes are one table index.
  struct Expanded {
    uint32_t high;
    uint32_t low;
  };

  static void SetBit(Expanded* bits, int number);
  static int Bit(const Expanded& bits, int number);

  void FillKeyTables();
  void FillBoxTables();
  void UFC_Salt(char first, char second);
  void UFC_MakeKeyTable(const unsigned char* key);
  void UFC_Encrypt(uint32_t left_high, uint32_t left_low, uint32_t right_high, uint32_t right_low,
                   int iterations);
  void UFC_Output(const char* salt, char* result);

  // The outputs of two S-boxes after the permutation and the next round's expansion, under the
  // current salt; one table for each pair of boxes.
  Expanded boxes[4][4096];
  // The contribution of seven bits of the key to the 56 bits of the schedule, and of seven bits of
  // the schedule to a round key.
  uint64_t do_pc1[8][128];
  Expanded do_pc2[8][128];
  Expanded round_keys[16];
  Expanded left;
  Expanded right;
  char salt_characters[2];
  uint32_t salt_mask;  // bits in which high and low are exchanged
};

#endif

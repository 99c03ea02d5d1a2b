// Sets when decoded code becomes machine code, as long as one of these exists: tests run a program
// with machine code from the first record on, and without any.

#ifndef ZEPH_TESTS_SUPPORT_NATIVEATONCE_H
#define ZEPH_TESTS_SUPPORT_NATIVEATONCE_H

#include <climits>

#include "base/compiled/HotCode.h"

// Whether machine code is made here at all.
#ifdef __x86_64__
inline constexpr bool kHasNative = true;
#else
inline constexpr bool kHasNative = false;
#endif

class NativeTime {
 public:
  NativeTime(const NativeTime&) = delete;
  NativeTime& operator=(const NativeTime&) = delete;
  ~NativeTime() {
    HotCode::jumps_until_native = jumps;
    HotCode::jumps_a_record = jumps_a_record;
  }

 protected:
  explicit NativeTime(int first_jump) {
    HotCode::jumps_until_native = first_jump;
    HotCode::jumps_a_record = 0;
  }

 private:
  int jumps = HotCode::jumps_until_native;
  int jumps_a_record = HotCode::jumps_a_record;
};

// Machine code is made when decoded code begins to run.
struct NativeAtOnce : NativeTime {
  NativeAtOnce() : NativeTime(1) {}
};

// No machine code is made.
struct NativeNever : NativeTime {
  NativeNever() : NativeTime(INT_MAX) {}
};

#endif

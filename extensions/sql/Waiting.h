// Whether a script has to end, for libraries that wait for something.

#ifndef ZEPH_EXTENSIONS_SQL_WAITING_H
#define ZEPH_EXTENSIONS_SQL_WAITING_H

#include <chrono>

#include "api/zeph.h"

namespace zephsql {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

// How long a wait goes on before the script is asked for again.
constexpr Milliseconds kSlice(250);

// Pauses the script. Returns false if the pause was not as long as it should be, which is so if the
// script's time is over or it was cancelled: then no pause takes time.
inline bool Pause(ZPPROGRAM program, Milliseconds time) {
  const Clock::time_point begin = Clock::now();
  zpProgram_Sleep(program, static_cast<int>(time.count()));
  return 2 * (Clock::now() - begin) >= time;
}

// Whether the script has to end. Takes a millisecond if it has not. A pause is also short when the
// system's clock is set, so one is not enough.
inline bool IsCancelled(ZPPROGRAM program) {
  for (int i = 0; i < 3; i++) {
    if (Pause(program, Milliseconds(1))) return false;
  }
  return true;
}

}  // namespace zephsql

#endif

// Pausing: what is allocated meanwhile is not counted, what was counted before is still counted when it
// is released, so that balances stay right. A block that was made during a pause is unknown afterwards.
//
// An allocation does not ask for it: during a pause it finds no table for its block's size, and the slow
// path tells why. A thread that is inside malloc as a pause begins or ends counts as it had begun.
#pragma once

#include "collectors/qvheap/sizes.h"

namespace qvheap {

// Among so many middle tables an allocation looks for its own: kMiddles, or 0 during a pause.
extern QVHEAP_OURS uint64_t g_countedMiddles;

QVHEAP_INLINE bool IsPaused() { return QVHEAP_UNLIKELY(Load(g_countedMiddles) == 0); }
QVHEAP_INLINE uint8_t* FindCodeUnlessPaused(const void* block) {
  return FindCodeAmong(block, Load(g_countedMiddles));
}

// Census lock. Pausing twice is pausing once.
void PauseLocked();
void ResumeLocked();
uint64_t PausedMillisecondsLocked();  // in all, up to now
void ForgetPauses();                  // in a child process: it begins with what the parent was

uint64_t MillisecondsNow();  // of a clock that no one sets
}  // namespace qvheap

// Pausing: what is allocated meanwhile is not counted, what was counted before is still counted when it
// is released, so that balances stay right. A block that was made during a pause is unknown afterwards.
//
// The flag is read by every allocation and written on the command channel; a thread that is inside
// malloc at that moment counts as it had begun.
#pragma once

#include "collectors/qvheap/words.h"

namespace qvheap {

extern uint32_t g_paused;  // 0 or 1

QVHEAP_INLINE bool IsPaused() { return QVHEAP_UNLIKELY(Load(g_paused) != 0); }

// Census lock. Pausing twice is pausing once.
void PauseLocked();
void ResumeLocked();
uint64_t PausedMillisecondsLocked();  // in all, up to now
void ForgetPauses();                  // in a child process: it begins with what the parent was

uint64_t MillisecondsNow();  // of a clock that no one sets
}  // namespace qvheap

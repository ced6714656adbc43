// The clock of lifetimes: one number of 32 bits, in units of some microseconds.
//
// A lifetime of a millisecond is told from a longer one, so the coarse clocks (a tick of 1 to 10 ms) do
// not do; and exact counting reads the clock twice for each block, where the monotonic clock costs
// nearly three times the processor's counter (29 and 12 ns on the machine this was written on). So it
// is the counter, where it runs at one rate everywhere (else the monotonic clock), shifted right by
// 15: about 10 microseconds. How many units a millisecond has is measured between the start and the
// first release that asks, never by waiting longer than a fifth of a millisecond.
//
// The number wraps after about half a day. A block that lives on for just a whole number of wraps is
// then put in too short a class; that is one long-lived block in some tens of thousands.
#pragma once

#include <x86intrin.h>

#include "collectors/qvheap/words.h"

namespace qvheap {

inline constexpr uint32_t kUnitShift = 15;

struct Clock {
  bool usesCounter;
  uint64_t startTicks, startNanoseconds;
  uint64_t startedMilliseconds;                  // since 1970
  uint32_t unitsPerMillisecond, unitsPerSecond;  // 0 until measured
};
extern QVHEAP_OURS Clock g_clock;

void StartClock();
uint64_t MonotonicNanoseconds();
uint64_t ElapsedMilliseconds();  // since StartClock
QVHEAP_COLD void MeasureClock();

QVHEAP_INLINE uint64_t Ticks() {
  return QVHEAP_LIKELY(g_clock.usesCounter) ? __rdtsc() : MonotonicNanoseconds();
}
QVHEAP_INLINE uint32_t NowUnits() { return uint32_t(Ticks() >> kUnitShift); }

enum Lifetime : uint32_t { kWithin1ms, kWithin1s, kLonger };

QVHEAP_INLINE Lifetime LifetimeSince(uint32_t born) {
  if (QVHEAP_UNLIKELY(Load(g_clock.unitsPerMillisecond) == 0)) MeasureClock();
  const uint32_t age = NowUnits() - born;
  if (age < g_clock.unitsPerMillisecond) return kWithin1ms;
  return age < g_clock.unitsPerSecond ? kWithin1s : kLonger;
}

}  // namespace qvheap

// The clock of lifetimes. Design: collectors/qvheap/clock.h.
#include "collectors/qvheap/clock.h"

#include <cpuid.h>
#include <time.h>

namespace qvheap {
namespace {

constexpr uint64_t kMeasureNanoseconds = 200000;
constexpr uint32_t kMeasurements = 3;

struct Reading {
  uint64_t ticks, nanoseconds;
};

// One rate whatever the processor's frequency and rest: a promise that it makes.
bool CounterIsInvariant() {
  uint32_t a = 0, b = 0, c = 0, d = 0;
  return __get_cpuid(0x80000007, &a, &b, &c, &d) != 0 && (d & (1u << 8)) != 0;
}

// Of both clocks at one moment: of a few, the one that took least, hence was not interrupted.
Reading ReadBoth() {
  Reading best = {};
  uint64_t least = ~uint64_t{0};
  for (uint32_t i = 0; i < kMeasurements; i++) {
    const uint64_t before = Ticks();
    const uint64_t nanoseconds = MonotonicNanoseconds();
    const uint64_t took = Ticks() - before;
    if (took >= least) continue;
    least = took;
    best = {before + took / 2, nanoseconds};
  }
  return best;
}

}  // namespace

constinit Clock g_clock = {};

uint64_t MonotonicNanoseconds() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return uint64_t(now.tv_sec) * 1000000000 + uint64_t(now.tv_nsec);
}

void StartClock() {
  g_clock.usesCounter = CounterIsInvariant();
  const Reading reading = ReadBoth();
  g_clock.startTicks = reading.ticks;
  g_clock.startNanoseconds = reading.nanoseconds;
  struct timespec today;
  clock_gettime(CLOCK_REALTIME, &today);
  g_clock.startedMilliseconds = uint64_t(today.tv_sec) * 1000 + uint64_t(today.tv_nsec) / 1000000;
}

uint64_t ElapsedMilliseconds() { return (MonotonicNanoseconds() - g_clock.startNanoseconds) / 1000000; }

void MeasureClock() {
  Reading now;
  do {
    now = ReadBoth();
  } while (now.nanoseconds - g_clock.startNanoseconds < kMeasureNanoseconds);
  const double ticksPerNanosecond =
      double(now.ticks - g_clock.startTicks) / double(now.nanoseconds - g_clock.startNanoseconds);
  const double units = ticksPerNanosecond * 1e6 / double(1 << kUnitShift);
  Store(g_clock.unitsPerSecond, uint32_t(units * 1000));
  Store(g_clock.unitsPerMillisecond, uint32_t(units + 0.5));  // last: others look at it
}

}  // namespace qvheap

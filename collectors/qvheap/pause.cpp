// Pausing and its clock. Design: collectors/qvheap/pause.h.
#include "collectors/qvheap/pause.h"

#include <time.h>

namespace qvheap {
namespace {

// Census lock.
constinit uint64_t g_pausedSince = 0;
constinit uint64_t g_pausedBefore = 0;

}  // namespace

constinit uint64_t g_countedMiddles = kMiddles;

uint64_t MillisecondsNow() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return uint64_t(now.tv_sec) * 1000 + uint64_t(now.tv_nsec) / 1000000;
}

void PauseLocked() {
  if (IsPaused()) return;
  g_pausedSince = MillisecondsNow();
  Store(g_countedMiddles, uint64_t{0});
}

void ResumeLocked() {
  g_pausedBefore = PausedMillisecondsLocked();
  Store(g_countedMiddles, kMiddles);
}

uint64_t PausedMillisecondsLocked() {
  return g_pausedBefore + (IsPaused() ? MillisecondsNow() - g_pausedSince : 0);
}

void ForgetPauses() {
  g_pausedBefore = 0;
  g_pausedSince = MillisecondsNow();
}

}  // namespace qvheap

// The timeline. Design: collectors/qvheap/timeline.h.
#include "collectors/qvheap/timeline.h"

#include "collectors/qvheap/clock.h"

namespace qvheap {
namespace {

// Census lock.
constinit TimelinePoint g_points[kMostPoints] = {};
constinit uint32_t g_count = 0;

// Atomic.
constinit uint64_t g_allocated = 0;  // as far as threads have told
constinit uint64_t g_step = kBytesBetweenAsks;
constinit uint64_t g_nextMark = 0;

void ThinOutLocked() {
  for (uint32_t i = 0; i < kMostPoints / 2; i++) g_points[i] = g_points[2 * i];
  g_count = kMostPoints / 2;
  Store(g_step, 2 * g_step);
}

}  // namespace

void StartTimeline() {
  g_count = 0;
  g_allocated = g_nextMark = 0;
  g_step = kBytesBetweenAsks;
}

// Looking, nobody may wait for the census lock, which a fork holds while it waits for lookers. So
// another one who holds it (a report, say) costs a point, no more: the next ask comes soon.
void AddBytesSlow(ThreadRecord& me) {
  const uint64_t allocated = Load(me.counts.figures[kBytesAllocated]);
  const uint64_t fresh = allocated - me.bytesAtPoint;
  me.bytesAtPoint = allocated;
  const uint64_t total = __atomic_add_fetch(&g_allocated, fresh, __ATOMIC_RELAXED);
  if (total < Load(g_nextMark)) return;
  const SignalsBlocked blocked;
  if (__QvTryToAcquireSpinLock(&g_censusLock, 0) == 0) return;
  if (total >= Load(g_nextMark)) AddPointLocked();
  __QvReleaseSpinLock(&g_censusLock);
}

void AddPointLocked() {
  if (g_count == kMostPoints) ThinOutLocked();
  const Totals totals = SumLocked();
  const uint64_t* const figures = totals.counts.figures;
  g_points[g_count++] = {ElapsedMilliseconds(), figures[kBytesAllocated], BalanceOf(totals.counts),
                         AllocationsOf(totals.counts) - figures[kReleases]};
  Store(g_nextMark, Load(g_allocated) + g_step);
}

uint32_t PointCountLocked() { return g_count; }
const TimelinePoint& PointAtLocked(uint32_t index) { return g_points[index]; }

}  // namespace qvheap

// The process's course in at most some hundreds of points, by bytes allocated.
//
// Threads ask on their slow paths, each after 64 KiB of its own or more. Whoever finds that the
// process has passed the next mark adds a point. When the points are full, every second one goes and
// the marks are twice as far apart: so they spread evenly over a run of any length, and a short one
// has them close.
#pragma once

#include "collectors/qvheap/census.h"

namespace qvheap {

struct TimelinePoint {
  uint64_t milliseconds;
  uint64_t bytesAllocated;
  int64_t liveBytes;
  uint64_t liveBlocks;
};

inline constexpr uint32_t kMostPoints = 200;
inline constexpr uint64_t kBytesBetweenAsks = 1 << 16;

void StartTimeline();  // empty; under the census lock or before there are threads
QVHEAP_COLD void AddBytesSlow(ThreadRecord& me);

// The thread is Looking.
QVHEAP_INLINE void TimePasses(ThreadRecord& me) {
  const uint64_t allocated = Load(me.counts.figures[kBytesAllocated]);
  if (QVHEAP_UNLIKELY(allocated - me.bytesAtPoint >= kBytesBetweenAsks)) AddBytesSlow(me);
}

void AddPointLocked();  // now, whatever the marks say
uint32_t PointCountLocked();
const TimelinePoint& PointAtLocked(uint32_t index);

}  // namespace qvheap

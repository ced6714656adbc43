// Which thread allocated how much at which site, unless it is the site's first (sites.h): a vector for
// each thread.
//
//   element   2 n      weight of the blocks that the thread allocated at site n
//             2 n + 1  weight of their bytes
//
// Sites from 65,536 on are beyond a vector and have no tallies; that a thread used them, their sets
// know.
#pragma once

#include "collectors/qvheap/sites.h"

namespace qvheap {

inline constexpr uint32_t kTalliedSites = 1 << 16;

QVHEAP_COLD void FirstTallySlow(ThreadRecord& me, Site& site, const Weight& weight);
void DropTallies(ThreadRecord& me);  // the record gets another thread

// The thread is Looking. After the first, a tally allocates nothing.
QVHEAP_INLINE void Tally(ThreadRecord& me, Site& site, const Weight& weight) {
  const uint32_t index = 2 * site.number;
  const uint64_t blocks = __QvGetVectorElement(me.tallies, index);
  if (QVHEAP_UNLIKELY(blocks == 0)) return FirstTallySlow(me, site, weight);
  __QvSetVectorElement(me.tallies, index, blocks + weight.blocks);
  __QvSetVectorElement(me.tallies, index + 1,
                       __QvGetVectorElement(me.tallies, index + 1) + weight.bytes);
}

}  // namespace qvheap

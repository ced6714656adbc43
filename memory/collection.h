// Memory collection and reserves: what stands between the allocator and a hook that cannot give.
//
// Invariants
//  (1) The allocate hook is called under the allocator lock, for slabs and large blocks as for probes;
//      only the size-class table and the reserves are taken before that lock matters.
//  (2) The reserve list and the flags below are read and written under the allocator lock, but for the
//      two that __QvAsynchronousCollectMemory reads first and the one that waiters read.
//  (3) Nobody holds the allocator lock when a shortage is reported: the exit handler may take its time,
//      and other threads may have memory to release.
#pragma once

#include "runtime/lock_order.h"

namespace qv {

enum class Shortage : uint8_t { kTight, kOutOfMemory };

extern uint32_t g_memoryInitialisationWord;  // serialises the initialisation calls

void InitializeMemoryLocks();

// A block of the allocate hook, after collection and reserves if need be. Does not return without one.
void* AcquireMemoryForMalloc(uint64_t bytes);

// Tight: warns once per process and returns. Out of memory: ends the process.
void ReportMemoryShortage(Shortage shortage);

}  // namespace qv

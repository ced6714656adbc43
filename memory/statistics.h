// Memory categories and the statistics of slab bytes.
//
// Invariants
//  (1) A category is usable once its index is below the count; a refused registration raises the count
//      above 64 for a moment, so readers go by CategoryCount().
//  (2) Names are written after the count is raised, word by word and without a lock: a reader may see
//      an empty name, never an unterminated one (byte 31 is always 0).
//  (3) The figures change under the statistics lock and only while statistics are enabled; they are
//      read without it. A figure that would go below 0, because its slabs were acquired before
//      statistics counted or before a reset, stays at 0.
#pragma once

#include "runtime/lock_order.h"

namespace qv {

struct MemoryCategory {
  alignas(8) char name[32];
  int64_t bytesAllocated;
  int64_t bytesAllocatedAtPeak;
};

bool StatisticsEnabled();
uint64_t TotalMemoryAllocated();
void CountCollection();
void CountSlabAcquired(uint32_t category, uint64_t slabBytes);  // both only if enabled
void CountSlabReleased(uint32_t category, uint64_t slabBytes);
void ResetStatistics();

// One comment per category: `format` takes the category's name and its bytes ("%-25s", "%15ld").
void LogCategories(const char* format);

}  // namespace qv

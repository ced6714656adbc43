// The allocator, inside view: pools of equal chunks by category and size class, over the tool's hooks.
//
//   g_heap.classes -> | class 0 | class 1 | ... 64 x 2,046 records, one block of the allocate hook
//                          |
//                          v firstSlab
//   slab:  | QV_SLAB header, 48 bytes | chunk 0 | chunk 1 | ... chunk n-1 | unused tail |
//   chunk: | header word | caller's memory: units * 16 - 8 bytes |
//
// Invariants
//  (1) A slab is on its class's list exactly while it has a free chunk. A slab whose chunks are all
//      free goes back to the free hook, unless it is the only one on the list.
//  (2) A class lock guards its list and the free lists and counts of its slabs. The header word of an
//      allocated chunk belongs to whoever owns the chunk.
//  (3) smallUnits is 0 until the sub-allocator is initialised and 2,046 from then on: one comparison
//      sends both large and early requests to the slow path. classes is written before it (release,
//      acquire).
//  (4) Nothing here calls a hook, logs or takes another lock while it pops or pushes a chunk; the slow
//      halves say what they hold.
#pragma once

#include "runtime/lock_order.h"

namespace qv {

// The fast paths hold a class lock for a few instructions and call nothing; they wait for nobody and
// leave what is not common to a slow half, always as the last thing they do, so they need no frame.
using SizeClassGuard = BriefGuard<LockRank::kSizeClass>;
QV_INLINE bool TryLock(QV_SIZE_CLASS& sizeClass) {
  return TryBriefly<LockRank::kSizeClass>(sizeClass.lock);
}
QV_INLINE void Unlock(QV_SIZE_CLASS& sizeClass) { LeaveBriefly<LockRank::kSizeClass>(sizeClass.lock); }

struct Heap {
  QV_SIZE_CLASS* classes;
  uint32_t smallUnits;
  QV_ALLOCATE_PROC allocateProc;
  QV_FREE_PROC freeProc;
};
extern Heap g_heap;

QV_COLD void* AllocateSlow(uint32_t category, uint64_t sizeBytes, uint32_t slabSizeShift);
QV_COLD void* AllocateBusySlow(QV_SIZE_CLASS& sizeClass, uint32_t category, uint32_t slabSizeShift);
QV_COLD void* AllocateFromNewSlabSlow(QV_SIZE_CLASS& sizeClass, uint32_t category,
                                      uint32_t slabSizeShift);
QV_COLD void ReleaseSlow(uint64_t* header, uint64_t word);
QV_COLD void ReleaseBusySlow(QV_SIZE_CLASS& sizeClass, QV_SLAB& slab, uint64_t* header);
QV_COLD void SettleSlabSlow(QV_SIZE_CLASS& sizeClass, QV_SLAB& slab);  // lock held; leaves it

QV_INLINE uint64_t UnitsFor(uint32_t sizeBytes) { return (uint64_t{sizeBytes} + 23) / 16; }

QV_INLINE QV_SIZE_CLASS& SizeClassOf(uint32_t category, uint32_t units) {
  return g_heap.classes[category * uint32_t{QV_SIZE_CLASSES} + units - 1];
}

// Takes the slab off its class's list: it has no free chunk left, or goes back to the hook.
QV_INLINE void UnlinkSlabLocked(QV_SIZE_CLASS& sizeClass, QV_SLAB& slab) {
  QV_SLAB* const next = slab.nextSlab;
  QV_SLAB* const previous = slab.previousSlab;
  (previous != nullptr ? previous->nextSlab : sizeClass.firstSlab) = next;
  if (next != nullptr) next->previousSlab = previous;
}

// Pops a chunk from the class's first slab, which has one, by (1).
QV_INLINE uint64_t* PopChunkLocked(QV_SIZE_CLASS& sizeClass, QV_SLAB& slab) {
  uint64_t* const header = static_cast<uint64_t*>(slab.freeList);
  void* const next = reinterpret_cast<void*>(LoadRelaxed(*header) & ~uint64_t{1});
  StoreRelaxed(*header, reinterpret_cast<uint64_t>(&slab));
  slab.freeList = next;
  __builtin_prefetch(next, 1);  // the next pop reads and writes it; freed long ago, it is cold
  if (QV_UNLIKELY(--slab.freeCount == 0)) UnlinkSlabLocked(sizeClass, slab);
  return header;
}

// True if the slab now has one free chunk, or all of them free, and is to be settled.
QV_INLINE bool PushChunkLocked(QV_SLAB& slab, uint64_t* header) {
  StoreRelaxed(*header, reinterpret_cast<uint64_t>(slab.freeList) | 1);
  slab.freeList = header;
  const uint32_t freeCount = ++slab.freeCount;
  return (freeCount == slab.chunkCount) | (freeCount == 1);
}

QV_INLINE void* AllocateInline(uint32_t category, uint32_t sizeBytes, uint32_t slabSizeShift) {
  const uint64_t units = UnitsFor(sizeBytes);
  const uint32_t outOfContract = category / QV_MEMORY_CATEGORIES | slabSizeShift >> 4;
  if (QV_UNLIKELY((units > LoadAcquire(g_heap.smallUnits)) | (outOfContract != 0))) {
    return AllocateSlow(category, sizeBytes, slabSizeShift);
  }
  QV_SIZE_CLASS& sizeClass = SizeClassOf(category, uint32_t(units));
  if (QV_UNLIKELY(!TryLock(sizeClass))) return AllocateBusySlow(sizeClass, category, slabSizeShift);
  QV_SLAB* const slab = sizeClass.firstSlab;
  if (QV_UNLIKELY(slab == nullptr)) {
    Unlock(sizeClass);
    return AllocateFromNewSlabSlow(sizeClass, category, slabSizeShift);
  }
  uint64_t* const header = PopChunkLocked(sizeClass, *slab);
  Unlock(sizeClass);
  return header + 1;
}

// Only an allocated small chunk has an even word before it: its slab's address.
QV_INLINE void ReleaseInline(void* address) {
  if (QV_UNLIKELY(address == nullptr)) return;
  uint64_t* const header = static_cast<uint64_t*>(address) - 1;
  const uint64_t word = LoadRelaxed(*header);
  QV_SLAB* const slab = reinterpret_cast<QV_SLAB*>(word);
  if (QV_UNLIKELY((word & 1) != 0 || word == 0 || slab->magic != QV_SLAB_MAGIC)) {
    return ReleaseSlow(header, word);
  }
  QV_SIZE_CLASS& sizeClass = SizeClassOf(slab->category, slab->units);
  if (QV_UNLIKELY(!TryLock(sizeClass))) return ReleaseBusySlow(sizeClass, *slab, header);
  if (QV_UNLIKELY(PushChunkLocked(*slab, header))) return SettleSlabSlow(sizeClass, *slab);
  Unlock(sizeClass);
}

// Walks a class: null if all is well, else what is wrong.
const char* ValidateSizeClass(const QV_SIZE_CLASS& sizeClass, uint32_t category);

}  // namespace qv

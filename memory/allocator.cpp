// The allocator: initialisation, slabs, large blocks, misuse, and the exported calls.
// Design: memory/allocator.h.
#include "memory/allocator.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "log/report.h"
#include "memory/allocate.h"
#include "memory/collection.h"
#include "memory/early_blocks.h"
#include "memory/statistics.h"

static_assert(sizeof(QV_SIZE_CLASS) == 40 && offsetof(QV_SIZE_CLASS, firstSlab) == 24 &&
              offsetof(QV_SIZE_CLASS, units) == 32);
static_assert(sizeof(QV_SLAB) <= QV_SLAB_HEADER_UNITS * QV_CHUNK_UNIT_BYTES);
static_assert(offsetof(QV_SLAB, freeList) == 16 && offsetof(QV_SLAB, chunkCount) == 32 &&
              offsetof(QV_SLAB, magic) == 36 && offsetof(QV_SLAB, category) == 38 &&
              offsetof(QV_SLAB, slabSizeShift) == 39);
static_assert(sizeof(QV_MEMORY_CATEGORY_INFO) == 48);
static_assert(QV_LARGEST_SMALL_REQUEST + 8 == QV_SIZE_CLASSES * QV_CHUNK_UNIT_BYTES);

namespace qv {

constinit Heap g_heap = {};

namespace {

constexpr uint32_t kAllClasses = QV_MEMORY_CATEGORIES * QV_SIZE_CLASSES;
constexpr uint32_t kLargestRequest = 0xFFFFFFE8;  // with its header still below 2^32, rounded
constexpr uint32_t kSlabBaseLog2 = 16;

uint64_t SlabBytes(uint32_t slabSizeShift) { return uint64_t{1} << (kSlabBaseLog2 + slabSizeShift); }

uint32_t ChunksPerSlab(uint32_t units, uint32_t slabSizeShift) {
  const uint64_t blockUnits = (SlabBytes(slabSizeShift) - 16) / QV_CHUNK_UNIT_BYTES;
  return uint32_t((blockUnits - QV_SLAB_HEADER_UNITS) / units);
}

uint64_t* ChunkHeader(QV_SLAB* slab, uint64_t index, uint32_t units) {
  char* const chunks = reinterpret_cast<char*>(slab) + QV_SLAB_HEADER_UNITS * QV_CHUNK_UNIT_BYTES;
  return reinterpret_cast<uint64_t*>(chunks + index * units * QV_CHUNK_UNIT_BYTES);
}

// Each free chunk names the next one in address order; the last holds 1.
void ThreadChunks(QV_SLAB* slab) {
  const uint32_t units = slab->units;
  for (uint32_t i = 0; i + 1 < slab->chunkCount; i++) {
    *ChunkHeader(slab, i, units) = reinterpret_cast<uint64_t>(ChunkHeader(slab, i + 1, units)) | 1;
  }
  *ChunkHeader(slab, slab->chunkCount - 1, units) = 1;
}

void PushSlabLocked(QV_SIZE_CLASS& sizeClass, QV_SLAB* slab) {
  slab->nextSlab = sizeClass.firstSlab;
  slab->previousSlab = nullptr;
  if (sizeClass.firstSlab != nullptr) sizeClass.firstSlab->previousSlab = slab;
  sizeClass.firstSlab = slab;
}

void* AllocateLarge(uint64_t units) {
  uint64_t* const block =
      static_cast<uint64_t*>(AcquireMemoryForMalloc(uint32_t(units) * uint32_t{QV_CHUNK_UNIT_BYTES}));
  *block = QV_LARGE_CHUNK_MARK;
  return block + 1;
}

void* AllocateEarly(uint32_t sizeBytes) {
  uint64_t* const header = AllocateEarlyBlock(uint64_t{sizeBytes} + sizeof(uint64_t));
  if (header == nullptr) ReportMemoryShortage(Shortage::kOutOfMemory);
  return header + 1;
}

[[noreturn]] void EndWithoutSizeClasses(uint64_t bytes) {
  char text[160];
  const int length = snprintf(text, sizeof text,
                              "libqvrt12: the allocate hook cannot give the size-class table "
                              "(%llu bytes); ending the process\n",
                              static_cast<unsigned long long>(bytes));
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, size_t(length));
  CallExitHandler(-1);
}

QV_SIZE_CLASS* MakeSizeClasses(QV_ALLOCATE_PROC allocateProc) {
  constexpr uint64_t kBytes = uint64_t{kAllClasses} * sizeof(QV_SIZE_CLASS);
  QV_SIZE_CLASS* const classes = static_cast<QV_SIZE_CLASS*>(allocateProc(kBytes));
  if (classes == nullptr) EndWithoutSizeClasses(kBytes);
  QV_SIZE_CLASS* record = classes;
  for (uint32_t category = 0; category < QV_MEMORY_CATEGORIES; category++) {
    for (uint32_t units = 1; units <= QV_SIZE_CLASSES; units++) {
      *record++ = {{0, 0, 0, 0}, nullptr, units};
    }
  }
  return classes;
}

}  // namespace

void* AllocateBusySlow(QV_SIZE_CLASS& sizeClass, uint32_t category, uint32_t slabSizeShift) {
  {
    const SizeClassGuard guard(sizeClass.lock);
    QV_SLAB* const slab = sizeClass.firstSlab;
    if (slab != nullptr) return PopChunkLocked(sizeClass, *slab) + 1;
  }
  return AllocateFromNewSlabSlow(sizeClass, category, slabSizeShift);
}

// The hook is called without a class lock held, so another thread may make a slab of the same class
// meanwhile; both are then on the list.
void* AllocateFromNewSlabSlow(QV_SIZE_CLASS& sizeClass, uint32_t category, uint32_t slabSizeShift) {
  const uint64_t slabBytes = SlabBytes(slabSizeShift);
  QV_SLAB* const slab = static_cast<QV_SLAB*>(AcquireMemoryForMalloc(slabBytes - 16));
  CountSlabAcquired(category, slabBytes);
  const SizeClassGuard guard(sizeClass.lock);
  PushSlabLocked(sizeClass, slab);
  slab->units = sizeClass.units;
  slab->magic = QV_SLAB_MAGIC;
  slab->category = uint8_t(category);
  slab->slabSizeShift = uint8_t(slabSizeShift);
  slab->chunkCount = ChunksPerSlab(slab->units, slabSizeShift);
  slab->freeCount = slab->chunkCount;
  slab->freeList = ChunkHeader(slab, 0, slab->units);
  ThreadChunks(slab);
  return PopChunkLocked(sizeClass, *slab) + 1;
}

void* AllocateSlow(uint32_t category, uint64_t sizeBytes, uint32_t slabSizeShift) {
  if (category >= QV_MEMORY_CATEGORIES) {
    LogFatalToolDefect("Memory was requested in category %u; categories run from 0 to 63", category);
  }
  if (slabSizeShift > 15) {
    LogFatalToolDefect("Memory was requested with slab size shift %u; shifts run from 0 to 15",
                       slabSizeShift);
  }
  if (sizeBytes > kLargestRequest) {
    LogFatalToolDefect("A memory request of %llu bytes is too large",
                       static_cast<unsigned long long>(sizeBytes));
  }
  if (LoadAcquire(g_heap.smallUnits) == 0) return AllocateEarly(uint32_t(sizeBytes));
  return AllocateLarge(UnitsFor(uint32_t(sizeBytes)));
}

// What is not an allocated small chunk: a large or an early block, a free chunk, or nothing of ours.
void ReleaseSlow(uint64_t* header, uint64_t word) {
  if (word == QV_LARGE_CHUNK_MARK) {
    if (g_heap.freeProc != nullptr) g_heap.freeProc(header);
  } else if (IsEarlyHeader(word)) {
    ReleaseEarlyBlock(header);
  } else if ((word & 1) != 0) {
    LogComment("Tried to free a memory chunk that has already been freed");
  } else {
    LogFatalToolDefect("An address was freed that the library did not allocate: %p",
                       static_cast<void*>(header + 1));
  }
}

namespace {

// The slab has one free chunk, or all of them free. The hook takes a slab back under the class lock.
void SettleSlabLocked(QV_SIZE_CLASS& sizeClass, QV_SLAB& slab, SizeClassGuard& guard) {
  if (slab.freeCount != slab.chunkCount) return PushSlabLocked(sizeClass, &slab);
  const bool onlyOne = sizeClass.firstSlab == &slab && slab.nextSlab == nullptr;
  if (onlyOne || g_heap.freeProc == nullptr) return;
  UnlinkSlabLocked(sizeClass, slab);
  CountSlabReleased(slab.category, SlabBytes(slab.slabSizeShift));
  guard.CallOut(g_heap.freeProc, &slab);
}

}  // namespace

void SettleSlabSlow(QV_SIZE_CLASS& sizeClass, QV_SLAB& slab) {
  SizeClassGuard guard(sizeClass.lock, Adopt());
  SettleSlabLocked(sizeClass, slab, guard);
}

void ReleaseBusySlow(QV_SIZE_CLASS& sizeClass, QV_SLAB& slab, uint64_t* header) {
  SizeClassGuard guard(sizeClass.lock);
  if (PushChunkLocked(slab, header)) SettleSlabLocked(sizeClass, slab, guard);
}

void* Allocate(uint32_t category, uint32_t sizeBytes, uint32_t slabSizeShift) {
  return AllocateInline(category, sizeBytes, slabSizeShift);
}

void Release(void* address) { ReleaseInline(address); }

const char* ValidateSizeClass(const QV_SIZE_CLASS& sizeClass, uint32_t category) {
  const QV_SLAB* previous = nullptr;
  for (const QV_SLAB* slab = sizeClass.firstSlab; slab != nullptr; slab = slab->nextSlab) {
    if (slab->previousSlab != previous) return "a slab's previous link is wrong";
    if (slab->magic != QV_SLAB_MAGIC) return "a slab has no magic";
    if (slab->category != category || slab->units != sizeClass.units) return "a slab is elsewhere";
    if (slab->chunkCount != ChunksPerSlab(slab->units, slab->slabSizeShift)) return "chunk count";
    if (slab->freeCount == 0) return "a full slab is on the list";
    const char* const first = reinterpret_cast<const char*>(slab);
    uint32_t count = 0;
    for (uint64_t word = reinterpret_cast<uint64_t>(slab->freeList); word != 0; count++) {
      const uint64_t offset = word - reinterpret_cast<uint64_t>(first) - 48;
      if (offset % (slab->units * 16) != 0) return "a free chunk is off the grid";
      if (offset / (slab->units * 16) >= slab->chunkCount) return "a free chunk is outside";
      if (count >= slab->chunkCount) return "the free list is a loop";
      const uint64_t link = *reinterpret_cast<const uint64_t*>(word);
      if ((link & 1) == 0) return "an allocated chunk is on the free list";
      word = link & ~uint64_t{1};
    }
    if (count != slab->freeCount) return "the free count is not the length of the free list";
    previous = slab;
  }
  return nullptr;
}

}  // namespace qv

void __QvInitializeSubAllocator(QV_ALLOCATE_PROC allocateProc, QV_FREE_PROC freeProc) {
  if (allocateProc == nullptr) return;
  const qv::GuardWord guard(qv::g_memoryInitialisationWord);
  if (qv::g_heap.smallUnits != 0) return;
  qv::g_heap.allocateProc = allocateProc;
  qv::g_heap.freeProc = freeProc;
  qv::InitializeMemoryLocks();
  qv::g_heap.classes = qv::MakeSizeClasses(allocateProc);
  qv::StoreRelease(qv::g_heap.smallUnits, uint32_t{QV_SIZE_CLASSES});
}

void* __QvMalloc(uint32_t category, uint32_t sizeBytes, uint32_t slabSizeShift) {
  return qv::AllocateInline(category, sizeBytes, slabSizeShift);
}

void __QvFree(void* address) { qv::ReleaseInline(address); }

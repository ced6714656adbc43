// The functions that stand in front of the program's allocator, and fclose (table.h). They ask it for
// exactly what the program asked for and hand on exactly what it answers; in between they count.
//
// A call that the collector itself caused (t_inside) is served by the arena and not counted. A block
// that we do not know is one of the arena, or it was made where we could not see: before the fork that
// made this process, by the collector, or by an allocator of its own that the program does not route
// through malloc.
#include <errno.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include "collectors/qvheap/blocks.h"
#include "collectors/qvheap/census.h"
#include "collectors/qvheap/heap.h"
#include "collectors/qvheap/pause.h"
#include "collectors/qvheap/profile.h"
#include "collectors/qvheap/table.h"

#define QVHEAP_EXPORT __attribute__((visibility("default")))

namespace qvheap {
namespace {

QVHEAP_INLINE ThreadRecord* Enter() {
  ThreadRecord* const me = t_counting;
  return QVHEAP_LIKELY(me != nullptr) ? me : EnterSlow();
}

// Where on the stack the program's call put the return address of the exported function that this is
// inlined into. It is worked out where it is used, on a slow path, from the stack pointer there; the
// assembler keeps the compiler from doing so early, and from keeping it in a register until then.
struct Here {
  QVHEAP_INLINE operator void**() const {
    void* cfa = __builtin_dwarf_cfa();
    __asm__ volatile("" : "+r"(cfa));
    return static_cast<void**>(cfa) - 1;
  }
};

// A block that has no code yet, or none, or that is not to be counted.
QVHEAP_COLD void* NoteSlow(ThreadRecord& me, void* block, uint64_t bytes, void** call) {
  if (IsPaused()) return block;
  if (block == nullptr) {
    Add(me.counts.figures[kFailedRequests], 1);
  } else if (!KeepSize(block, bytes)) {
    Add(me.counts.figures[kUnrecorded], 1);
  } else if (CountAllocation(me, bytes, BucketOf(bytes))) {
    return AllocatedSlow(me, block, bytes, call);
  }
  return block;
}

// The outcome of a request: counted if it was granted, and perhaps looked at. Whatever is not the
// common way ends in a function of its own, so that the wrappers save no registers for it. (Nothing
// begins in the first bytes of the address space, so a null block is one without a code.)
template <class Call>
QVHEAP_INLINE void* Note(ThreadRecord& me, void* block, uint64_t bytes, Call call) {
  uint8_t* const code = FindCodeUnlessPaused(block);
  if (QVHEAP_UNLIKELY(code == nullptr)) return NoteSlow(me, block, bytes, call);
  bool isSlow;
  if (IsShort(bytes)) {
    KeepShortSize(code, bytes);
    isSlow = CountAllocation(me, bytes, kShortBuckets.of[bytes]);
  } else {
    KeepLongSize(code, bytes);
    isSlow = CountAllocation(me, bytes, BucketOf(bytes));
  }
  return isSlow ? AllocatedSlow(me, block, bytes, call) : block;
}

// On the collector's own behalf, or while the real functions are being looked for.
QVHEAP_COLD void* AllocateInside(size_t bytes) {
  void* const block = ArenaAllocate(bytes);
  if (block != nullptr || g_real.calloc == nullptr) return block;
  return g_real.calloc(1, bytes);
}

QVHEAP_COLD void FreeInArena(void* block) {
  const Inside inside;
  ArenaFree(block);
}

// libc releases something of its own on the collector's behalf. It may be the program's all the same,
// made when libc worked for the program.
QVHEAP_COLD void FreeInside(void* block) {
  if (IsInArena(block)) return FreeInArena(block);
  ThreadRecord* const me = t_record;
  uint64_t bytes = TakeSize(block);
  if (bytes == kLookedAt && me != nullptr) bytes = ReleaseLookedAt(*me, block);
  if (bytes != kUnknownSize && me != nullptr) CountRelease(*me, bytes);
  g_real.free(block);
}

// The block was looked at.
QVHEAP_COLD void FreeLookedAt(ThreadRecord& me, void* block) {
  CountRelease(me, ReleaseLookedAt(me, block));
  g_real.free(block);
}

QVHEAP_COLD void FreeUnknown(ThreadRecord& me, void* block) {
  if (IsInArena(block)) return FreeInArena(block);
  Add(me.counts.figures[kUnknownReleases], 1);
  g_real.free(block);
}

// The block was counted.
QVHEAP_COLD void SettleAndFree(ThreadRecord& me, void* block) {
  Settle(me);
  g_real.free(block);
}

QVHEAP_INLINE void Free(ThreadRecord& me, void* block) {
  const uint64_t bytes = TakeSize(block);
  if (QVHEAP_UNLIKELY(bytes >= kLookedAt)) {
    return bytes == kLookedAt ? FreeLookedAt(me, block) : FreeUnknown(me, block);
  }
  if (CountReleaseOwing(me, bytes)) return SettleAndFree(me, block);
  g_real.free(block);
}

QVHEAP_COLD void FreeSlow(void* block) {
  ThreadRecord* const me = EnterSlow();
  return me != nullptr ? Free(*me, block) : FreeInside(block);
}

QVHEAP_COLD void* ReallocateInArena(void* block, size_t bytes) {
  void* const fresh = malloc(bytes);
  if (fresh == nullptr) return nullptr;
  const size_t former = ArenaBytesOf(block);
  memcpy(fresh, block, former < bytes ? former : bytes);
  FreeInArena(block);
  return fresh;
}

// By the collector: libc resizes or releases something of its own. A block that we had counted belongs
// to the program all the same.
QVHEAP_COLD void* ReallocateInside(void* block, size_t bytes) {
  if (block == nullptr) return AllocateInside(bytes);
  if (IsInArena(block)) return ReallocateInArena(block, bytes);
  uint64_t former = TakeSize(block);
  if (former == kLookedAt)
    former = ReleaseLookedAt(*t_record, block);  // only a thread with a record looks
  void* const moved = g_real.realloc(block, bytes);
  if (former != kUnknownSize && moved != nullptr) KeepSize(moved, former);  // the figures stay
  return moved;
}

// A block of `former` bytes, known or not, became one of `bytes` bytes, or nothing.
template <class Call>
QVHEAP_INLINE void NoteReallocation(ThreadRecord& me, uint64_t former, void* moved, uint64_t bytes,
                                    Call call) {
  if (QVHEAP_LIKELY(former != kUnknownSize)) {
    CountRelease(me, former);
  } else {
    Add(me.counts.figures[kUnknownReleases], 1);
  }
  if (moved == nullptr || IsPaused()) return;
  Add(me.counts.figures[kReallocations], 1);
  Note(me, moved, bytes, call);
}

// For the sites too, a realloc is a release of the old block and an allocation of the new one; but it
// may fail, and then it is neither.
QVHEAP_COLD void* ReallocateLookedAt(ThreadRecord& me, void* block, size_t bytes, void** call) {
  const Sight sight = TakeForReallocation(me, block);
  void* const moved = g_real.realloc(block, bytes);
  if (moved == nullptr && bytes != 0) {
    Add(me.counts.figures[kFailedRequests], 1);
    PutBack(me, block, sight);
    return nullptr;
  }
  CountTaken(me, sight);
  NoteReallocation(me, sight.bytes, moved, bytes, call);
  return moved;
}

QVHEAP_COLD void* AllocateSlow(size_t bytes, void** call) {
  ThreadRecord* const me = EnterSlow();
  if (me == nullptr) return AllocateInside(bytes);
  return Note(*me, g_real.malloc(bytes), bytes, call);
}

// On behalf of an exported function: malloc, where there is no block yet.
QVHEAP_INLINE void* Allocate(size_t bytes) {
  ThreadRecord* const me = t_counting;
  if (QVHEAP_UNLIKELY(me == nullptr)) return AllocateSlow(bytes, Here());
  return Note(*me, g_real.malloc(bytes), bytes, Here());
}

QVHEAP_INLINE void* Reallocate(void* block, size_t bytes) {
  if (block == nullptr) return Allocate(bytes);
  ThreadRecord* const me = Enter();
  if (QVHEAP_UNLIKELY(me == nullptr)) return ReallocateInside(block, bytes);
  const uint64_t former = TakeSize(block);
  if (QVHEAP_UNLIKELY(former == kLookedAt)) return ReallocateLookedAt(*me, block, bytes, Here());
  if (QVHEAP_UNLIKELY(former == kUnknownSize && IsInArena(block)))
    return ReallocateInArena(block, bytes);
  void* const moved = g_real.realloc(block, bytes);
  if (QVHEAP_UNLIKELY(moved == nullptr && bytes != 0)) {
    Add(me->counts.figures[kFailedRequests], 1);
    if (former != kUnknownSize) KeepSize(block, former);  // it is still there
    return nullptr;
  }
  NoteReallocation(*me, former, moved, bytes, Here());
  return moved;
}

// An aligned request; `real` makes it. None comes from the collector itself but by way of libc, which
// makes none for what we have it do; were it to, it would simply not be counted.
template <class Real>
QVHEAP_INLINE void* Aligned(size_t bytes, Real real) {
  ThreadRecord* const me = Enter();
  void* const block = real();
  return me != nullptr ? Note(*me, block, bytes, Here()) : block;
}

}  // namespace
}  // namespace qvheap

using namespace qvheap;

QVHEAP_EXPORT void* malloc(size_t bytes) noexcept { return Allocate(bytes); }

QVHEAP_EXPORT void* calloc(size_t count, size_t bytes) noexcept {
  size_t total;
  const bool overflows = __builtin_mul_overflow(count, bytes, &total);
  ThreadRecord* const me = Enter();
  if (QVHEAP_UNLIKELY(me == nullptr)) return overflows ? nullptr : AllocateInside(total);
  return Note(*me, g_real.calloc(count, bytes), total, Here());
}

QVHEAP_EXPORT void free(void* block) noexcept {
  if (block == nullptr) return;
  ThreadRecord* const me = t_counting;
  if (QVHEAP_UNLIKELY(me == nullptr)) return FreeSlow(block);
  Free(*me, block);
}

QVHEAP_EXPORT void* realloc(void* block, size_t bytes) noexcept { return Reallocate(block, bytes); }

QVHEAP_EXPORT void* reallocarray(void* block, size_t count, size_t bytes) noexcept {
  size_t total;
  if (!__builtin_mul_overflow(count, bytes, &total)) return Reallocate(block, total);
  if (ThreadRecord* const me = Enter()) Add(me->counts.figures[kFailedRequests], 1);
  errno = ENOMEM;
  return nullptr;
}

QVHEAP_EXPORT void* memalign(size_t alignment, size_t bytes) noexcept {
  return Aligned(bytes, [=] { return g_real.memalign(alignment, bytes); });
}

QVHEAP_EXPORT void* aligned_alloc(size_t alignment, size_t bytes) noexcept {
  return Aligned(bytes, [=] { return g_real.alignedAlloc(alignment, bytes); });
}

QVHEAP_EXPORT int posix_memalign(void** block, size_t alignment, size_t bytes) noexcept {
  int error = 0;
  void* fresh = nullptr;
  Aligned(bytes, [&] {
    error = g_real.posixMemalign(&fresh, alignment, bytes);
    return error == 0 ? fresh : nullptr;
  });
  if (error == 0) *block = fresh;
  return error;
}

QVHEAP_EXPORT void* valloc(size_t bytes) noexcept {
  return Aligned(bytes, [=] { return g_real.valloc(bytes); });
}

QVHEAP_EXPORT void* pvalloc(size_t bytes) noexcept {
  return Aligned(bytes, [=] { return g_real.pvalloc(bytes); });
}

QVHEAP_EXPORT int fclose(FILE* stream) {
  Enter();  // so that the real one is known
  if (stream == stderr && !t_inside) {
    const Inside inside;
    KeepStandardError();
  }
  return g_real.fclose(stream);
}

// The library's own locks, their order, and the scope guards that take them.
//
//   rank              lock                                  held while
//   kVirtualCheck     virtual-allocation check lock         a pre-check probes, pauses, probes again
//   kAllocator        allocator lock                        the allocate hook and collectors run
//   kSizeClass        lock of one size class                chunks move; a free hook takes a slab back
//   kStatistics       statistics lock                       figures change; the periodic dump
//   kLog              spin lock of the log's file           one entry is written; nothing is allocated
//
// A thread takes locks downwards in this table; the same rank again is allowed, since all of them are
// recursive. Debug builds hold a thread to it. The guard words (start-up, logger creation, memory
// initialisation) stand outside: nothing waits for a ranked lock while it holds the creation guard, for
// opening the log allocates nothing. Locks of XML files that tools hold around their own entries stand
// outside too, since tools may allocate inside them.
#pragma once

#include "runtime/spin_lock.h"

namespace qv {

enum class LockRank : uint8_t { kVirtualCheck, kAllocator, kSizeClass, kStatistics, kLog };

// Debug builds: aborts if the calling thread holds a lock of a higher rank. Identity 0 is not tracked.
void LockOrderEnter(LockRank rank);
void LockOrderLeave(LockRank rank);

template <LockRank kRank>
class SpinGuard : NonCopyable {
 public:
  QV_INLINE explicit SpinGuard(QV_SPIN_LOCK& lock) : lock_(lock) {
    if (kQvDebug) LockOrderEnter(kRank);
    hold_ = SpinAcquireKnowing(lock);
  }
  QV_INLINE ~SpinGuard() {
    SpinReleaseKnowing(lock_, hold_);
    if (kQvDebug) LockOrderLeave(kRank);
  }

 private:
  QV_SPIN_LOCK& lock_;
  Hold hold_;
};

// A brief hold (spin_lock.h) of a scope that calls nothing but by CallOut. A fast path that must not
// wait takes the lock by TryBriefly and either leaves it by LeaveBriefly or hands it to a guard that
// adopts it.
template <LockRank kRank>
QV_INLINE bool TryBriefly(QV_SPIN_LOCK& lock) {
  if (!SpinTryBriefly(lock)) return false;
  if (kQvDebug) LockOrderEnter(kRank);
  return true;
}

template <LockRank kRank>
QV_INLINE void LeaveBriefly(QV_SPIN_LOCK& lock) {
  SpinLeaveBriefly(lock);
  if (kQvDebug) LockOrderLeave(kRank);
}

struct Adopt {};

template <LockRank kRank>
class BriefGuard : NonCopyable {
 public:
  BriefGuard(QV_SPIN_LOCK& lock, Adopt) : lock_(lock), taken_(true) {}
  explicit BriefGuard(QV_SPIN_LOCK& lock) : lock_(lock), taken_(SpinTakeBriefly(lock)) {
    if (kQvDebug) LockOrderEnter(kRank);
  }
  ~BriefGuard() {
    if (taken_) SpinLeaveBriefly(lock_);
    if (kQvDebug) LockOrderLeave(kRank);
  }
  void CallOut(void (*proc)(void*), void* argument) {
    taken_ = SpinCallOut(lock_, taken_, proc, argument);
  }

 private:
  QV_SPIN_LOCK& lock_;
  bool taken_;
};

}  // namespace qv

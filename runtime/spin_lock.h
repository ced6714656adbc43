// Spin lock, inside view: the inlines behind the exported calls and behind the scope guards.
// The library takes its locks through this header, never through its own exported names.
//
// Invariants
//  (1) `state` is 0 or 1. 0->1 by compare-exchange; 1->0 by exchange, which for these two values does
//      what a compare-exchange would and is cheaper, or by a releasing store of a holder that knows it
//      holds the lock exactly once (the exchange could not fail there).
//  (2) `owner` and `recursionCount` are written only by the thread that moved `state` to 1: after that
//      exchange, before the one that frees it. Anyone may read `owner` at any time; a thread can find a
//      stale id there, but its own only while it holds the lock.
//  (3) Once the last release has completed, state, owner and recursionCount are all 0.
//  (4) Identity 0 (no hook) never writes: it waits until no identified thread holds the lock and
//      passes. Were it to count, a count would stay behind that no holder could undo.
//  (5) A brief hold, one of a scope that calls nothing, moves `state` alone: nobody can ask who holds the
//      lock, so it asks for no identity and serves identity 0 as well. Before it calls out it becomes a
//      hold with an owner.
// Ordering: each exchange is a full barrier, so `owner` needs no order of its own; the relaxed access
// only keeps it from tearing. Nothing here allocates or logs.
#pragma once

#include "runtime/checks.h"
#include "runtime/hooks.h"
#include "runtime/waiter.h"

namespace qv {

QV_COLD void SpinAcquireSlow(QV_SPIN_LOCK& lock, uint32_t me);  // returns holding it; not for id 0
QV_COLD void SpinWaitUntilFree(const QV_SPIN_LOCK& lock);       // the whole acquisition of identity 0

QV_INLINE void SpinOwn(QV_SPIN_LOCK& lock, uint64_t me) {
  StoreRelaxed(lock.owner, me);
  StoreRelaxed(lock.recursionCount, 1u);  // it was 0, by (3)
}

// True if the caller is inside already, or is nobody and passes.
QV_INLINE bool SpinReenter(QV_SPIN_LOCK& lock, uint64_t me) {
  if (QV_LIKELY(LoadRelaxed(lock.owner) != me)) return false;
  if (QV_LIKELY(me != 0)) StoreRelaxed(lock.recursionCount, lock.recursionCount + 1);
  return true;
}

QV_INLINE void SpinDisown(QV_SPIN_LOCK& lock) {
  StoreRelaxed(lock.recursionCount, 0u);
  StoreRelaxed(lock.owner, uint64_t{0});
}

QV_INLINE void SpinAcquire(QV_SPIN_LOCK& lock) {
  const uint32_t me = SelfId();
  if (SpinReenter(lock, me)) return;
  if (QV_LIKELY(me != 0 && TryExchange(lock.state, 1u, 0u))) return SpinOwn(lock, me);
  SpinAcquireSlow(lock, me);
}

QV_INLINE void SpinRelease(QV_SPIN_LOCK& lock) {
  if (QV_UNLIKELY(LoadRelaxed(lock.state) != 1)) return;
  const uint32_t count = LoadRelaxed(lock.recursionCount);
  if (QV_UNLIKELY(count > 1)) return StoreRelaxed(lock.recursionCount, count - 1);
  SpinDisown(lock);
  Exchange(lock.state, 0u);
}

QV_INLINE bool SpinIsMine(const QV_SPIN_LOCK& lock) {
  return LoadRelaxed(lock.state) == 1 && LoadRelaxed(lock.owner) == SelfId();
}

QV_INLINE void SpinInitialize(QV_SPIN_LOCK& lock, uint32_t spinCount) { lock = {0, 0, 0, spinCount}; }

// How an acquisition came about, for a holder that frees the lock by a store.
enum class Hold : uint8_t { kPassed, kNested, kOnce };

// For callers that take several locks: the hook is asked once, `me` is SelfId().
QV_INLINE Hold SpinAcquireKnowing(QV_SPIN_LOCK& lock, uint32_t me) {
  if (SpinReenter(lock, me)) return me == 0 ? Hold::kPassed : Hold::kNested;
  if (QV_LIKELY(me != 0 && TryExchange(lock.state, 1u, 0u))) {
    SpinOwn(lock, me);
    return Hold::kOnce;
  }
  SpinAcquireSlow(lock, me);
  return me == 0 ? Hold::kPassed : Hold::kOnce;
}

QV_INLINE Hold SpinAcquireKnowing(QV_SPIN_LOCK& lock) { return SpinAcquireKnowing(lock, SelfId()); }

// One attempt, no waiting: false if another thread holds the lock, and then nothing was done.
QV_INLINE bool SpinTryKnowing(QV_SPIN_LOCK& lock, uint32_t me, Hold& hold) {
  if (SpinReenter(lock, me)) {
    hold = me == 0 ? Hold::kPassed : Hold::kNested;
    return true;
  }
  if (me == 0 || !TryExchange(lock.state, 1u, 0u)) return false;
  SpinOwn(lock, me);
  hold = Hold::kOnce;
  return true;
}

// Whatever ran in between has released what it acquired, so the first acquisition is the last again.
QV_INLINE void SpinReleaseKnowing(QV_SPIN_LOCK& lock, Hold hold) {
  if (QV_LIKELY(hold == Hold::kOnce)) {
    SpinDisown(lock);
    StoreRelease(lock.state, 0u);  // pairs with the exchange of the next holder
  } else if (hold == Hold::kNested) {
    StoreRelaxed(lock.recursionCount, lock.recursionCount - 1);
  }
}

// Brief holds, by (5). An attempt that waits for nobody, and its end.
QV_INLINE bool SpinTryBriefly(QV_SPIN_LOCK& lock) { return TryExchange(lock.state, 1u, 0u); }
QV_INLINE void SpinLeaveBriefly(QV_SPIN_LOCK& lock) {
  StoreRelease(lock.state, 0u);  // pairs with the exchange of the next holder
}
// Waits. False if the caller held the lock with its name already: there is then nothing to leave.
QV_COLD bool SpinTakeBriefly(QV_SPIN_LOCK& lock);
// Calls proc(argument) from inside a brief hold, with an owner, so that the call may come back to the
// lock. Identity 0 has no name to come back under: the lock is free during the call and stays so. True
// if the lock is still taken.
QV_COLD bool SpinCallOut(QV_SPIN_LOCK& lock, bool taken, void (*proc)(void*), void* argument);

}  // namespace qv

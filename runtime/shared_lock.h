// Shared/exclusive lock, inside view.
//
//   one aligned 64-bit word:   | state (low half) | readerCount (high half) |
//
// Invariants
//  (1) state: 0 free, 1 shared, 2 exclusive. 0->1 by the first reader, 1->0 by the last one that
//      leaves, 0->2 and 2->0 by a writer; always by compare-exchange.
//  (2) readerCount counts threads in shared mode or on their way into it, so it may be above 0 while a
//      writer holds the lock; state 1 with readerCount above 0 cannot end.
//  (3) owner and recursionCount are written by the writer alone, between its two exchanges.
//  (4) Identity 0 writes nothing as a writer: it waits until there is no identified writer and passes.
//      Readers need no identity but to find that they are the writer, which cannot be while state is
//      not 2; so they ask for none while it is not. Without a thread-id hook they pass as writers do.
//  (5) A release that finds no reader counted changes nothing: shared access was given before the hook
//      was installed and is returned after it. Counted, it would leave a reader that never was, and so
//      a lock that never gets free.
//
// Readers count on the whole word, not on its half, so that one exchange counts them and changes the
// state: (0,0)->(1,1) for the first, (1,1)->(0,0) for the last, (1,n)->(1,n+1) between. These are the
// words that a count followed by a change of state would leave, with nothing in between that another
// thread could have used. A reader whose exchange fails does the two one after the other: an addition
// of 2^32 cannot fail however many readers there are, and tells the state at that same moment.
#pragma once

#include "runtime/checks.h"
#include "runtime/hooks.h"
#include "runtime/waiter.h"

namespace qv {

inline constexpr uint64_t kOneReader = uint64_t{1} << 32;
inline constexpr uint64_t kSharedByOne = kOneReader | 1;

QV_INLINE uint64_t& StateWord(QV_SHARED_EXCLUSIVE_LOCK& lock) {
  return *reinterpret_cast<uint64_t*>(&lock);
}

QV_COLD void ExclusiveAcquireSlow(QV_SHARED_EXCLUSIVE_LOCK& lock, uint32_t me);
QV_COLD void SharedAcquireSlow(QV_SHARED_EXCLUSIVE_LOCK& lock);
QV_COLD void SharedReleaseSlow(QV_SHARED_EXCLUSIVE_LOCK& lock);

QV_INLINE void ExclusiveOwn(QV_SHARED_EXCLUSIVE_LOCK& lock, uint64_t me) {
  StoreRelaxed(lock.writerWaiting, 0u);
  StoreRelaxed(lock.owner, me);
  StoreRelaxed(lock.recursionCount, 1u);
}

// True if the caller is the writer already, or is nobody and passes.
QV_INLINE bool ExclusiveReenter(QV_SHARED_EXCLUSIVE_LOCK& lock, uint64_t me) {
  if (QV_LIKELY(LoadRelaxed(lock.owner) != me)) return false;
  if (QV_LIKELY(me != 0)) StoreRelaxed(lock.recursionCount, lock.recursionCount + 1);
  return true;
}

// The calls named …As are for who takes several locks in a row and has asked for its id already.
QV_INLINE void ExclusiveAcquireAs(QV_SHARED_EXCLUSIVE_LOCK& lock, uint32_t me) {
  if (ExclusiveReenter(lock, me)) return;
  if (QV_LIKELY(me != 0 && TryExchange(lock.state, 2u, 0u))) return ExclusiveOwn(lock, me);
  ExclusiveAcquireSlow(lock, me);
}

QV_INLINE void ExclusiveAcquire(QV_SHARED_EXCLUSIVE_LOCK& lock) { ExclusiveAcquireAs(lock, SelfId()); }

// One attempt of a caller that does not wait at all; true if it now holds the lock.
QV_INLINE bool ExclusiveTryOnce(QV_SHARED_EXCLUSIVE_LOCK& lock) {
  const uint32_t me = SelfId();
  if (ExclusiveReenter(lock, me)) return true;
  if (me == 0 || !TryExchange(lock.state, 2u, 0u)) return false;
  ExclusiveOwn(lock, me);
  return true;
}

QV_INLINE void ExclusiveRelease(QV_SHARED_EXCLUSIVE_LOCK& lock) {
  if (QV_UNLIKELY(LoadRelaxed(lock.state) != 2)) return;
  const uint32_t count = LoadRelaxed(lock.recursionCount);
  if (QV_UNLIKELY(count > 1)) return StoreRelaxed(lock.recursionCount, count - 1);
  StoreRelaxed(lock.recursionCount, 0u);
  StoreRelaxed(lock.owner, uint64_t{0});
  TryExchange(lock.state, 0u, 2u);
}

QV_INLINE bool ExclusiveIsMine(const QV_SHARED_EXCLUSIVE_LOCK& lock) {
  return LoadRelaxed(lock.state) == 2 && LoadRelaxed(lock.owner) == SelfId();
}

QV_INLINE void SharedAcquire(QV_SHARED_EXCLUSIVE_LOCK& lock) {
  const uint64_t word = LoadRelaxed(StateWord(lock));
  if (QV_UNLIKELY(!HasThreadIds() || uint32_t(word) == 2 || LoadRelaxed(lock.writerWaiting) != 0 ||
                  !TryExchange(StateWord(lock), (word + kOneReader) | 1, word))) {
    SharedAcquireSlow(lock);
  }
}

QV_INLINE void SharedRelease(QV_SHARED_EXCLUSIVE_LOCK& lock) {
  const uint64_t word = LoadRelaxed(StateWord(lock));
  const uint64_t others = word - kOneReader;
  const uint64_t left = others == 1 ? 0 : others;
  if (QV_UNLIKELY(!HasThreadIds() || uint32_t(word) != 1 || word < kOneReader ||
                  !TryExchange(StateWord(lock), left, word))) {
    SharedReleaseSlow(lock);
  }
}

QV_INLINE void SharedInitialize(QV_SHARED_EXCLUSIVE_LOCK& lock, uint32_t spinCount) {
  lock = {0, 0, 0, 0, 0, spinCount};
}

}  // namespace qv

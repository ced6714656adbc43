// Shared/exclusive lock: the waiting paths and the exported calls. Design: runtime/shared_lock.h.
#include "runtime/shared_lock.h"

static_assert(sizeof(QV_SHARED_EXCLUSIVE_LOCK) == 32 && alignof(QV_SHARED_EXCLUSIVE_LOCK) == 8);
static_assert(offsetof(QV_SHARED_EXCLUSIVE_LOCK, state) == 0 &&
              offsetof(QV_SHARED_EXCLUSIVE_LOCK, readerCount) == 4);
static_assert(offsetof(QV_SHARED_EXCLUSIVE_LOCK, owner) == 8 &&
              offsetof(QV_SHARED_EXCLUSIVE_LOCK, writerWaiting) == 16);
static_assert(offsetof(QV_SHARED_EXCLUSIVE_LOCK, recursionCount) == 20 &&
              offsetof(QV_SHARED_EXCLUSIVE_LOCK, spinCount) == 24);

namespace {

// Identity 0: wait until no identified writer is inside, then pass.
void WaitUntilUnowned(const QV_SHARED_EXCLUSIVE_LOCK& lock) {
  qv::Waiter waiter(lock.spinCount);
  while (qv::LoadRelaxed(lock.owner) != 0) waiter.Spin();
}

bool CallerIsWriter(const QV_SHARED_EXCLUSIVE_LOCK& lock) {
  const uint64_t owner = qv::LoadRelaxed(lock.owner);
  return owner != 0 && owner == qv::SelfId();
}

bool ExclusiveTryTake(QV_SHARED_EXCLUSIVE_LOCK& lock, uint32_t budget) {
  if (budget == 0 || qv::LoadRelaxed(__qvNumberOfProcessors) == 1) {
    return qv::TryExchange(lock.state, 2u, 0u);
  }
  do {
    if (qv::LoadRelaxed(lock.state) == 0 && qv::TryExchange(lock.state, 2u, 0u)) return true;
    __builtin_ia32_pause();
  } while (--budget != 0);
  return false;
}

}  // namespace

void qv::ExclusiveAcquireSlow(QV_SHARED_EXCLUSIVE_LOCK& lock, uint32_t me) {
  if (me == 0) return WaitUntilUnowned(lock);
  Waiter waiter(lock.spinCount);
  do {
    while (LoadRelaxed(lock.state) != 0) {
      // Another writer's acquisition clears the word, so each probe may have to set it again.
      if (LoadRelaxed(lock.writerWaiting) == 0) StoreRelaxed(lock.writerWaiting, 1u);
      if (!waiter.Spin()) break;
    }
  } while (!TryExchange(lock.state, 2u, 0u));
  ExclusiveOwn(lock, me);
}

void qv::SharedAcquireSlow(QV_SHARED_EXCLUSIVE_LOCK& lock) {
  if (!HasThreadIds()) return WaitUntilUnowned(lock);
  if (CallerIsWriter(lock)) return;
  Waiter waiter(lock.spinCount);
  while (LoadRelaxed(lock.writerWaiting) == 1) waiter.Spin();
  const uint64_t before = FetchAdd(StateWord(lock), kOneReader);
  if (uint32_t(before) == 1) return;  // shared when we were counted, so it stays shared, by (2)
  waiter.Reset();
  do {
    while (LoadRelaxed(lock.state) == 2 && waiter.Spin()) {
    }
  } while (CompareExchange(lock.state, 1u, 0u) == 2);
}

void qv::SharedReleaseSlow(QV_SHARED_EXCLUSIVE_LOCK& lock) {
  if (!HasThreadIds() || CallerIsWriter(lock)) return;  // matches the two ways to pass above
  if (LoadRelaxed(lock.readerCount) == 0) return;       // by (5); who was counted never sees a 0
  const uint64_t before = FetchAdd(StateWord(lock), -kOneReader);
  if (before == kSharedByOne) TryExchange(StateWord(lock), uint64_t{0}, uint64_t{1});
}

void __QvInitializeSharedExclusiveLock(QV_SHARED_EXCLUSIVE_LOCK* lock) {
  qv::SharedInitialize(*lock, 0);
}

void __QvInitializeSharedExclusiveLockAndSpinCount(QV_SHARED_EXCLUSIVE_LOCK* lock, uint32_t spinCount) {
  qv::SharedInitialize(*lock, spinCount);
}

void __QvAcquireExclusiveLock(QV_SHARED_EXCLUSIVE_LOCK* lock) { qv::ExclusiveAcquire(*lock); }

uint32_t __QvTryToAcquireExclusiveLock(QV_SHARED_EXCLUSIVE_LOCK* lock, uint32_t budget) {
  const uint32_t me = qv::SelfId();
  if (qv::ExclusiveReenter(*lock, me)) return 1;
  if (me == 0 || !ExclusiveTryTake(*lock, budget)) return 0;
  qv::ExclusiveOwn(*lock, me);
  return 1;
}

void __QvReleaseExclusiveLock(QV_SHARED_EXCLUSIVE_LOCK* lock) { qv::ExclusiveRelease(*lock); }

uint32_t __QvIsExclusiveLockAcquiredByCallingThread(const QV_SHARED_EXCLUSIVE_LOCK* lock) {
  return qv::ExclusiveIsMine(*lock);
}

void __QvAcquireSharedLock(QV_SHARED_EXCLUSIVE_LOCK* lock) { qv::SharedAcquire(*lock); }

void __QvReleaseSharedLock(QV_SHARED_EXCLUSIVE_LOCK* lock) { qv::SharedRelease(*lock); }

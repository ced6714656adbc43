// Spin lock: the waiting path and the exported calls. Design: runtime/spin_lock.h.
#include "runtime/spin_lock.h"

static_assert(sizeof(QV_SPIN_LOCK) == 24 && alignof(QV_SPIN_LOCK) == 8);
static_assert(offsetof(QV_SPIN_LOCK, owner) == 0 && offsetof(QV_SPIN_LOCK, state) == 8);
static_assert(offsetof(QV_SPIN_LOCK, recursionCount) == 12 && offsetof(QV_SPIN_LOCK, spinCount) == 16);

namespace {

// Who holds a lock briefly is out before a yield would have returned, unless it was interrupted; so the
// wait is longer than that before the first yield, whatever the record's own count.
constexpr uint32_t kBriefSpinCount = 100;

void WaitAndTake(QV_SPIN_LOCK& lock, uint32_t spinCount) {
  qv::Waiter waiter(spinCount);
  do {
    while (qv::LoadRelaxed(lock.state) != 0 && waiter.Spin()) {
    }
  } while (!qv::TryExchange(lock.state, 1u, 0u));
}

}  // namespace

void qv::SpinWaitUntilFree(const QV_SPIN_LOCK& lock) {
  Waiter waiter(lock.spinCount);
  while (LoadRelaxed(lock.owner) != 0) waiter.Spin();
}

void qv::SpinAcquireSlow(QV_SPIN_LOCK& lock, uint32_t me) {
  if (me == 0) return SpinWaitUntilFree(lock);
  WaitAndTake(lock, lock.spinCount);
  SpinOwn(lock, me);
}

bool qv::SpinTakeBriefly(QV_SPIN_LOCK& lock) {
  const uint32_t me = SelfId();
  if (me != 0 && LoadRelaxed(lock.owner) == me) return false;
  WaitAndTake(lock, kBriefSpinCount);
  return true;
}

bool qv::SpinCallOut(QV_SPIN_LOCK& lock, bool taken, void (*proc)(void*), void* argument) {
  const uint32_t me = taken ? SelfId() : 0;
  if (me != 0) SpinOwn(lock, me);
  if (taken && me == 0) StoreRelease(lock.state, 0u);
  proc(argument);
  if (me != 0) SpinDisown(lock);
  return me != 0;
}

namespace {

// The attempts of a bounded acquisition: each probe costs 1 of the budget, whether it finds the lock
// busy or loses the exchange.
bool SpinTryTake(QV_SPIN_LOCK& lock, uint32_t budget) {
  if (budget == 0 || qv::LoadRelaxed(__qvNumberOfProcessors) == 1) {
    return qv::TryExchange(lock.state, 1u, 0u);
  }
  do {
    if (qv::LoadRelaxed(lock.state) == 0 && qv::TryExchange(lock.state, 1u, 0u)) return true;
    __builtin_ia32_pause();
  } while (--budget != 0);
  return false;
}

}  // namespace

void __QvInitializeSpinLock(QV_SPIN_LOCK* lock) { qv::SpinInitialize(*lock, 0); }

void __QvInitializeSpinLockAndSpinCount(QV_SPIN_LOCK* lock, uint32_t spinCount) {
  qv::SpinInitialize(*lock, spinCount);
}

void __QvAcquireSpinLock(QV_SPIN_LOCK* lock) { qv::SpinAcquire(*lock); }

uint32_t __QvTryToAcquireSpinLock(QV_SPIN_LOCK* lock, uint32_t budget) {
  const uint32_t me = qv::SelfId();
  if (qv::SpinReenter(*lock, me)) return 1;
  if (me == 0 || !SpinTryTake(*lock, budget)) return 0;
  qv::SpinOwn(*lock, me);
  return 1;
}

void __QvReleaseSpinLock(QV_SPIN_LOCK* lock) { qv::SpinRelease(*lock); }

uint32_t __QvIsSpinLockInAcquiredState(const QV_SPIN_LOCK* lock) {
  return qv::LoadRelaxed(lock->state) == 1;
}

uint32_t __QvIsSpinLockAcquiredByCallingThread(const QV_SPIN_LOCK* lock) {
  return qv::SpinIsMine(*lock);
}

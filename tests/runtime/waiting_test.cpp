// How waiters wait: probes and yields, counted. And the order of the library's own locks.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "runtime/lock_order.h"
#include "tests/runtime/lock_flavours.h"
#include "tests/support/child.h"
#include "tests/support/interpose.h"
#include "tests/support/threads.h"

using namespace qvtest;

// Faults: one probe too many or too few between two yields, a count that restarts after a yield of the
// second phase, a single processor that spins.
TEST(Waiting, YieldsOncePerSpinCountBusyProbes) {
  const ChildResult child = RunChild([] {
    g_onYield = [] {};
    __qvNumberOfProcessors = 2;
    for (const uint32_t spinCount : {0u, 1u, 2u, 500u}) {
      const uint32_t probesPerYield = spinCount == 0 ? 1 : spinCount;
      qv::Waiter waiter(spinCount);
      t_yields = 0;
      for (uint32_t probe = 1; probe <= 10 * probesPerYield; probe++) {
        CHECK_EQ(waiter.Spin(), probe % probesPerYield != 0);
        CHECK_EQ(t_yields, probe / probesPerYield);
      }
    }
    __qvNumberOfProcessors = 1;
    qv::Waiter waiter(500);
    for (int probe = 0; probe < 10; probe++) CHECK(!waiter.Spin());
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

namespace {

template <class Flavour>
void CheckYieldsUntilFreed(uint32_t yieldsBefore, int32_t processors, uint32_t spinCount) {
  __qvNumberOfProcessors = processors;
  typename Flavour::Lock lock = {};
  Flavour::initialize(&lock, spinCount);
  lock.state = Flavour::kHeld;
  lock.owner = 77;
  lock.recursionCount = 1;
  t_yields = 0;
  g_onYield = [&] {
    if constexpr (std::is_same_v<Flavour, Exclusive>) CHECK_EQ(lock.writerWaiting, 1u);
    if (t_yields == yieldsBefore) Flavour::release(&lock);
  };
  Flavour::acquire(&lock);
  CHECK_EQ(t_yields, yieldsBefore);
  typename Flavour::Lock expected = {};
  expected.state = Flavour::kHeld;
  expected.owner = uint32_t(t_threadId);
  expected.recursionCount = 1;
  expected.spinCount = spinCount;
  CHECK(Same(lock, expected));
}

}  // namespace

// Faults: a probe that spins where it must yield, an attempt of bounded length that yields, readers
// that are counted before the waiting writer is through.
TEST(Waiting, EveryBusyProbeYieldsWithoutASpinCountOrASecondProcessor) {
  const ChildResult child = RunChild([] {
    UseThreadIds();
    for (uint32_t yields = 1; yields < 8; yields++) {
      CheckYieldsUntilFreed<Spin>(yields, 4, 0);
      CheckYieldsUntilFreed<Spin>(yields, 1, 0xFFFFFFFF);
      CheckYieldsUntilFreed<Exclusive>(yields, 4, 0);
      CheckYieldsUntilFreed<Exclusive>(yields, 1, 0xFFFFFFFF);
    }
    // A reader behind a waiting writer: not counted until that one is in, then counted but held back.
    QV_SHARED_EXCLUSIVE_LOCK lock = {1, 1, 0, 1, 0, 0};
    t_yields = 0;
    g_onYield = [&] {
      CHECK_EQ(lock.readerCount, t_yields <= 3 ? 1u : 2u);
      if (t_yields == 3) lock = {2, 1, 77, 0, 1, 0};
      if (t_yields == 5) __QvReleaseExclusiveLock(&lock);
    };
    __QvAcquireSharedLock(&lock);
    CHECK_EQ(t_yields, 5u);
    CHECK(Same(lock, QV_SHARED_EXCLUSIVE_LOCK{1, 2, 0, 0, 0, 0}));

    g_onYield = [] { FailCheck(__FILE__, __LINE__, "a yield where none is due"); };
    QV_SPIN_LOCK spin = {77, 1, 1, 0};
    lock = {2, 0, 77, 0, 1, 0};
    for (const uint32_t budget : {0u, 1u, 5u, 100u}) {
      CHECK_EQ(__QvTryToAcquireSpinLock(&spin, budget), 0u);
      CHECK_EQ(__QvTryToAcquireExclusiveLock(&lock, budget), 0u);
    }
    __qvNumberOfProcessors = 1;  // one attempt whatever the budget
    CHECK_EQ(__QvTryToAcquireSpinLock(&spin, 0xFFFFFFFF), 0u);
    CHECK_EQ(__QvTryToAcquireExclusiveLock(&lock, 0xFFFFFFFF), 0u);
    CHECK(Same(spin, QV_SPIN_LOCK{77, 1, 1, 0}));
    CHECK(Same(lock, QV_SHARED_EXCLUSIVE_LOCK{2, 0, 77, 0, 1, 0}));
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

// Fault: the lock's spin count, or the budget, is not what the waiting goes by.
TEST(Waiting, ALargeSpinCountOrBudgetWaitsWithoutAYield) {
  const ChildResult child = RunChild([] {
    UseThreadIds();
    __qvNumberOfProcessors = 4;
    QV_SPIN_LOCK spin = {0, 0, 0, 0xFFFFFFFF};
    QV_SHARED_EXCLUSIVE_LOCK shared = {0, 0, 0, 0, 0, 0xFFFFFFFF};
    const std::function<void()> waits[] = {
        [&] { __QvAcquireSpinLock(&spin); },
        [&] { CHECK_EQ(__QvTryToAcquireSpinLock(&spin, 0xFFFFFFFF), 1u); },
        [&] { __QvAcquireExclusiveLock(&shared); },
        [&] { CHECK_EQ(__QvTryToAcquireExclusiveLock(&shared, 0xFFFFFFFF), 1u); },
        [&] { __QvAcquireSharedLock(&shared); }};
    for (const auto& wait : waits) {
      __QvInitializeSpinLockAndSpinCount(&spin, 0xFFFFFFFF);
      __QvInitializeSharedExclusiveLockAndSpinCount(&shared, 0xFFFFFFFF);
      __QvAcquireSpinLock(&spin);
      __QvAcquireExclusiveLock(&shared);
      std::thread other([&] {
        wait();
        CHECK_EQ(t_yields, 0u);
      });
      usleep(5000);
      __QvReleaseSpinLock(&spin);
      __QvReleaseExclusiveLock(&shared);
      other.join();
    }
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

// Faults: an order that is not enforced, one that forbids nesting or sees another thread's locks, a
// guard that frees a lock its caller still holds.
TEST(LockOrder, ADebugBuildAbortsOnAnInversionOnly) {
  using qv::LockRank;
  using qv::SpinGuard;
  const ChildResult orderly = RunChild([] {
    UseThreadIds();
    QV_SPIN_LOCK allocator = {}, statistics = {}, log = {};
    {
      const SpinGuard<LockRank::kAllocator> outer(allocator);
      const SpinGuard<LockRank::kStatistics> middle(statistics);
      RunThreads(1, [&](int) { const SpinGuard<LockRank::kLog> guard(log); });
      {
        const SpinGuard<LockRank::kLog> inner(log);
        const SpinGuard<LockRank::kLog> again(log);
      }
      CHECK(Same(log, QV_SPIN_LOCK{}));
      const SpinGuard<LockRank::kStatistics> nested(statistics);
      RunThreads(1, [&](int) {
        const SpinGuard<LockRank::kVirtualCheck> guard(log);
        CHECK_EQ(__QvTryToAcquireSpinLock(&statistics, 0), 0u);
      });
    }
    CHECK(Same(allocator, QV_SPIN_LOCK{}) && Same(statistics, QV_SPIN_LOCK{}));
    const SpinGuard<LockRank::kVirtualCheck> outermost(allocator);
  });
  EXPECT_TRUE(orderly.Ok()) << orderly.err;
  const ChildResult inverted = RunChild([] {
    UseThreadIds();
    QV_SPIN_LOCK statistics = {}, allocator = {};
    const SpinGuard<LockRank::kStatistics> outer(statistics);
    const SpinGuard<LockRank::kAllocator> inner(allocator);
  });
  EXPECT_EQ(inverted.status, kQvDebug ? 128 + SIGABRT : 0);
  EXPECT_EQ(inverted.err.find("locks are taken out of order") != std::string::npos, kQvDebug);
}

// Spin locks, shared/exclusive locks, the waiting policy, and the order of the library's own locks.
//
// Who a thread is comes from a hook, so one thread can play several (t_threadId): the random runs
// against a model and the exact counts of yields need no second thread. Exclusion is shown on plain
// data by four.
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <optional>
#include <random>

#include "runtime/atomics.h"
#include "tests/runtime/lock_flavours.h"
#include "tests/support/child.h"
#include "tests/support/interpose.h"
#include "tests/support/threads.h"

using namespace qvtest;

namespace {

// What the record must hold after each call: the rules, without threads. The low half of an id counts;
// identity 0 changes nothing but the count of readers, who need no identity.
template <class Flavour>
struct Model {
  typename Flavour::Lock lock = {};

  std::optional<bool> Try(uint32_t me) {  // nothing: a blocking call would wait
    if (lock.owner == me) {
      lock.recursionCount += me != 0;
      return true;
    }
    if (me == 0 || lock.state != 0) return std::nullopt;
    lock.state = Flavour::kHeld;
    lock.owner = me;
    lock.recursionCount++;
    if constexpr (std::is_same_v<Flavour, Exclusive>) lock.writerWaiting = 0;
    return true;
  }
  void Release() {
    if (lock.state != Flavour::kHeld) return;
    if (lock.recursionCount > 1) {
      lock.recursionCount--;
      return;
    }
    lock.recursionCount = 0;
    lock.owner = 0;
    lock.state = 0;
  }
  bool TryShared(uint32_t me) {  // false: it would wait
    if (me != 0 && lock.owner == me) return true;
    if (lock.writerWaiting == 1 || lock.state == 2) return false;
    lock.readerCount++;
    lock.state = 1;
    return true;
  }
  void ReleaseShared(uint32_t me) {
    if ((me != 0 && lock.owner == me) || lock.readerCount == 0) return;
    lock.readerCount--;
    if (lock.state == 1 && lock.readerCount == 0) lock.state = 0;
  }
};

uint32_t g_idReads = 0;

void PlayThreads() {
  __QvSetGetNativeThreadIdProc([] { return g_idReads++, t_threadId; });
  __qvNumberOfProcessors = 4;
  g_onYield = [] { FailCheck(__FILE__, __LINE__, "a yield where none is due"); };
}

// One operation of the current thread on the lock and on the model; the queries after it.
template <class Flavour>
void Step(typename Flavour::Lock& lock, Model<Flavour>& model, std::mt19937& random) {
  const uint32_t me = uint32_t(t_threadId);
  g_idReads = 0;
  switch (random() % 4) {
    case 0: {
      const uint32_t budget = uint32_t(random() % 8);
      CHECK_EQ(Flavour::tryToAcquire(&lock, budget), uint32_t(model.Try(me).value_or(false)));
      break;
    }
    case 1:
      if (model.Try(me)) Flavour::acquire(&lock);
      break;
    default:
      Flavour::release(&lock);
      model.Release();
      CHECK_EQ(g_idReads, 0u);
  }
  CHECK(g_idReads <= 1);
  CHECK(Same(lock, model.lock));
  const bool held = lock.state == Flavour::kHeld;
  CHECK_EQ(Flavour::isMine(&lock), uint32_t(held && lock.owner == me));
  if constexpr (std::is_same_v<Flavour, Spin>)
    CHECK_EQ(__QvIsSpinLockInAcquiredState(&lock), lock.state);
}

void SharedStep(QV_SHARED_EXCLUSIVE_LOCK& lock, Model<Exclusive>& model, std::mt19937& random) {
  if (random() % 2 == 0) return Step<Exclusive>(lock, model, random);
  const uint32_t me = uint32_t(t_threadId);
  g_idReads = 0;
  if (random() % 16 == 0) {  // as a waiting writer leaves it; held back readers would wait
    lock.writerWaiting = model.lock.writerWaiting = 1;
  } else if (random() % 2 == 0) {
    if (model.TryShared(me)) __QvAcquireSharedLock(&lock);
  } else {
    __QvReleaseSharedLock(&lock);
    model.ReleaseShared(me);
  }
  CHECK(g_idReads <= 1);
  CHECK(Same(lock, model.lock));
}

template <class Flavour>
void RunAgainstModel(uint32_t seed,
                     void (*step)(typename Flavour::Lock&, Model<Flavour>&, std::mt19937&)) {
  std::mt19937 random(seed);
  typename Flavour::Lock lock;
  memset(&lock, 0xA5, sizeof lock);
  Model<Flavour> model;
  model.lock.spinCount = uint32_t(random());
  Flavour::initialize(&lock, model.lock.spinCount);
  CHECK(Same(lock, model.lock));
  for (int i = 0; i < 20000; i++) {
    __qvNumberOfProcessors = random() % 4 == 0 ? 1 : 4;
    // Mostly the same thread, so that nesting gets deep; id 0 has bits in its upper half.
    if (random() % 4 == 0) t_threadId = 0xB1660000'00000000 + random() % 4;
    step(lock, model, random);
  }
}

}  // namespace

// Faults: a count that identity 0 leaves behind, an owner of 64 bits, state freed before or without the
// owner, a release on the wrong state, a nested acquisition that exchanges, the last reader staying.
TEST(Locks, EveryCallLeavesTheRecordOfTheModel) {
  for (uint32_t seed = 1; seed <= 10; seed++) {
    const ChildResult child = RunChild([seed] {
      PlayThreads();
      RunAgainstModel<Spin>(seed, Step<Spin>);
      RunAgainstModel<Exclusive>(seed, SharedStep);
    });
    ASSERT_TRUE(child.Ok()) << "seed " << seed << "\n" << child.err;
  }
  QV_SPIN_LOCK spin = {1, 0, 3, 4};  // free, whatever the other fields say
  __QvReleaseSpinLock(&spin);
  EXPECT_TRUE(Same(spin, QV_SPIN_LOCK{1, 0, 3, 4}));
  __QvInitializeSpinLock(&spin);
  EXPECT_TRUE(Same(spin, QV_SPIN_LOCK{}));
  QV_SHARED_EXCLUSIVE_LOCK shared = {1, 2, 3, 4, 5, 6};
  __QvInitializeSharedExclusiveLock(&shared);
  EXPECT_TRUE(Same(shared, QV_SHARED_EXCLUSIVE_LOCK{}));
}

// Faults: a lock visited without ids stays held; access given without an id is taken from the count of
// readers when it is returned with one.
TEST(Locks, VisitedBeforeTheThreadIdHookTheyWorkAfterwards) {
  const ChildResult child = RunChild([] {
    g_onYield = [] { FailCheck(__FILE__, __LINE__, "a yield where none is due"); };
    QV_SPIN_LOCK spin = {0, 0, 0, 9};
    QV_SHARED_EXCLUSIVE_LOCK shared = {0, 0, 0, 0, 0, 9};
    for (int i = 0; i < 3; i++) {
      __QvAcquireSpinLock(&spin);
      CHECK_EQ(__QvTryToAcquireSpinLock(&spin, 5), 1u);
      __QvAcquireExclusiveLock(&shared);
      CHECK_EQ(__QvTryToAcquireExclusiveLock(&shared, 5), 1u);
      __QvAcquireSharedLock(&shared);
      CHECK(Same(spin, QV_SPIN_LOCK{0, 0, 0, 9}));
      CHECK(Same(shared, QV_SHARED_EXCLUSIVE_LOCK{0, 0, 0, 0, 0, 9}));
    }
    CHECK_EQ(__QvIsSpinLockAcquiredByCallingThread(&spin), 0u);
    UseThreadIds();
    __QvReleaseSpinLock(&spin);
    __QvReleaseExclusiveLock(&shared);
    __QvReleaseSharedLock(&shared);
    RunThreads(1, [&](int) {
      __QvAcquireSpinLock(&spin);
      __QvAcquireExclusiveLock(&shared);
      __QvReleaseExclusiveLock(&shared);
      __QvAcquireSharedLock(&shared);
    });
    CHECK_EQ(__QvTryToAcquireSpinLock(&spin, 0), 0u);
    CHECK_EQ(__QvTryToAcquireExclusiveLock(&shared, 0), 0u);
    __QvReleaseSharedLock(&shared);
    CHECK_EQ(__QvTryToAcquireExclusiveLock(&shared, 0), 1u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

namespace {

constexpr int kThreads = 4;
constexpr uint32_t kRounds = 5000;

// Quick, so that threads meet at the lock rather than at their own random numbers.
struct Random {
  uint32_t state;
  uint32_t operator()() { return (state = state * 1664525 + 1013904223) >> 16; }
};

// Written only by an owner, and equal whenever nobody is inside.
struct Guarded {
  uint64_t first = 0, second = 0;
  void Change(uint32_t random) {
    CHECK_EQ(first, second);
    first++;
    if (random % 64 == 1) std::this_thread::yield();
    second++;
  }
};

template <class Flavour>
void CheckExclusion(uint32_t spinCount, int32_t processors) {
  __qvNumberOfProcessors = processors;
  typename Flavour::Lock lock = {};
  Flavour::initialize(&lock, spinCount);
  const auto pristine = lock;
  Guarded data;
  std::atomic<uint64_t> visits{0};
  RunThreads(kThreads, [&](int thread) {
    Random random{uint32_t(thread)};
    for (uint32_t i = 0; i < 4 * kRounds; i++) {  // little but the lock
      Flavour::acquire(&lock);
      data.Change(random());
      Flavour::release(&lock);
    }
    for (uint32_t i = 0; i < kRounds; i++) {
      if (random() % 4 != 0) {
        Flavour::acquire(&lock);
      } else if (Flavour::tryToAcquire(&lock, random() % 8) == 0) {
        continue;
      }
      const uint32_t nested = random() % 3;
      for (uint32_t n = 0; n < nested; n++) {
        if (random() % 2 == 0)
          Flavour::acquire(&lock);
        else
          CHECK_EQ(Flavour::tryToAcquire(&lock, 0), 1u);
      }
      CHECK_EQ(Flavour::isMine(&lock), 1u);
      CHECK_EQ(lock.recursionCount, nested + 1);
      data.Change(random());
      visits++;
      for (uint32_t n = 0; n <= nested; n++) Flavour::release(&lock);
      CHECK_EQ(Flavour::isMine(&lock), 0u);
    }
  });
  CHECK_EQ(data.first, visits + uint64_t{4} * kRounds * kThreads);
  CHECK(Same(lock, pristine));
}

}  // namespace

// Faults: two inside at once, a nested hold that frees too early, a lost release.
TEST(Locks, FourThreadsExcludeOneAnother) {
  for (const uint32_t spinCount : {0u, 1u, 500u}) {
    const ChildResult child = RunChild([=] {
      UseThreadIds();
      const int32_t processors = spinCount == 1 ? 1 : 2;
      CheckExclusion<Spin>(spinCount, processors);
      CheckExclusion<Exclusive>(spinCount, processors);
    });
    ASSERT_TRUE(child.Ok()) << spinCount << "\n" << child.err;
  }
}

// Faults: a reader beside a writer, a last reader that does not free the lock, a writer starved of its
// turn for ever (the run would not end), a record that does not come back to rest.
TEST(SharedLock, ReadersAndWritersSeeConsistentDataAndLeaveTheLockAtRest) {
  for (const uint32_t spinCount : {0u, 20u, 500u}) {
    const ChildResult child = RunChild([=] {
      UseThreadIds();
      __qvNumberOfProcessors = 2;
      QV_SHARED_EXCLUSIVE_LOCK lock = {0, 0, 0, 0, 0, spinCount};
      Guarded data;
      std::atomic<uint64_t> changes{0};
      RunThreads(kThreads, [&](int thread) {
        Random random{uint32_t(thread) + spinCount};
        for (uint32_t i = 0; i < kRounds; i++) {
          if (random() % 4 != 0) {
            __QvAcquireSharedLock(&lock);
            const uint64_t seen = data.first;
            if (random() % 16 == 0) std::this_thread::yield();
            CHECK_EQ(seen, data.second);
            __QvReleaseSharedLock(&lock);
            continue;
          }
          if (random() % 2 == 0)
            __QvAcquireExclusiveLock(&lock);
          else if (__QvTryToAcquireExclusiveLock(&lock, random() % 8) == 0)
            continue;
          __QvAcquireSharedLock(&lock);  // inside: a no-op
          data.Change(random());
          __QvReleaseSharedLock(&lock);
          changes++;
          __QvReleaseExclusiveLock(&lock);
        }
      });
      CHECK_EQ(data.first, uint64_t{changes});
      CHECK(Same(lock, QV_SHARED_EXCLUSIVE_LOCK{0, 0, 0, 0, 0, spinCount}));
    });
    ASSERT_TRUE(child.Ok()) << spinCount << "\n" << child.err;
  }
}

// Fault: a third reader that slips in between the readers inside and the writer that waits for them.
TEST(SharedLock, AWaitingWriterIsServedBeforeNewReaders) {
  const ChildResult child = RunChild([] {
    UseThreadIds();
    QV_SHARED_EXCLUSIVE_LOCK lock = {};
    bool written = false;  // plain: the lock orders it
    std::atomic<uint32_t> turnsOfThird{0};
    g_onYield = [&] {
      turnsOfThird += t_threadId == 3;
      usleep(10);
    };
    __QvAcquireSharedLock(&lock);
    __QvAcquireSharedLock(&lock);
    std::thread writer([&] {
      __QvAcquireExclusiveLock(&lock);
      written = true;
      __QvReleaseExclusiveLock(&lock);
    });
    while (qv::LoadRelaxed(lock.writerWaiting) == 0) usleep(10);
    std::thread third([&] {
      t_threadId = 3;
      __QvAcquireSharedLock(&lock);
      CHECK(written);
      __QvReleaseSharedLock(&lock);
    });
    while (turnsOfThird < 50) usleep(100);
    CHECK_EQ(qv::LoadRelaxed(lock.readerCount), 2u);
    __QvReleaseSharedLock(&lock);
    usleep(1000);
    CHECK_EQ(qv::LoadRelaxed(lock.state), 1u);
    __QvReleaseSharedLock(&lock);
    writer.join();
    third.join();
    CHECK(Same(lock, QV_SHARED_EXCLUSIVE_LOCK{}));
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

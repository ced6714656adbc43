// Queue: a random run against std::deque, which lock each end takes, and threads that lose nothing.
#include "containers/queue.h"

#include <signal.h>

#include <atomic>
#include <deque>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "tests/containers/accounting_host.h"

namespace {

constexpr uint32_t kCategory = 50;

class Queue : public testing::Test {
 protected:
  void SetUp() override { qvtest::InstallAccountingHost(); }
};

uint64_t BytesOf(size_t nodes) {
  return qvtest::ChunkBytes(sizeof(QV_QUEUE)) + nodes * qvtest::ChunkBytes(sizeof(QV_QUEUE_NODE));
}

// Takes the values whose remainder is a; answers 2, which is no match, for the others.
int32_t HasRemainder(uint32_t a, uint64_t divisor, uint64_t value) {
  return value % divisor == a ? 1 : 2;
}

TEST_F(Queue, RandomRunsAgreeWithADeque) {
  for (const uint32_t flags : {0u, uint32_t{QV_QUEUE_LOCKED}, 0xFFFFFFFFu}) {
    QV_QUEUE* const queue = __QvCreateQueue(flags, kCategory);
    EXPECT_EQ(queue->flags, (flags & ~0xFF0u) | kCategory << 4);
    EXPECT_EQ(queue->userFlag, 0u);
    EXPECT_EQ(queue->head, &queue->anchor);
    __QvSetQueueFlag(queue, 0x12345678);
    std::deque<uint64_t> model;
    std::mt19937_64 random(flags + 1);
    for (int step = 0; step < 20000; step++) {
      const uint64_t dice = random() % 16;
      if (dice < (step / 1000 % 2 == 0 ? 8u : 5u)) {
        const uint64_t value = random() % 4 == 0 ? 0 : random();
        model.push_back(value);
        __QvEnqueue(queue, value);
      } else if (dice < 12) {
        ASSERT_EQ(__QvDequeue(queue), model.empty() ? 0 : model.front());
        if (!model.empty()) model.pop_front();
      } else {
        const uint32_t remove = random() % 3 == 0 ? 8 : 0;
        const bool any = random() % 4 == 0;
        const uint32_t a = uint32_t(random() % 40);
        auto found = model.begin();
        while (!any && found != model.end() && *found % 40 != a) ++found;
        ASSERT_EQ(__QvPeekQueue(queue, any ? nullptr : HasRemainder, a, 40, remove),
                  found == model.end() ? 0 : *found);
        if (remove != 0 && found != model.end()) model.erase(found);
      }
      ASSERT_EQ(__QvIsQueueEmpty(queue), model.empty());
      if (step % 16 != 0) continue;
      ASSERT_SOUND(qv::ValidateQueue(*queue));
      ASSERT_EQ(qvtest::BytesInUse(kCategory), BytesOf(model.size()));
    }
    EXPECT_EQ(queue->userFlag, 0x12345678u);
    for (int i = 0; i < 3; i++) __QvEnqueue(queue, 1);
    __QvDestroyQueue(queue);
    EXPECT_EQ(qvtest::BytesInUse(kCategory), BytesOf(0));
    __QvFree(queue);
    EXPECT_EQ(qvtest::BytesInUse(kCategory), 0u);
  }
}

TEST_F(Queue, ANullQueueIsEmpty) {
  __QvEnqueue(nullptr, 1);
  __QvSetQueueFlag(nullptr, 1);
  __QvDestroyQueue(nullptr);
  EXPECT_EQ(__QvDequeue(nullptr) + __QvPeekQueue(nullptr, nullptr, 0, 0, 1), 0u);
  EXPECT_EQ(__QvIsQueueEmpty(nullptr), 1u);
}

QV_QUEUE* g_queue = nullptr;

// Were an end to take the other's lock, these would wait for themselves: the test would not end.
TEST_F(Queue, EachEndTakesItsOwnLockOnly) {
  g_queue = __QvCreateQueue(QV_QUEUE_LOCKED, kCategory);
  for (const uint64_t value : {1ull, 2ull, 3ull}) __QvEnqueue(g_queue, value);
  // The match runs under the head lock; another thread enqueues meanwhile, and the match does.
  const uint64_t found = __QvPeekQueue(
      g_queue,
      [](uint32_t, uint64_t, uint64_t value) -> int32_t {
        EXPECT_EQ(__QvIsSpinLockAcquiredByCallingThread(&g_queue->headLock), 1u);
        if (value == 1) std::thread([] { __QvEnqueue(g_queue, 4); }).join();
        if (value == 3) __QvEnqueue(g_queue, 5);
        return value == 5;
      },
      0, 0, 1);
  EXPECT_EQ(found, 5u);
  ASSERT_SOUND(qv::ValidateQueue(*g_queue));
  __QvAcquireSpinLock(&g_queue->tailLock);
  std::thread([] {
    for (const uint64_t value : {1ull, 2ull, 3ull})
      EXPECT_EQ(__QvDequeue(g_queue), value);  // 4 is the last one
  }).join();
  __QvReleaseSpinLock(&g_queue->tailLock);
  EXPECT_EQ(__QvDequeue(g_queue), 4u);
  __QvFree(g_queue);
}

// The host hears of each slab of nodes that is empty, up to the last one.
TEST_F(Queue, ANodeGoesBackUnderTheHeadLock) {
  static QV_QUEUE* queue;
  static uint32_t releases, underLock;
  queue = __QvCreateQueue(QV_QUEUE_LOCKED, kCategory);
  const auto release = [] {
    releases++;
    underLock += __QvIsSpinLockAcquiredByCallingThread(&queue->headLock) != 0;
  };
  constexpr uint64_t kValues = 10000;  // some five slabs
  for (const bool peeks : {false, true}) {
    for (uint64_t value = 1; value <= kValues; value++) __QvEnqueue(queue, value);
    releases = underLock = 0;
    qvtest::AccountingHost::Get().beforeRelease = release;
    for (uint64_t value = 1; value <= kValues; value++) {
      ASSERT_EQ(peeks ? __QvPeekQueue(queue, nullptr, 0, 0, 1) : __QvDequeue(queue), value);
    }
    qvtest::AccountingHost::Get().beforeRelease = nullptr;
    EXPECT_GT(releases, 2u);
    EXPECT_EQ(underLock, releases);
  }
  __QvFree(queue);
}

// Held up by the lock that the test holds, another thread is caught where it has made up its mind.
TEST_F(Queue, AnEndThatWaitsForTheOtherLooksAgain) {
  g_queue = __QvCreateQueue(QV_QUEUE_LOCKED, kCategory);
  // A dequeue of the last element waits for the tail lock; by then it is not the last one any more.
  __QvEnqueue(g_queue, 1);
  __QvAcquireSpinLock(&g_queue->tailLock);
  std::thread dequeuing([] { EXPECT_EQ(__QvDequeue(g_queue), 1u); });
  while (__QvIsSpinLockInAcquiredState(&g_queue->headLock) == 0) std::this_thread::yield();
  usleep(20000);
  __QvEnqueue(g_queue, 2);
  __QvReleaseSpinLock(&g_queue->tailLock);
  dequeuing.join();
  EXPECT_EQ(__QvDequeue(g_queue), 2u);
  // An enqueue to the empty queue waits for the head lock, without the tail lock in its hands.
  __QvAcquireSpinLock(&g_queue->headLock);
  std::atomic<bool> there = false;
  std::thread enqueuing([&] {
    there = true;
    __QvEnqueue(g_queue, 3);
  });
  while (!there) std::this_thread::yield();
  usleep(20000);
  EXPECT_EQ(__QvIsQueueEmpty(g_queue), 1u);
  __QvAcquireSpinLock(&g_queue->tailLock);
  __QvReleaseSpinLock(&g_queue->tailLock);
  __QvReleaseSpinLock(&g_queue->headLock);
  enqueuing.join();
  EXPECT_EQ(__QvDequeue(g_queue), 3u);
  ASSERT_SOUND(qv::ValidateQueue(*g_queue));
  __QvFree(g_queue);
}

constexpr uint64_t kEach = 10000;
constexpr uint64_t kProducers = 2;

int32_t IsEven(uint32_t, uint64_t, uint64_t value) { return value / kProducers % 2 == 0; }

// Stops each thread at arbitrary instructions, for long enough that the others get somewhere: a window
// of one instruction, which a run on few processors would hardly ever hit, is then hit many times.
void Interrupt(std::vector<std::thread>& threads, const std::function<bool()>& done) {
  signal(SIGUSR1, [](int) { usleep(30); });
  while (!done()) {
    for (std::thread& thread : threads) {
      pthread_kill(thread.native_handle(), SIGUSR1);
      usleep(20);
    }
  }
}

// Two threads put numbers in; one takes them from the front, one from the front or out of the middle
// and off the end, where the removal meets the enqueue. The queue is kept short.
void MixedThreads(QV_QUEUE_MATCH match) {
  g_queue = __QvCreateQueue(QV_QUEUE_LOCKED, kCategory);
  std::vector<std::atomic<uint8_t>> seen(kProducers * kEach + 1);
  std::atomic<uint64_t> put = 0, taken = 0, finished = 0;
  std::atomic<bool> doubled = false, outOfOrder = false;
  const auto note = [&](uint64_t value) {
    if (value == 0) return std::this_thread::yield();
    if (seen[value].fetch_add(1) != 0) doubled = true;
    taken++;
  };
  const auto done = [&] { return finished == kProducers && __QvIsQueueEmpty(g_queue) != 0; };
  std::vector<std::thread> threads;
  for (uint64_t producer = 0; producer < kProducers; producer++) {
    threads.emplace_back([&, producer] {
      for (uint64_t i = 1; i <= kEach; i++) {
        while (put > taken + 4 && __QvIsQueueEmpty(g_queue) == 0) std::this_thread::yield();
        put++;
        __QvEnqueue(g_queue, i * kProducers - producer);
      }
      finished++;
    });
  }
  threads.emplace_back([&] {
    uint64_t last[kProducers] = {};
    while (!done()) {
      const uint64_t value = __QvDequeue(g_queue);
      if (value != 0 && value < last[value % kProducers]) outOfOrder = true;
      if (value != 0) last[value % kProducers] = value;
      note(value);
    }
  });
  threads.emplace_back([&] {
    while (!done()) note(__QvPeekQueue(g_queue, match, 0, 0, 1));
  });
  Interrupt(threads, done);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(taken, kProducers * kEach);
  EXPECT_FALSE(doubled);
  EXPECT_FALSE(outOfOrder);
  EXPECT_EQ(__QvIsQueueEmpty(g_queue), 1u);
  ASSERT_SOUND(qv::ValidateQueue(*g_queue));
  EXPECT_EQ(qvtest::BytesInUse(kCategory), BytesOf(0));
  __QvFree(g_queue);
}

TEST_F(Queue, FourThreadsLoseAndDoubleNothing) {
  for (int round = 0; round < 3; round++) {
    MixedThreads(IsEven);
    MixedThreads(nullptr);
  }
}

}  // namespace

// Queue beside tbb::concurrent_queue and moodycamel::ConcurrentQueue.
//
//   queue_pair                one thread puts a value in and takes it out; so many others stay inside
//   queue_pair_without_locks  the same without QV_QUEUE_LOCKED, beside std::deque
//   queue_one_to_one          one thread puts values in, another takes them out, both as fast as they can
#include <sched.h>

#include <deque>
#include <memory>

#include "bench/support/bench.h"
#include "include/qvrt.h"

#ifdef QVBENCH_HAVE_TBB
#include <oneapi/tbb/concurrent_queue.h>
#endif
#ifdef QVBENCH_HAVE_CONCURRENTQUEUE
#include <concurrentqueue/concurrentqueue.h>
#endif

namespace {

// ---- Sides: Put, and Take, which gives 0 for an empty queue; values are not 0 ---------------------------

template <uint32_t kFlags>
class Qv {
 public:
  Qv() : queue_(__QvCreateQueue(kFlags, 0)) {}
  ~Qv() {
    __QvDestroyQueue(queue_);
    __QvFree(queue_);
  }
  Qv(const Qv&) = delete;
  void Put(uint64_t value) { __QvEnqueue(queue_, value); }
  uint64_t Take() { return __QvDequeue(queue_); }

 private:
  QV_QUEUE* const queue_;
};

struct StdDeque {
  std::deque<uint64_t> deque;
  void Put(uint64_t value) { deque.push_back(value); }
  uint64_t Take() {
    if (deque.empty()) return 0;
    const uint64_t value = deque.front();
    deque.pop_front();
    return value;
  }
};

#ifdef QVBENCH_HAVE_TBB
struct Tbb {
  tbb::concurrent_queue<uint64_t> queue;
  void Put(uint64_t value) { queue.push(value); }
  uint64_t Take() {
    uint64_t value = 0;
    return queue.try_pop(value) ? value : 0;
  }
};
#endif

#ifdef QVBENCH_HAVE_CONCURRENTQUEUE
struct Moodycamel {
  moodycamel::ConcurrentQueue<uint64_t> queue;
  void Put(uint64_t value) { queue.enqueue(value); }
  uint64_t Take() {
    uint64_t value = 0;
    return queue.try_dequeue(value) ? value : 0;
  }
};
#endif

// ---- Bodies -----------------------------------------------------------------------------------------

template <class Side>
void Pair(benchmark::State& state) {
  Side side;
  for (int64_t i = 0; i < state.range(0); i++) side.Put(1);
  uint64_t value = 1;
  for (auto _ : state) {
    side.Put(value++);
    benchmark::DoNotOptimize(side.Take());
  }
}

template <class Side>
void TakeOne(Side& side) {
  for (uint32_t misses = 0; side.Take() == 0; misses++) {
    if (misses % 64 == 63) sched_yield();  // the producer may be waiting for this processor
  }
}

// An operation is a value's whole way. Both threads go round equally often, so none is left behind.
template <class Side>
void OneToOne(benchmark::State& state) {
  static std::unique_ptr<Side> shared;
  if (state.thread_index() == 0) shared = std::make_unique<Side>();
  uint64_t value = 1;
  for (auto _ : state) {
    if (state.thread_index() == 0) {
      shared->Put(value++);
    } else {
      TakeOne(*shared);
    }
  }
  if (state.thread_index() == 0) shared.reset();
}

template <class Side>
void AddPair(const char* group, const char* who) {
  benchmark::internal::Benchmark* const added = qvbench::Add(group, who, Pair<Side>);
  for (const int64_t inside : {0, 1000, 10000, 100000, 1000000}) {
    if (inside <= 1000 || !qvbench::Smoke()) added->Arg(inside);
  }
}

template <class Side>
void AddLocked(const char* who) {
  AddPair<Side>("queue_pair", who);
  qvbench::Add("queue_one_to_one", who, OneToOne<Side>)->Threads(2)->UseRealTime();
}

}  // namespace

void qvbench::Setup() {
  StartHost();
  AddLocked<Qv<QV_QUEUE_LOCKED>>("qvrt");
#ifdef QVBENCH_HAVE_TBB
  AddLocked<Tbb>("tbb_concurrent_queue");
#endif
#ifdef QVBENCH_HAVE_CONCURRENTQUEUE
  AddLocked<Moodycamel>("moodycamel");
#endif
  AddPair<Qv<0>>("queue_pair_without_locks", "qvrt");
  AddPair<StdDeque>("queue_pair_without_locks", "std_deque");
  Aim("queue_pair", "tbb_concurrent_queue", 2.2);
  Aim("queue_one_to_one", "moodycamel", 1.5);
}

// malloc and free beside the C library's and three allocators opened at run time.
//
//   malloc_pair/size            a block is taken and given back at once
//   malloc_batch/size           1000 blocks are taken, then given back in that order
//   malloc_mixed_batch          the same with sizes from 8 to 512 bytes
//   malloc_live/count           that many blocks of 8 to 512 bytes are live; a random one is replaced
//   malloc_two_threads          two threads run mixed batches at once
//   malloc_handed_over          one thread takes batches of 1000, another gives them back
// An operation is one malloc and one free.
#include <sched.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>
#include <random>
#include <string>
#include <vector>

#include "bench/support/bench.h"
#include "include/qvrt.h"

namespace {

constexpr size_t kBatch = 1000;
constexpr size_t kUsualBytes = 64;

struct Ours {
  void* Take(size_t bytes) const { return __QvMalloc(0, uint32_t(bytes), 0); }
  void Give(void* block) const { __QvFree(block); }
};

struct Peer {
  void* (*allocate)(size_t);
  void (*release)(void*);
  void* Take(size_t bytes) const { return allocate(bytes); }
  void Give(void* block) const { release(block); }
};

// A program writes to what it allocates.
template <class Allocator>
void* TakeAndTouch(const Allocator& allocator, size_t bytes) {
  void* const block = allocator.Take(bytes);
  *static_cast<volatile char*>(block) = 1;
  return block;
}

// Sizes from 8 to 512 bytes, the same for every side.
std::vector<size_t> MixedSizes(size_t count) {
  std::mt19937 random(7);
  std::vector<size_t> sizes(count);
  for (size_t& bytes : sizes) bytes = 8 + random() % 505;
  return sizes;
}

template <class Allocator>
void Pair(benchmark::State& state, Allocator allocator) {
  const size_t bytes = size_t(state.range(0));
  for (auto _ : state) {
    void* const block = allocator.Take(bytes);
    benchmark::DoNotOptimize(block);
    allocator.Give(block);
  }
}

template <class Allocator>
void RunBatches(benchmark::State& state, Allocator allocator, const std::vector<size_t>& sizes) {
  std::vector<void*> blocks(sizes.size());
  for (auto _ : state) {
    for (size_t i = 0; i < sizes.size(); i++) blocks[i] = TakeAndTouch(allocator, sizes[i]);
    for (void* const block : blocks) allocator.Give(block);
  }
  qvbench::SetOperationsPerIteration(state, double(sizes.size()));
}

template <class Allocator>
void Batch(benchmark::State& state, Allocator allocator) {
  RunBatches(state, allocator, std::vector<size_t>(kBatch, size_t(state.range(0))));
}

template <class Allocator>
void MixedBatch(benchmark::State& state, Allocator allocator) {
  RunBatches(state, allocator, MixedSizes(kBatch));
}

template <class Allocator>
void Live(benchmark::State& state, Allocator allocator) {
  const std::vector<size_t> sizes = MixedSizes(4096);
  std::vector<void*> live(size_t(state.range(0)));
  for (size_t i = 0; i < live.size(); i++) live[i] = TakeAndTouch(allocator, sizes[i % sizes.size()]);
  uint64_t random = 88172645463325252u;
  for (auto _ : state) {
    random ^= random << 13, random ^= random >> 7, random ^= random << 17;
    void*& block = live[(random >> 32) * live.size() >> 32];
    allocator.Give(block);
    block = TakeAndTouch(allocator, sizes[random % sizes.size()]);
  }
  for (void* const block : live) allocator.Give(block);
}

// Batches on their way from the thread that takes to the thread that gives back.
struct Belt {
  static constexpr size_t kPlaces = 4;
  struct alignas(64) Place {
    std::atomic<bool> full = false;
    void* blocks[kBatch];
  };
  Place places[kPlaces];

  static void WaitUntil(const Place& place, bool full) {
    while (place.full.load(std::memory_order_acquire) != full) sched_yield();
  }
};

double ThreadSeconds() {
  timespec time;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return double(time.tv_sec) + double(time.tv_nsec) * 1e-9;
}

// Both threads work at once, on different batches. Only their work on the blocks is timed, not the
// belt.
template <class Allocator>
void HandedOver(benchmark::State& state, Allocator allocator) {
  static Belt belt;  // empty again whenever a run has ended: both threads do the same iterations
  const bool taker = state.thread_index() == 0;
  size_t at = 0;
  for (auto _ : state) {
    Belt::Place& place = belt.places[at++ % Belt::kPlaces];
    Belt::WaitUntil(place, !taker);
    const double start = ThreadSeconds();
    if (taker) {
      for (void*& block : place.blocks) block = TakeAndTouch(allocator, kUsualBytes);
    } else {
      for (void* const block : place.blocks) allocator.Give(block);
    }
    state.SetIterationTime(ThreadSeconds() - start);
    place.full.store(taker, std::memory_order_release);
  }
  // The mean time of an iteration is half of what a batch costs both threads.
  qvbench::SetOperationsPerIteration(state, double(kBatch) / 2);
}

template <class Allocator>
void AddAll(const char* who, Allocator allocator) {
  using qvbench::Add;
  auto with = [allocator](void (*body)(benchmark::State&, Allocator)) {
    return [=](benchmark::State& state) { body(state, allocator); };
  };
  for (const int64_t bytes : {24, 64, 1000}) {
    Add("malloc_pair", who, with(Pair<Allocator>))->Arg(bytes);
    Add("malloc_batch", who, with(Batch<Allocator>))->Arg(bytes);
  }
  Add("malloc_mixed_batch", who, with(MixedBatch<Allocator>));
  for (const int64_t count : {10000, 100000, 1000000}) {
    if (qvbench::Smoke() && count > 10000) continue;
    Add("malloc_live", who, with(Live<Allocator>))->Arg(count);
  }
  Add("malloc_two_threads", who, with(MixedBatch<Allocator>))->Threads(2);
  Add("malloc_handed_over", who, with(HandedOver<Allocator>))->Threads(2)->UseManualTime();
}

void AddPeer(const char* who, const char* sharedObject, const char* allocate, const char* release) {
  void* const peer = qvbench::OpenPeer(sharedObject);
  const Peer functions = {reinterpret_cast<void* (*)(size_t)>(qvbench::FindInPeer(peer, allocate)),
                          reinterpret_cast<void (*)(void*)>(qvbench::FindInPeer(peer, release))};
  if (functions.allocate != nullptr && functions.release != nullptr) AddAll(who, functions);
}

}  // namespace

void qvbench::Setup() {
  StartHost();
  AddAll("qvrt", Ours());
  AddPeer("glibc", "libc.so.6", "malloc", "free");
  AddPeer("jemalloc", "libjemalloc.so.2", "malloc", "free");
  AddPeer("tcmalloc", "libtcmalloc_minimal.so.4", "malloc", "free");
  AddPeer("mimalloc", "libmimalloc.so.2.0", "mi_malloc", "mi_free");
  Aim("malloc_pair", "glibc", 2.4);
  for (const char* group : {"malloc_batch", "malloc_mixed_batch", "malloc_live"})
    Aim(group, "glibc", 1);
  Aim("malloc_handed_over", "glibc", 0.25);
}

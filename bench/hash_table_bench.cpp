// Hash table beside std::unordered_map, absl::flat_hash_map (one thread) and tbb::concurrent_hash_map
// (the table that locks). Keys are random 64-bit numbers, looked up in random order.
#include <algorithm>
#include <memory>
#include <random>
#include <unordered_map>
#include <vector>

#include "bench/support/bench.h"
#include "include/qvrt.h"

#ifdef QVBENCH_HAVE_ABSL
#include <absl/container/flat_hash_map.h>
#endif
#ifdef QVBENCH_HAVE_TBB
#include <oneapi/tbb/concurrent_hash_map.h>
#endif

namespace {

using Keys = std::vector<uint64_t>;

void* DataFor(uint64_t key) { return reinterpret_cast<void*>(key | 1); }

// The same for every side; in another order when they are to be looked up.
Keys MakeKeys(size_t count, uint64_t seed) {
  std::mt19937_64 random(seed);
  Keys keys(count);
  for (uint64_t& key : keys) key = random();
  return keys;
}
Keys Shuffled(Keys keys) {
  std::shuffle(keys.begin(), keys.end(), std::mt19937_64(7));
  return keys;
}
// Keys to look up, so many that a branch predictor cannot learn the way to each by heart.
Keys DrawnFrom(const Keys& keys) {
  std::mt19937_64 random(7);
  Keys drawn(std::max<size_t>(keys.size(), 1 << 16));
  for (uint64_t& key : drawn) key = keys[random() % keys.size()];
  return drawn;
}

// ---- Sides: Put, Get, Take --------------------------------------------------------------------------

template <uint32_t kFlags>
class Qv {
 public:
  Qv() : table_(__QvCreateHashTable(kFlags, nullptr, 1, nullptr, nullptr, 0, 0)) {}
  ~Qv() { __QvDestroyHashTable(table_, nullptr); }
  void Put(uint64_t key) { __QvInsertHashTableEntry(table_, key, DataFor(key)); }
  void* Get(uint64_t key) { return __QvLookupHashTable(table_, key); }
  void Take(uint64_t key) { __QvRemoveHashTableEntry(table_, key); }
  QV_HASH_TABLE* Table() { return table_; }

 private:
  QV_HASH_TABLE* const table_;
};
using QvPlain = Qv<QV_HASH_TABLE_NO_LOCKING>;
using QvLocking = Qv<0>;

// The four steps that a locked hit has to take, through the library's own calls, and nothing else.
struct LockSteps : QvLocking {
  void* Get(uint64_t key) {
    QV_HASH_TABLE* const table = Table();
    __QvAcquireSharedLock(&table->lock);
    QV_HASH_BUCKET* const bucket = &table->buckets[key & uint64_t(table->bucketCount - 1)];
    __QvAcquireSharedLock(&bucket->lock);
    __QvReleaseSharedLock(&bucket->lock);
    __QvReleaseSharedLock(&table->lock);
    return bucket;
  }
};

template <class Map>
struct OfStandard {
  Map map;
  void Put(uint64_t key) { map.try_emplace(key, DataFor(key)); }
  void* Get(uint64_t key) {
    const auto found = map.find(key);
    return found != map.end() ? found->second : nullptr;
  }
  void Take(uint64_t key) { map.erase(key); }
};
using StdMap = OfStandard<std::unordered_map<uint64_t, void*>>;
#ifdef QVBENCH_HAVE_ABSL
using AbslMap = OfStandard<absl::flat_hash_map<uint64_t, void*>>;
#endif

#ifdef QVBENCH_HAVE_TBB
struct Tbb {
  using Map = tbb::concurrent_hash_map<uint64_t, void*>;
  Map map;
  void Put(uint64_t key) { map.insert({key, DataFor(key)}); }
  void* Get(uint64_t key) {
    Map::const_accessor found;
    return map.find(found, key) ? found->second : nullptr;
  }
  void Take(uint64_t key) { map.erase(key); }
};
#endif

// ---- Bodies -----------------------------------------------------------------------------------------

template <class Side>
void Look(benchmark::State& state, bool present) {
  const size_t count = size_t(state.range(0));
  const Keys keys = MakeKeys(count, 1);
  Side side;
  for (const uint64_t key : keys) side.Put(key);
  const Keys wanted = DrawnFrom(present ? keys : MakeKeys(count, 2));
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(side.Get(wanted[i]));
    if (++i == wanted.size()) i = 0;
  }
}

template <class Side>
void Hit(benchmark::State& state) {
  Look<Side>(state, true);
}
template <class Side>
void Miss(benchmark::State& state) {
  Look<Side>(state, false);
}

// From empty to full, then empty again, one by one: growth and memory included.
template <class Side>
void FillAndEmpty(benchmark::State& state) {
  const Keys keys = MakeKeys(size_t(state.range(0)), 1);
  const Keys leaving = Shuffled(keys);
  for (auto _ : state) {
    Side side;
    for (const uint64_t key : keys) side.Put(key);
    for (const uint64_t key : leaving) side.Take(key);
  }
  qvbench::SetOperationsPerIteration(state, 2 * double(keys.size()));
}

// Two threads on one table of some 10^5 keys: 90 lookups, 9 insertions, 1 removal of 100.
template <class Side>
void Mixed(benchmark::State& state) {
  static std::unique_ptr<Side> shared;
  constexpr uint64_t kKeys = 1 << 17;
  const auto keyOf = [](uint64_t i) { return i * 0x9E3779B97F4A7C15; };
  if (state.thread_index() == 0) {
    shared = std::make_unique<Side>();
    for (uint64_t i = 0; i < kKeys; i++) shared->Put(keyOf(i));
  }
  std::mt19937_64 random(uint64_t(state.thread_index()) + 1);
  std::vector<uint32_t> draws(1 << 16);
  for (uint32_t& draw : draws) draw = uint32_t(random());
  size_t i = 0;
  for (auto _ : state) {
    const uint32_t draw = draws[i++ & (draws.size() - 1)];
    const uint64_t key = keyOf(draw % kKeys);
    const uint32_t kind = (draw >> 17) % 100;
    if (kind < 90) {
      benchmark::DoNotOptimize(shared->Get(key));
    } else if (kind < 99) {
      shared->Put(key);
    } else {
      shared->Take(key);
    }
  }
  if (state.thread_index() == 0) shared.reset();
}

template <class Side>
void AddSized(const char* group, const char* who, void (*body)(benchmark::State&)) {
  benchmark::internal::Benchmark* const added = qvbench::Add(group, who, body);
  for (const int64_t size : {1000, 10000, 100000, 1000000}) {
    if (size == 1000 || !qvbench::Smoke()) added->Arg(size);
  }
}

template <class Side>
void AddOneThread(const char* who) {
  AddSized<Side>("hash_hit", who, Hit<Side>);
  AddSized<Side>("hash_miss", who, Miss<Side>);
  AddSized<Side>("hash_fill_and_empty", who, FillAndEmpty<Side>);
}

template <class Side>
void AddLocking(const char* who) {
  AddSized<Side>("hash_locked_hit", who, Hit<Side>);
  AddSized<Side>("hash_locked_fill_and_empty", who, FillAndEmpty<Side>);
  qvbench::Add("hash_two_threads_90_9_1", who, Mixed<Side>)->Threads(2)->UseRealTime();
}

}  // namespace

void qvbench::Setup() {
  StartHost();
  AddOneThread<QvPlain>("qvrt");
  AddOneThread<StdMap>("std_unordered_map");
#ifdef QVBENCH_HAVE_ABSL
  AddOneThread<AbslMap>("absl_flat_hash_map");
#endif
  AddLocking<QvLocking>("qvrt");
  AddSized<LockSteps>("hash_locked_hit", "lock_steps_by_hand", Hit<LockSteps>);
#ifdef QVBENCH_HAVE_TBB
  AddLocking<Tbb>("tbb_concurrent_hash_map");
#endif
  Aim("hash_hit/1000", "std_unordered_map", 0.45);
  Aim("hash_hit/100000", "std_unordered_map", 0.85);
  Aim("hash_hit/1000000", "std_unordered_map", 1.3);
  Aim("hash_locked_hit", "lock_steps_by_hand", 1.05);
  Aim("hash_two_threads_90_9_1", "tbb_concurrent_hash_map", 1.5);
}

// The red-black tree beside std::multimap and absl::btree_multimap: random insertion, the search for a
// range's start, a walk over the whole tree, and removal. The keys are random and the same for all
// sides.
//
// A B-tree keeps neighbours in one node, so it walks faster than any tree of single nodes; but its
// entries move, and ours must not: a node is the tool's handle.
#include <map>
#include <vector>

#include "bench/support/bench.h"
#include "include/qvrt.h"

#ifdef QVBENCH_HAVE_ABSL
#include <absl/container/btree_map.h>
#endif

namespace {

constexpr uint64_t kAll = ~uint64_t{0};

// A generator so cheap that it does not show. Keys and probes never repeat between iterations: a branch
// predictor would learn them by heart.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}
  uint64_t operator()() {
    uint64_t z = state_ += 0x9E3779B97F4A7C15;
    z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
    z = (z ^ z >> 27) * 0x94D049BB133111EB;
    return z ^ z >> 31;
  }

 private:
  uint64_t state_;
};

std::vector<uint64_t> RandomKeys(int64_t count, Random& random) {
  std::vector<uint64_t> keys(static_cast<size_t>(count));
  for (uint64_t& key : keys) key = random();
  return keys;
}

// ---- Sides: a tree each, with Insert, Start, Walk and Remove -----------------------------------------

class Qv {
 public:
  using Handle = QV_RED_BLACK_NODE*;
  Qv() : tree_(__QvCreateRedBlackTree(0, nullptr, nullptr, nullptr)) {}
  ~Qv() { __QvDestroyRedBlackTree(tree_); }
  Qv(const Qv&) = delete;
  void Insert(uint64_t key) { __QvInsertRedBlackEntry(tree_, key, key); }
  uint64_t Start(uint64_t low) {
    QV_RED_BLACK_NODE* const node = __QvGetRedBlackRangeStart(tree_, low, kAll);
    return node == nullptr ? 0 : node->key;
  }
  uint64_t Walk() {
    uint64_t sum = 0;
    for (Handle node = Find(0); node != nullptr; node = __QvGetRedBlackRangeNext(node, kAll)) {
      sum += node->item;
    }
    return sum;
  }
  Handle Find(uint64_t low) { return __QvGetRedBlackRangeStart(tree_, low, kAll); }
  void Remove(Handle handle) { __QvRemoveRedBlackEntry(handle); }

 private:
  QV_RED_BLACK_TREE* const tree_;
};

template <class Map>
class OfMap {
 public:
  using Handle = typename Map::iterator;
  void Insert(uint64_t key) { map_.emplace(key, key); }
  uint64_t Start(uint64_t low) {
    const auto found = map_.lower_bound(low);
    return found == map_.end() ? 0 : found->first;
  }
  uint64_t Walk() {
    uint64_t sum = 0;
    for (const auto& entry : map_) sum += entry.second;
    return sum;
  }
  Handle Find(uint64_t low) { return map_.lower_bound(low); }
  void Remove(Handle handle) { map_.erase(handle); }

 private:
  Map map_;
};

// ---- Bodies -----------------------------------------------------------------------------------------

template <class Side>
void Insert(benchmark::State& state) {
  Random random(1);
  for (auto _ : state) {
    state.PauseTiming();
    const std::vector<uint64_t> keys = RandomKeys(state.range(0), random);
    Side* const side = new Side;
    state.ResumeTiming();
    for (const uint64_t key : keys) side->Insert(key);
    state.PauseTiming();
    delete side;
    state.ResumeTiming();
  }
  qvbench::SetOperationsPerIteration(state, double(state.range(0)));
}

template <class Side>
std::vector<uint64_t> Fill(Side& side, int64_t count) {
  Random random(1);
  std::vector<uint64_t> keys = RandomKeys(count, random);
  for (const uint64_t key : keys) side.Insert(key);
  return keys;
}

template <class Side>
void RangeStart(benchmark::State& state) {
  Side side;
  Fill(side, state.range(0));
  Random random(2);
  for (auto _ : state) benchmark::DoNotOptimize(side.Start(random()));
}

template <class Side>
void Walk(benchmark::State& state) {
  Side side;
  Fill(side, state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(side.Walk());
  qvbench::SetOperationsPerIteration(state, double(state.range(0)));
}

// A tree that stays as large as it is: a random entry is found and goes, a new one comes.
template <class Side>
void Replace(benchmark::State& state) {
  Side side;
  std::vector<uint64_t> live = Fill(side, state.range(0));
  Random random(2);
  for (auto _ : state) {
    const uint64_t fresh = random();
    uint64_t& key = live[fresh % live.size()];
    side.Remove(side.Find(key));
    side.Insert(key = fresh);
  }
}

template <class Side>
void AddSide(const char* who) {
  std::vector<int64_t> counts = {1000, 10000, 100000, 1000000};
  if (qvbench::Smoke()) counts = {1000};
  for (const int64_t count : counts) {
    qvbench::Add("tree_insert", who, Insert<Side>)->Arg(count);
    qvbench::Add("tree_range_start", who, RangeStart<Side>)->Arg(count);
    qvbench::Add("tree_walk", who, Walk<Side>)->Arg(count);
    qvbench::Add("tree_replace", who, Replace<Side>)->Arg(count);
  }
}

}  // namespace

void qvbench::Setup() {
  StartHost();
  AddSide<Qv>("qvrt");
  AddSide<OfMap<std::multimap<uint64_t, uint64_t>>>("std_multimap");
#ifdef QVBENCH_HAVE_ABSL
  AddSide<OfMap<absl::btree_multimap<uint64_t, uint64_t>>>("absl_btree");
#endif
  Aim("tree_insert/100000", "std_multimap", 1.1);
  Aim("tree_range_start/100000", "std_multimap", 0.95);
  Aim("tree_walk/100000", "std_multimap", 0.75);
}

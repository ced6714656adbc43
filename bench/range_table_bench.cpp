// Range table beside what a tool would take otherwise: std::map with upper_bound and, where the machine
// has it, boost::icl::interval_map. The ranges are heap blocks: sizes in steps of 16 bytes, mostly below
// 512, now and then up to 16 KiB, with 16 bytes between two of them; inserted in random order.
#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "bench/support/bench.h"
#include "include/qvrt.h"

#ifdef QVBENCH_HAVE_BOOST
#include <boost/icl/interval_map.hpp>
#endif

namespace {

struct Range {
  uint64_t start, end;
};

std::vector<Range> HeapBlocks(size_t count) {
  std::mt19937_64 random(1);
  std::vector<Range> ranges;
  uint64_t address = 0x7F1234560010;
  for (size_t i = 0; i < count; i++) {
    const uint64_t most = random() % 20 == 0 ? 1024 : random() % 4 == 0 ? 32 : 8;
    const uint64_t end = address + 16 * (1 + random() % most);
    ranges.push_back({address, end});
    address = end + 16;
  }
  std::shuffle(ranges.begin(), ranges.end(), random);
  return ranges;
}

// ---- Sides: Put, Get, Take --------------------------------------------------------------------------

class Qv {
 public:
  Qv() : table_(__QvCreateRangeTable(1 << 20, 0, 0, 0, nullptr)) {}
  ~Qv() {
    __QvScanAndEmptyRangeTable(table_);
    __QvDestroyRangeTable(table_);
  }
  void Put(const Range& range) {
    __QvInsertRangeTableEntry(table_, range.start, range.end, range.start);
  }
  uint64_t Get(uint64_t address) {
    uint64_t start, end;
    return __QvLookupRangeTable(table_, address, &start, &end);
  }
  void Take(const Range& range) { __QvRemoveRangeTableEntry(table_, range.start, range.end); }

 private:
  QV_RANGE_TABLE* const table_;
};

class StdMap {
 public:
  void Put(const Range& range) { map_.emplace(range.start, Value{range.end, range.start}); }
  uint64_t Get(uint64_t address) {
    auto at = map_.upper_bound(address);
    if (at == map_.begin()) return 0;
    --at;
    return address < at->second.end ? at->second.item : 0;
  }
  void Take(const Range& range) { map_.erase(range.start); }

 private:
  struct Value {
    uint64_t end, item;
  };
  std::map<uint64_t, Value> map_;
};

#ifdef QVBENCH_HAVE_BOOST
class BoostIcl {
 public:
  void Put(const Range& range) { map_.add({Interval(range), range.start}); }
  uint64_t Get(uint64_t address) {
    const auto at = map_.find(address);
    return at != map_.end() ? at->second : 0;
  }
  void Take(const Range& range) { map_.erase(Interval(range)); }

 private:
  using Map = boost::icl::interval_map<uint64_t, uint64_t>;
  static Map::interval_type Interval(const Range& range) {
    return Map::interval_type::right_open(range.start, range.end);
  }
  Map map_;
};
#endif

// ---- Bodies -----------------------------------------------------------------------------------------

// Any byte of any block; or, for a miss, of the 16 bytes that follow each.
template <class Side>
void Look(benchmark::State& state, bool inside) {
  const std::vector<Range> ranges = HeapBlocks(size_t(state.range(0)));
  Side side;
  for (const Range& range : ranges) side.Put(range);
  std::mt19937_64 random(2);
  std::vector<uint64_t> wanted(std::max<size_t>(ranges.size(), 10000));
  for (uint64_t& address : wanted) {
    const Range& range = ranges[random() % ranges.size()];
    address = inside ? range.start + random() % (range.end - range.start) : range.end + random() % 16;
  }
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

template <class Side>
void FillAndEmpty(benchmark::State& state) {
  const std::vector<Range> ranges = HeapBlocks(size_t(state.range(0)));
  for (auto _ : state) {
    Side side;
    for (const Range& range : ranges) side.Put(range);
    for (const Range& range : ranges) side.Take(range);
  }
  qvbench::SetOperationsPerIteration(state, 2 * double(ranges.size()));
}

template <class Side>
void AddSide(const char* who) {
  const std::pair<const char*, void (*)(benchmark::State&)> bodies[] = {
      {"range_hit", Hit<Side>},
      {"range_miss", Miss<Side>},
      {"range_fill_and_empty", FillAndEmpty<Side>}};
  for (const auto& [group, body] : bodies) {
    benchmark::internal::Benchmark* const added = qvbench::Add(group, who, body);
    for (const int64_t count : {100, 1000, 10000, 100000, 1000000}) {
      if (count <= 1000 || !qvbench::Smoke()) added->Arg(count);
    }
  }
}

}  // namespace

void qvbench::Setup() {
  StartHost();
  AddSide<Qv>("qvrt");
  AddSide<StdMap>("std_map");
#ifdef QVBENCH_HAVE_BOOST
  AddSide<BoostIcl>("boost_icl");
#endif
  Aim("range_hit/100", "std_map", 1.3);
  Aim("range_hit/10000", "std_map", 1.2);
  Aim("range_hit/100000", "std_map", 2);
}

// Sets beside CRoaring's bitmaps and std::set.
//
//   set_union_dense        15 of 16 values of a range, into a set that has them already: nobody allocates
//   set_union_clustered    runs of up to 64 values, far apart; the same
//   set_union_new          clustered: a copy of one set takes in another one, whose runs are elsewhere
//   set_insert             the values of a clustered set, in random order, into an empty one
//   set_contains           random values of the whole range of a clustered set
//
// An operation of a union is one element of the source. CRoaring's sets are in the form that it takes to
// be best for their contents: bit maps where dense, runs where clustered. Single elements cost us the
// chunks before them, so those two groups end where that stops being sensible.
#include <algorithm>
#include <random>
#include <set>
#include <vector>

#include "bench/support/bench.h"
#include "include/qvrt.h"

#ifdef QVBENCH_HAVE_ROARING
#include <roaring/roaring.h>
#endif

namespace {

using Values = std::vector<uint32_t>;

// Of every 16 values of the range one is missing, elsewhere for each seed.
Values Dense(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  Values values;
  for (uint32_t value = 0; values.size() < count; value++) {
    if (random() % 16 != 0) values.push_back(value);
  }
  return values;
}

Values Clustered(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  Values values;
  uint32_t next = 0;
  while (values.size() < count) {
    next += uint32_t(random() % 4096);
    for (uint32_t left = 1 + uint32_t(random() % 64); left != 0 && values.size() < count; left--) {
      values.push_back(next++);
    }
  }
  return values;
}

// ---- Sides: sets that are not copied by accident ------------------------------------------------------

class Qv {
 public:
  Qv() = default;
  explicit Qv(const Values& values) {
    // From the end on, where each takes the first place.
    for (size_t i = values.size(); i-- != 0;) Put(values[i]);
  }
  ~Qv() { __QvDestroySet(&set_); }
  Qv(const Qv&) = delete;
  void Put(uint32_t value) { __QvAddAnElementToSet(&set_, value); }
  bool Has(uint32_t value) const { return __QvIsAnElementOfSet(&set_, value) != 0; }
  void Become(const Qv& other) { __QvConstructSet(&set_, &other.set_); }
  void Unite(const Qv& other) { __QvUnionSet(&set_, &other.set_); }

 private:
  QV_SET set_ = {};
};

class StdSet {
 public:
  StdSet() = default;
  explicit StdSet(const Values& values) : set_(values.begin(), values.end()) {}
  void Put(uint32_t value) { set_.insert(value); }
  bool Has(uint32_t value) const { return set_.count(value) != 0; }
  void Become(const StdSet& other) { set_ = other.set_; }
  void Unite(const StdSet& other) { set_.insert(other.set_.begin(), other.set_.end()); }

 private:
  std::set<uint32_t> set_;
};

#ifdef QVBENCH_HAVE_ROARING
class Roaring {
 public:
  Roaring() : bitmap_(roaring_bitmap_create()) {}
  explicit Roaring(const Values& values)
      : bitmap_(roaring_bitmap_of_ptr(values.size(), values.data())) {
    roaring_bitmap_run_optimize(bitmap_);
  }
  ~Roaring() { roaring_bitmap_free(bitmap_); }
  Roaring(const Roaring&) = delete;
  void Put(uint32_t value) { roaring_bitmap_add(bitmap_, value); }
  bool Has(uint32_t value) const { return roaring_bitmap_contains(bitmap_, value); }
  void Become(const Roaring& other) { roaring_bitmap_overwrite(bitmap_, other.bitmap_); }
  void Unite(const Roaring& other) { roaring_bitmap_or_inplace(bitmap_, other.bitmap_); }

 private:
  roaring_bitmap_t* const bitmap_;
};
#endif

// ---- Bodies -----------------------------------------------------------------------------------------

constexpr size_t kDraws = 1 << 16;

template <class Side>
void UniteRepeatedly(benchmark::State& state, Values (*make)(size_t, uint32_t)) {
  const Values values = make(size_t(state.range(0)), 1);
  Side source(values);
  Side destination(make(size_t(state.range(0)), 2));
  destination.Unite(source);
  for (auto _ : state) {
    destination.Unite(source);
    benchmark::ClobberMemory();
  }
  qvbench::SetOperationsPerIteration(state, double(values.size()));
}
template <class Side>
void UniteDense(benchmark::State& state) {
  UniteRepeatedly<Side>(state, Dense);
}
template <class Side>
void UniteClustered(benchmark::State& state) {
  UniteRepeatedly<Side>(state, Clustered);
}

template <class Side>
void UniteNew(benchmark::State& state) {
  const size_t count = size_t(state.range(0));
  const Side source(Clustered(count, 1)), start(Clustered(count, 2));
  Side destination;
  for (auto _ : state) {
    destination.Become(start);
    destination.Unite(source);
    benchmark::ClobberMemory();
  }
  qvbench::SetOperationsPerIteration(state, double(count));
}

template <class Side>
void Insert(benchmark::State& state) {
  Values values = Clustered(size_t(state.range(0)), 1);
  std::shuffle(values.begin(), values.end(), std::mt19937(7));
  for (auto _ : state) {
    Side side;
    for (const uint32_t value : values) side.Put(value);
    benchmark::ClobberMemory();
  }
  qvbench::SetOperationsPerIteration(state, double(values.size()));
}

template <class Side>
void Contains(benchmark::State& state) {
  const Values values = Clustered(size_t(state.range(0)), 1);
  const Side side(values);
  std::mt19937 random(2);
  Values wanted(kDraws);
  for (uint32_t& value : wanted) value = uint32_t(random() % (values.back() + 1));
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(side.Has(wanted[i++ % kDraws]));
}

void AddSized(const char* group, const char* who, void (*body)(benchmark::State&), int64_t most) {
  benchmark::internal::Benchmark* const added = qvbench::Add(group, who, body);
  for (int64_t count = 1000; count <= (qvbench::Smoke() ? 1000 : most); count *= 10) added->Arg(count);
}

template <class Side>
void AddSide(const char* who) {
  AddSized("set_union_dense", who, UniteDense<Side>, 1000000);
  AddSized("set_union_clustered", who, UniteClustered<Side>, 1000000);
  AddSized("set_union_new", who, UniteNew<Side>, 1000000);
  AddSized("set_insert", who, Insert<Side>, 10000);
  AddSized("set_contains", who, Contains<Side>, 100000);
}

}  // namespace

void qvbench::Setup() {
  StartHost();
  AddSide<Qv>("qvrt");
#ifdef QVBENCH_HAVE_ROARING
  AddSide<Roaring>("croaring");
#endif
  AddSide<StdSet>("std_set");
  Aim("set_union_dense/100000", "croaring", 1.5);
  Aim("set_union_clustered/10000", "croaring", 0.7);
}

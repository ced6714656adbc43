// Vector beside a std::vector of counters in a shared library.
//
//   vector_increment    random indices among the first so many, all of them written before
//   vector_get          the same, reading
//   vector_merge        the element-wise maximum of two vectors of so many counters, per counter
#include <random>
#include <vector>

#include "bench/support/bench.h"
#include "bench/support/counters_peer.h"
#include "include/qvrt.h"

namespace {

class Qv {
 public:
  Qv() : vector_(__QvCreateVector(0)) {}
  ~Qv() { __QvDestroyVector(vector_); }
  Qv(const Qv&) = delete;
  uint64_t Increment(uint32_t index) { return __QvIncrementVectorElement(vector_, index); }
  uint64_t Get(uint32_t index) const { return __QvGetVectorElement(vector_, index); }
  void Set(uint32_t index, uint64_t value) { __QvSetVectorElement(vector_, index, value); }
  void Merge(const Qv& other) { __QvMaxVector(vector_, other.vector_); }

 private:
  QV_VECTOR* const vector_;
};

class StdVector {
 public:
  uint64_t Increment(uint32_t index) { return qvbench::IncrementCounter(counters_, index); }
  uint64_t Get(uint32_t index) const { return qvbench::GetCounter(counters_, index); }
  void Set(uint32_t index, uint64_t value) { qvbench::SetCounter(counters_, index, value); }
  void Merge(const StdVector& other) { qvbench::MergeCounters(counters_, other.counters_); }

 private:
  qvbench::Counters counters_;
};

// ---- Bodies -----------------------------------------------------------------------------------------

constexpr size_t kDraws = 1 << 14;

std::vector<uint32_t> RandomIndices(int64_t count) {
  std::mt19937 random(1);
  std::vector<uint32_t> indices(kDraws);
  for (uint32_t& index : indices) index = uint32_t(random() % uint64_t(count));
  return indices;
}

template <class Side>
void Fill(Side& side, int64_t count, uint32_t seed) {
  std::mt19937 random(seed);
  for (uint32_t i = 0; i < count; i++) side.Set(i, random());
}

template <class Side>
void Increment(benchmark::State& state) {
  const std::vector<uint32_t> indices = RandomIndices(state.range(0));
  Side side;
  Fill(side, state.range(0), 1);
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(side.Increment(indices[i++ % kDraws]));
}

template <class Side>
void Get(benchmark::State& state) {
  const std::vector<uint32_t> indices = RandomIndices(state.range(0));
  Side side;
  Fill(side, state.range(0), 1);
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(side.Get(indices[i++ % kDraws]));
}

template <class Side>
void Merge(benchmark::State& state) {
  Side to, from;
  Fill(to, state.range(0), 1);
  Fill(from, state.range(0), 2);
  for (auto _ : state) {
    to.Merge(from);
    benchmark::ClobberMemory();
  }
  qvbench::SetOperationsPerIteration(state, double(state.range(0)));
}

void AddSized(const char* group, const char* who, void (*body)(benchmark::State&)) {
  benchmark::internal::Benchmark* const added = qvbench::Add(group, who, body);
  for (const int64_t count : {256, 1000, 10000, 100000}) {
    if (count <= 1000 || !qvbench::Smoke()) added->Arg(count);
  }
}

template <class Side>
void AddSide(const char* who) {
  AddSized("vector_increment", who, Increment<Side>);
  AddSized("vector_get", who, Get<Side>);
  AddSized("vector_merge", who, Merge<Side>);
}

}  // namespace

void qvbench::Setup() {
  StartHost();
  AddSide<Qv>("qvrt");
  AddSide<StdVector>("std_vector");
  Aim("vector_increment", "std_vector", 1.05);
  Aim("vector_merge", "std_vector", 1);
}

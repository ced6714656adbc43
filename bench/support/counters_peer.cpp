// The peer of the vector. Design: support/counters_peer.h.
#include "bench/support/counters_peer.h"

#include <algorithm>
#include <utility>

namespace qvbench {
namespace {

uint64_t& Counter(Counters& counters, uint32_t index) {
  if (__builtin_expect(index >= counters.size(), 0)) counters.resize(index + 1);
  return counters[index];
}

}  // namespace

uint64_t IncrementCounter(Counters& counters, uint32_t index) { return Counter(counters, index)++; }

uint64_t GetCounter(const Counters& counters, uint32_t index) {
  return index < counters.size() ? counters[index] : 0;
}

uint64_t SetCounter(Counters& counters, uint32_t index, uint64_t value) {
  return std::exchange(Counter(counters, index), value);
}

void MergeCounters(Counters& counters, const Counters& others) {
  if (counters.size() < others.size()) counters.resize(others.size());
  for (size_t i = 0; i < others.size(); i++) counters[i] = std::max(counters[i], others[i]);
}

}  // namespace qvbench

// The peer of the vector: counters in a std::vector, behind the calls of a shared library. A call into one
// costs more than a call within the program, so a peer in the benchmark's own file would not be one.
#pragma once

#include <stdint.h>

#include <vector>

namespace qvbench {

using Counters = std::vector<uint64_t>;

uint64_t IncrementCounter(Counters& counters, uint32_t index);  // the value before
uint64_t GetCounter(const Counters& counters, uint32_t index);
uint64_t SetCounter(Counters& counters, uint32_t index, uint64_t value);  // the value before
void MergeCounters(Counters& counters, const Counters& others);           // the larger of each pair

}  // namespace qvbench

// Which allocations are looked at, and for how much each of them stands.
//
// A thread looks at the allocation in which its countdown of bytes runs out, then draws the next
// countdown from an exponential distribution whose mean is the interval. The process of "looks" along
// the bytes has no memory, so a block of s bytes is looked at with probability
//
//   p(s) = 1 - exp(-s / interval)
//
// whatever came before, and counts 1 / p(s) blocks and s / p(s) bytes: the expectation of any sum over
// blocks is that sum, without bias. The way of an allocation pays one subtraction and one branch.
//
// Weights are fixed-point numbers, so that what an allocation adds its release takes away again, to the
// last bit. In exact mode a block stands for itself: the countdown stays at 0 and always runs out.
#pragma once

#include "collectors/qvheap/words.h"

namespace qvheap {

inline constexpr uint32_t kBlocksShift = 16;  // 2^48 blocks, to 1/65536
inline constexpr uint32_t kBytesShift = 8;    // 2^56 bytes, to 1/256
inline constexpr int64_t kNeverLook = INT64_MAX;

struct Weight {
  uint64_t blocks;
  uint64_t bytes;
};

QVHEAP_INLINE Weight ExactWeight(uint64_t bytes) {
  return {uint64_t{1} << kBlocksShift, bytes << kBytesShift};
}
Weight SampledWeight(uint64_t bytes, uint32_t intervalBytes);

inline uint64_t WholeBlocks(uint64_t weight) {
  return (weight + (uint64_t{1} << (kBlocksShift - 1))) >> kBlocksShift;
}
inline uint64_t WholeBytes(uint64_t weight) {
  return (weight + (uint64_t{1} << (kBytesShift - 1))) >> kBytesShift;
}

// The state of a thread's generator, never 0: every thread of every process has its own. With a seed
// (for tests) it depends on nothing but seed and thread.
uint64_t SeedFor(uint64_t seed, uint32_t threadOrdinal);
// Bytes up to the next look, at least 1.
int64_t DrawCountdown(uint64_t& random, uint32_t intervalBytes);

}  // namespace qvheap

// The call stack of an allocation, captured by the library.
//
// The library's capture calls `backtrace` by name. That name is exported here, and the collector comes
// first in the search order: for the collector it is the collector's own unwinder (unwind.h), for the
// program libc's.
//
//   stack:  | capture | collector ... | wrapper's caller | ... program ... |
//                                       '- where the collector's own begins, and what is kept
#pragma once

#include <string.h>

#include "collectors/qvheap/words.h"

namespace qvheap {

inline constexpr int kMostFrames = 25;  // the library's
// So many are kept. Each frame more makes more sites of the same place, deep in recursion.
inline constexpr int kMostKept = 22;

// As a key of the table of sites: equal if epoch and frames are.
struct StackHead {
  uint64_t hash;   // of the frames, by way of ChainHash, and of the epoch
  uint32_t epoch;  // modules.h
  uint16_t depth;
  uint16_t isPacked;  // 1 in a PackedStack, 0 in a Stack
};

struct Stack : StackHead {
  void* frames[kMostFrames];  // innermost first
};

// What a site keeps: six bytes a frame, since no address has more (IsAddress).
inline constexpr uint32_t kPackedFrameBytes = 6;
struct PackedStack : StackHead {
  uint8_t frames[1];  // as many as it needs, and two bytes that a reader of the last one reads, too

  uint64_t Frame(uint32_t i) const {
    uint64_t bits;
    memcpy(&bits, frames + kPackedFrameBytes * i, sizeof bits);
    return bits & 0xFFFFFFFFFFFF;
  }
};

void SetEpoch(Stack& stack, uint32_t epoch);
struct Trail;
// From the return address at `call` on, which is the wrapper's; along the trail, if there is one. The
// caller is Looking.
void CaptureStack(Stack& stack, uint32_t epoch, void** call, Trail* trail);

}  // namespace qvheap

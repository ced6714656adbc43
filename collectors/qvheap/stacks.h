// The call stack of an allocation, captured by the library.
//
// The library's capture calls `backtrace` by name. That name is exported here, and the collector comes
// first in the search order: for the collector it is the collector's own unwinder (unwind.h), for the
// program libc's.
//
//   stack:  | capture | collector ... | wrapper's caller | ... program ... |
//                                       '- where the collector's own begins, and what is kept
#pragma once

#include "collectors/qvheap/words.h"

namespace qvheap {

inline constexpr uint32_t kMostFrames = 25;  // the library's

// As a key of the table of sites: equal if epoch and frames are.
struct Stack {
  uint64_t hash;   // of the frames, by way of ChainHash, and of the epoch
  uint32_t epoch;  // modules.h
  uint32_t depth;
  void* frames[kMostFrames];  // innermost first; in a kept stack only `depth` of them are there
};

void SetEpoch(Stack& stack, uint32_t epoch);
// From the return address at `call` on, which is the wrapper's. The caller is Looking.
void CaptureStack(Stack& stack, uint32_t epoch, void** call);

}  // namespace qvheap

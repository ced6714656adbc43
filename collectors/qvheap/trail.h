// The trail: where a thread's last walk up its stack went, so that the next one, whose outer frames are
// nearly always the same, need not find its way again.
//
//   steps:  | free | step | step | step ... | free |     innermost first, `first` to `last`
//
// A walk goes by itself until it meets the trail, in a frame with the same stack pointer and return
// address. From there on nothing but return addresses can have changed without a step noticing: the
// rule of an address and the stack pointer give the caller's stack pointer, which is on the trail, and
// the word below that is compared with the return address on the trail. This is one load and one
// comparison for each frame, of which none waits for the one before. (A frame that is found by rbp
// takes a step proper, and the result is compared.) A return address that has changed is put on the
// trail; where even the frames have, the walk goes by itself again until it meets the trail further out.
//
// So a walk with a trail finds what a walk without one would: it reads the same words of the stack, and
// the trail only spares it what follows from them.
//
// Invariants
//  (1) Of two neighbours on the trail, the rule of the inner one leads from its stack pointer to the
//      outer one's; a frame found by rbp did so when it was last walked through.
//  (2) A frame that a signal interrupted is there under a stack pointer that no frame has: its rule is
//      that of another address than a return address's.
//  (3) Up to chainEnd, where the last walk ended, `chain` of a step is the hash of its address and those
//      further out. A walk that ends there too hashes only what it found changed. (Where it has made
//      the trail longer it ends elsewhere.)
//  (4) A trail belongs to one thread and one epoch (modules.h). It is empty while it is changed: a
//      handler that interrupts that and never comes back leaves nothing half done.
#pragma once

#include "collectors/qvheap/unwind.h"

namespace qvheap {

inline constexpr uint32_t kTrailSteps = 40;
inline constexpr int kMostAlongTrail = 24;

// The hash of a stack goes from its outermost frame inward, since it is there that stacks are the same.
QVHEAP_INLINE uint64_t ChainHash(uint64_t chain, uint64_t pc) {
  chain = (chain ^ pc) * 0x9E3779B97F4A7C15;
  return chain ^ chain >> 32;
}

struct Step {
  uint64_t rsp, pc;
  Rule rule;
  uint64_t chain;
};

struct Trail {
  uint32_t epoch;
  uint32_t first, last;
  uint32_t chainEnd;
  Step steps[kTrailSteps];
  Step fresh[kMostAlongTrail];  // of the walk under way: a program's thread may have little stack
};

// Return addresses from the one at `call` on, which is a call's on the calling thread's stack; at most
// kMostAlongTrail; and their hash. The walk begins there, not in the calling function, whose frame
// address is given for the case that a frame is found by what rbp was at the call.
int UnwindAlong(Trail& trail, void** frames, int count, const uint64_t* call,
                const uint64_t* frameAddress, uint64_t& hash);

}  // namespace qvheap

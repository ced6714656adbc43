// Call stacks. Design: collectors/qvheap/stacks.h.
#include "collectors/qvheap/stacks.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <string.h>

#include "collectors/qvheap/census.h"
#include "collectors/qvheap/trail.h"

namespace qvheap {
namespace {

using BackTrace = int (*)(void**, int);

// Where the next call of backtrace, which is the capture's, is to begin. One that comes between from a
// signal handler uses it up: a walk that a handler makes amid another one must not meet that one's
// trail.
constinit thread_local void** t_call = nullptr;
constinit thread_local Trail* t_trail = nullptr;
constinit thread_local uint64_t t_chain = 0;  // the hash of what was found last; 0: not known

// Not inlined, so that the program's own calls need no frame in `backtrace`: they leave it by a jump, and
// libc's unwinder begins in the program.
__attribute__((noinline)) int CollectorsBackTrace(void** frames, int count,
                                                  const uint64_t* frameAddress) {
  void** const call = Load(t_call);
  Store(t_chain, uint64_t{0});
  if (QVHEAP_UNLIKELY(call == nullptr || count < kMostKept)) {
    return Unwind(frames, count, frameAddress);
  }
  Store<void**>(t_call, nullptr);
  const uint64_t* const from = reinterpret_cast<const uint64_t*>(call);
  if (t_trail == nullptr) return UnwindFrom(frames, kMostKept, from, frameAddress);
  uint64_t chain;
  const int found = UnwindAlong(*t_trail, frames, kMostKept, from, frameAddress, chain);
  Store(t_chain, chain);
  return found;
}

uint64_t ChainOf(const Stack& stack) {
  uint64_t chain = 0;
  for (uint32_t i = stack.depth; i > 0; i--) {
    chain = ChainHash(chain, reinterpret_cast<uint64_t>(stack.frames[i - 1]));
  }
  return chain;
}

void Finish(Stack& stack, uint64_t chain, uint32_t epoch) {
  constexpr uint64_t kOdd = 0x9E3779B97F4A7C15;
  stack.epoch = epoch;
  uint64_t hash = (chain ^ uint64_t{epoch} << 32) * kOdd;
  hash ^= hash >> 31;
  stack.hash = hash * kOdd;
}

}  // namespace

void SetEpoch(Stack& stack, uint32_t epoch) { Finish(stack, ChainOf(stack), epoch); }

void CaptureStack(Stack& stack, uint32_t epoch, void** call, Trail* trail) {
  Store(t_trail, trail);
  Store(t_call, call);
  stack.isPacked = 0;
  const uint16_t depth = __QvCaptureStackBackTrace(0, 0, 0, *call, 0, stack.frames);
  stack.depth = depth < kMostKept ? depth : uint16_t{kMostKept};
  if (QVHEAP_UNLIKELY(depth == 0)) {  // no way leads there
    stack.frames[0] = *call;
    stack.depth = 1;
  }
  const uint64_t chain = Load(t_chain);
  Finish(stack, QVHEAP_LIKELY(chain != 0) ? chain : ChainOf(stack), epoch);
}

}  // namespace qvheap

// The program's own calls go where they would go.
__attribute__((visibility("default"))) int backtrace(void** frames, int count) {
  using namespace qvheap;
  if (QVHEAP_LIKELY(t_inside)) {
    return CollectorsBackTrace(frames, count, static_cast<uint64_t*>(__builtin_frame_address(0)));
  }
  static BackTrace another = nullptr;
  BackTrace found = Load(another);
  if (found == nullptr) {
    found = reinterpret_cast<BackTrace>(dlsym(RTLD_NEXT, "backtrace"));
    Store(another, found);
  }
  return found != nullptr ? found(frames, count) : 0;
}

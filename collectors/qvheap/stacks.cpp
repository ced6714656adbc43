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

constinit thread_local Trail t_trail = {};
// Where the next call of backtrace, which is the capture's, is to begin. One that comes between from a
// signal handler uses it up: a walk that a handler makes amid another one must not meet that one's
// trail.
constinit thread_local void** t_call = nullptr;

int CollectorsBackTrace(void** frames, int count, const uint64_t* frameAddress) {
  void** const call = Load(t_call);
  if (QVHEAP_UNLIKELY(call == nullptr || count > kMostAlongTrail)) {
    return Unwind(frames, count, frameAddress);
  }
  Store<void**>(t_call, nullptr);
  return UnwindAlong(t_trail, frames, count, reinterpret_cast<const uint64_t*>(call), frameAddress);
}

// Two lanes, since a multiplication waits for the one before.
uint64_t HashOf(const Stack& stack) {
  constexpr uint64_t kOdd = 0x9E3779B97F4A7C15;
  uint64_t even = stack.depth, odd = stack.epoch;
  for (uint32_t i = 0; i + 1 < stack.depth; i += 2) {
    even = (even ^ reinterpret_cast<uint64_t>(stack.frames[i])) * kOdd;
    odd = (odd ^ reinterpret_cast<uint64_t>(stack.frames[i + 1])) * kOdd;
    even ^= even >> 32;
    odd ^= odd >> 29;
  }
  if (stack.depth % 2 != 0) even ^= reinterpret_cast<uint64_t>(stack.frames[stack.depth - 1]);
  uint64_t hash = (even ^ odd * kOdd) * kOdd;
  hash ^= hash >> 31;
  return hash * kOdd;
}

}  // namespace

void SetEpoch(Stack& stack, uint32_t epoch) {
  stack.epoch = epoch;
  stack.hash = HashOf(stack);
}

void CaptureStack(Stack& stack, uint32_t epoch, void** call) {
  Store(t_call, call);
  stack.depth = __QvCaptureStackBackTrace(0, 0, 0, *call, 0, stack.frames);
  SetEpoch(stack, epoch);
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

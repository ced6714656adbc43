// The one waiting policy of the library. Nothing blocks in the kernel: a waiter probes a word a number
// of times, then gives up its time slice, then tries again.
#pragma once

#include <sched.h>

#include "runtime/atomics.h"

namespace qv {

// One per acquisition, from its first busy probe to its end: a failed exchange does not reset it.
class Waiter {
 public:
  explicit Waiter(uint32_t spinCount) : spinCount_(spinCount) {}

  // To be called after a busy probe: true to probe again at once; false after a yield, when the next
  // step is an attempt rather than a probe. A single processor yields at every probe, since nobody can
  // release the lock while we look.
  bool Spin() {
    if (LoadRelaxed(__qvNumberOfProcessors) != 1) {
      if (++spins_ < spinCount_) {
        __builtin_ia32_pause();
        return true;
      }
      spins_ = 0;
    }
    sched_yield();
    return false;
  }

  void Reset() { spins_ = 0; }

 private:
  const uint32_t spinCount_;
  uint32_t spins_ = 0;
};

// A guard word for the rare, process-wide steps (start-up, logger creation, memory initialisation):
// 0 free, 1 taken, a yield between attempts. Works before any hook is installed, since it needs no
// thread identity; it is not recursive.
class GuardWord : NonCopyable {
 public:
  explicit GuardWord(uint32_t& word) : word_(word) {
    while (!TryExchange(word_, 1u, 0u)) sched_yield();
  }
  ~GuardWord() { StoreRelease(word_, 0u); }

 private:
  uint32_t& word_;
};

}  // namespace qv

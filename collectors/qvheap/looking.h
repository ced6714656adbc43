// Being inside the collector to look at a block: invariant (4) of collectors/qvheap/census.h.
#pragma once

#include "collectors/qvheap/census.h"

namespace qvheap {

// While it lives, the calling thread is inside the collector (2) to look at a block (4). Signals are
// not blocked: that would cost more than the look. So a handler may come at any time, find the thread
// inside (what it allocates comes from the arena), and never return; what it may then need, the
// report, must not wait for anything that a thread holds while it looks and lets signals through.
// Those are the locks of sites alone, and they are recursive. Whatever else is done meanwhile, system
// calls above all, blocks signals.
extern QVHEAP_OURS uint32_t g_forking;
QVHEAP_COLD void WaitForForkSlow(ThreadRecord& me);
class Looking : NonCopyable {
 public:
  explicit Looking(ThreadRecord& me) : me_(me), nested_(t_inside), wasLooking_(Load(me.looking)) {
    t_inside = true;
    t_counting = nullptr;
    // A full barrier: either the thread that forks sees us, or we see it.
    __atomic_exchange_n(&me.looking, 1, __ATOMIC_SEQ_CST);
    if (QVHEAP_UNLIKELY(Load(g_forking) != 0) && wasLooking_ == 0) WaitForForkSlow(me);
  }
  ~Looking() {
    __atomic_store_n(&me_.looking, wasLooking_, __ATOMIC_RELEASE);
    if (nested_) return;
    t_inside = false;
    t_counting = t_record;
  }

 private:
  ThreadRecord& me_;
  const bool nested_;
  const uint32_t wasLooking_;
};

}  // namespace qvheap

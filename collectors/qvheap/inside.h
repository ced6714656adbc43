// Being inside the collector: how a thread marks that what happens is not the program's doing.
// Invariant (2) of collectors/qvheap/census.h.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <signal.h>

#include "collectors/qvheap/words.h"

namespace qvheap {

struct ThreadRecord;
extern QVHEAP_OURS constinit thread_local ThreadRecord* t_counting;
extern QVHEAP_OURS constinit thread_local ThreadRecord* t_record;
extern QVHEAP_OURS constinit thread_local bool t_inside;
extern QVHEAP_OURS constinit thread_local bool t_signalsBlocked;  // by us

// No signal handler of the program runs on the thread: one that calls exit must not find locks taken
// that the report needs, or the library in the middle of something. Two system calls, but for those
// inside another. What needs it may make system calls of its own: errno stays the program's.
class SignalsBlocked : NonCopyable {
 public:
  SignalsBlocked() : nested_(t_signalsBlocked) {
    if (nested_) return;
    errno_ = errno;
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &former_);
    t_signalsBlocked = true;
  }
  ~SignalsBlocked() {
    if (nested_) return;
    t_signalsBlocked = false;
    pthread_sigmask(SIG_SETMASK, &former_, nullptr);
    errno = errno_;
  }

 private:
  const bool nested_;
  int errno_;
  sigset_t former_;
};

// While it lives, the calling thread is inside the collector (2), without signals.
class Inside : NonCopyable {
 public:
  Inside() : nested_(t_inside) {
    t_inside = true;
    t_counting = nullptr;
  }
  ~Inside() {
    if (nested_) return;
    t_inside = false;
    t_counting = t_record;
  }

 private:
  const SignalsBlocked signals_;
  const bool nested_;
};

}  // namespace qvheap

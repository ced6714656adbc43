// Writing may raise signals (a closed pipe, a full quota). They are blocked while a thread is inside
// the collector; what the collector itself raised is taken away before they are not.
#pragma once

#include <signal.h>
#include <time.h>

#include "collectors/qvheap/words.h"

namespace qvheap {

class RaisedSignals : NonCopyable {
 public:
  RaisedSignals() { sigpending(&pendingBefore_); }
  ~RaisedSignals() {
    Take(SIGPIPE);
    Take(SIGXFSZ);
  }

 private:
  void Take(int signal) {
    if (sigismember(&pendingBefore_, signal)) return;
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    const struct timespec now = {};
    sigtimedwait(&one, nullptr, &now);
  }

  sigset_t pendingBefore_;
};

}  // namespace qvheap

// Replaced libc functions. Design: tests/support/interpose.h.
#include "tests/support/interpose.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qvtest {
thread_local uint32_t t_yields = 0;
std::function<void()> g_onYield;
long (*g_sysconf)(int name) = nullptr;
}  // namespace qvtest

extern "C" {

int sched_yield() noexcept {
  ++qvtest::t_yields;
  if (!qvtest::g_onYield) return int(syscall(SYS_sched_yield));
  qvtest::g_onYield();
  return 0;
}

long __sysconf(int name);  // libc's other name for it

// Sanitizers ask it before they can instrument anything.
__attribute__((no_sanitize("address", "thread", "undefined"))) long sysconf(int name) noexcept {
  return qvtest::g_sysconf != nullptr ? qvtest::g_sysconf(name) : __sysconf(name);
}
}

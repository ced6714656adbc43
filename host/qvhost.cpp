// The stand-in host: installation, its lock, and fork. Contract: host/qvhost.h; design: host/parts.h.
#include "host/qvhost.h"

#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "host/parts.h"

namespace qvhost {
namespace {

constexpr uint32_t kProbesBeforeYield = 100;  // the lock is held for some twenty instructions

constinit uint32_t g_installed = 0;
constinit uint32_t g_lock = 0;                     // 1 while held
constinit thread_local bool t_insideFork = false;  // holds g_lock until fork has returned

void BeforeFork() {
  AcquireHostLock();
  t_insideFork = true;
}

void AfterForkInParent() {
  t_insideFork = false;
  ReleaseHostLock();
}

void AfterForkInChild() {
  ForgetIdentities();
  ForgetParentThreads();
  AfterForkInParent();
}

}  // namespace

void AcquireHostLock() {
  if (QV_UNLIKELY(t_insideFork)) return;
  while (!qv::TryExchange(g_lock, 1u, 0u)) {
    for (uint32_t probes = 0; qv::LoadRelaxed(g_lock) != 0; probes++) {
      if (probes < kProbesBeforeYield) {
        __builtin_ia32_pause();
      } else {
        sched_yield();
      }
    }
  }
}

void ReleaseHostLock() {
  if (QV_LIKELY(!t_insideFork)) qv::StoreRelease(g_lock, 0u);
}

void HostFatal(const char* what, const void* address) {
  char text[120];
  const int length = snprintf(text, sizeof text, "qvhost: %s: %p\n", what, address);
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, size_t(length));
  abort();
}

}  // namespace qvhost

void QvHostInstall() {
  using namespace qvhost;
  if (!qv::TryExchange(g_installed, 1u, 0u)) return;
  InstallIdentity();
  InstallThreads();
  pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
  __QvInitializeSubAllocator(QvHostAllocate, QvHostFree);
}

// Start-up, processor services, and the exported state of the run-time.
#include "runtime/startup.h"

#include <sched.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "runtime/waiter.h"

constinit int32_t __qvRtStarted = 0;
constinit int32_t __qvNumberOfProcessors = 1;

namespace {

constexpr uint32_t kYieldsPerSleepUnit = 5000000;
constexpr uint32_t kUsualPageBytes = 4096;

constinit uint32_t g_startupGuard = 0;
constinit uint32_t g_pageSizeCache = 0;  // 0 until asked for; racing first calls store the same value
constinit uint32_t g_sleepScratch = 0;

}  // namespace

uint32_t __QvRtStartup() {
  const qv::GuardWord guard(g_startupGuard);
  if (qv::LoadRelaxed(__qvRtStarted) == 0) {
    qv::StoreRelaxed(__qvNumberOfProcessors, get_nprocs());
    __QvRegisterInternalQVRTLogMessages();  // started even if this failed: the log then writes comments
    qv::StoreRelease(__qvRtStarted, 1);
  }
  return QV_STARTUP_RESULT;
}

void __QvRtShutdown() {}

int32_t __QvYield() { return sched_yield(); }

void __QvSleep(uint32_t units) {
  const uint32_t yields = units * kYieldsPerSleepUnit;  // wraps, as documented
  for (uint32_t i = 0; i < yields; i++) {
    sched_yield();
    qv::Increment(g_sleepScratch);
    qv::StoreRelaxed(g_sleepScratch, 0u);
  }
}

uint32_t __QvGetNativePageSize() {
  uint32_t bytes = qv::LoadRelaxed(g_pageSizeCache);
  if (bytes == 0) {
    const long answer = sysconf(_SC_PAGESIZE);
    bytes = answer == -1 ? kUsualPageBytes : uint32_t(answer);
    qv::StoreRelaxed(g_pageSizeCache, bytes);
  }
  return bytes;
}

// The channel's thread. Design: collectors/qvheap/worker.h.
#include "collectors/qvheap/worker.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <setjmp.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "collectors/qvheap/census.h"
#include "collectors/qvheap/channel.h"
#include "collectors/qvheap/life.h"
#include "collectors/qvheap/pause.h"

namespace qvheap {
namespace {

constexpr size_t kStackBytes = 1 << 18;  // the library takes 21 KiB of it for the records
constexpr uint64_t kPatienceMilliseconds = 1000;

struct Work {
  QV_THREAD_FUNCTION function;
  intptr_t argument;
};

constinit Work g_work = {};        // written before the thread is created
constinit uint32_t g_exists = 0;   // 1 from the creation to the last act of the thread
constinit int32_t g_threadId = 0;  // the system's
constinit thread_local jmp_buf* t_end = nullptr;

void RunOnce() {
  jmp_buf end;
  t_end = &end;
  if (_setjmp(end) == 0) g_work.function(g_work.argument);
}

// Whoever begins or ends the channel goes on holding the census lock for as long as a start or a report
// takes, in which a thread that spins would take the program a processor.
class SleepingGuard : NonCopyable {
 public:
  SleepingGuard() {
    constexpr struct timespec kPause = {0, 500000};
    while (__QvTryToAcquireSpinLock(&g_censusLock, 0) == 0) nanosleep(&kPause, nullptr);
  }
  ~SleepingGuard() { __QvReleaseSpinLock(&g_censusLock); }
};

// Whether the worker was only disturbed. If somebody else removed the semaphore, the rest goes too.
bool ChannelGoesOn() {
  const SleepingGuard guard;
  if (g_channelState != ChannelState::kOpen) return false;
  if (semctl(theCommandHandler.semaphoreId, 0, GETVAL) != -1) return true;
  CloseChannelLocked(ChannelState::kOff);
  return false;
}

// The lock file's descriptor is one of the worker's table, which goes with the worker.
void DetachArea() {
  CollectorCommandHandler& handler = theCommandHandler;
  if (handler.sharedArea != nullptr) shmdt(handler.sharedArea);
  handler.sharedArea = nullptr;
  handler.lockFileDescriptor = handler.sharedMemoryId = handler.semaphoreId = -1;
}

// An empty table of descriptors, of this thread alone. Descriptors 0 to 2 are occupied once and for
// all: the library avoids them.
bool LeaveDescriptors() {
  if (close_range(0, ~0u, CLOSE_RANGE_UNSHARE) != 0) return false;
  for (int i = 0; i <= STDERR_FILENO; i++) {
    if (open("/dev/null", O_RDWR | O_CLOEXEC) != i) return false;
  }
  return true;
}

void EquipLocked() {
  if (g_channelState != ChannelState::kOpen) return;
  int& lockFile = theCommandHandler.lockFileDescriptor;
  if (LeaveDescriptors()) lockFile = open(theCommandHandler.lockFilePath, O_RDWR | O_CLOEXEC);
  if (lockFile == -1) CloseChannelLocked(ChannelState::kOff);
}

// Signals were blocked by whoever created the thread. It waits for the lock, since the channel is
// complete when its opener has let go of that.
void* RunWorker(void*) {
  t_inside = true;
  prctl(PR_SET_NAME, "qvheap");
  __atomic_store_n(&g_threadId, gettid(), __ATOMIC_RELEASE);
  {
    const SleepingGuard guard;
    EquipLocked();
  }
  do {
    RunOnce();
  } while (ChannelGoesOn());
  const SleepingGuard guard;
  DetachArea();
  __atomic_store_n(&g_exists, 0u, __ATOMIC_RELEASE);
  return nullptr;
}

// Called inside the collector, so that the new thread begins with all signals blocked.
uint32_t CreateWorker(QV_THREAD_FUNCTION function, intptr_t argument, uint64_t, uint64_t* handle) {
  g_work = {function, argument};
  g_threadId = 0;
  g_exists = 1;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kStackBytes);
  pthread_t thread;
  const bool created = pthread_create(&thread, &attributes, RunWorker, nullptr) == 0;
  pthread_attr_destroy(&attributes);
  if (!created) g_exists = 0;
  *handle = created;
  return created;
}

void ExitWorker(int32_t) { longjmp(*t_end, 1); }

// The channel is ended by its objects' removal, not by the library's shut-down: nobody waits.
uint32_t WaitForWorker(uint64_t*, uint32_t, int32_t*) { return 1; }
uint32_t AddFini(QV_FINI_FUNCTION, void*) { return 1; }

bool SystemKnowsWorker() {
  const int32_t threadId = __atomic_load_n(&g_threadId, __ATOMIC_ACQUIRE);
  return threadId != 0 && syscall(SYS_tgkill, getpid(), threadId, 0) == 0;
}

}  // namespace

void InstallWorkerServices() { __QvSetThreadProcs(CreateWorker, ExitWorker, WaitForWorker, AddFini); }

bool WorkerExists() { return __atomic_load_n(&g_exists, __ATOMIC_ACQUIRE) != 0; }

void AwaitWorkersEnd() {
  const uint64_t end = MillisecondsNow() + kPatienceMilliseconds;
  while ((WorkerExists() || SystemKnowsWorker()) && MillisecondsNow() < end) sched_yield();
}

void ForgetWorker() {
  DetachArea();
  g_exists = 0;
  g_threadId = 0;
}

}  // namespace qvheap

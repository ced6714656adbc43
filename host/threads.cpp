// Thread services of the stand-in host, on pthreads, and fini functions. Contract: host/qvhost.h.
//
// A thread has a record in a fixed table; its handle is the record's number and the record's generation
// at that time. The generation moves on when the thread has been joined, and in a child process, where
// the threads of the parent do not exist: a handle that is out of date names a thread that has ended.
//
//   state:  kFree -> kTaken (create) -> kFree, generation + 1 (joined, not created after all, or
//   forked)
//
// The record's mutex is held while the thread is created and while it is joined, so a handle that is
// already visible waits for the former, and of several waiters the first joins and the others find a
// new generation.
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <stdlib.h>

#include "host/parts.h"

namespace qvhost {
namespace {

constexpr uint32_t kThreads = 32;
constexpr uint32_t kFinis = 64;
constexpr uint32_t kNumberBits = 8;

enum class State : uint32_t { kFree, kTaken };

struct ThreadRecord {
  State state;          // under the host lock
  uint32_t generation;  // under the mutex
  pthread_mutex_t joining = PTHREAD_MUTEX_INITIALIZER;
  pthread_t thread;
  QV_THREAD_FUNCTION function;
  intptr_t argument;
  int32_t exitCode;
};

struct Fini {
  QV_FINI_FUNCTION callback;
  void* argument;
};

constinit ThreadRecord g_threads[kThreads] = {};
constinit Fini g_finis[kFinis] = {};  // under the host lock
constinit uint32_t g_finiCount = 0;
constinit bool g_finisAtExit = false;
constinit thread_local ThreadRecord* t_record = nullptr;  // of a thread that we created
constinit thread_local jmp_buf* t_end = nullptr;

uint64_t HandleOf(const ThreadRecord& record) {
  return uint64_t{record.generation} << kNumberBits | uint64_t(&record - g_threads + 1);
}

// Null if the handle names no record at all.
ThreadRecord* RecordOf(uint64_t handle) {
  const uint64_t number = handle & ((1u << kNumberBits) - 1);
  return number >= 1 && number <= kThreads ? &g_threads[number - 1] : nullptr;
}

ThreadRecord* TakeRecord() {
  const HostGuard guard;
  for (ThreadRecord& record : g_threads) {
    if (record.state != State::kFree) continue;
    record.state = State::kTaken;
    return &record;
  }
  return nullptr;
}

void FreeRecord(ThreadRecord& record) {
  const HostGuard guard;
  record.state = State::kFree;
  ++record.generation;
}

void* RunThread(void* argument) {
  ThreadRecord* const record = static_cast<ThreadRecord*>(argument);
  jmp_buf end;
  t_record = record;
  t_end = &end;
  if (_setjmp(end) == 0) record->function(record->argument);
  return nullptr;
}

// Faults of the thread's own code must reach whoever handles them; blocked, they would end the process.
sigset_t AsynchronousSignals() {
  sigset_t signals;
  sigfillset(&signals);
  constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT};
  for (const int fault : kFaults) {
    sigdelset(&signals, fault);
  }
  return signals;
}

// The mutex is held.
bool StartThread(ThreadRecord& record) {
  const sigset_t blocked = AsynchronousSignals();
  sigset_t former;
  pthread_sigmask(SIG_BLOCK, &blocked, &former);
  const int error = pthread_create(&record.thread, nullptr, RunThread, &record);
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
  if (error != 0) FreeRecord(record);
  return error == 0;
}

uint32_t CreateThread(QV_THREAD_FUNCTION function, intptr_t argument, uint64_t, uint64_t* handle) {
  if (handle == nullptr) return 0;
  *handle = 0;
  ThreadRecord* const record = function != nullptr ? TakeRecord() : nullptr;
  if (record == nullptr) return 0;
  record->function = function;
  record->argument = argument;
  record->exitCode = 0;
  pthread_mutex_lock(&record->joining);
  qv::StoreRelease(*handle, HandleOf(*record));  // before the thread runs: it may look
  const bool started = StartThread(*record);
  if (!started) *handle = 0;
  pthread_mutex_unlock(&record->joining);
  return started ? 1 : 0;
}

// Not pthread_exit for our own threads: it loads the unwinder, which a process may no longer be able
// to.
void ExitThread(int32_t exitCode) {
  if (t_record == nullptr) pthread_exit(nullptr);
  t_record->exitCode = exitCode;
  longjmp(*t_end, 1);
}

void JoinOnce(ThreadRecord& record, uint64_t handle, int32_t* exitCode) {
  pthread_mutex_lock(&record.joining);
  if (HandleOf(record) == handle) {
    pthread_join(record.thread, nullptr);
    if (exitCode != nullptr) *exitCode = record.exitCode;
    FreeRecord(record);
  }
  pthread_mutex_unlock(&record.joining);
}

uint32_t WaitForThread(uint64_t* handle, uint32_t, int32_t* exitCode) {
  if (handle == nullptr) return 0;
  const uint64_t value = qv::LoadAcquire(*handle);
  ThreadRecord* const record = RecordOf(value);
  if (record != nullptr && record == t_record) return 0;
  if (record != nullptr) JoinOnce(*record, value, exitCode);
  qv::TryExchange(*handle, uint64_t{0}, value);
  return 1;
}

bool PopFini(Fini& fini) {
  const HostGuard guard;
  if (g_finiCount == 0) return false;
  fini = g_finis[--g_finiCount];
  return true;
}

// One at a time, so that a fini function may register another.
void RunFinis() {
  for (Fini fini; PopFini(fini);) fini.callback(fini.argument);
}

bool PushFini(const Fini& fini) {
  const HostGuard guard;
  if (g_finiCount == kFinis) return false;
  g_finis[g_finiCount++] = fini;
  return true;
}

uint32_t AddFini(QV_FINI_FUNCTION callback, void* argument) {
  if (callback == nullptr) return 0;
  if (!qv::Exchange(g_finisAtExit, true) && atexit(RunFinis) != 0) {
    qv::StoreRelaxed(g_finisAtExit, false);
    return 0;
  }
  return PushFini({callback, argument}) ? 1 : 0;
}

}  // namespace

// A mutex that a thread of the parent held must not stay locked here.
void ForgetParentThreads() {
  for (ThreadRecord& record : g_threads) {
    if (&record == t_record) continue;  // the thread that forked: it is this process now
    pthread_mutex_init(&record.joining, nullptr);
    if (record.state == State::kFree) continue;
    record.state = State::kFree;
    ++record.generation;
  }
}

void InstallThreads() { __QvSetThreadProcs(CreateThread, ExitThread, WaitForThread, AddFini); }

}  // namespace qvhost

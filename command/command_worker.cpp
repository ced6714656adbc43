// Command channel: the one instance, its worker thread, and the exported calls.
// Design: command/command_handler.h.
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <time.h>

#include "command/command_handler.h"
#include "runtime/hooks.h"

// Built when the library is loaded; its destructor does nothing.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wglobal-constructors"
#pragma clang diagnostic ignored "-Wexit-time-destructors"
#endif
CollectorCommandHandler theCommandHandler;

namespace {

enum SetUp : uint32_t { kRunning, kDone, kFailed };

// Process-wide state.
constinit uint64_t g_workerThreadId = 0;  // written by the create-thread proc; 0 when there is none
constinit uint32_t g_stopRequested = 0;   // set by a shutdown, never cleared
constinit uint32_t g_setUp = kFailed;     // of the last registration
constinit pthread_t g_registrar = {};     // who sets up while that is kRunning
constinit uint32_t g_last = 0;            // number of the last registration
constinit uint32_t g_current = 0;         // number of the one whose channel there is
constinit uint32_t g_served = 0;          // number of the one that a worker serves
constinit uint32_t g_stopped = 0;  // number of the last one whose worker took a shutdown's wake-up

bool StopRequested() { return qv::LoadAcquire(g_stopRequested) != 0; }

// The create-thread proc may start the worker at once, before there is anything to wait on; even on the
// registering thread itself, which cannot be waited for. True when the channel is up.
bool AwaitSetUp(uint32_t registration) {
  if (qv::LoadAcquire(g_setUp) == kRunning && qv::LoadAcquire(g_registrar) == pthread_self())
    return false;
  while (qv::LoadAcquire(g_setUp) == kRunning && qv::LoadAcquire(g_last) == registration) sched_yield();
  return qv::LoadAcquire(g_setUp) == kDone && qv::LoadAcquire(g_current) == registration;
}

// A worker whose registration failed may start late and take a later one for its own: only one serves,
// and only one takes the wake-up of a shutdown.
bool Claim(uint32_t registration) {
  const uint32_t served = qv::LoadAcquire(g_served);
  return served != registration && qv::TryExchange(g_served, registration, served) &&
         qv::LoadAcquire(g_stopped) != registration;
}

void Post(short flags) {
  sembuf post = {0, 1, flags};
  semop(qv::LoadRelaxed(theCommandHandler.semaphoreId), &post, 1);
}

enum class Wake : uint8_t { kPosted, kTimedOut, kBroken };

Wake WaitForWake(const timespec* timeOut) {
  sembuf take = {0, -1, 0};
  if (semtimedop(qv::LoadRelaxed(theCommandHandler.semaphoreId), &take, 1, timeOut) == 0)
    return Wake::kPosted;
  return errno == EAGAIN ? Wake::kTimedOut : Wake::kBroken;
}

// Any failure but a time-out ends the worker: an interrupted wait, a semaphore that was removed. A
// wake-up that was meant for the worker of a later registration is passed on.
void ServeCommands(uint32_t registration, const timespec* timeOut) {
  for (;;) {
    const Wake wake = WaitForWake(timeOut);
    if (wake == Wake::kBroken) return;
    if (qv::LoadAcquire(g_current) != registration) {
      if (wake == Wake::kPosted) Post(0);
      return;
    }
    if (StopRequested()) {
      qv::StoreRelease(g_stopped, registration);
      return;
    }
    // Records that a wake-up had to leave, since a controller held the lock, are still there.
    if (wake == Wake::kTimedOut) theCommandHandler.processHeartbeat();
    theCommandHandler.processCommands();
  }
}

void CommandWorker(intptr_t heartbeatSeconds) {
  const timespec timeOut = {heartbeatSeconds, 0};
  const uint32_t registration = qv::LoadAcquire(g_last);
  if (AwaitSetUp(registration) && Claim(registration)) {
    ServeCommands(registration, heartbeatSeconds != 0 ? &timeOut : nullptr);
    qv::TryExchange(g_served, 0u, registration);
  }
  qv::g_threadProcs.exit(0);
}

void EndSetUp(SetUp result) { qv::CompareExchange(g_setUp, uint32_t{result}, uint32_t{kRunning}); }

void StopCommandWorker(void*) {
  if (qv::LoadAcquire(g_workerThreadId) == 0) return;
  qv::StoreRelease(g_stopRequested, 1u);
  EndSetUp(kFailed);  // one that waits for the lock file: its worker must not wait on
  Post(SEM_UNDO);
  qv::g_threadProcs.wait(&g_workerThreadId, 1000, nullptr);
  qv::StoreRelease(g_workerThreadId, uint64_t{0});
}

}  // namespace

int __QvRegisterCommandHandlerWithHeartbeat(const char* directory, QV_COMMAND_CALLBACK callback,
                                            void* context, int heartbeatSeconds) {
  const qv::ThreadProcs& procs = qv::g_threadProcs;
  if (procs.create == nullptr || procs.exit == nullptr || procs.wait == nullptr ||
      procs.addFini == nullptr) {
    return 0;
  }
  const uint32_t registration = g_last + 1;
  qv::StoreRelease(g_registrar, pthread_self());
  qv::StoreRelease(g_last, registration);
  qv::StoreRelease(g_setUp, uint32_t{kRunning});
  if (procs.create(CommandWorker, heartbeatSeconds, 0, &g_workerThreadId) == 0) {
    EndSetUp(kFailed);
    return 0;
  }
  if (callback != nullptr) qv::StoreRelease(g_current, registration);
  procs.addFini(StopCommandWorker, nullptr);
  const int up = theCommandHandler.initializeCommandHandler(directory, callback, context);
  EndSetUp(up != 0 ? kDone : kFailed);
  return up;
}

int __QvRegisterCommandHandler(const char* directory, QV_COMMAND_CALLBACK callback, void* context) {
  return __QvRegisterCommandHandlerWithHeartbeat(directory, callback, context, 0);
}

void __QvShutdownCommandHandler() { StopCommandWorker(nullptr); }

void __QvUnregisterCommandHandler(_QVCMDHDLRCLEANEXTENT extent) {
  theCommandHandler.cleanupCommandHandler(extent);
}

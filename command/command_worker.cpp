// Command channel: the one instance, its worker thread, and the exported calls.
// Design: command/command_handler.h.
#include <errno.h>
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
constinit uint64_t g_workerThreadId =
    0;                                   // written by the create-thread proc; 0 when there is no worker
constinit uint32_t g_stopRequested = 0;  // set by a shutdown, never cleared
constinit uint32_t g_setUp = kFailed;

bool StopRequested() { return qv::LoadAcquire(g_stopRequested) != 0; }

// The create-thread proc may start the worker at once, before there is anything to wait on. True when
// the channel is up.
bool AwaitSetUp() {
  while (qv::LoadAcquire(g_setUp) == kRunning && !StopRequested()) sched_yield();
  return qv::LoadAcquire(g_setUp) == kDone;
}

enum class Wake : uint8_t { kPosted, kTimedOut, kBroken };

Wake WaitForWake(const timespec* timeOut) {
  sembuf take = {0, -1, 0};
  if (semtimedop(theCommandHandler.semaphoreId, &take, 1, timeOut) == 0) return Wake::kPosted;
  return errno == EAGAIN ? Wake::kTimedOut : Wake::kBroken;
}

// Any failure but a time-out ends the worker: an interrupted wait, a semaphore that was removed.
void ServeCommands(const timespec* timeOut) {
  for (;;) {
    const Wake wake = WaitForWake(timeOut);
    if (wake == Wake::kBroken || StopRequested()) return;
    if (wake == Wake::kPosted) {
      theCommandHandler.processCommands();
    } else {
      theCommandHandler.processHeartbeat();
    }
  }
}

void CommandWorker(intptr_t heartbeatSeconds) {
  const timespec timeOut = {heartbeatSeconds, 0};
  if (AwaitSetUp()) ServeCommands(heartbeatSeconds != 0 ? &timeOut : nullptr);
  qv::g_threadProcs.exit(0);
}

void StopCommandWorker(void*) {
  if (qv::LoadAcquire(g_workerThreadId) == 0) return;
  qv::StoreRelease(g_stopRequested, 1u);
  sembuf post = {0, 1, SEM_UNDO};
  semop(theCommandHandler.semaphoreId, &post, 1);
  qv::g_threadProcs.wait(&g_workerThreadId, 1000, nullptr);
  qv::StoreRelease(g_workerThreadId, uint64_t{0});
}

// A worker that still serves the channel would deliver beside a second one, and on fields that change
// under it. A worker without a channel has ended or is about to.
bool ChannelIsServed() {
  return qv::LoadAcquire(g_workerThreadId) != 0 && theCommandHandler.sharedArea != nullptr;
}

}  // namespace

int __QvRegisterCommandHandlerWithHeartbeat(const char* directory, QV_COMMAND_CALLBACK callback,
                                            void* context, int heartbeatSeconds) {
  const qv::ThreadProcs& procs = qv::g_threadProcs;
  if (procs.create == nullptr || procs.exit == nullptr || procs.wait == nullptr ||
      procs.addFini == nullptr || ChannelIsServed()) {
    return 0;
  }
  qv::StoreRelease(g_setUp, uint32_t{kRunning});
  if (procs.create(CommandWorker, heartbeatSeconds, 0, &g_workerThreadId) == 0) {
    qv::StoreRelease(g_setUp, uint32_t{kFailed});
    return 0;
  }
  procs.addFini(StopCommandWorker, nullptr);
  const int up = theCommandHandler.initializeCommandHandler(directory, callback, context);
  qv::StoreRelease(g_setUp, uint32_t{up != 0 ? kDone : kFailed});
  return up;
}

int __QvRegisterCommandHandler(const char* directory, QV_COMMAND_CALLBACK callback, void* context) {
  return __QvRegisterCommandHandlerWithHeartbeat(directory, callback, context, 0);
}

void __QvShutdownCommandHandler() { StopCommandWorker(nullptr); }

void __QvUnregisterCommandHandler(_QVCMDHDLRCLEANEXTENT extent) {
  theCommandHandler.cleanupCommandHandler(extent);
}

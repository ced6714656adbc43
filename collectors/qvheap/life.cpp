// The collector's life in a process: set-up, fork, exit. Design: collectors/qvheap/life.h.
#include "collectors/qvheap/life.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "collectors/qvheap/census.h"
#include "collectors/qvheap/channel.h"
#include "collectors/qvheap/heap.h"
#include "collectors/qvheap/log.h"
#include "collectors/qvheap/pause.h"
#include "collectors/qvheap/profile.h"
#include "collectors/qvheap/report.h"
#include "collectors/qvheap/room.h"
#include "collectors/qvheap/table.h"
#include "host/qvhost.h"

namespace qvheap {
namespace {

constinit bool g_installed = false;  // set by the process's first allocation, before it has threads
constinit bool g_started = false;
constinit bool g_nobodyLooks = false;  // since BeforeFork

// The program's own handlers that run after this one may allocate: they are counted as always. The
// order of the locks is that of their holders: the arena is used under the census lock.
void BeforeFork() {
  __QvAcquireSpinLock(&g_censusLock);
  g_nobodyLooks = StopLookersLocked();
  __QvAcquireSpinLock(&g_arenaLock);
}

void AfterForkInParent() {
  {
    const Inside inside;
    QVHEAP_DUMP_LOCKED(kDumpFork, "process %d forked", g_process.pid);
  }
  __QvReleaseSpinLock(&g_arenaLock);
  LetLookersGo();
  __QvReleaseSpinLock(&g_censusLock);
}

// The locks' owner has another thread id here, so they are made anew rather than released.
void AfterForkInChild() {
  __QvInitializeSpinLockAndSpinCount(&g_arenaLock, g_arenaLock.spinCount);
  __QvInitializeSpinLockAndSpinCount(&g_censusLock, g_censusLock.spinCount);
  const Inside inside;
  const SpinGuard guard(g_censusLock);
  LetLookersGo();
  ForgetAllSizes();
  RestartProfileLocked(g_nobodyLooks);
  RestartCensusLocked();
  g_process.pid = getpid();
  g_process.started = MillisecondsNow();
  ForgetPauses();
  DropStandardError();
  if (!g_started) return;
  BeginLogLocked();
  RestartChannelLocked();
  QVHEAP_DUMP_LOCKED(kDumpFork, "process %d came of process %d", g_process.pid, getppid());
}

void AtExit(int, void*) {
  if (getpid() != g_process.pid) return;  // a child that no fork handler told us of: not its census
  const Inside inside;
  {
    const SpinGuard guard(g_censusLock);
    CloseChannelLocked(ChannelState::kOff);
  }
  ReportOnce();
}

void Install() {
  g_installed = true;
  FindRealFunctions();
  InstallRoom();
  QvHostInstall();
  InstallCensus();
  InstallProfile();
  pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);  // so they run before the host's
}

void NameProgram() {
  const ssize_t length = readlink("/proc/self/exe", g_process.program, sizeof g_process.program - 1);
  g_process.program[length > 0 ? length : 0] = 0;
}

// The program may write over its arguments.
void KeepArguments(int count, char** arguments) {
  uint32_t used = 0;
  for (int i = 0; i < count && arguments[i] != nullptr; i++) {
    const size_t bytes = strlen(arguments[i]) + 1;
    if (bytes > sizeof g_process.arguments - used) break;
    memcpy(g_process.arguments + used, arguments[i], bytes);
    used += uint32_t(bytes);
  }
  g_process.argumentBytes = used;
}

// The log exists before anything can have something to say.
void ReadOptionsLocked() {
  SetUpLogLocked();
  g_process.parser = RegisterOptions(kCollectorOptions);
  const char* const text = getenv(kOptionsVariable);
  const bool understood = ReadHandover(text, g_process.parser, g_process.options);
  const char* const dump = g_process.parser.Text(kOptionDump);
  g_dumping = dump != nullptr && SelectDumpChannels(dump);
  BeginLogLocked();
  const LogSession session;
  if (understood || !session.IsOpen()) return;
  __QvLogInternal(QVLOG_SEVERITY_ERROR, QVLOG_MSG_COMMENT, 0, "%s is not understood: %s",
                  kOptionsVariable, text);
}

// on_exit rather than atexit: the handler does not belong to this library, and being among the first
// that are registered it runs among the last, after the exit functions of the program and of its
// libraries. libc hands every constructor the arguments of main.
__attribute__((constructor)) void Start(int count, char** arguments) {
  const Inside inside;
  if (!g_installed) Install();
  __QvRtStartup();
  g_process.pid = getpid();
  NameProgram();
  KeepArguments(count, arguments);
  on_exit(AtExit, nullptr);
  const SpinGuard guard(g_censusLock);
  g_process.started = MillisecondsNow();
  ReadOptionsLocked();
  StartProfileLocked();
  g_started = true;
  StartChannelLocked();
}

}  // namespace

constinit Process g_process = {};

ThreadRecord* EnterSlow() {
  if (t_inside) return nullptr;
  if (!g_installed) {
    const Inside inside;
    Install();
  }
  return t_record != nullptr ? t_record : RegisterThread();
}

}  // namespace qvheap

// Ends of a process that no exit handler hears of: _exit and its kin, exec, daemon. They come here
// first, so that the command channel leaves nothing behind in the system.
//
// All of this may run in a signal handler and in the child of a vfork. The latter shares the memory of
// its parent, whose channel it must not touch: it has another process id. An exec that fails leaves the
// program running, so the channel is due again.
//
// So do unshare and setns, which a process with a second thread may not call for user namespaces: the
// channel goes, with its thread, and is due again.
//
// The variable lists of execl and its kin become arrays on the stack, as in libc.
#include <alloca.h>
#include <sched.h>
#include <stdarg.h>
#include <stdlib.h>
#include <unistd.h>

#include "collectors/qvheap/census.h"
#include "collectors/qvheap/channel.h"
#include "collectors/qvheap/heap.h"
#include "collectors/qvheap/life.h"
#include "collectors/qvheap/worker.h"

#define QVHEAP_EXPORT __attribute__((visibility("default")))

namespace qvheap {
namespace {

QVHEAP_COLD void CloseChannel(ChannelState next) {
  const Inside inside;
  const SpinGuard guard(g_censusLock);
  CloseChannelLocked(next);
}

void BeforeEnd(ChannelState next) {
  if (QVHEAP_UNLIKELY(g_real.exit == nullptr)) EnterSlow();
  if (g_channelState == ChannelState::kOpen && getpid() == g_process.pid) CloseChannel(next);
}

void BeforeExec() { BeforeEnd(ChannelState::kDue); }

void BeSingleThreaded() {
  BeforeExec();
  if (getpid() == g_process.pid) AwaitWorkersEnd();
}

}  // namespace
}  // namespace qvheap

using namespace qvheap;

QVHEAP_EXPORT void _exit(int status) {
  BeforeEnd(ChannelState::kOff);
  g_real.exit(status);
  __builtin_unreachable();
}

QVHEAP_EXPORT void _Exit(int status) noexcept { _exit(status); }

QVHEAP_EXPORT void quick_exit(int status) noexcept {
  BeforeEnd(ChannelState::kOff);
  g_real.quickExit(status);
  __builtin_unreachable();
}

QVHEAP_EXPORT int daemon(int keepDirectory, int keepOutput) noexcept {
  BeforeExec();  // the parent ends in there; the child, and a failure, may open a channel again
  return g_real.daemon(keepDirectory, keepOutput);
}

QVHEAP_EXPORT int unshare(int flags) noexcept {
  BeSingleThreaded();
  return g_real.unshare(flags);
}

QVHEAP_EXPORT int setns(int file, int kind) noexcept {
  BeSingleThreaded();
  return g_real.setns(file, kind);
}

QVHEAP_EXPORT int execve(const char* path, char* const* arguments, char* const* variables) noexcept {
  BeforeExec();
  return g_real.execve(path, arguments, variables);
}

QVHEAP_EXPORT int execv(const char* path, char* const* arguments) noexcept {
  return execve(path, arguments, environ);
}

QVHEAP_EXPORT int execvpe(const char* name, char* const* arguments, char* const* variables) noexcept {
  BeforeExec();
  return g_real.execvpe(name, arguments, variables);
}

QVHEAP_EXPORT int execvp(const char* name, char* const* arguments) noexcept {
  return execvpe(name, arguments, environ);
}

QVHEAP_EXPORT int fexecve(int file, char* const* arguments, char* const* variables) noexcept {
  BeforeExec();
  return g_real.fexecve(file, arguments, variables);
}

QVHEAP_EXPORT int execveat(int folder, const char* path, char* const* arguments, char* const* variables,
                           int flags) noexcept {
  BeforeExec();
  return g_real.execveat(folder, path, arguments, variables, flags);
}

// The list from `first` to its null, as an array in the caller's frame; `list` then stands behind it.
#define QVHEAP_ARRAY_OF_LIST(array, first, list)                                 \
  va_list counting;                                                              \
  va_start(counting, first);                                                     \
  size_t count = 1;                                                              \
  while (va_arg(counting, char*) != nullptr) count++;                            \
  va_end(counting);                                                              \
  char** const array = static_cast<char**>(alloca((count + 1) * sizeof(char*))); \
  va_list list;                                                                  \
  va_start(list, first);                                                         \
  array[0] = const_cast<char*>(first);                                           \
  for (size_t i = 1; i <= count; i++) array[i] = va_arg(list, char*)

QVHEAP_EXPORT int execl(const char* path, const char* first, ...) noexcept {
  QVHEAP_ARRAY_OF_LIST(arguments, first, list);
  va_end(list);
  return execve(path, arguments, environ);
}

QVHEAP_EXPORT int execlp(const char* name, const char* first, ...) noexcept {
  QVHEAP_ARRAY_OF_LIST(arguments, first, list);
  va_end(list);
  return execvpe(name, arguments, environ);
}

QVHEAP_EXPORT int execle(const char* path, const char* first, ...) noexcept {
  QVHEAP_ARRAY_OF_LIST(arguments, first, list);
  char* const* const variables = va_arg(list, char* const*);
  va_end(list);
  return execve(path, arguments, variables);
}

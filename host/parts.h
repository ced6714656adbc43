// The stand-in host, inside view: what its files share. Contract: host/qvhost.h.
//
//   qvhost.cpp     installation, the lock, fork
//   identity.cpp   thread ids and thread-local slots
//   threads.cpp    thread services and fini functions
//   memory.cpp     regions, cells, mappings
//
// One spin lock guards what is shared (free cells, thread records, fini functions). It is innermost of
// all locks in the process: nothing is called under it but mmap and madvise. A fork takes it first and
// releases it on both sides, so the child finds everything whole; a thread that is inside fork passes
// through it, as handlers that run after ours may allocate.
//
// The host uses the public header and inlines of runtime/atomics.h, which refer to nothing in the
// library: it links beside the shared library and beside the static objects alike.
#pragma once

#include "runtime/atomics.h"

namespace qvhost {

// An own lock, not one of the library's: those ask the host who the caller is.
void AcquireHostLock();
void ReleaseHostLock();

struct HostGuard : qv::NonCopyable {
  HostGuard() { AcquireHostLock(); }
  ~HostGuard() { ReleaseHostLock(); }
};

void InstallIdentity();      // hooks of ids and slots
void InstallThreads();       // hooks of the thread services
void ForgetIdentities();     // in a child process: every cached id is void
void ForgetParentThreads();  // in a child process, lock held: the thread records are free

// One line on standard error, by write(2), then abort.
[[noreturn]] void HostFatal(const char* what, const void* address);

}  // namespace qvhost

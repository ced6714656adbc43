/* qvhost.h: the stand-in for the engine in a plain Linux process. One call gives libqvrt12 all that an
 * engine would: thread ids, thread-local slots, the process id, thread services, and memory.
 *
 * Tests, benchmarks, examples and preloaded collectors use it. It never calls malloc, so it may run
 * inside a malloc wrapper. C and C++. */
#ifndef QVHOST_H
#define QVHOST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Installs every hook and initialises the allocator (not __QvRtStartup). Call it once, before the
 * process has a second thread; later calls do nothing.
 *   native and current thread id   the kernel's thread id, cached per thread, right again after fork
 *   parent thread id               0: a plain process does not record it
 *   thread-local storage           64 slots per thread, all null in a new thread
 *   thread services                pthreads; wait joins the thread of the handle word and clears it;
 *                                  a fini function runs at exit, in reverse order of registration
 *   memory                         QvHostAllocate and QvHostFree below */
void QvHostInstall(void);

/* The allocator's hooks. Blocks are aligned to 16 bytes. Freed blocks of slab size are kept for reuse;
 * larger ones go back to the system. Memory arrives in large regions on huge pages where the system has
 * them. Any thread may call. */
void* QvHostAllocate(uint64_t sizeBytes);
void QvHostFree(void* block);

/* A ceiling on the bytes given out and not yet taken back, so that a shortage can be provoked: an
 * allocation that would pass it fails. 0 removes it. */
void QvHostSetCeiling(uint64_t bytes);

/* Accounts, for tests and reports. */
uint64_t QvHostBytesInUse(void); /* requested bytes given out and not taken back */
uint64_t QvHostBlocksInUse(void);
uint64_t QvHostBytesMapped(void); /* held from the system, in use or not */

#ifdef __cplusplus
}
#endif

#endif /* QVHOST_H */

/* qvhost.h: the stand-in for the engine in a plain Linux process. One call gives libqvrt12 all that an
 * engine would: thread ids, thread-local slots, the process id, thread services, and memory.
 *
 * Tests, benchmarks, examples and preloaded collectors use it. It never calls malloc, so it may run
 * inside a malloc wrapper; libc may allocate on its behalf in three places: QvHostInstall (the fork
 * handlers), the first fini function (atexit) and the creation of a thread. C and C++.
 *
 * It keeps about 0.8 KiB of thread-local storage in the static TLS block: link it into programs and
 * into libraries that are loaded at start-up (preloaded ones too), not into what is opened later by
 * dlopen. */
#ifndef QVHOST_H
#define QVHOST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Installs every hook and initialises the allocator (not __QvRtStartup). Call it once, before the
 * process has a second thread; later calls do nothing.
 *   native and current thread id   the kernel's thread id, cached per thread. Right again in every child
 *                                  process, be it made by fork, _Fork or a plain clone. The child of a
 *                                  vfork runs on its parent's memory and thread storage and is the parent
 *                                  thread to the locks, whose thread sleeps meanwhile.
 *   parent thread id               not installed (0): a plain process does not record it
 *   thread-local storage           64 slots per thread, all null in a new thread; a slot that was freed
 *                                  and is handed out again is null in every thread. Free and set return
 *                                  0 for a slot that is not in use.
 *   process id                     getpid
 *   thread services                pthreads, at most 32 at a time; all signals blocked in them but the
 *                                  synchronous faults, so that the program's handlers do not run there
 *     create   returns 0, with the handle 0, if there is no thread to be had
 *     exit     ends the thread by a jump back to its start: no unwinding, no destructors of its frames
 *     wait     joins the thread of the handle word and clears the word. The limit is ignored: who waits
 *              here is about to release what that thread uses. Any number of threads may wait for one.
 *              1 when the thread has ended (long ago, or with the parent process, counts too); 0 for a
 *              null word and for a thread that waits for itself. The exit code, if asked for, is written
 *              by the call that joined.
 *     fini     at most 64 functions, run at exit in reverse order of registration
 *   memory                         QvHostAllocate and QvHostFree below
 * Installing from one thread while another is inside fork() is not supported; afterwards fork() is safe at
 * any time: the child finds the host whole. A child made behind libc's back (_Fork, clone) has right thread
 * ids, but must not allocate if another thread could have been inside the host. */
void QvHostInstall(void);

/* The allocator's hooks. Blocks are aligned to 16 bytes; the contents are not cleared. Any thread may
 * call. errno is kept.
 *   up to 1 MiB   cut from regions of 32 MiB of address space, or little more than is needed at the time where
 *                 RLIMIT_AS limits it; kept for reuse when freed, by size in
 *                 steps of 16 KiB
 *   larger        a mapping of its own, cleared, given back to the system when freed. The first block of the
 *                 process may come from the region: it is the size-class table, and the slabs that
 *                 follow then share its last huge page.
 * Everything asks for huge pages (madvise), except blocks of QV_RESERVE_BYTES, of which usually nothing
 * but the first word is ever touched. A process that installs the host and allocates little thus holds
 * 6 MiB resident where the system grants huge pages: the table's 5 MiB, rounded up, with room for 15
 * slabs in the remainder; beyond that memory becomes resident in steps of 2 MiB, that is 31 slabs.
 * Where the system has none, it is the table's 5 MiB and then what is touched. Null is returned when
 * the system or the ceiling refuses. A null block is ignored; a block that is not ours, or was freed
 * already and is still kept, ends the process with a line on standard error. */
void* QvHostAllocate(uint64_t sizeBytes);
void QvHostFree(void* block);

/* From now on nothing asks for huge pages but the process's first block, the size-class table, which is
 * written whole as it is made: of the rest, what is touched becomes resident, no more. For a tool in a
 * program to which some megabytes matter more than the speed of the tool's own tables. */
void QvHostUseSmallPages(void);

/* A ceiling on the bytes given out and not yet taken back, so that a shortage can be provoked: an
 * allocation that would pass it fails. 0 removes it. */
void QvHostSetCeiling(uint64_t bytes);

/* Accounts, for tests and reports. */
uint64_t QvHostBytesInUse(void); /* requested bytes given out and not taken back */
uint64_t QvHostBlocksInUse(void);
/* Address space held from the system, in use or not, touched or not. */
uint64_t QvHostBytesMapped(void);

#ifdef __cplusplus
}
#endif

#endif /* QVHOST_H */

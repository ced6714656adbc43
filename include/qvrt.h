/* qvrt.h: the exported interface of libqvrt12.so, a runtime support library for dynamic-analysis
 * tools (collectors) that run inside the process of the program they analyse.
 *
 * Compiles alone as C11 and as C++17 or later. Everything here is ABI: names, argument widths, record
 * layouts (natural alignment, x86-64 Linux). One section per subsystem:
 *
 *   1  Start-up, hooks, atomics       7  Messages, message log     13  Hash tables
 *   2  Locks                          8  Command channel           14  Queues
 *   3  Files, processes, strings      9  Annotation tables         15  Vectors
 *   4  Categorised allocator         10  Modules, back traces      16  Red-black trees
 *   5  Collection, reserves          11  Debug dump channels       17  Sets and multisets
 *   6  XML files                     12  Tool options              18  Range tables
 *
 * Conventions, where a comment does not say otherwise:
 *   - 1 is success and 0 is failure; ids and handles use 0xFFFFFFFF for none; pointers use null.
 *   - Any function may be called from any thread once the thread-id hook is installed. Before that,
 *     one thread only: the locks cannot tell threads apart.
 *   - What comes from __QvMalloc is given back with __QvFree by whoever owns it. Strings passed in are
 *     read during the call and copied if they are needed later.
 *   - Running out of memory never shows as a null result: the library gives back reserves, collects,
 *     and at last ends the process through the exit handler (status 255).
 *   - Nothing is async-signal-safe, except the atomics and the bit scans.
 *
 * After fork() in a process with several threads, a lock that another thread held stays held in the
 * child for ever. Safe in such a child: the atomics, the hooks, _exit and exec. Everything that locks
 * (allocation and release, hence __QvXMLCleanupAfterFork too; the log; containers with locks) is safe
 * only if the parent made sure that no other thread was inside it, as a collector does with
 * pthread_atfork. */
#ifndef QVRT_H
#define QVRT_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#define QV_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* ==== 1 Start-up, hooks, atomics ================================================================ */

/* 0 until the first __QvRtStartup has finished, then 1 for the rest of the process. */
extern QV_API int32_t __qvRtStarted;
/* 1 until start-up, then the number of processors. Locks spin before they yield only if it is not 1. */
extern QV_API int32_t __qvNumberOfProcessors;

/* Starts the library; the first call counts the processors and registers the internal messages, later
 * ones do nothing. Threads that call at once all return after the start. Install the hooks and call
 * __QvInitializeSubAllocator first. Always returns QV_STARTUP_RESULT. */
QV_API uint32_t __QvRtStartup(void);
#define QV_STARTUP_RESULT 0x0C100002u
/* Does nothing; it pairs with __QvRtStartup. */
QV_API void __QvRtShutdown(void);

/* ---- Hooks -------------------------------------------------------------------------------------
 * The library asks the operating system for no thread id, process id or thread-local storage; they
 * come from procs that the tool installs. Installing null uninstalls. The pointers are plain words
 * without ordering: install them before the threads that use them run. Widths are those of the
 * registers: arguments and results pass through unchanged. */
typedef uint64_t (*QV_THREAD_ID_PROC)(void);
typedef uint32_t (*QV_TLS_ALLOC_PROC)(void);
typedef uint32_t (*QV_TLS_FREE_PROC)(uint32_t slot);
typedef void* (*QV_TLS_GET_VALUE_PROC)(uint32_t slot);
typedef uint32_t (*QV_TLS_SET_VALUE_PROC)(uint32_t slot, void* value);
typedef uint32_t (*QV_GET_PID_PROC)(void);

extern QV_API QV_THREAD_ID_PROC __qvGetCurrentThreadIdProc;
extern QV_API QV_THREAD_ID_PROC __qvGetNativeThreadIdProc;
extern QV_API QV_THREAD_ID_PROC __qvGetNativeParentThreadIdProc;
extern QV_API QV_TLS_ALLOC_PROC __qvTlsAllocProc;
extern QV_API QV_TLS_FREE_PROC __qvTlsFreeProc;
extern QV_API QV_TLS_GET_VALUE_PROC __qvTlsGetValueProc;
extern QV_API QV_TLS_SET_VALUE_PROC __qvTlsSetValueProc;

QV_API void __QvSetGetCurrentThreadIdProc(QV_THREAD_ID_PROC proc);
QV_API void __QvSetGetNativeThreadIdProc(QV_THREAD_ID_PROC proc);
QV_API void __QvSetGetNativeParentThreadIdProc(QV_THREAD_ID_PROC proc);
QV_API void __QvSetTlsAllocProc(QV_TLS_ALLOC_PROC proc);
QV_API void __QvSetTlsFreeProc(QV_TLS_FREE_PROC proc);
QV_API void __QvSetTlsGetValueProc(QV_TLS_GET_VALUE_PROC proc);
QV_API void __QvSetTlsSetValueProc(QV_TLS_SET_VALUE_PROC proc);
QV_API void __QvSetGetPidProc(QV_GET_PID_PROC proc);

/* The queries call the hook, or answer as noted when none is installed. */
QV_API uint64_t __QvGetCurrentThreadId(void);      /* the engine's id of this thread; 0 */
QV_API uint64_t __QvGetNativeThreadId(void);       /* the system's id of this thread; 0. Its low 32 bits
                                                      are the owner that the locks record */
QV_API uint64_t __QvGetNativeParentThreadId(void); /* 0 */
QV_API uint32_t __QvTlsAlloc(void);                /* a slot; 0xFFFFFFFF */
QV_API uint32_t __QvTlsFree(uint32_t slot);        /* 0 */
QV_API void* __QvTlsGetValue(uint32_t slot);       /* null */
QV_API uint32_t __QvTlsSetValue(uint32_t slot, void* value); /* 0 */
QV_API uint32_t __QvGetPid(void);                            /* 0xFFFFFFFF */

/* Thread services, used by the command channel alone, which refuses to start unless all four are set.
 *   create    starts a thread that runs function(argument), writes its handle into *handle, and
 *             returns non-zero; 0 on failure. `reserved` is 0.
 *   exit      called by that thread as its last act, with 0; does not return.
 *   wait      returns when the thread of *handle has ended; the limit is 1000 in the engine's unit,
 *             the exit-code pointer null.
 *   add fini  has callback(argument) called when the application ends. */
typedef void (*QV_THREAD_FUNCTION)(intptr_t argument);
typedef uint32_t (*QV_CREATE_THREAD_PROC)(QV_THREAD_FUNCTION function, intptr_t argument,
                                          uint64_t reserved, uint64_t* handle);
typedef void (*QV_EXIT_THREAD_PROC)(int32_t exitCode);
typedef uint32_t (*QV_WAIT_FOR_THREAD_PROC)(uint64_t* handle, uint32_t limit, int32_t* exitCode);
typedef void (*QV_FINI_FUNCTION)(void* argument);
typedef uint32_t (*QV_ADD_FINI_FUNCTION_PROC)(QV_FINI_FUNCTION callback, void* argument);

/* Stores the four, null included, and returns 1. */
QV_API uint32_t __QvSetThreadProcs(QV_CREATE_THREAD_PROC createThread, QV_EXIT_THREAD_PROC exitThread,
                                   QV_WAIT_FOR_THREAD_PROC waitForThread,
                                   QV_ADD_FINI_FUNCTION_PROC addFiniFunction);

/* ---- Atomics -----------------------------------------------------------------------------------
 * One locked instruction on a naturally aligned word, hence a full barrier; arithmetic wraps. Note
 * the order of the compare-exchange: target, new value, expected value. It succeeded if the result
 * equals the expected value. The twins named …Internal are the same. */
QV_API uint32_t __QvInterlockedIncrement(volatile uint32_t* target); /* the new value */
QV_API uint32_t __QvInterlockedDecrement(volatile uint32_t* target); /* the new value */
QV_API uint32_t __QvInterlockedExchangeAdd(volatile uint32_t* target, uint32_t addend); /* the old */
QV_API uint32_t __QvInterlockedCompareExchange(volatile uint32_t* target, uint32_t exchange,
                                               uint32_t comparand); /* the value found */
QV_API uint64_t __QvInterlockedCompareExchange64(volatile uint64_t* target, uint64_t exchange,
                                                 uint64_t comparand); /* the value found */
QV_API uint32_t __QvInterlockedIncrementInternal(volatile uint32_t* target);
QV_API uint32_t __QvInterlockedDecrementInternal(volatile uint32_t* target);
QV_API uint32_t __QvInterlockedExchangeAddInternal(volatile uint32_t* target, uint32_t addend);
QV_API uint32_t __QvInterlockedCompareExchangeInternal(volatile uint32_t* target, uint32_t exchange,
                                                       uint32_t comparand);
QV_API uint64_t __QvInterlockedCompareExchange64Internal(volatile uint64_t* target, uint64_t exchange,
                                                         uint64_t comparand);

/* Index of the lowest or highest set bit. The argument must not be 0 (any result may come back). */
QV_API uint32_t __QvGetLeastSignificantOneIndex(uint32_t bits);
QV_API uint32_t __QvGetLeastSignificantOneIndexInternal(uint32_t bits);
QV_API uint32_t __QvGetMostSignificantOneIndexInternal(uint32_t bits);
QV_API uint32_t __QvGetMostSignificantOneIndexLong(uint64_t bits);

/* Gives up the processor once; the result of sched_yield. */
QV_API int32_t __QvYield(void);
/* Yields units * 5,000,000 times (the product in 32 bits, so it wraps from 859 units). A delay in
 * yields, not in time: it reads no clock. */
QV_API void __QvSleep(uint32_t units);
/* Bytes of a memory page; 4096 if the system cannot say. */
QV_API uint32_t __QvGetNativePageSize(void);

/* ==== 2 Locks =================================================================================== */

/* ---- Spin locks --------------------------------------------------------------------------------
 * A recursive lock embedded by value in the caller's record; it needs no destruction. Waiters spin,
 * then yield; nothing blocks in the kernel. The owner is the native thread id, so install that hook
 * before two threads meet at a lock. The fields are ABI: look, but write only through the calls.
 *
 * Without the hook every caller's id is 0, which is also the owner of a free lock. An acquisition by
 * identity 0 then succeeds and leaves the record exactly as it was (if a thread with an id holds the
 * lock, it first waits until that thread has left), so no lock is ever left held, and nothing is
 * excluded: identity 0 is for the time when one thread runs. Once the hook is installed, the same
 * lock works, even if it was acquired before and is released after. Never remove the hook while a lock
 * is held: the holder would no longer be known. */
typedef struct QV_SPIN_LOCK {
  uint64_t owner;          /* native thread id of the holder (low 32 bits); 0 when free */
  uint32_t state;          /* 0 free, 1 held */
  uint32_t recursionCount; /* acquisitions the holder has not yet released */
  uint32_t spinCount;      /* busy probes between two yields while waiting */
} QV_SPIN_LOCK;

QV_API void __QvInitializeSpinLock(QV_SPIN_LOCK* lock); /* all fields 0 */
QV_API void __QvInitializeSpinLockAndSpinCount(QV_SPIN_LOCK* lock, uint32_t spinCount);
QV_API void __QvAcquireSpinLock(QV_SPIN_LOCK* lock);
/* Bounded attempt, never yields: 1 if the caller now holds the lock, 0 after `budget` busy probes. A
 * budget of 0, or a single processor, makes one attempt. */
QV_API uint32_t __QvTryToAcquireSpinLock(QV_SPIN_LOCK* lock, uint32_t budget);
/* Undoes one acquisition. Releasing a free lock does nothing; that the caller is the holder is not
 * checked. */
QV_API void __QvReleaseSpinLock(QV_SPIN_LOCK* lock);
QV_API uint32_t __QvIsSpinLockInAcquiredState(const QV_SPIN_LOCK* lock); /* 1 if anybody holds it */
QV_API uint32_t __QvIsSpinLockAcquiredByCallingThread(const QV_SPIN_LOCK* lock);

/* ---- Shared/exclusive locks --------------------------------------------------------------------
 * Many readers or one writer. The writer may nest, and may take shared access inside (a no-op).
 * Readers may nest by counting, but a waiting writer holds back new readers: a thread that holds
 * shared access and asks for it again behind a waiting writer waits for itself, so nest readers only
 * where no writer can wait. A reader must not ask for exclusive access either. Without a thread-id
 * hook everybody passes, as with spin locks; with one, readers are counted whatever their id. */
typedef struct QV_SHARED_EXCLUSIVE_LOCK {
  uint32_t state;          /* 0 free, 1 shared, 2 exclusive; first half of one aligned 64-bit word */
  uint32_t readerCount;    /* threads in shared mode or on their way into it; the second half */
  uint64_t owner;          /* native thread id of the writer; 0 when there is none */
  uint32_t writerWaiting;  /* 1 while a blocking writer waits; new readers hold back */
  uint32_t recursionCount; /* nesting depth of the writer */
  uint32_t spinCount;      /* busy probes between two yields while waiting */
} QV_SHARED_EXCLUSIVE_LOCK;

QV_API void __QvInitializeSharedExclusiveLock(QV_SHARED_EXCLUSIVE_LOCK* lock);
QV_API void __QvInitializeSharedExclusiveLockAndSpinCount(QV_SHARED_EXCLUSIVE_LOCK* lock,
                                                          uint32_t spinCount);
QV_API void __QvAcquireExclusiveLock(QV_SHARED_EXCLUSIVE_LOCK* lock);
/* As __QvTryToAcquireSpinLock; it never makes readers hold back. */
QV_API uint32_t __QvTryToAcquireExclusiveLock(QV_SHARED_EXCLUSIVE_LOCK* lock, uint32_t budget);
QV_API void __QvReleaseExclusiveLock(QV_SHARED_EXCLUSIVE_LOCK* lock); /* not exclusive: does nothing */
QV_API uint32_t __QvIsExclusiveLockAcquiredByCallingThread(const QV_SHARED_EXCLUSIVE_LOCK* lock);
QV_API void __QvAcquireSharedLock(QV_SHARED_EXCLUSIVE_LOCK* lock);
QV_API void __QvReleaseSharedLock(QV_SHARED_EXCLUSIVE_LOCK* lock);

/* ==== 3 Files, processes, strings =============================================================== */

/* Opens a stream that never sits on descriptor 0, 1 or 2, even where the program has closed those.
 * *errorOut (may be null) receives errno, on success too. */
QV_API FILE* __QvFopen(const char* path, const char* mode, int* errorOut);
QV_API FILE* __QvWFopen(const wchar_t* path, const wchar_t* mode); /* not supported here: null */
/* The stdio calls of the same names. */
QV_API int __QvFclose(FILE* stream);
QV_API int __QvFflush(FILE* stream);
QV_API long __QvFtell(FILE* stream);
QV_API int __QvFseek(FILE* stream, int64_t offset, int origin);
QV_API size_t __QvFread(void* buffer, size_t elementSize, size_t count, FILE* stream);
QV_API size_t __QvFwrite(const void* buffer, size_t elementSize, size_t count, FILE* stream);
QV_API char* __QvFgets(char* buffer, uint32_t sizeBytes, FILE* stream);
QV_API int __QvFprintf(FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));

/* In place: every run of '/' becomes one. Null does nothing. */
QV_API void __QvSanitizePath(char* path);

/* vsnprintf; the SC twins are the same as their plain ones, here and below. */
QV_API int __QvSnprintf(char* buffer, size_t sizeBytes, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
QV_API int __QvSCnprintf(char* buffer, size_t sizeBytes, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
QV_API int __QvVsnprintf(char* buffer, size_t sizeBytes, const char* format, va_list arguments);
/* strncpy of sizeBytes whose last byte is always NUL; returns the destination. */
QV_API char* __QvStrncpy(char* destination, const char* source, size_t sizeBytes);
QV_API char* __QvStrSCncpy(char* destination, const char* source, size_t sizeBytes);
/* A copy in category 0 that the caller frees; null for null. */
QV_API char* __QvStrdup(const char* text);
/* Cuts trailing white space in place and returns the first character that is none; null for null. */
QV_API char* __QvStripWhiteSpaces(char* text);
/* What follows the last '/', as a new string in category 0 that the caller frees. A path that ends in
 * '/' gives "", except that one character is its own base name. Null for an empty or null path. */
QV_API char* __QvGetBaseName(const char* path);
QV_API char* __QvGetSCBaseName(const char* path);
/* In place, byte by byte, by the locale's single-byte lower case. Null does nothing. */
QV_API void __QvConvertUtf8ToLowerCase(char* text);
/* Adds step (0 counts as 1) to one process-wide counter, atomically; the new value. */
QV_API uint64_t __QvUpdateTimestamp(int32_t step);

/* A growable counted string. Its owner serialises access. The buffer grows and never shrinks. */
typedef struct QV_STRING {
  uint32_t length;   /* characters, without the NUL */
  uint32_t capacity; /* bytes of the buffer */
  uint32_t category; /* memory category of record and buffer */
  char* buffer;      /* NUL-terminated text */
} QV_STRING;

/* Null text leaves a string as it was (a new one: empty), a null string does nothing. Text may point
 * into the string itself. A text of 4 GiB is a fatal tool defect, here and in the copies above. */
QV_API QV_STRING* __QvStrAlloc(uint32_t category, uint32_t capacityBytes, const char* text);
QV_API QV_STRING* __QvStrSet(QV_STRING* string, const char* text); /* replaces; returns the string */
QV_API void __QvStrAppend(QV_STRING* string, const char* text);
QV_API void __QvStrDestroy(QV_STRING* string); /* null does nothing */

/* ---- Lock files --------------------------------------------------------------------------------
 * A file whose first 8 bytes hold a value that processes read and write under a record lock over the
 * whole file. Descriptors are the caller's. Record locks are between processes, not threads. A file
 * that cannot be opened, read or written is fatal; failed locking is the caller's to handle. */
QV_API int __QvCreateLockFile(const char* path, int truncate); /* created with 0777 less the umask */
QV_API int __QvLockFile(int descriptor);                       /* waits; the result of fcntl */
QV_API int __QvUnlockFile(int descriptor);                     /* the result of fcntl */
QV_API int64_t __QvWriteLockFile(int descriptor, const void* eightBytes); /* bytes written */
QV_API int64_t __QvReadLockFile(int descriptor, void* eightBytes);        /* bytes read, 0 to 8 */
QV_API int __QvCloseLockFile(int descriptor);                             /* the result of close */
QV_API int __QvClose(int descriptor);

/* Starts argv[0] with the null-terminated argv and an empty environment and does not wait. Returns the
 * child's process id, which the caller may wait for, or -1 if there was no child. If the program
 * cannot be executed, the child logs so and ends with status 127 without running exit functions. */
QV_API int32_t __QvCreateProcess(char* const argv[]);

/* ==== 4 Categorised allocator ===================================================================
 * All memory comes from the tool's hooks and is carved into chunks of equal size: one pool per memory
 * category and size class of 16 bytes. Requests above 32,728 bytes go straight to the hook. Each
 * allocation is charged to a category, so that a tool sees which of its parts holds how much.
 *
 * Before __QvInitializeSubAllocator, allocations are served from anonymous pages that the library maps
 * itself; they are recognised when released and never reach the tool's free hook. */

/* Takes the sizes in bytes; returns a block aligned to 16 bytes, or null. Called under the allocator
 * lock; it must not allocate from this library, but may call __QvAsynchronousCollectMemory. */
typedef void* (*QV_ALLOCATE_PROC)(uint64_t sizeBytes);
/* Takes back a block; may run under a size-class lock, so it must not call back into the allocator.
 * Null is allowed: blocks are then never given back. */
typedef void (*QV_FREE_PROC)(void* block);

enum {
  QV_MEMORY_CATEGORIES = 64,
  QV_SIZE_CLASSES = 2046, /* chunk sizes of one category, in units of 16 bytes from 1 */
  QV_CHUNK_UNIT_BYTES = 16,
  QV_SLAB_HEADER_UNITS = 3,
  QV_LARGEST_SMALL_REQUEST = 32728,
  QV_SLAB_MAGIC = 0xBEEF,
  QV_LARGE_CHUNK_MARK = 0xBEEF
};

/* The head of a slab: a block of 2^(16 + slabSizeShift) - 16 bytes, cut into chunks of one class from
 * byte 48 on. Each chunk starts with a header word; the caller's memory follows it:
 *   allocated  the slab's address (even)
 *   free       the next free chunk's address with bit 0 set; 1 in the last
 *   large      QV_LARGE_CHUNK_MARK: a block of its own, without a slab */
typedef struct QV_SLAB {
  struct QV_SLAB* nextSlab;     /* slabs of the class that have a free chunk */
  struct QV_SLAB* previousSlab; /* null in the first one */
  void* freeList;               /* header word of the first free chunk, or null */
  uint32_t freeCount;
  uint32_t units; /* chunk size in units of 16 bytes */
  uint32_t chunkCount;
  uint16_t magic; /* QV_SLAB_MAGIC */
  uint8_t category;
  uint8_t slabSizeShift;
} QV_SLAB;

/* One record for each category and chunk size, at entry category * 2046 + (units - 1) of one block
 * taken from the allocate hook. */
typedef struct QV_SIZE_CLASS {
  QV_SPIN_LOCK lock;  /* guards the slab list and the free lists of its slabs */
  QV_SLAB* firstSlab; /* first slab with a free chunk, or null */
  uint32_t units;
} QV_SIZE_CLASS;

typedef struct QV_MEMORY_CATEGORY_INFO {
  char name[32];
  int64_t bytesAllocated;       /* slab bytes held now */
  int64_t bytesAllocatedAtPeak; /* the same when the total was last at a new peak */
} QV_MEMORY_CATEGORY_INFO;

/* The first memory call of the process; only the first call has an effect. A null allocate hook is
 * ignored. If the hook cannot give the size-class table (5,237,760 bytes), a line on standard error
 * says so and the process ends through the exit handler. */
QV_API void __QvInitializeSubAllocator(QV_ALLOCATE_PROC allocateProc, QV_FREE_PROC freeProc);
/* At least sizeBytes bytes, not cleared, never null, 8 bytes past a 16-byte boundary. category 0 to
 * 63; slabSizeShift 0 to 15 is the size (64 KiB shifted left by it) of the slab to make if a new one
 * is needed. Anything else, or a size above 0xFFFFFFE8, is a fatal tool defect. */
QV_API void* __QvMalloc(uint32_t category, uint32_t sizeBytes, uint32_t slabSizeShift);
/* Null does nothing. A small chunk released twice is reported in the log and left alone; a large block
 * released twice is not detected. */
QV_API void __QvFree(void* address);

/* The new category's index, or -1: a null name (reported), or 64 categories exist. 31 characters of
 * the name count. Category 0 is "QV_MISC". */
QV_API int32_t __QvRegisterMemoryCategory(const char* name);
/* Statistics count slabs, not single allocations and not large blocks. They cannot be switched off
 * again. Switched on late, a figure stays at 0 instead of going below it. */
QV_API void __QvEnableMemoryStatisticsCollection(void);
QV_API uint32_t __QvGetNumMemoryCategories(void);
QV_API uint64_t __QvGetTotalTimesMemoryCollected(void);
QV_API uint64_t __QvGetPeakTotalMemoryAllocated(void); /* the present total if there was no peak yet */
/* Fills *out and returns 1; 0 for a null out or an unknown index. Takes no lock. */
QV_API uint32_t __QvGetMemoryInfoByCategory(uint32_t index, QV_MEMORY_CATEGORY_INFO* out);

/* ==== 5 Memory collection and reserves ==========================================================
 * When the allocate hook fails, the library gives back its reserves one by one and asks again; when
 * free swap falls, or the engine asks, it has the tool's collectors release what they can. */

enum { QV_RESERVE_BYTES = 33554416, QV_MEMORY_COLLECTORS = 16 };

/* Runs on the thread that needs memory, under the allocator lock: it may allocate and free, must not
 * wait for another thread. */
typedef void (*QV_MEMORY_COLLECTOR)(void);

/* Call after __QvInitializeSubAllocator; only the first call of either has an effect. It resets the
 * statistics and takes up to reserveCount reserves of 33,554,416 bytes, stopping silently at the first
 * refusal. Before __QvInitializeSubAllocator there is no hook to ask: no reserve is taken. */
QV_API void __QvInitializeMemoryCollectorAndReserveMemory(uint32_t reserveCount);
QV_API void __QvInitializeMemoryCollector(void); /* the same with a count of 0 */
/* Collectors run in the order of registration. 0, or -1: null (reported), or 16 are registered. */
QV_API int32_t __QvRegisterMemoryCollector(QV_MEMORY_COLLECTOR collector);
/* The engine is out of memory and wants so many bytes. Does nothing before the initialisation above
 * and while reserves are being given back. From inside the allocate hook it collects at once; from
 * elsewhere it is __QvPreVirtualAllocCheck. */
QV_API void __QvAsynchronousCollectMemory(uint64_t bytesWanted);
/* The engine is about to reserve address space: proves that memory can still be had by allocating and
 * releasing a probe, after a pause if need be, and warns once per process if it cannot. */
QV_API void __QvPreVirtualAllocCheck(uint32_t bytesToReserve);
/* Non-zero: the reservation worked. After 11 failures in a row the check above does nothing until a
 * success. */
QV_API void __QvPostVirtualAllocCheck(int32_t succeeded);
/* Yields while a thread pauses inside __QvPreVirtualAllocCheck. */
QV_API void __QvWaitForPreVirtualAllocThread(void);

/* ==== 6 XML files ===============================================================================
 * A streaming writer of indented XML. It keeps no stack of names: the caller names each closing tag
 * and balances them (the depth stops at 0). Every line is begun, not ended: "\n" and one tab per
 * level. The calls do not lock; threads that share a file bracket each entry with
 * __QvXMLAcquireFile and __QvXMLReleaseFile. After creation nothing is allocated.
 *
 * A null file, name or text makes a call do nothing. */
typedef struct QV_XML_FILE {
  FILE* stream; /* null only after a close that lost the stream (see __QvXMLCloseFile) */
  char* fileName;
  uint32_t depth; /* tabs before the next line */
  QV_SPIN_LOCK lock;
  char scratch[65536]; /* escaped text and comments; the last byte is always NUL */
} QV_XML_FILE;

/* Null if the file cannot be opened. append 0 starts a new file with its two header lines; non-zero
 * continues one, a level deep. */
QV_API QV_XML_FILE* __QvXMLCreateFile(const char* fileName, int append);
/* Closes the stream, frees record and name and clears *file. If what is buffered cannot be written or
 * the descriptor is gone, everything stays as it is, so that nothing is lost unnoticed. */
QV_API void __QvXMLCloseFile(QV_XML_FILE** file);
/* For a child after fork: frees record and name and clears *file; leaves the stream alone. */
QV_API void __QvXMLCleanupAfterFork(QV_XML_FILE** file);
/* 1 if the stream still works or the file could be opened again for appending, else 0. */
QV_API uint32_t __QvXMLReopenFile(QV_XML_FILE* file);
QV_API void __QvXMLAcquireFile(QV_XML_FILE* file); /* recursive */
QV_API void __QvXMLReleaseFile(QV_XML_FILE* file); /* flushes, then releases */

/* Tags and attributes. Attribute values are written between single quotes as they are. */
QV_API void __QvXMLWriteOpeningTag(QV_XML_FILE* file, const char* name);
QV_API void __QvXMLStartWritingOpeningTag(QV_XML_FILE* file, const char* name);
QV_API void __QvXMLWriteStringAttribute(QV_XML_FILE* file, const char* name, const char* value);
QV_API void __QvXMLWriteIntegerAttribute(QV_XML_FILE* file, const char* name, int32_t value);
QV_API void __QvXMLFinishWritingOpeningTag(QV_XML_FILE* file);
QV_API void __QvXMLWriteClosingTag(QV_XML_FILE* file, const char* name);  /* on a line of its own */
QV_API void __QvXMLAppendClosingTag(QV_XML_FILE* file, const char* name); /* on the current line */
/* Text with the five characters " & ' < > escaped, cut at 65,535 bytes but never inside an entity. */
QV_API void __QvXMLWriteStringValue(QV_XML_FILE* file, const char* text);
QV_API void __QvXMLWriteStringElement(QV_XML_FILE* file, const char* name, const char* text);
QV_API void __QvXMLWriteDecimalElement(QV_XML_FILE* file, const char* name, long value);
QV_API void __QvXMLWriteLongDecimalElement(QV_XML_FILE* file, const char* name, int64_t value);
/* 0x and the low 32 bits. */
QV_API void __QvXMLWriteHexadecimalElement(QV_XML_FILE* file, const char* name, uint64_t value);
QV_API void __QvXMLWriteHexadecimalAddressElement(QV_XML_FILE* file, const char* name,
                                                  const void* address); /* as "%p" */
/* A comment of at most 65,534 characters in which every run of '-' becomes one. */
QV_API void __QvXMLWriteComment(QV_XML_FILE* file, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
QV_API void __QvXMLWriteCommentV(QV_XML_FILE* file, const char* format, va_list arguments);

/* ==== 7 Message registry and message log ========================================================
 * One XML log per process. A registered message becomes an element with its type, severity, time and
 * named arguments; free text becomes a comment. Every entry is flushed before the call returns, so
 * the log survives a crash. Entries logged before __QvRtStartup are dropped, and so are those whose
 * file cannot be opened. */

enum { QVLOG_SEVERITY_ERROR = 0, QVLOG_SEVERITY_WARNING = 1, QVLOG_SEVERITY_INFO = 2 };

enum {
  QVLOG_FLAG_FREE_TEXT = 1, /* no arguments; the text is a comment inside the element */
  QVLOG_FLAG_COMMENT = 2,   /* no element at all, only a comment */
  QVLOG_FLAG_NO_DISPLAY = 4 /* the element carries display='false' */
};

/* What precedes each argument value of a message. */
enum {
  QVLOG_ARG_STRING = 0x3EDE9134,  /* const char*; null is written as an empty value */
  QVLOG_ARG_INTEGER = 0x4AFE0077, /* int32_t */
  QVLOG_ARG_POINTER = 0x20FB6DE   /* const void* */
};

/* The two messages that exist from the start. */
enum {
  QVLOG_MSG_COMMENT = 0, /* a printf format and its values, written as a comment */
  QVLOG_MSG_INTERNAL = 1 /* the same inside an element of type INTERNAL */
};

/* The library's own messages: registered, and these ids written, by __QvRtStartup; 0 until then. */
extern QV_API uint32_t QVLOG_MSG_ABNORMAL_TERMINATE;
extern QV_API uint32_t QVLOG_MSG_OUT_OF_MEMORY;
extern QV_API uint32_t QVLOG_MSG_COLLECT_MEMORY;
extern QV_API uint32_t QVLOG_MSG_MEMORY_IS_TIGHT;
extern QV_API uint32_t QVLOG_MSG_FREEING_RESERVES; /* "num_bytes" */
extern QV_API uint32_t QVLOG_MSG_BAD_OPTION;       /* "option" */
extern QV_API uint32_t QVLOG_MSG_BAD_ARGUMENT;     /* "option" */
extern QV_API uint32_t QVLOG_MSG_FAIL_CONVERT_FILENAME;
extern QV_API uint32_t QVLOG_MSG_FAIL_OPEN_FILE;         /* "filename" */
extern QV_API uint32_t QVLOG_MSG_FAIL_SEEK_FILE;         /* "filename" */
extern QV_API uint32_t QVLOG_MSG_FAIL_READ_FILE;         /* "filename" */
extern QV_API uint32_t QVLOG_MSG_FAIL_READ_FILE_VERBOSE; /* "filename", "srerror" */

typedef struct QVLOG_MESSAGE {
  const char* name;                 /* text of the type element */
  const char* const* argumentNames; /* ended by null; null for no arguments */
  uint32_t flags;
  int32_t sourceHandle; /* 0 is the library itself; a negative one has an empty name */
} QVLOG_MESSAGE;

/* Copies the message into the table of 128 and returns its id, or 0xFFFFFFFF: the table is full, or
 * (reported in the log) the message or its name is null or its source handle was never handed out.
 * The library's own twelve take ids 2 to 13 when the tool registers nothing before start-up. */
QV_API uint32_t __QvRegisterLogMessage2(const QVLOG_MESSAGE* message);
QV_API uint32_t __QvRegisterLogMessage(const QVLOG_MESSAGE* message); /* the same */
/* Called by start-up: 1 if all twelve were registered and their ids stored. Each call registers them
 * anew, so a tool has no use for it; one that finds the table full returns 0 and leaves the ids. */
QV_API uint32_t __QvRegisterInternalQVRTLogMessages(void);

/* A handle (1 to 15) under which messages name their source; 0xFFFFFFFF for a null name, before the
 * log is open, or when all are handed out. A released handle is not handed out again; messages that
 * still use it are written with an empty source. */
QV_API uint32_t __QvGetLoggerHandle(const char* sourceName);
/* 1 if the handle was in use and its name begins sourceName; it waits for a thread that is writing
 * that name. Handle 0 cannot be released. */
QV_API uint32_t __QvReleaseLoggerHandle(int32_t handle, const char* sourceName);

/* Opens the log. With append, the file must hold an open root element already. 1 if it is open. A
 * second call moves the log to the new file: no entry goes to the former one any more, but it stays
 * open and its root element unclosed. */
QV_API uint32_t __QvCreateLogger(const char* source, const char* fileName, uint32_t append);
QV_API void __QvCloseLogger(void);      /* closes the root element, not the file */
QV_API uint32_t __QvReopenLogger(void); /* 1 if the log is usable, reopened if it had to be */

/* Writes one entry; without an open log, opens "qvlog.log" under the source "qvrt" first. What follows
 * noDisplay depends on the message:
 *   free text or comment (ids 0 and 1 among them): a printf format and its values;
 *   any other: one marker (QVLOG_ARG_*) and value for each argument name, in order.
 * An unregistered id makes the entry a comment with the next argument as its format. An entry that
 * comes from inside the log on the same thread (stdio may allocate, and malloc may be wrapped) is
 * dropped. */
QV_API void __QvLogInternal(uint32_t severity, uint32_t messageId, uint32_t noDisplay, ...);
/* Logs the text as an INTERNAL error, then __QvFatalExit(-1). */
QV_API void __QvLogFatalToolDefect(const char* format, ...)
    __attribute__((format(printf, 1, 2), noreturn));
/* Logs ABNORMAL_TERMINATE, then __QvExitHandler(code). */
QV_API void __QvFatalExit(int32_t code) __attribute__((noreturn));

/* A function that ends the process the engine's way; null removes it. */
typedef void (*QV_EXIT_HANDLER)(int32_t code);
QV_API void __QvSetExitHandler(QV_EXIT_HANDLER handler);
/* Calls the handler; if it returns or there is none, _exit(-1), which is status 255. */
QV_API void __QvExitHandler(int32_t code) __attribute__((noreturn));

/* ==== 8 Command channel =========================================================================
 * A controlling process of the same user steers the tool through a shared-memory area of five command
 * records; a worker thread hands each to the tool's callback, or a heartbeat when none came for a
 * number of seconds. The lock file "obkcmds.dat" in a directory of the tool's choice tells the
 * controller where the area is. Layout and duties of a controller: docs/command-channel.md. */

/* One command: five arguments, the first of them the code, and a payload. The library gives them no
 * meaning. */
enum { QV_COMMAND_RECORDS = 5, QV_COMMAND_PAYLOAD_BYTES = 4352 };
typedef struct CommandRecord {
  int32_t arguments[5];
  unsigned char payload[QV_COMMAND_PAYLOAD_BYTES];
} CommandRecord;

/* The shared memory, 21,868 bytes. */
typedef struct CommandArea {
  uint32_t ready;  /* 1 once the tool has set the area up */
  int32_t pending; /* filled records, 0 to 5 */
  CommandRecord records[QV_COMMAND_RECORDS];
} CommandArea;

/* Runs on the worker, one call at a time, without a lock; code and arguments are the controller's. The
 * payload is a private copy of 4,352 bytes, valid during the call; null with a heartbeat, whose code is
 * QV_HEARTBEAT_CODE. It may call anything but the shut-down below, which waits for the worker. */
typedef void (*QV_COMMAND_CALLBACK)(int code, int a2, int a3, int a4, int a5, unsigned char* payload,
                                    void* context);
enum { QV_HEARTBEAT_CODE = 0x11010 };

typedef enum _QVCMDHDLRCLEANEXTENT {
  QVCMDHDLR_CLEAN_ALL = 0,   /* everything; so does any value but 1 */
  QVCMDHDLR_CLEAN_DETACH = 1 /* leave the semaphore and the lock file */
} _QVCMDHDLRCLEANEXTENT;

/* 1 if the channel is up. 0, with everything undone: a thread-service proc is missing, the thread or a
 * kernel object could not be made, the callback is null, the path would pass 4,095 bytes (found before
 * anything is created), or the lock file's semaphore key is 0. A null or empty directory is the current
 * one. heartbeatSeconds 0: no heartbeats. The worker waits until set-up is over and ends if it failed;
 * one started after a shut-down ends at its first wake-up. Registering while the channel is up moves it:
 * the former worker ends, the objects of this process go; a forked child leaves its parent's alone. */
QV_API int __QvRegisterCommandHandlerWithHeartbeat(const char* directory, QV_COMMAND_CALLBACK callback,
                                                   void* context, int heartbeatSeconds);
QV_API int __QvRegisterCommandHandler(const char* directory, QV_COMMAND_CALLBACK callback,
                                      void* context);
/* Stops the worker and waits for it; without a worker does nothing. Kernel objects and file stay. */
QV_API void __QvShutdownCommandHandler(void);
/* Removes kernel objects and lock file, as far as `extent` says. Shut the worker down first. */
QV_API void __QvUnregisterCommandHandler(_QVCMDHDLRCLEANEXTENT extent);

/* ==== 9 Annotation tables =======================================================================
 * Tables that the compiler leaves in an image's ".ubq_notify_tab" section: the address of an
 * instruction, a name, and where a value lives when it executes. The tool finds the section; the parser
 * reads no byte outside it, whatever it holds. */

typedef struct AnnotationRecord {
  uint64_t address;
  const char* name;                /* in the section, or the definition's */
  const unsigned char* expression; /* DWARF location in the section; null for a definition */
  uint32_t probeSize;
  uint32_t hasLocation;   /* 1: the fields below mean something */
  uint64_t locationValue; /* register number or literal */
  uint32_t isRegister;    /* 1: a DWARF register number */
  int32_t registerOffset; /* added to the register's content */
} AnnotationRecord;

/* The head of a table; its entries follow. Offsets count from the header's first byte; integers are
 * little-endian and may lie unaligned. */
typedef struct ZcaTableHeader11 {
  char magic[16];   /* ".ubq_notify_tab" */
  uint16_t version; /* 0x0101 */
  uint16_t entryCount;
  uint32_t stringOffset, stringBytes;
  uint32_t expressionOffset, expressionBytes;
} ZcaTableHeader11;

typedef struct ZcaTableHeader12 {
  char magic[16];
  uint16_t version; /* 0x0102 */
  uint16_t unused1;
  uint16_t entryCount;
  uint16_t unused2;
  uint32_t stringOffset, stringBytes;
  uint32_t expressionOffset, expressionBytes;
  uint64_t flags; /* QV_ZCA_FLAG_* */
} ZcaTableHeader12;

/* The record is valid during the call. */
typedef void (*QV_ANNOTATION_CALLBACK)(const AnnotationRecord* record, void* context);

extern QV_API const uint64_t QV_ZCA_FLAG_PCREL; /* 1: addresses are relative to their table */
extern QV_API const uint64_t QV_ZCA_FLAG_PROBE; /* 2: entries have a probe size */
extern QV_API const uint64_t QV_ZCA_FLAG_32BIT; /* 4: addresses are sign-extended from 32 bits */

/* Calls back for each entry, in order. What is wrong with a table is said in the log and ends the walk;
 * entries that would leave the section are skipped and counted there. A null callback delivers nothing.
 * No state, no allocation. */
QV_API void __QvZCAParseAndProcessRecords(uint64_t imageBase, const unsigned char* section,
                                          uint64_t sectionBytes, QV_ANNOTATION_CALLBACK callback,
                                          void* context);

typedef struct ZcaValue {
  uint64_t value;
  uint32_t reserved[2]; /* 0 */
} ZcaValue;

/* One line of a definitions file: name "module path" hexadecimal-offset [literal]. */
typedef struct ZcaDefinition {
  uint32_t offset;  /* of the instruction from the module's load address */
  char* name;       /* owned, as are the next ones; null if the line had none */
  char* modulePath; /* without its quotes; empty if the field was too short to have two */
  uint32_t hasValue;
  ZcaValue* value;
  struct ZcaDefinition* next;
} ZcaDefinition;

/* The definitions are one list per process, for one thread at a time; callbacks must not change it. */
QV_API uint8_t __QvZCALoadExternalDefinitions(const char* path); /* 1 if the file could be read */
/* Fills a zeroed definition; 1 if the line had exactly four fields. Cuts the line's trailing space. */
QV_API int __QvZCAParseDefinition(char* line, ZcaDefinition* definition);
/* Calls back for each definition of the module, whose path is compared with runs of '/' collapsed. */
QV_API void __QvZCAProcessExternalRecords(const char* modulePath, uint64_t loadAddress,
                                          QV_ANNOTATION_CALLBACK callback, void* context);
QV_API void __QvZCACleanupDefinitions(void);

/* ==== 10 Modules and back traces ================================================================
 * The module table has no lock: the tool serialises loads, unloads and look-ups. */

/* A record takes part in the levels of a skip list from 0 up to the top level of when it was loaded. */
typedef struct ModuleRecord {
  uint64_t handle;                 /* the caller's */
  uint64_t start;                  /* unique in the table */
  uint64_t end;                    /* exclusive */
  struct ModuleRecord* forward[1]; /* the next record on each of its levels; the sentinel ends them */
} ModuleRecord;

/* The new record, to be read only; the sentinel, which is no module, if one with this start exists
 * already. Overlaps are not checked. Linear in the number of modules. */
QV_API ModuleRecord* __QvLoadModule(uint64_t handle, uint64_t start, uint64_t end);
QV_API void __QvUnloadModule(uint64_t handle, uint64_t start); /* the handle is not used */
/* The start of the module with start < address < end, its handle in *handleOut (may be null); else 0
 * and nothing stored. A module that starts at 0 is told from none by its handle. Logarithmic, without a
 * mispredicted branch; allocates nothing. */
QV_API uint64_t __QvGetModuleForVariable(uint64_t address, uint64_t* handleOut);

/* The mapping around an address, from the process's maps file (the process-id hook says whose): its
 * start, and its end in *endOut. 0, and *endOut as it was, if there is none or endOut is null. */
QV_API uint64_t __QvGetModuleAddressRange(uint64_t address, uint64_t* endOut);
/* The size of that mapping, and its end in *baseOut: a stack's base. 0 and 0 if there is none. */
QV_API uint64_t __QvGetThreadStackBaseAndSize(uint64_t address, uint64_t* baseOut);
QV_API uint64_t __QvGetImageOffsetFromPreferredAddress(void); /* 0 on this platform */

/* The calling thread's return addresses from startFrame on, into frames[25]; how many. 0 if startFrame
 * is not among the innermost 25. The other arguments are not used. */
QV_API uint16_t __QvCaptureStackBackTrace(uintptr_t unused1, uintptr_t unused2, uintptr_t unused3,
                                          void* startFrame, uintptr_t unused5, void** frames);
/* backtrace_symbols: one allocation that the caller gives to the system's free. */
QV_API char** __QvGetStackBackTraceSymbols(void* const* frames, int count);
QV_API void* __QvRtLoadImage(const char* path); /* dlopen with RTLD_NOW; null if it fails */
QV_API void* __QvRtGetSymbol(void* image, const char* name); /* null for a null argument too */

/* ==== 11 Debug dump channels ====================================================================
 * Diagnostic output that is switched on by topic while the program runs. A channel map names the
 * topics and gives each its bits; the process-wide dump mask says which are on. A dump call names its
 * channel by the index in the map and becomes a comment in the message log if their bits meet.
 *
 * The built-in map, by index: NONE, API, CAL, MEM, BUF, MOD, CFG, MIC, ZCA, SCR (bits 0 to 8), QVCORE
 * (those nine), TRC, IMG, RTN, BBL, INS, THR, RTL, TRA (bits 9 to 16), QVET (those eight), DOTNET_GC,
 * DOTNET_API, DOTNET_MEM, DOTNET_JIT, DOTNET_GEN (bits 17 to 21), DOTNET (those five), ALL.
 *
 * Map and mask are plain words: register and parse before threads dump. */
typedef struct QV_DEBUG_CHANNEL {
  uint64_t mask;    /* only the low 32 bits can meet the dump mask */
  const char* name; /* null ends the map */
} QV_DEBUG_CHANNEL;

enum { QV_DEBUG_CHANNELS = 32 }; /* entries of a map that count */

/* Makes the map the current one: used in place, so it must stay. The dump mask keeps its bits. 1, or 0
 * for null. */
QV_API uint32_t __QvDbgRegisterDbgMap(const QV_DEBUG_CHANNEL* map);
/* Changes the dump mask by the text, from left to right as far as it is understood: 1, or 0 (null
 * included), and then what came before stays applied. Either
 *   0x10         a hexadecimal mask to add; 0x0 switches all off; what follows the number is ignored
 *   api,no-mem   channels to add, or with no- to take away, in any case. A name may be shortened: the
 *                first channel in map order that begins so is meant, but a channel of exactly that
 *                name goes before it (dotnet is DOTNET, dotnet_ is DOTNET_GC). A channel without bits
 *                (NONE) switches all off. no- needs at least one letter behind it. A comma at the end
 *                is ignored; an empty item elsewhere is the first channel. */
QV_API uint32_t __QvParseDbgDumpOption(const char* text);
/* Writes "[channel] [thread id] text" if the channel is on; the text is cut at 1,022 characters. For a
 * channel that is off or not in the map it costs one comparison and one bit test: its arguments are not
 * even stored, so the call can stay in hot code. A null format writes nothing. */
QV_API void __QvDbgMessageDumpInternal(uint32_t channel, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/* ==== 12 Tool options ===========================================================================
 * A tool creates a parser under its name, registers typed options with it, hands over its command line
 * and reads the values back:
 *
 *   uint32_t parser = __QvGetOptionParser("mytool");
 *   uint32_t depth = __QvRegisterIntegerOption(parser, "-depth", "frames to record", 5, 0, 1);
 *   if (!__QvParseOptions2(parser, argc - 1, argv + 1)) return 1;
 *   ... __QvGetIntegerOptionValue(parser, depth) ...
 *
 * The process has 16 parsers and 256 options, for all tools together. A released one is not handed out
 * again, and its ids are from then on as good as ids that never were.
 *
 * Failures come in three grades. What the user typed wrong: two entries in the log and the result 0.
 * Full tables: 0xFFFFFFFF, without a word. What the tool does wrong (a null name, ids that do not
 * belong together, another type, a value that the option does not accept) is a fatal tool defect: a
 * call of this section with such arguments does not return, unless its comment says otherwise.
 *
 * Parsers and options may be created on any threads at once. Everything else belongs to one thread for
 * each parser; threads that work on different parsers do not disturb one another. Values may be read
 * on any thread once they are set. Strings given in are copied; strings given out are the option's
 * own, good until it is set again or its parser is released. */

/* A new parser, even for a name that is there already. 0xFFFFFFFF: a null name, or 16 exist. */
QV_API uint32_t __QvGetOptionParser(const char* toolName);
/* Frees the parser and its options, if toolName begins with its name: 1. 0: an unknown or released
 * parser, or another name. */
QV_API int32_t __QvReleaseOptionParserHandle(uint32_t parser, const char* toolName);

/* ---- Registration ------------------------------------------------------------------------------
 * Each returns the new option's id, or 0xFFFFFFFF when 256 exist. A name begins with '-'; of two
 * options of one name the command line finds the first; one that begins with -no- it never finds,
 * because that is a negation. Flags are the tool's own. An append option collects all values it is
 * given instead of keeping the last; only string and path options can be one. Default strings may be
 * null. */
QV_API uint32_t __QvRegisterBooleanOption(uint32_t parser, const char* name, const char* description,
                                          int32_t defaultValue, uint32_t flags, uint32_t showInHelp);
QV_API uint32_t __QvRegisterIntegerOption(uint32_t parser, const char* name, const char* description,
                                          int32_t defaultValue, uint32_t flags, uint32_t showInHelp);
QV_API uint32_t __QvRegisterStringOption(uint32_t parser, const char* name, const char* description,
                                         const char* defaultValue, uint32_t flags, int32_t isAppend,
                                         uint32_t showInHelp);
/* A string that stands for a number: see __QvSetValidStringOptionArgumentWithEnum. */
QV_API uint32_t __QvRegisterStringEnumOption(uint32_t parser, const char* name, const char* description,
                                             const char* defaultValue, uint32_t flags,
                                             uint32_t showInHelp);
/* A string in which every run of '/' becomes one. */
QV_API uint32_t __QvRegisterPathOption(uint32_t parser, const char* name, const char* description,
                                       const char* defaultValue, uint32_t flags, int32_t isAppend,
                                       uint32_t showInHelp);

/* Adds a value to those that the option accepts; without any it accepts all. Integer, string and
 * string-enumeration options, not append options. A string is accepted if it is one of the values or
 * the beginning of one, and is stored as it was given. Each returns 1 (one byte, a C bool). */
QV_API uint8_t __QvSetValidStringOptionArgumentWithEnum(uint32_t parser, uint32_t option,
                                                        const char* value, int32_t enumValue);
QV_API uint8_t __QvSetValidStringOptionArgument(uint32_t parser, uint32_t option,
                                                const char* value); /* the number is -1 */
QV_API uint8_t __QvSetValidIntegerOptionArgument(uint32_t parser, uint32_t option, int32_t value);

/* ---- Setting -----------------------------------------------------------------------------------
 * What the command line does, by hand; each returns 1. The last value wins, or joins an append
 * option's. The value may be a string that a getter of the same option returned. */
QV_API int32_t __QvSetBooleanOption(uint32_t parser, uint32_t option, uint32_t value);
QV_API int32_t __QvSetIntegerOption(uint32_t parser, uint32_t option, int32_t value);
/* For strings, string enumerations and paths. A boolean or integer option becomes -1. */
QV_API int32_t __QvSetStringOption(uint32_t parser, uint32_t option, const char* value);
QV_API int32_t __QvSetPathOption(uint32_t parser, uint32_t option, const char* value);

/* Reads a command line without the program's name: 1, or 0 at the first element that is wrong, which
 * is reported in the log (BAD_OPTION or BAD_ARGUMENT and a comment). What was set before stays set.
 *   -trace, -no-trace   switch a boolean option on and off
 *   -depth 3            any other option takes the next element, which cannot begin with '-'.
 *                       Integers: 0 to 2147483647, in decimal, 0x hexadecimal or 0 octal
 * A null element, or list, counts as one without '-', a null argument as none. For a parser that does
 * not exist every option is unknown, and the report names the tool "(unknown)". A value that the option
 * does not accept is fatal. */
QV_API int32_t __QvParseOptions2(uint32_t parser, uint32_t count, char* const* elements);
QV_API int32_t __QvParseOptions(uint32_t parser, uint32_t count, char* const* elements); /* the same */

/* ---- Values ------------------------------------------------------------------------------------
 * The value in force: what was set last, else the default. */
QV_API uint32_t __QvGetBooleanOptionValue(uint32_t parser, uint32_t option);
QV_API uint32_t __QvGetIntegerOptionValue(uint32_t parser, uint32_t option);
/* For any type; null if there is no string. Of an append option the first. */
QV_API const char* __QvGetStringOptionValue(uint32_t parser, uint32_t option);
QV_API const char* __QvGetPathOptionValue(uint32_t parser, uint32_t option);
/* The number of the first accepted value that begins with the string in force; 0xFFFFFFFF if there is
 * none. */
QV_API uint32_t __QvGetStringOptionEnumValue(uint32_t parser, uint32_t option);
/* The index-th value, counted from 1. Null for 0 and beyond the number of values set, both reported in
 * the log. An option that is not set has its default as the first and null, unreported, as the rest. */
QV_API const char* __QvGetStringOptionArgumentValue(uint32_t parser, uint32_t option, uint32_t index);
QV_API const char* __QvGetPathOptionArgumentValue(uint32_t parser, uint32_t option, uint32_t index);

/* Calls back with each value of an append option, in the order they were given; the default is not
 * one. The callback may add values, which are then visited too; one that releases the parser before the
 * last value is a fatal defect of the tool. A null callback does nothing. */
typedef void (*QV_OPTION_VALUE_CALLBACK)(const char* value, void* context);
QV_API void __QvProcessAppendOptionValues(uint32_t parser, uint32_t option,
                                          QV_OPTION_VALUE_CALLBACK callback, void* context);

QV_API int32_t __QvIsOptionSet(uint32_t parser, uint32_t option);       /* 1 or 0 */
QV_API const char* __QvGetOptionName(uint32_t parser, uint32_t option); /* wrong ids: null */
QV_API uint32_t __QvGetOptionFlags(uint32_t parser,
                                   uint32_t option); /* wrong ids: 0xFFFFFFFF, logged */
/* How many values were set: 0, 1, or for an append option any number, and so after the parser's release,
 * too. The parser is not compared; an unknown option has 0. */
QV_API uint32_t __QvGetOptionNumberOfArguments(uint32_t parser, uint32_t option);

/* ---- Help and log ------------------------------------------------------------------------------
 * Both list the options in the order of registration under a header with the tool's name, and flush
 * standard output. An unknown or released parser has neither header nor options. */
/* Prints names, descriptions and defaults to standard output: the options registered with showInHelp,
 * or all. */
QV_API void __QvPrintHelp(uint32_t parser, int32_t showAll);
QV_API void __QvPrintHelpAll(int32_t showAll); /* for every parser, in the order of creation */
/* Writes the values in force of all options into the message log, a comment each; the values of an
 * append option together, cut at 2,047 characters. A null string is written as "(null)". */
QV_API void __QvLogToolOptionValues(uint32_t parser);

/* ==== 13 Hash tables ============================================================================
 * 64-bit keys to pointers that stay the caller's. One to three levels: the buckets of an upper level
 * hold whole tables, made on first use; the leaves hold the entries and double their bucket array as
 * they fill. An operation costs one indexed load for each upper level, then the hash of the key and one
 * chain of an expected length of 1 or less. An insertion that grows a leaf moves all its entries.
 *
 * Locks, unless QV_HASH_TABLE_NO_LOCKING: in a leaf the table, each bucket and each entry have a
 * shared/exclusive lock with a spin count of 0. Table before bucket; upper levels are walked without.
 *
 *                   table lock              bucket lock  entry lock
 *   lookup          shared                  shared                    also while acquire runs
 *   insertion       shared, then released   exclusive                 first search
 *                   exclusive                                         second search, growth, new entry
 *   removal         shared, then released   exclusive
 *                   exclusive                                         to count the entry out
 *   scan            exclusive, one try                   exclusive, one try for each
 *   destruction     none
 *
 * What a callback may do follows from what is held while it runs:
 *   hash function, compare, release of a key, acquire, freeData
 *       run in the middle of an operation: no call into the same table, no wait for a thread that may be
 *       in one.
 *   visit and release of a scan
 *       any call for the same table but its destruction. What they remove, the entry under the scan
 *       included, the scan passes over from then on and does not count; whether it visits what they
 *       insert is open; a leaf that is due to grow does so at an insertion after the scan. A table of
 *       several levels that locks: two scans whose callbacks call into each other's leaves would wait
 *       for each other.
 * All may allocate and free. A memory collector that runs because an operation allocates may scan the
 * same table and, if the table takes no locks, remove from it, but not insert into it.
 *
 * A null table: nothing is found, added, removed or visited. */
typedef struct QV_HASH_TABLE QV_HASH_TABLE;

/* The bucket is the result modulo table->bucketCount. A leaf's function is asked again when the leaf
 * has grown, so it may depend on bucketCount and bucketBits. */
typedef uint64_t (*QV_HASH_FUNCTION)(const QV_HASH_TABLE* table, uint64_t key);
/* Non-zero if the keys are equal. Equal keys must have equal hashes at every level. */
typedef int32_t (*QV_HASH_COMPARE_KEYS)(uint64_t entryKey, uint64_t key);
typedef void (*QV_HASH_RELEASE_KEY)(uint64_t key);
typedef int32_t (*QV_HASH_ACQUIRE_DATA)(void* data);
typedef int32_t (*QV_HASH_VISIT)(void* data, uint64_t context);
typedef int32_t (*QV_HASH_RELEASE_DATA)(void* data);
typedef void (*QV_HASH_FREE_DATA)(void* data);

enum {
  QV_HASH_TABLE_NO_LOCKING = 0x2,     /* one thread at a time; no lock word is touched */
  QV_HASH_TABLE_512_BUCKETS = 0x8,    /* in each new leaf and upper table; else 256 */
  QV_HASH_TABLE_1024_BUCKETS = 0x10,  /* ignored beside the former */
  QV_HASH_TABLE_CUSTOM_KEYS = 0x80,   /* compareKeys decides; releaseKey runs for entries that leave */
  QV_HASH_TABLE_CATEGORY_SHIFT = 8,   /* eight bits: memory category of all allocations */
  QV_HASH_TABLE_SLAB_SIZE_SHIFT = 16, /* four bits: slabSizeShift of the entries */
  QV_HASH_LEVELS = 3
};

typedef struct QV_HASH_ENTRY {
  struct QV_HASH_ENTRY* next;
  uint64_t key;
  void* data;
  QV_SHARED_EXCLUSIVE_LOCK lock; /* the memory for it is not there in a table that does not lock */
} QV_HASH_ENTRY;

typedef struct QV_HASH_BUCKET {
  QV_SHARED_EXCLUSIVE_LOCK lock;
  QV_HASH_ENTRY* head; /* leaf: the newest entry, or null. Upper level: the sub-table (really a
                          QV_HASH_TABLE*); null, there is none yet; 1, a thread is making it */
} QV_HASH_BUCKET;

struct QV_HASH_TABLE {
  QV_SHARED_EXCLUSIVE_LOCK lock;
  QV_HASH_FUNCTION hashFunctions[QV_HASH_LEVELS]; /* slot i serves tables of level i */
  QV_HASH_COMPARE_KEYS compareKeys;
  QV_HASH_RELEASE_KEY releaseKey; /* may be null */
  QV_HASH_BUCKET* buckets;
  int32_t bucketCount; /* a power of two, at most 67,108,864: from there on chains lengthen instead */
  int32_t bucketBits;
  int32_t count; /* leaf: entries. Upper level: sub-tables */
  int32_t level; /* 0 in a leaf */
  uint32_t flags;
};

/* A new table of 1 to 3 levels; fewer count as 1, more as 3. hashFunctions, or members of it, may be
 * null. The defaults are, from the leaf up, the key; key >> bucketBits; key >> (3 * bucketBits). With
 * custom keys and a null compareKeys, keys are compared as integers. A category above 63 or a
 * slabSizeShift above 15 is a fatal tool defect. */
QV_API QV_HASH_TABLE* __QvCreateHashTable(uint32_t flags, const QV_HASH_FUNCTION* hashFunctions,
                                          int32_t levels, QV_HASH_COMPARE_KEYS compareKeys,
                                          QV_HASH_RELEASE_KEY releaseKey, uint32_t category,
                                          uint32_t slabSizeShift);
/* The data now stored under the key: the argument if it was added; if not, what was there before, and
 * the key passed stays the caller's. Null data can be stored; a lookup cannot tell it from absence. */
QV_API void* __QvInsertHashTableEntry(QV_HASH_TABLE* table, uint64_t key, void* data);
QV_API void* __QvLookupHashTable(QV_HASH_TABLE* table, uint64_t key); /* the data, or null */
/* Present: stores the data through out and returns what acquire(data) returned. No removal of the key
 * passes while acquire runs, so it is the place to take a reference. Absent: stores null, returns 1. A
 * null acquire counts as one that returns 1; out may be null. */
QV_API int32_t __QvLookupAndAcquireHashTableDataItem(QV_HASH_TABLE* table, uint64_t key,
                                                     QV_HASH_ACQUIRE_DATA acquire, void** out);
/* The data of the entry removed; null if there was none, and for null data, which is removed too. */
QV_API void* __QvRemoveHashTableEntry(QV_HASH_TABLE* table, uint64_t key);

/* Visits every entry of every leaf and returns how many it removed: with removeMatches, an entry for
 * which visit returns non-zero goes if release is null or release(data) returns non-zero too. Never
 * waits: a leaf whose lock is held, also by the caller exclusively, and an entry whose lock another
 * thread holds are passed over. *outCount (may be null) receives the entries that were there before,
 * those passed over included. A null visit visits nothing. Costs all buckets and entries. */
QV_API uint32_t __QvScanHashTable(QV_HASH_TABLE* table, QV_HASH_VISIT visit, uint64_t context,
                                  uint32_t removeMatches, QV_HASH_RELEASE_DATA release,
                                  uint32_t* outCount);
/* The same without a visit: an entry goes if release is null or release(data) returns non-zero. */
QV_API uint32_t __QvScanAndEmptyHashTable(QV_HASH_TABLE* table, QV_HASH_RELEASE_DATA release,
                                          uint32_t* outCount);
/* Calls freeData (may be null) with every entry's data, null included, then releaseKey where keys are
 * custom, and gives all memory back. No other thread may be using the table. Null does nothing. */
QV_API void __QvDestroyHashTable(QV_HASH_TABLE* table, QV_HASH_FREE_DATA freeData);

/* ==== 14 Queues =================================================================================
 * First in, first out, of 64-bit values. Two locks, one at each end: with two or more elements in it, a
 * producer and a consumer take different locks and write no word in common. An operation is constant
 * time, one allocation or one release, and at most two locks; a search is linear.
 *
 * No lock of the queue is held while memory is allocated, so a memory collector may use queues. A node
 * is given back under the head lock. A null queue: empty, and a call does nothing. The locks are the
 * library's: do not take them. */
typedef struct QV_QUEUE_NODE {
  uint64_t value;
  struct QV_QUEUE_NODE* next;
} QV_QUEUE_NODE;

enum {
  QV_QUEUE_LOCKED = 0x2, /* the queue takes its locks; without it, one thread at a time */
  QV_QUEUE_CATEGORY_SHIFT = 4,
  QV_QUEUE_CATEGORY_MASK = 0xFF0
};

typedef struct QV_QUEUE {
  QV_QUEUE_NODE* head;  /* always &anchor */
  QV_QUEUE_NODE* tail;  /* the last node; &anchor when empty */
  QV_QUEUE_NODE anchor; /* value 0; next is the first element's node */
  QV_SPIN_LOCK headLock;
  QV_SPIN_LOCK tailLock;
  uint32_t flags;    /* the caller's, with the category in bits 4 to 11 */
  uint32_t userFlag; /* the tool's */
} QV_QUEUE;

/* 1 takes the value, anything else goes on to the next one. Runs under the head lock. It may enqueue to
 * this queue; it must not remove from it, nor wait for a thread that does. It may allocate unless a
 * memory collector uses this queue. */
typedef int32_t (*QV_QUEUE_MATCH)(uint32_t a, uint64_t b, uint64_t value);

/* Flags other than QV_QUEUE_LOCKED are kept and mean nothing. Nodes are charged to the category. */
QV_API QV_QUEUE* __QvCreateQueue(uint32_t flags, uint32_t category);
QV_API void __QvEnqueue(QV_QUEUE* queue, uint64_t value);
/* The first value; 0 when empty. Who stores 0 as a value asks __QvIsQueueEmpty too. */
QV_API uint64_t __QvDequeue(QV_QUEUE* queue);
/* The first value that match(a, b, value) takes (any, with a null match), removed from the queue if
 * remove is not 0; 0 if there is none. */
QV_API uint64_t __QvPeekQueue(QV_QUEUE* queue, QV_QUEUE_MATCH match, uint32_t a, uint64_t b,
                              uint32_t remove);
QV_API uint32_t __QvIsQueueEmpty(const QV_QUEUE* queue); /* takes no lock: true of one moment */
QV_API void __QvSetQueueFlag(QV_QUEUE* queue, uint32_t value);
/* Releases the nodes, not the record, which the caller then gives to __QvFree and uses no more. Takes
 * no lock: no other thread may use the queue. */
QV_API void __QvDestroyQueue(QV_QUEUE* queue);

/* ==== 15 Vectors ================================================================================
 * Sparse arrays of 131,072 unsigned 64-bit counters. The first 256 live in the record, the others in
 * pages of 256 that come into being when an index in them is first written. What was never written
 * reads as 0. Every access is two indexed loads. No lock: the caller serialises access to one vector. A
 * null vector reads as 0, and a call does nothing. */
enum { QV_VECTOR_PAGES = 512, QV_VECTOR_PAGE_ELEMENTS = 256 };

typedef struct QV_VECTOR {
  uint64_t* pages[QV_VECTOR_PAGES]; /* the first is always firstPage; null where nothing was written */
  uint64_t firstPage[QV_VECTOR_PAGE_ELEMENTS];
  uint32_t sizeAndCategory; /* low 24 bits: the length, one past the highest index written; high 8 bits:
                               the memory category of record and pages */
} QV_VECTOR;

/* A new vector, owned with its pages; ended by __QvDestroyVector. */
QV_API QV_VECTOR* __QvCreateVector(uint32_t category);
/* Prepares a vector in the caller's own storage, which must not move: entry 0 of its pages points into
 * it. Allocates nothing; returns the vector. Such a vector owns its pages but not its record, so it
 * must not go to __QvDestroyVector. Its pages are given back so (null entries are fine):
 *   for (int i = 1; i < QV_VECTOR_PAGES; i++) __QvFree(vector->pages[i]);
 * after which the storage is the caller's again, or ready for the next __QvInitializeVector. */
QV_API QV_VECTOR* __QvInitializeVector(QV_VECTOR* vector, uint32_t category);
/* Releases the pages and, with __QvFree, the record. */
QV_API void __QvDestroyVector(QV_VECTOR* vector);
QV_API uint64_t __QvGetVectorElement(const QV_VECTOR* vector, uint32_t index);
/* Both return the value before. An index above 131,071 changes nothing and gives 0. Increments wrap. */
QV_API uint64_t __QvSetVectorElement(QV_VECTOR* vector, uint32_t index, uint64_t value);
QV_API uint64_t __QvIncrementVectorElement(QV_VECTOR* vector, uint32_t index);
/* Makes the destination equal to the source, length included, in the destination's own category. Pages
 * that only the destination has are cleared and kept. */
QV_API void __QvCopyVector(QV_VECTOR* destination, const QV_VECTOR* source);
QV_API QV_VECTOR* __QvDuplicateVector(const QV_VECTOR* source, uint32_t category); /* null for null */
/* Each element becomes the larger of the two; the length becomes the longer one. */
QV_API void __QvMaxVector(QV_VECTOR* destination, const QV_VECTOR* source);

/* ==== 16 Red-black trees ========================================================================
 * An ordered map from 64-bit keys to 64-bit items in which keys may repeat: equal keys stand in the
 * order of insertion. Nodes are the handles: a node keeps its key and item until its own entry is
 * removed, whatever else is inserted or removed. Insertion, removal and the searches are logarithmic,
 * however many keys are equal; a step is constant time. One allocation for each entry; queries allocate
 * nothing.
 *
 * No lock: the tool serialises all calls on one tree, queries included.
 *
 * Where a node is expected, null and the tree's sentinel (`nil`) are no entry: the call does nothing or
 * gives null or 0. So is the handle of a removed entry until its memory is used again; nobody should
 * count on how long that is. */
typedef struct QV_RED_BLACK_TREE QV_RED_BLACK_TREE;
typedef struct QV_RED_BLACK_NODE QV_RED_BLACK_NODE;

/* Negative if a orders before b, 0 if they are equal, positive if a orders after b. A consistent total
 * order; it must not change the tree. In insertion and searches a is the key looked for and b a node's,
 * and a pair may be asked more than once; validation asks about neighbours, the earlier one as a. */
typedef int32_t (*QV_RED_BLACK_COMPARE)(uint64_t a, uint64_t b);
/* Called with the item or the key of an entry that is being destroyed. */
typedef void (*QV_RED_BLACK_DESTROY)(uint64_t value);

struct QV_RED_BLACK_TREE {
  QV_RED_BLACK_NODE* root; /* the sentinel when the tree is empty */
  QV_RED_BLACK_NODE* nil;  /* the sentinel: every missing child, the root's parent, both list ends */
  QV_RED_BLACK_COMPARE compare;     /* never null */
  QV_RED_BLACK_DESTROY destroyItem; /* or null */
  QV_RED_BLACK_DESTROY destroyKey;  /* or null */
  uint32_t category;
  uint32_t count; /* entries */
};

enum { QV_RB_BLACK = 0, QV_RB_RED = 1 };

struct QV_RED_BLACK_NODE {
  QV_RED_BLACK_TREE* tree;
  QV_RED_BLACK_NODE *left, *right, *parent;
  QV_RED_BLACK_NODE *prev, *next; /* neighbours in key order; the sentinel at the ends */
  uint64_t key, item;
  uint32_t color;
};

/* Null for compare: keys are unsigned integers, compared in line without a call. Null destructors: keys
 * and items need none. */
QV_API QV_RED_BLACK_TREE* __QvCreateRedBlackTree(uint32_t category, QV_RED_BLACK_COMPARE compare,
                                                 QV_RED_BLACK_DESTROY destroyItem,
                                                 QV_RED_BLACK_DESTROY destroyKey);
/* A null tree does nothing. */
QV_API void __QvInsertRedBlackEntry(QV_RED_BLACK_TREE* tree, uint64_t key, uint64_t item);
QV_API void __QvRemoveRedBlackEntry(QV_RED_BLACK_NODE* node); /* calls no destructor */

/* Ranges include both bounds. Forward: __QvGetRedBlackRangeStart(tree, low, high), then
 * __QvGetRedBlackRangeNext(node, high) until null. Backward: __QvGetRedBlackRangeEnd(tree, high), then
 * __QvGetRedBlackRangePrev(node, low); the end alone is not compared with low. */

/* The earliest entry whose key is low, even where high is below low; else the first entry above low if
 * its key is not above high; else null. */
QV_API QV_RED_BLACK_NODE* __QvGetRedBlackRangeStart(const QV_RED_BLACK_TREE* tree, uint64_t low,
                                                    uint64_t high);
/* The latest entry whose key is not above high, or null. */
QV_API QV_RED_BLACK_NODE* __QvGetRedBlackRangeEnd(const QV_RED_BLACK_TREE* tree, uint64_t high);
QV_API QV_RED_BLACK_NODE* __QvGetRedBlackRangePrev(const QV_RED_BLACK_NODE* node, uint64_t low);
QV_API QV_RED_BLACK_NODE* __QvGetRedBlackRangeNext(const QV_RED_BLACK_NODE* node, uint64_t high);
/* 1, and the value in *out; 0 and nothing stored for no entry or a null out. */
QV_API uint32_t __QvGetRedBlackKey(const QV_RED_BLACK_NODE* node, uint64_t* out);
QV_API uint32_t __QvGetRedBlackItem(const QV_RED_BLACK_NODE* node, uint64_t* out);

/* Removes the entries of the range in key order; for each, after its removal, destroyItem, then
 * destroyKey. The destructors find the tree in order: they may query it, insert into it and remove from
 * it, except the entry that follows in the range. Entries they insert behind that one, within the
 * range, are destroyed too. */
QV_API void __QvDestroyRedBlackRange(QV_RED_BLACK_TREE* tree, uint64_t low, uint64_t high);
/* Destroys all entries in the same way and releases the tree. The destructors find the tree empty and
 * must not insert into it. Null does nothing. */
QV_API void __QvDestroyRedBlackTree(QV_RED_BLACK_TREE* tree);
/* 1 if no red node has a red child, all paths pass as many black nodes as the leftmost one, the list is
 * in order and as long as `count`. 0 if not, or for null. Ends whatever the links are, as long as they
 * point to nodes. */
QV_API uint32_t __QvValidateRedBlack(const QV_RED_BLACK_TREE* tree);

/* ==== 17 Sets and multisets =====================================================================
 * Sparse sets of 32-bit unsigned integers: a list of chunks in order, each 64 consecutive values. A
 * multiset counts each value in 32 bits. Operations on whole sets are one merge over the lists, a chunk
 * at a time; those on one element are linear in the chunks before it.
 *
 * The tool places the header anywhere; zero-filled, it is an empty set of category 0. The chunks belong
 * to the set and are charged to its category, which every operation keeps. Destroy or empty the set to
 * give them back. No lock: the tool serialises calls on the sets that a call reads or writes.
 *
 * A destination may be one of the sources. A null set makes a call do nothing and return 0.
 *
 * Limits. A set holds at most 16,777,215 elements (24 bits): what would pass that is refused, so that
 * the count never runs into the category. A union takes the smallest new elements while there is room.
 * Multiplicities stop at 0xFFFFFFFF. */
enum { QV_SET_MAXIMUM_COUNT = 0xFFFFFF, QV_SET_CHUNK_ELEMENTS = 64 };

typedef struct QV_SET_CHUNK {
  struct QV_SET_CHUNK* next;
  uint32_t index;   /* the chunk covers the values from index * 64 on; ascending along the list */
  uint32_t bits[2]; /* bit b of word w: the value index * 64 + w * 32 + b is present; never both 0 */
} QV_SET_CHUNK;

typedef struct QV_SET {
  uint32_t count : 24;   /* elements */
  uint32_t category : 8; /* memory category; the tool sets it while the set is empty or at any time */
  QV_SET_CHUNK* chunks;  /* null when empty */
} QV_SET;

typedef struct QV_MULTISET_CHUNK {
  struct QV_MULTISET_CHUNK* next; /* up to here and with the next two fields, a QV_SET_CHUNK */
  uint32_t index;
  uint32_t bits[2];  /* set exactly where the multiplicity is not 0 */
  uint32_t reserved; /* the padding of a QV_SET_CHUNK */
  uint32_t multiplicity[QV_SET_CHUNK_ELEMENTS];
} QV_MULTISET_CHUNK;

/* The layout of a QV_SET. __QvIsAnElementOfSet, __QvAreSetsDisjoint, __QvIsASubsetOfSet and __QvScanSet
 * take a multiset too, cast to const QV_SET*, and speak of its distinct elements. */
typedef struct QV_MULTISET {
  uint32_t count : 24; /* distinct elements */
  uint32_t category : 8;
  QV_MULTISET_CHUNK* chunks;
} QV_MULTISET;

QV_API void __QvAddAnElementToSet(QV_SET* set, uint32_t element);
QV_API void __QvDeleteAnElementFromSet(QV_SET* set, uint32_t element);
/* If present, the element's bit in its word, 1 << element % 32; else 0. */
QV_API uint32_t __QvIsAnElementOfSet(const QV_SET* set, uint32_t element);
QV_API uint32_t __QvAreSetsEqual(const QV_SET* a, const QV_SET* b);
/* 0 if equal; else the difference of the counts, a's less b's; else 1. Sets of one size are not
 * ordered. */
QV_API int32_t __QvCompareSets(const QV_SET* a, const QV_SET* b);
QV_API uint32_t __QvAreSetsDisjoint(const QV_SET* a, const QV_SET* b); /* 0 for one set twice */
QV_API uint32_t __QvIsASubsetOfSet(const QV_SET* a, const QV_SET* b);  /* a within b */

typedef void (*QV_SET_CALLBACK)(uint32_t element, uint64_t context);
/* Calls back for each element, ascending. The callback may add to the set and delete from it: the chunk
 * under the scan is reported as it was when the scan reached it, later ones as they then are. A change
 * is seen by the count: one call must not delete and add equally many. */
QV_API void __QvScanSet(const QV_SET* set, QV_SET_CALLBACK callback, uint64_t context);

QV_API void __QvUnionSet(QV_SET* destination, const QV_SET* source);      /* adds the source's */
QV_API void __QvDifferenceSet(QV_SET* destination, const QV_SET* source); /* takes the source's away */
QV_API void __QvIntersectSet(QV_SET* destination, const QV_SET* a, const QV_SET* b);
QV_API void __QvConstructSet(QV_SET* destination, const QV_SET* source); /* a copy */
/* A move: the destination gives its chunks back and takes the source's; the source is empty. */
QV_API void __QvConstructSetAndDestroy(QV_SET* destination, QV_SET* source);
QV_API void __QvDestroySet(QV_SET* set);        /* gives all chunks back; the set is empty and usable */
QV_API void __QvEmptySet(QV_SET* set);          /* the same */
QV_API void __QvPrintOutSet(const QV_SET* set); /* does nothing */

QV_API void __QvAddAnElementToMultiSet(QV_MULTISET* multiset, uint32_t element);
QV_API void __QvDeleteAnElementFromMultiSet(QV_MULTISET* multiset, uint32_t element); /* one of it */
QV_API void __QvDeleteAllInstancesOfAnElementFromMultiSet(QV_MULTISET* multiset, uint32_t element);
QV_API uint32_t __QvGetElementMultiplicity(const QV_MULTISET* multiset, uint32_t element);
QV_API uint32_t __QvIsMultiSetEmpty(const QV_MULTISET* multiset); /* 1 for null */
QV_API uint32_t __QvAreMultiSetsEqual(const QV_MULTISET* a, const QV_MULTISET* b);
QV_API void __QvUnionMultiSet(QV_MULTISET* destination, const QV_MULTISET* source); /* they add */
QV_API void __QvUnionMultiSetSet(QV_MULTISET* multiset, const QV_SET* set); /* 1 for each element */
QV_API void __QvDifferenceMultiSet(QV_MULTISET* destination,
                                   const QV_MULTISET* source); /* not below 0 */
QV_API void __QvIntersectMultiSet(QV_MULTISET* destination, const QV_MULTISET* a,
                                  const QV_MULTISET* b); /* the smaller of the two */
QV_API void __QvConstructMultiSet(QV_MULTISET* destination, const QV_MULTISET* source);
QV_API void __QvConstructMultiSetAndDestroy(QV_MULTISET* destination, QV_MULTISET* source);
QV_API void __QvDestroyMultiSet(QV_MULTISET* multiset);
QV_API void __QvEmptyMultiSet(QV_MULTISET* multiset);
QV_API void __QvPrintOutMultiSet(const QV_MULTISET* multiset); /* does nothing */

/* ==== 18 Range tables ===========================================================================
 * Disjoint address ranges [start, end) to 64-bit items: which range holds this address? A range is cut
 * into aligned blocks of powers of two, from 32 bytes to the table's largest, and each block is an
 * entry in the hash table of its size. A lookup asks the sizes in use, at most 23 and each at most
 * once, however many ranges there are. Insertion and removal cost the number of blocks: at most two of
 * each size below the largest, and as many of the largest as fit.
 *
 * No locks: the caller serialises all calls on one table, lookups too. destroyItem runs when nothing in
 * the table names the range any more, and may use the table, except to destroy it. A memory collector
 * that an insertion made run may remove ranges of the same table, but not insert into it.
 *
 * The caller keeps the ranges disjoint. Where an inserted range overlaps one that is there, a block
 * that both need stays with the old one (32-byte blocks with chains take both). If it gets no block at
 * all, it is dropped and its item left to the caller.
 *
 * A null table: nothing is inserted, found or removed, and out pointers receive 0. */

/* Set: no two ranges touch the same 32-byte block, and such a block belongs to its range as a whole,
 * beyond its bounds too. Clear: 32-byte blocks hold chains of ranges, and bounds are exact. */
enum { QV_RANGE_TABLE_UNSHARED_BLOCKS = 0x1 };
#define QV_RANGE_RECORD_MARKER UINT64_C(0xFFFFFFFFFFFFFFFF)

typedef void (*QV_RANGE_DESTROY_ITEM)(uint64_t item);

/* A level is a block size: level L has blocks of 2^(L+1) bytes, from 4 (32 bytes) to 26 (128 MiB). */
typedef struct QV_RANGE_TABLE {
  uint32_t flags;    /* the creator's, with the category in bits 8 to 15, slabSizeShift in 16 to 19 */
  uint32_t minLevel; /* 4 */
  uint32_t maxLevel;
  QV_RANGE_DESTROY_ITEM destroyItem;
  QV_HASH_TABLE** levels; /* entry L - 4 serves level L; null until its first block */
} QV_RANGE_TABLE;

/* The data of a block in its level's hash table; at level 4 with chains it is a link instead. */
typedef struct QV_RANGE_RECORD {
  uint64_t marker; /* QV_RANGE_RECORD_MARKER tells a record from a link */
  uint64_t start;
  uint64_t end;
  QV_RANGE_TABLE* table;
  uint64_t item;
  uint32_t references; /* hash entries and links that name the record */
} QV_RANGE_RECORD;

typedef struct QV_RANGE_LINK {
  struct QV_RANGE_LINK* next;
  QV_RANGE_RECORD* record;
} QV_RANGE_LINK;

/* The largest block is the largest power of two not above largestRange, but at least 32 bytes (also for
 * 0) and at most 128 MiB. destroyItem may be null. A category above 63 or a slabSizeShift above 15 is a
 * fatal tool defect. */
QV_API QV_RANGE_TABLE* __QvCreateRangeTable(uint64_t largestRange, uint32_t category,
                                            uint32_t slabSizeShift, uint32_t flags,
                                            QV_RANGE_DESTROY_ITEM destroyItem);
/* An empty or inverted range is not registered. The last byte of the address space cannot be in a
 * range: its end would be 0. */
QV_API void __QvInsertRangeTableEntry(QV_RANGE_TABLE* table, uint64_t start, uint64_t end,
                                      uint64_t item);
/* The item of the range that holds the address, or 0; its bounds, or 0 and 0, through the out pointers
 * (either may be null), which is how to tell an item of 0 from none. */
QV_API uint64_t __QvLookupRangeTable(QV_RANGE_TABLE* table, uint64_t address, uint64_t* startOut,
                                     uint64_t* endOut);
/* Take out the range that was inserted with exactly these bounds; for any others nothing changes.
 * Remove leaves the item to the caller, Destroy hands it to destroyItem. */
QV_API void __QvRemoveRangeTableEntry(QV_RANGE_TABLE* table, uint64_t start, uint64_t end);
QV_API void __QvDestroyRangeTableEntry(QV_RANGE_TABLE* table, uint64_t start, uint64_t end);
/* Takes out the first range found from low on and returns its item; 0 if there is none below high. A
 * range found in a chain lies inside the interval; one found by another block may reach over its
 * bounds. A range is not seen at a position where its block is larger than the rest of the interval.
 * Costs the width of the interval in steps of 32 bytes, or the size of the table where that is less. */
QV_API uint64_t __QvRemoveFirstRangeTableEntry(QV_RANGE_TABLE* table, uint64_t low, uint64_t high);
/* Destroys every range that meets [base, base + length), cut off at the top of the address space, and
 * stores the extent cleared, which reaches beyond the span where a range did (the out pointers may be
 * null). A length of 0 destroys the range that holds base. A range that starts at address 0 is
 * destroyed only if it lies inside the span, or has a block there no larger than the rest of the span.
 * What destroyItem inserts into the span may be destroyed too. Costs as the former, for each range
 * destroyed. */
QV_API void __QvDestroyRangeTableSpan(QV_RANGE_TABLE* table, uint64_t base, uint64_t length,
                                      uint64_t* startOut, uint64_t* endOut);
/* Takes out every range, then hands each item to destroyItem. The table can be used again. */
QV_API void __QvScanAndEmptyRangeTable(QV_RANGE_TABLE* table);
/* Frees the table and its hash tables, but not the ranges still in it: empty it first. */
QV_API void __QvDestroyRangeTable(QV_RANGE_TABLE* table);

#ifdef __cplusplus
}

/* The command channel as a class. The calls above work on theCommandHandler. */
class QV_API CollectorCommandHandler {
 public:
  CommandArea* sharedArea;
  char lockFilePath[4096];
  QV_COMMAND_CALLBACK commandCallback;
  void* callbackContext;
  int lockFileDescriptor;
  int sharedMemoryId;
  int semaphoreId;

  CollectorCommandHandler();
  ~CollectorCommandHandler();
  int initializeCommandHandler(const char* directory, QV_COMMAND_CALLBACK callback, void* context);
  int createSharedMemoryAndLockFile(); /* 1: the lock file is left locked */
  void destroySharedMemoryAndLockFile(_QVCMDHDLRCLEANEXTENT extent);
  void cleanupCommandHandler(_QVCMDHDLRCLEANEXTENT extent);
  int processCommands();  /* -1 no area, 0 nothing pending, 1 locked by another, 2 delivered */
  int processHeartbeat(); /* -1 no area, 2 delivered */
  int acquireLock();      /* 1 if it was free; never waits */
  int releaseLock();      /* the result of flock */
};
extern QV_API CollectorCommandHandler theCommandHandler;

/* open that never returns descriptor 0, 1 or 2. */
QV_API int safeOpen(const char* path, int flags, int mode);
#endif

#endif /* QVRT_H */

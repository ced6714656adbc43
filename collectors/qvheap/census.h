// The census: who counts what, and where.
//
// Every thread counts into a record of its own, found through one word of thread-local storage; nothing
// is shared on the way of an allocation but the words below, which are read far more often than
// written.
//
//   t_counting -> ThreadRecord --- list of running threads --- list of ended threads --- g_folded
//                    |                                          (the last 1000)          (sum of older)
//                    '- figures, sizes, balance, peaks
//
// Live bytes and their peak. A thread's balance is what it allocated less what it released; the
// process's live bytes are the sum of all balances. g_settledLive holds the part of the sum that
// threads have made known: a thread adds its difference when that passes kSettleBytes either way, and
// when it ends. What a thread takes for the present total (settled + its own difference) is exact while
// no other thread has anything unsettled, hence always in a process with one thread; otherwise it is
// off by at most kSettleBytes for each running thread. The report gives that bound.
//
// Invariants
//  (1) A record is written by its thread alone, until that thread no longer exists: a thread goes on
//      counting into its record while its thread-local storage is being torn down. So a record leaves
//      the list of ended threads only when the kernel no longer knows the thread.
//  (2) t_counting is null in a thread without a record and while the thread is inside the collector;
//  what
//      the collector itself has libc allocate is served by the arena and not counted.
//  (3) The lists, the tables of sizes and every call into the library that logs or writes XML are under
//      g_censusLock. A fork takes it.
//  (4) Whoever else calls the library, or holds a lock of the collector's other than the census lock,
//      is Looking. A fork waits until nobody is, so no thread is inside the library when a child comes
//      into being.
#pragma once

#include "collectors/qvheap/inside.h"
#include "collectors/qvheap/sampling.h"
#include "collectors/qvheap/sizes.h"
#include "collectors/qvheap/words.h"

namespace qvheap {

enum Figure : uint32_t {
  kReleases,        // blocks that went back and that we had counted; a realloc's old block is one too
  kReallocations,   // requests that a realloc made and that were granted
  kBytesAllocated,  // as requested
  kBytesReleased,
  kFailedRequests,
  kUnknownReleases,  // blocks that went back and that we had not counted
  kUnrecorded,       // requests that were granted, but there was no memory to note them
  kFigures
};

inline constexpr uint32_t kSizeBuckets = 49;  // 0; then [2^(k-1), 2^k) for k = 1 to 48

// Allocations, that is requests that were granted (by realloc too), are not counted beside their sizes.
struct Counts {
  uint64_t figures[kFigures];
  uint64_t peakBytes;  // highest balance
  uint64_t sizes[kSizeBuckets];
};

// What an allocation or a release reads and writes is at the start, in two or three cache lines.
struct ThreadRecord {
  uint64_t wayEnds;     // bytes allocated at which the slow path is taken
  int64_t settleBelow;  // settled - mayOwe
  int64_t noteAbove;    // the balance that is a peak of the thread or, as things stood, of the process
  int64_t settled;      // the part of the balance that is in g_settledLive
  Counts counts;
  int64_t processPeak;  // the highest total that this thread saw
  // How far the balance may be from `settled`: kSettleBytes, 0 once the thread has ended.
  int64_t mayOwe;
  uint64_t wayBegan;  // bytes allocated when wayEnds was set
  // Bytes from then to the next allocation that is looked at (sampling.h).
  int64_t untilLook = kNeverLook;
  uint32_t looking;  // 1 while the thread is Looking
  uint32_t threadId;
  uint32_t ordinal;                  // of all threads, from 1: ids are used again
  uint32_t freeRecord, freeRecords;  // blocks.h: the first one's number, how many
  uint64_t random;
  uint64_t bytesAtPoint;  // allocated when the thread was last asked for the timeline
  QV_VECTOR* tallies;     // tallies.h
  struct Trail* trail;    // trail.h; exact mode, from the first look to the thread's end
  bool wantsTrail;        // has not asked for one yet
  ThreadRecord* next;
  ThreadRecord* previous;  // among the running ones
};

inline constexpr int64_t kSettleBytes = 8192;

extern QVHEAP_OURS int64_t g_settledLive;
extern QV_SPIN_LOCK g_censusLock;

// The record of a thread that has none in t_counting: null if the thread is inside the collector. The
// first call in the process sets the collector up.
QVHEAP_COLD ThreadRecord* EnterSlow();

// ---- Counting: the hot paths -----------------------------------------------------------------------

constexpr uint32_t BucketOf(uint64_t bytes) {
  const uint32_t width = bytes == 0 ? 0 : uint32_t(64 - __builtin_clzll(bytes));
  return width < kSizeBuckets ? width : kSizeBuckets - 1;
}

// Of short sizes: a look-up is half of what computing them takes.
struct ShortBuckets {
  uint8_t of[kLargestShortSize + 1];
};
inline constexpr ShortBuckets kShortBuckets = [] {
  ShortBuckets buckets = {};
  for (uint32_t bytes = 0; bytes <= kLargestShortSize; bytes++)
    buckets.of[bytes] = uint8_t(BucketOf(bytes));
  return buckets;
}();

inline uint64_t AllocationsOf(const Counts& counts) {
  uint64_t allocations = 0;
  for (const uint64_t& size : counts.sizes) allocations += Load(size);
  return allocations;
}

QVHEAP_INLINE int64_t BalanceOf(const Counts& counts) {
  return int64_t(Load(counts.figures[kBytesAllocated]) - Load(counts.figures[kBytesReleased]));
}

QVHEAP_COLD void Settle(ThreadRecord& me);

// What the thread holds and what the process holds, as far as it sees, are highest just before a
// release, so that is where peaks are looked for; who reads a record looks once more (PeakOf).
QVHEAP_INLINE void NotePeaks(ThreadRecord& me, int64_t balance) {
  if (balance > int64_t(me.counts.peakBytes)) Store(me.counts.peakBytes, uint64_t(balance));
  const int64_t total = Load(g_settledLive) + balance - me.settled;
  if (total > Load(me.processPeak)) Store(me.processPeak, total);
  const int64_t belowProcessPeak = Load(me.processPeak) - total;
  const int64_t belowOwnPeak = int64_t(me.counts.peakBytes) - balance;
  Store(me.noteAbove, balance + (belowOwnPeak < belowProcessPeak ? belowOwnPeak : belowProcessPeak));
}

// True if something is to be done on the slow path: the thread may owe no more, or a look is due.
QVHEAP_INLINE bool CountAllocation(ThreadRecord& me, uint64_t bytes, uint32_t bucket) {
  Add(me.counts.figures[kBytesAllocated], bytes);
  Add(me.counts.sizes[bucket], 1);
  return QVHEAP_UNLIKELY(Load(me.counts.figures[kBytesAllocated]) >= me.wayEnds);
}

// True if the thread owes too much: it has to settle.
QVHEAP_INLINE bool CountReleaseOwing(ThreadRecord& me, uint64_t bytes) {
  const int64_t balance = BalanceOf(me.counts);
  if (balance > Load(me.noteAbove)) NotePeaks(me, balance);
  Add(me.counts.figures[kReleases], 1);
  Add(me.counts.figures[kBytesReleased], bytes);
  return QVHEAP_UNLIKELY(balance - int64_t(bytes) < me.settleBelow);
}

QVHEAP_INLINE void CountRelease(ThreadRecord& me, uint64_t bytes) {
  if (CountReleaseOwing(me, bytes)) Settle(me);
}

// ---- For the collector's other files ---------------------------------------------------------------

void InstallCensus();            // the key by which the end of a thread is learnt
ThreadRecord* RegisterThread();  // never null
void RestartCensusLocked();      // in a child process: the calling thread alone, all figures 0

// Before a fork. False if somebody went on Looking for so long that it may be waiting for what the
// forking thread's fork keeps from it; the child must then leave alone what lookers use.
bool StopLookersLocked();
void LetLookersGo();

struct Totals {
  Counts counts;     // peakBytes: of the process
  uint64_t threads;  // that counted, ever
  uint64_t foldedThreads;
  uint64_t peakToleranceBytes;
};
Totals SumLocked();
uint64_t PeakOf(const Counts& counts);  // of a thread's record
// Calls visit for every thread that still has a record, ended ones first, in order.
void VisitThreadsLocked(void (*visit)(const ThreadRecord& record, bool ended, void* context),
                        void* context);
// The process's peak is what is live now. Threads keep theirs.
void ResetPeakLocked();
const Counts& FoldedCountsLocked();
void ForEachRunningLocked(void (*visit)(ThreadRecord& record));

}  // namespace qvheap

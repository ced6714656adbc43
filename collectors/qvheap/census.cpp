// The census: thread records and totals. Design: collectors/qvheap/census.h.
#include "collectors/qvheap/census.h"

#include <pthread.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "collectors/qvheap/channel.h"
#include "collectors/qvheap/looking.h"
#include "collectors/qvheap/profile.h"
#include "collectors/qvheap/room.h"

namespace qvheap {
namespace {

constexpr uint32_t kEndedKept = 1000;
constexpr uint32_t kLineBytes = 64;
constexpr uint32_t kYieldsForLookers = 20000;  // some ten milliseconds; a look takes microseconds

// Under the census lock, but for the fields that threads count into.
constinit ThreadRecord* g_running = nullptr;  // newest first
constinit ThreadRecord* g_ended = nullptr;    // oldest first
constinit ThreadRecord* g_endedLast = nullptr;
constinit ThreadRecord* g_unused = nullptr;
constinit Counts g_folded = {};
constinit uint64_t g_threads = 0;
constinit uint64_t g_foldedThreads = 0;
constinit uint32_t g_runningCount = 0;
constinit uint32_t g_runningAtMost = 0;
constinit uint32_t g_endedCount = 0;
constinit int64_t g_goneProcessPeak = 0;  // the highest processPeak of the records that are gone
constinit pthread_key_t g_key = 0;

// Threads for which there is no memory share this one; its figures may then be a little low.
constinit ThreadRecord g_shared = {};

uint32_t MyThreadId() { return uint32_t(__QvGetNativeThreadId()); }

void Accumulate(Counts& sum, const Counts& counts) {
  for (uint32_t i = 0; i < kFigures; i++) sum.figures[i] += Load(counts.figures[i]);
  for (uint32_t i = 0; i < kSizeBuckets; i++) sum.sizes[i] += Load(counts.sizes[i]);
}

void Raise(int64_t& highest, int64_t value) {
  if (value > highest) highest = value;
}

bool ThreadIsGone(uint32_t threadId) {
  return syscall(SYS_tgkill, getpid(), threadId, 0) == -1 && errno == ESRCH;
}

void LinkRunningLocked(ThreadRecord& record) {
  record.next = g_running;
  record.previous = nullptr;
  if (g_running != nullptr) g_running->previous = &record;
  g_running = &record;
  if (++g_runningCount > g_runningAtMost) g_runningAtMost = g_runningCount;
}

void UnlinkRunningLocked(ThreadRecord& record) {
  (record.previous != nullptr ? record.previous->next : g_running) = record.next;
  if (record.next != nullptr) record.next->previous = record.previous;
  g_runningCount--;
}

void LinkEndedLocked(ThreadRecord& record) {
  record.next = nullptr;
  (g_ended != nullptr ? g_endedLast->next : g_ended) = &record;
  g_endedLast = &record;
  g_endedCount++;
}

// Room for a new thread: the oldest ended one becomes part of the sum, once nobody can write to it (1).
ThreadRecord* FoldOldestLocked() {
  if (g_endedCount < kEndedKept || !ThreadIsGone(g_ended->threadId)) return nullptr;
  ThreadRecord* const record = g_ended;
  g_ended = record->next;
  g_endedCount--;
  Accumulate(g_folded, record->counts);
  Raise(g_goneProcessPeak, record->processPeak);
  g_foldedThreads++;
  return record;
}

// A cache line of its own, since its thread writes it all the time.
ThreadRecord* NewRecordLocked() {
  char* const memory = static_cast<char*>(Allocate(kRoomThreads, sizeof(ThreadRecord) + kLineBytes));
  if (memory == nullptr) return nullptr;
  const uint64_t past = reinterpret_cast<uint64_t>(memory) % kLineBytes;
  return reinterpret_cast<ThreadRecord*>(memory + (kLineBytes - past) % kLineBytes);
}

ThreadRecord* UnusedRecordLocked() {
  ThreadRecord* const unused = g_unused;
  if (unused != nullptr) {
    g_unused = unused->next;
    return unused;
  }
  ThreadRecord* const folded = FoldOldestLocked();
  return folded != nullptr ? folded : NewRecordLocked();
}

// A record that is used again still has what belonged to the thread before.
void BeginLocked(ThreadRecord& record) {
  QV_VECTOR* const tallies = record.tallies;
  Trail* const trail = record.trail;
  record = {};
  record.threadId = MyThreadId();
  record.mayOwe = kSettleBytes;
  record.settleBelow = -kSettleBytes;
  record.tallies = tallies;
  record.trail = trail;
  record.wantsTrail = trail == nullptr;
  LinkRunningLocked(record);
  record.ordinal = uint32_t(++g_threads);
  BeginLooks(record);
}

ThreadRecord* StartRecordLocked() {
  ThreadRecord* const record = UnusedRecordLocked();
  if (record == nullptr) return &g_shared;
  BeginLocked(*record);
  return record;
}

// All records of the list but one are unused from now on.
void DropLocked(ThreadRecord*& list, const ThreadRecord* except) {
  while (list != nullptr) {
    ThreadRecord* const record = list;
    list = record->next;
    if (record == except) continue;
    record->next = g_unused;
    g_unused = record;
  }
}

void ResetPeakOf(ThreadRecord& record, int64_t live) {
  Store(record.processPeak, live);
  Store(record.noteAbove, INT64_MIN);
}

// The key's destructor. The thread may allocate and release for a while yet, into the same record.
void ThreadEnded(void* argument) {
  ThreadRecord& record = *static_cast<ThreadRecord*>(argument);
  const Inside inside;
  EndLooks(record);
  const SpinGuard guard(g_censusLock);
  record.mayOwe = 0;
  record.wayEnds = 0;  // so that each later allocation settles, too
  Settle(record);
  UnlinkRunningLocked(record);
  LinkEndedLocked(record);
}

}  // namespace

constinit int64_t g_settledLive = 0;
constinit QV_SPIN_LOCK g_censusLock = {};
constinit uint32_t g_forking = 0;
constinit thread_local ThreadRecord* t_counting = nullptr;
constinit thread_local ThreadRecord* t_record = nullptr;
constinit thread_local bool t_inside = false;
constinit thread_local bool t_signalsBlocked = false;

void Settle(ThreadRecord& me) {
  const int64_t balance = BalanceOf(me.counts);
  NotePeaks(me, balance);
  __atomic_fetch_add(&g_settledLive, balance - me.settled, __ATOMIC_RELAXED);
  me.settled = balance;
  me.settleBelow = balance - me.mayOwe;
  if (QVHEAP_UNLIKELY(g_channelState == ChannelState::kDue)) OpenChannelIfDue();
}

void InstallCensus() {
  __QvInitializeSpinLockAndSpinCount(&g_censusLock, 100);
  pthread_key_create(&g_key, ThreadEnded);
}

ThreadRecord* RegisterThread() {
  const Inside inside;
  ThreadRecord* record;
  {
    const SpinGuard guard(g_censusLock);
    record = StartRecordLocked();
  }
  t_record = record;
  if (record != &g_shared) pthread_setspecific(g_key, record);
  return record;
}

void WaitForForkSlow(ThreadRecord& me) {
  do {
    __atomic_store_n(&me.looking, 0, __ATOMIC_RELEASE);
    while (Load(g_forking) != 0) __QvYield();
    __atomic_exchange_n(&me.looking, 1, __ATOMIC_SEQ_CST);
  } while (Load(g_forking) != 0);
}

bool StopLookersLocked() {
  __atomic_exchange_n(&g_forking, 1, __ATOMIC_SEQ_CST);
  uint32_t yields = 0;
  const ThreadRecord* const lists[] = {g_running, g_ended};
  for (const ThreadRecord* list : lists) {
    for (const ThreadRecord* record = list; record != nullptr; record = record->next) {
      if (record == t_record) continue;  // a handler forks; where it interrupted is not where it looks
      while (__atomic_load_n(&record->looking, __ATOMIC_ACQUIRE) != 0) {
        if (++yields > kYieldsForLookers) return false;
        __QvYield();
      }
    }
  }
  return true;
}

void LetLookersGo() { __atomic_store_n(&g_forking, 0, __ATOMIC_RELEASE); }

void RestartCensusLocked() {
  ThreadRecord* const mine = t_record;
  DropLocked(g_running, mine);
  DropLocked(g_ended, mine);
  g_folded = {};
  g_threads = g_foldedThreads = 0;
  g_runningCount = g_runningAtMost = g_endedCount = 0;
  g_goneProcessPeak = g_settledLive = 0;
  g_shared = {};
  if (mine == nullptr || mine == &g_shared) return;
  BeginLocked(*mine);
}

void VisitThreadsLocked(void (*visit)(const ThreadRecord&, bool, void*), void* context) {
  for (const ThreadRecord* record = g_ended; record != nullptr; record = record->next) {
    visit(*record, true, context);
  }
  const ThreadRecord* record = g_running;  // from the oldest, which is last
  while (record != nullptr && record->next != nullptr) record = record->next;
  for (; record != nullptr; record = record->previous) visit(*record, false, context);
}

// Threads go on counting meanwhile. Each may still store a peak that it found before, so the new peak
// can be too high by what was released since that moment, or lack what is not settled yet.
void ResetPeakLocked() {
  const int64_t live = BalanceOf(SumLocked().counts);
  g_goneProcessPeak = live;
  ResetPeakOf(g_shared, live);
  ThreadRecord* const lists[] = {g_running, g_ended};
  for (ThreadRecord* list : lists) {
    for (ThreadRecord* record = list; record != nullptr; record = record->next) {
      ResetPeakOf(*record, live);
    }
  }
}

void ForEachRunningLocked(void (*visit)(ThreadRecord&)) {
  for (ThreadRecord* record = g_running; record != nullptr; record = record->next) visit(*record);
}

const Counts& FoldedCountsLocked() { return g_folded; }

uint64_t PeakOf(const Counts& counts) {
  const int64_t balance = BalanceOf(counts);
  const uint64_t peak = Load(counts.peakBytes);
  return balance > int64_t(peak) ? uint64_t(balance) : peak;
}

Totals SumLocked() {
  struct Sum {
    Totals totals;
    int64_t peak;
  } sum = {};
  Accumulate(sum.totals.counts, g_folded);
  Accumulate(sum.totals.counts, g_shared.counts);
  sum.peak = g_goneProcessPeak;
  Raise(sum.peak, Load(g_shared.processPeak));
  VisitThreadsLocked(
      [](const ThreadRecord& record, bool, void* context) {
        Sum& into = *static_cast<Sum*>(context);
        Accumulate(into.totals.counts, record.counts);
        Raise(into.peak, Load(record.processPeak));
      },
      &sum);
  Raise(sum.peak, BalanceOf(sum.totals.counts));
  sum.totals.counts.peakBytes = uint64_t(sum.peak);
  sum.totals.threads = g_threads;
  sum.totals.foldedThreads = g_foldedThreads;
  sum.totals.peakToleranceBytes =
      g_runningAtMost > 1 ? uint64_t{g_runningAtMost} * uint64_t{kSettleBytes} : 0;
  return sum.totals;
}

}  // namespace qvheap

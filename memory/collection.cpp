// Memory collection and reserves. Design: memory/collection.h.
#include "memory/collection.h"

#include <sys/sysinfo.h>
#include <unistd.h>

#include "log/report.h"
#include "memory/allocator.h"
#include "memory/statistics.h"

namespace qv {

constinit uint32_t g_memoryInitialisationWord = 0;

namespace {

// Consecutive failed reservations of the engine after which probing is pointless.
constexpr int32_t kFailuresTolerated = 10;
constexpr uint32_t kProbeGranuleBytes = 65536;
constexpr uint64_t kSwapShareDivisor = 16;
constexpr uint32_t kReporters = 256;

struct Reserve {
  Reserve* next;
};

struct OutOfMemoryReport {
  uint64_t thread;  // 1 + identity; 0 when unused
  uint64_t frame;   // the stack grows down from here while the report lasts
};

// Process-wide state.
constinit QV_SPIN_LOCK g_allocatorLock = {};
constinit QV_SPIN_LOCK g_virtualCheckLock = {};
constinit uint32_t g_unidentifiedHolds = 0;  // allocator lock passed by identity 0, nesting depth
constinit uint32_t g_collectorInitialised = 0;
constinit Reserve* g_reserves = nullptr;
constinit uint32_t g_freeingReserves = 0;
constinit uint32_t g_collectionWarned = 0;
constinit QV_MEMORY_COLLECTOR g_collectors[QV_MEMORY_COLLECTORS] = {};
constinit uint32_t g_collectorCount = 0;
constinit uint64_t g_highestFreeSwap = 0;
constinit uint64_t g_lowestFreeSwap = ~uint64_t{0};
constinit uint32_t g_tightWarningPending = 1;
constinit OutOfMemoryReport g_outOfMemoryReports[kReporters] = {};
constinit int32_t g_virtualAllocFailures = 0;
constinit uint32_t g_preCheckWaiting = 0;

// The allocator lock for one scope, which may end early. Without a thread-id hook the lock keeps no
// trace of its holder; the depth does, so that a request from inside the hook is still recognised.
class AllocatorGuard : NonCopyable {
 public:
  AllocatorGuard() : guard_(g_allocatorLock), unidentified_(SelfId() == 0) {
    if (unidentified_) Increment(g_unidentifiedHolds);
  }
  ~AllocatorGuard() {
    if (unidentified_) Decrement(g_unidentifiedHolds);
  }

 private:
  const SpinGuard<LockRank::kAllocator> guard_;
  const bool unidentified_;  // remembered: a hook that runs inside may install the thread-id hook
};

bool CallerHoldsAllocatorLock() {
  return SpinIsMine(g_allocatorLock) || (SelfId() == 0 && LoadRelaxed(g_unidentifiedHolds) != 0);
}

// Lets go of the lock however often this thread holds it: a collector that allocates holds it twice.
void ReleaseAllocatorLockWholly() {
  while (SpinIsMine(g_allocatorLock)) {
    SpinRelease(g_allocatorLock);
    if (kQvDebug) LockOrderLeave(LockRank::kAllocator);
  }
  if (SelfId() == 0) StoreRelaxed(g_unidentifiedHolds, 0u);
}

void WarnOfCollectionOnce() {
  if (g_collectionWarned != 0) return;
  Log(QVLOG_SEVERITY_WARNING, QVLOG_MSG_COLLECT_MEMORY, "COLLECT_MEMORY");
  g_collectionWarned = 1;
}

void LogCollection(const char* format, uint64_t total) {
  Log(QVLOG_SEVERITY_INFO, QVLOG_MSG_COMMENT, format, static_cast<unsigned long long>(total));
  LogCategories("MemoryAllocated by %-25s:%15ld");
}

void RunCollectors() {
  for (uint32_t i = 0; i < LoadRelaxed(g_collectorCount) && i < QV_MEMORY_COLLECTORS; i++) {
    const QV_MEMORY_COLLECTOR collector = LoadAcquire(g_collectors[i]);
    if (collector != nullptr) collector();  // null: counted, not yet written
  }
}

// Runs the collectors; the slab bytes that they released. Allocator lock held.
uint64_t CollectMemory() {
  const ReportsWithoutMemory reports;
  WarnOfCollectionOnce();
  const uint64_t before = TotalMemoryAllocated();
  if (StatisticsEnabled()) {
    CountCollection();
    LogCollection("Start collecting memory: __qvTotalMemoryAllocated=%llu", before);
  }
  RunCollectors();
  if (StatisticsEnabled()) {
    LogCollection("Stop collecting memory: __qvTotalMemoryAllocated=%llu", TotalMemoryAllocated());
  }
  return before - TotalMemoryAllocated();
}

// Collects once free swap has fallen by more than a sixteenth of all swap below the most seen since the
// last collection. Without swap it never does. Allocator lock held.
void CheckSwapWatermark() {
  struct sysinfo info;
  if (LoadRelaxed(g_collectorInitialised) == 0 || sysinfo(&info) != 0) return;
  const uint64_t freeSwap = info.freeswap;
  if (freeSwap > g_highestFreeSwap) {
    g_highestFreeSwap = g_lowestFreeSwap = freeSwap;
  } else if (freeSwap < g_lowestFreeSwap) {
    g_lowestFreeSwap = freeSwap;
  }
  if (g_lowestFreeSwap + info.totalswap / kSwapShareDivisor >= g_highestFreeSwap) return;
  g_lowestFreeSwap = ~uint64_t{0};
  g_highestFreeSwap = 0;
  CollectMemory();
}

// Gives back one reserve after the other until the hook can give the bytes; null when all are gone.
// Allocator lock held.
void* TradeReservesFor(uint64_t bytes) {
  const ReportsWithoutMemory reports;
  void* block = nullptr;
  StoreRelaxed(g_freeingReserves, 1u);
  while (block == nullptr && g_reserves != nullptr) {
    Reserve* const reserve = g_reserves;
    g_reserves = reserve->next;
    if (g_heap.freeProc != nullptr) g_heap.freeProc(reserve);
    Log(QVLOG_SEVERITY_WARNING, QVLOG_MSG_FREEING_RESERVES, QVLOG_ARG_INTEGER, QV_RESERVE_BYTES);
    block = g_heap.allocateProc(bytes);
  }
  StoreRelaxed(g_freeingReserves, 0u);
  return block;
}

// One attempt of the pre-check. `warned` carries the collection-warning flag from attempt to attempt,
// so that one pre-check warns once.
void* Probe(uint32_t bytes, uint32_t& warned) {
  const AllocatorGuard guard;
  g_collectionWarned = warned;
  void* const block = g_heap.allocateProc(bytes);
  warned = g_collectionWarned;
  if (block != nullptr) g_collectionWarned = 0;
  return block;
}

void* ProbeTwice(uint32_t bytes, uint32_t& warned) {
  void* const block = Probe(bytes, warned);
  if (block != nullptr) return block;
  LogComment("Memory collection %i failed.  Retrying after a few seconds...", 1);
  StoreRelaxed(g_preCheckWaiting, 1u);
  __QvSleep(1);
  return Probe(bytes, warned);
}

void* ProbeWithReserves(uint32_t bytes, uint32_t warned) {
  const AllocatorGuard guard;
  void* const block = TradeReservesFor(bytes);
  g_collectionWarned = warned;
  return block;
}

// A thread that runs out of memory again while it reports, or in the exit handler, must not start over:
// it would never end. Such a call comes from deeper on the stack than the report it is part of; one from
// elsewhere means that the handler left by a jump, and is a report of its own. Other threads each report
// as if they were the first. Beyond the table, so many have reported that one more has nothing to add.
bool ReportedOutOfMemoryBefore(uint64_t frame) {
  const uint64_t me = uint64_t{SelfId()} + 1;
  for (OutOfMemoryReport& report : g_outOfMemoryReports) {
    const uint64_t found = CompareExchange(report.thread, me, 0);
    if (found == me && frame < LoadRelaxed(report.frame)) return true;
    if (found != 0 && found != me) continue;
    StoreRelaxed(report.frame, frame);
    return false;
  }
  return true;
}

}  // namespace

void InitializeMemoryLocks() {
  SpinInitialize(g_allocatorLock, 0);
  SpinInitialize(g_virtualCheckLock, 0);
}

void* AcquireMemoryForMalloc(uint64_t bytes) {
  {
    const AllocatorGuard guard;
    g_collectionWarned = 0;
    CheckSwapWatermark();
    void* block = g_heap.allocateProc(bytes);
    if (block == nullptr) block = TradeReservesFor(bytes);
    if (QV_LIKELY(block != nullptr)) {
      g_collectionWarned = 0;
      return block;
    }
    ReleaseAllocatorLockWholly();
    ReportMemoryShortage(Shortage::kOutOfMemory);
  }
  __builtin_unreachable();  // the report ended the process
}

void ReportMemoryShortage(Shortage shortage) {
  const ReportsWithoutMemory reports;
  const bool tight = shortage == Shortage::kTight;
  if (tight && LoadRelaxed(g_tightWarningPending) == 0) return;
  if (!tight && ReportedOutOfMemoryBefore(reinterpret_cast<uint64_t>(__builtin_frame_address(0))))
    _exit(-1);
  if (StatisticsEnabled()) LogCategories("Allocation status for %-25s:%15ld");
  if (tight) {
    Log(QVLOG_SEVERITY_WARNING, QVLOG_MSG_MEMORY_IS_TIGHT, "MEMORY_IS_TIGHT");
    StoreRelaxed(g_tightWarningPending, 0u);
    return;
  }
  Log(QVLOG_SEVERITY_ERROR, QVLOG_MSG_OUT_OF_MEMORY, "OUT_OF_MEMORY");
  FatalExit(-1);
}

namespace {

// The hook is asked without the allocator lock; threads that allocate meanwhile find all reserves or
// none.
void TakeReserves(uint32_t count) {
  if (g_heap.allocateProc == nullptr) return;
  Reserve* taken = nullptr;
  for (uint32_t i = 0; i < count; i++) {
    Reserve* const reserve = static_cast<Reserve*>(g_heap.allocateProc(QV_RESERVE_BYTES));
    if (reserve == nullptr) break;
    reserve->next = taken;
    taken = reserve;
  }
  const AllocatorGuard guard;
  g_reserves = taken;  // it was empty: only the first initialisation comes here
}

// The engine's request came from inside the allocate hook: the lock is held already.
void CollectForEngine(uint64_t bytesWanted) {
  const ReportsWithoutMemory reports;
  if (!StatisticsEnabled()) {
    CollectMemory();
    return;
  }
  LogComment("Jig requested at least %llu bytes", static_cast<unsigned long long>(bytesWanted));
  const uint64_t freed = CollectMemory();
  LogComment("We freed %llu bytes", static_cast<unsigned long long>(freed));
}

// Check lock held.
void ProveMemory(uint32_t bytesToReserve) {
  const ReportsWithoutMemory reports;
  const uint32_t probeBytes =
      ((bytesToReserve + kProbeGranuleBytes + 15) & ~(kProbeGranuleBytes - 1)) - 16;
  uint32_t warned = 0;
  void* block = ProbeTwice(probeBytes, warned);
  if (block == nullptr) block = ProbeWithReserves(probeBytes, warned);
  if (block == nullptr) {
    ReportMemoryShortage(Shortage::kTight);
  } else if (g_heap.freeProc != nullptr) {
    g_heap.freeProc(block);
  }
  StoreRelaxed(g_preCheckWaiting, 0u);
}

}  // namespace
}  // namespace qv

void __QvInitializeMemoryCollectorAndReserveMemory(uint32_t reserveCount) {
  const qv::GuardWord guard(qv::g_memoryInitialisationWord);
  if (qv::g_collectorInitialised != 0) return;
  qv::ResetStatistics();
  qv::TakeReserves(reserveCount);
  qv::StoreRelaxed(qv::g_collectorInitialised, 1u);
}

void __QvInitializeMemoryCollector() { __QvInitializeMemoryCollectorAndReserveMemory(0); }

int32_t __QvRegisterMemoryCollector(QV_MEMORY_COLLECTOR collector) {
  if (collector == nullptr) {
    qv::LogError("A valid memory collector hook must be specified to register it with QVRT");
    return -1;
  }
  const uint32_t count = qv::Increment(qv::g_collectorCount);
  if (count > QV_MEMORY_COLLECTORS) {
    qv::Decrement(qv::g_collectorCount);
    return -1;
  }
  qv::StoreRelease(qv::g_collectors[count - 1], collector);
  return 0;
}

void __QvAsynchronousCollectMemory(uint64_t bytesWanted) {
  if (qv::LoadRelaxed(qv::g_collectorInitialised) == 0 || qv::LoadRelaxed(qv::g_freeingReserves) != 0) {
    return;
  }
  if (qv::CallerHoldsAllocatorLock()) return qv::CollectForEngine(bytesWanted);
  __QvPreVirtualAllocCheck(uint32_t(bytesWanted));
}

void __QvPreVirtualAllocCheck(uint32_t bytesToReserve) {
  const qv::SpinGuard<qv::LockRank::kVirtualCheck> guard(qv::g_virtualCheckLock);
  if (qv::g_virtualAllocFailures > qv::kFailuresTolerated || qv::g_heap.allocateProc == nullptr) {
    return;
  }
  qv::ProveMemory(bytesToReserve);
}

void __QvPostVirtualAllocCheck(int32_t succeeded) {
  const qv::SpinGuard<qv::LockRank::kVirtualCheck> guard(qv::g_virtualCheckLock);
  if (succeeded != 0) {
    qv::g_virtualAllocFailures = 0;
  } else if (qv::g_virtualAllocFailures <= qv::kFailuresTolerated) {  // beyond it no number matters
    ++qv::g_virtualAllocFailures;
  }
}

void __QvWaitForPreVirtualAllocThread() {
  while (qv::LoadRelaxed(qv::g_preCheckWaiting) != 0) __QvYield();
}

// Memory categories and statistics. Design: memory/statistics.h.
#include "memory/statistics.h"

#include <string.h>

#include "log/report.h"

namespace qv {
namespace {

constexpr uint32_t kSlabsBetweenDumps = 100;

// Process-wide state.
constinit MemoryCategory g_categories[QV_MEMORY_CATEGORIES] = {{"QV_MISC", 0, 0}};
constinit uint32_t g_categoryCount = 1;
constinit uint32_t g_enabled = 0;
constinit QV_SPIN_LOCK g_statisticsLock = {};  // all zero is initialised
constinit uint64_t g_totalMemoryAllocated = 0;
constinit uint64_t g_peakTotal = 0;
constinit uint64_t g_timesCollected = 0;
constinit uint64_t g_slabsAcquired = 0;

using StatisticsGuard = SpinGuard<LockRank::kStatistics>;

uint32_t CategoryCount() {
  const uint32_t count = LoadRelaxed(g_categoryCount);
  return count < QV_MEMORY_CATEGORIES ? count : uint32_t{QV_MEMORY_CATEGORIES};
}

// Copies a name as four words, each of them whole: see (2).
void CopyName(char (&to)[32], const char (&from)[32]) {
  uint64_t words[4];
  for (uint32_t i = 0; i < 4; i++) {
    words[i] = LoadRelaxed(reinterpret_cast<const uint64_t*>(from)[i]);
  }
  memcpy(to, words, sizeof words);
}

void PublishName(char (&to)[32], const char* name) {
  alignas(8) char copy[32];
  strncpy(copy, name, sizeof copy - 1);
  copy[sizeof copy - 1] = 0;
  for (uint32_t i = 0; i < 4; i++) {
    StoreRelaxed(reinterpret_cast<uint64_t*>(to)[i], reinterpret_cast<uint64_t*>(copy)[i]);
  }
}

void RecordPeakLocked(uint64_t total) {
  if (total <= g_peakTotal) return;
  for (MemoryCategory& category : g_categories) {
    StoreRelaxed(category.bytesAllocatedAtPeak, category.bytesAllocated);
  }
  StoreRelaxed(g_peakTotal, total);
}

}  // namespace

bool StatisticsEnabled() { return LoadRelaxed(g_enabled) != 0; }

uint64_t TotalMemoryAllocated() { return LoadRelaxed(g_totalMemoryAllocated); }

void CountCollection() { FetchAdd(g_timesCollected, 1); }

void LogCategories(const char* format) {
  for (uint32_t i = 0; i < CategoryCount(); i++) {
    alignas(8) char name[32];
    CopyName(name, g_categories[i].name);
    // The format is one of the library's constants; the compiler cannot see that it fits.
    Log(QVLOG_SEVERITY_INFO, QVLOG_MSG_COMMENT, format, name,
        long{LoadRelaxed(g_categories[i].bytesAllocated)});
  }
}

void CountSlabAcquired(uint32_t category, uint64_t slabBytes) {
  if (!StatisticsEnabled()) return;
  const StatisticsGuard guard(g_statisticsLock);
  int64_t& bytes = g_categories[category].bytesAllocated;
  StoreRelaxed(bytes, bytes + int64_t(slabBytes));
  StoreRelaxed(g_totalMemoryAllocated, g_totalMemoryAllocated + slabBytes);
  RecordPeakLocked(g_totalMemoryAllocated);
  if (++g_slabsAcquired % kSlabsBetweenDumps != 0) return;
  const ReportsWithoutMemory reports;
  LogComment("Periodic allocation status dump");
  LogCategories("Allocation status for %-25s:%15ld");
}

void CountSlabReleased(uint32_t category, uint64_t slabBytes) {
  if (!StatisticsEnabled()) return;
  const StatisticsGuard guard(g_statisticsLock);
  int64_t& bytes = g_categories[category].bytesAllocated;
  const int64_t counted = bytes < int64_t(slabBytes) ? bytes : int64_t(slabBytes);
  StoreRelaxed(bytes, bytes - counted);
  StoreRelaxed(g_totalMemoryAllocated, g_totalMemoryAllocated - uint64_t(counted));
}

void ResetStatistics() {
  const StatisticsGuard guard(g_statisticsLock);
  StoreRelaxed(g_totalMemoryAllocated, uint64_t{0});
  StoreRelaxed(g_peakTotal, uint64_t{0});
  StoreRelaxed(g_timesCollected, uint64_t{0});
  for (MemoryCategory& category : g_categories) {
    StoreRelaxed(category.bytesAllocated, int64_t{0});
    StoreRelaxed(category.bytesAllocatedAtPeak, int64_t{0});
  }
}

}  // namespace qv

int32_t __QvRegisterMemoryCategory(const char* name) {
  if (name == nullptr) {
    qv::LogError("A name must be specified when registering memory categories");
    return -1;
  }
  const uint32_t index = qv::Increment(qv::g_categoryCount) - 1;
  if (index >= QV_MEMORY_CATEGORIES) {
    qv::Decrement(qv::g_categoryCount);
    return -1;
  }
  qv::PublishName(qv::g_categories[index].name, name);
  return int32_t(index);
}

void __QvEnableMemoryStatisticsCollection() { qv::StoreRelaxed(qv::g_enabled, 1u); }

uint32_t __QvGetNumMemoryCategories() { return qv::CategoryCount(); }

uint64_t __QvGetTotalTimesMemoryCollected() { return qv::LoadRelaxed(qv::g_timesCollected); }

uint64_t __QvGetPeakTotalMemoryAllocated() {
  const uint64_t peak = qv::LoadRelaxed(qv::g_peakTotal);
  return peak != 0 ? peak : qv::TotalMemoryAllocated();
}

uint32_t __QvGetMemoryInfoByCategory(uint32_t index, QV_MEMORY_CATEGORY_INFO* out) {
  if (out == nullptr || index >= qv::CategoryCount()) return 0;
  alignas(8) char name[32];
  qv::CopyName(name, qv::g_categories[index].name);
  strncpy(out->name, name, sizeof out->name);
  out->bytesAllocated = qv::LoadRelaxed(qv::g_categories[index].bytesAllocated);
  out->bytesAllocatedAtPeak = qv::LoadRelaxed(qv::g_categories[index].bytesAllocatedAtPeak);
  return 1;
}

// Categories and statistics against a recount of the blocks that the host has given.
#include "memory/statistics.h"

#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <random>
#include <set>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/log_text.h"
#include "tests/support/scripted_host.h"

namespace {

using namespace qvtest;

constexpr uint32_t kHalfSlab = 32728;  // two chunks of this size fill a slab of 64 KiB

TEST(Statistics, CategoriesFillTheTableAndNoMore) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    CHECK_EQ(__QvRegisterMemoryCategory(nullptr), -1);
    CHECK_EQ(__QvRegisterMemoryCategory("a name of forty characters, which is long"), 1);
    static int32_t indices[4][20];
    OnThreads(4, [](int thread) {
      for (int32_t& index : indices[thread]) index = __QvRegisterMemoryCategory("thread's");
    });
    std::multiset<int32_t> taken;
    for (const auto& row : indices) taken.insert(std::begin(row), std::end(row));
    CHECK_EQ(taken.count(-1), 80u - 62u);
    for (int32_t index = 2; index < 64; index++) CHECK_EQ(taken.count(index), 1u);
    CHECK_EQ(__QvGetNumMemoryCategories(), 64u);
    QV_MEMORY_CATEGORY_INFO info, untouched;
    memset(&info, 0x5A, sizeof info);
    memcpy(&untouched, &info, sizeof info);
    CHECK_EQ(__QvGetMemoryInfoByCategory(64, &info), 0u);
    CHECK_EQ(__QvGetMemoryInfoByCategory(0, nullptr), 0u);
    CHECK_EQ(memcmp(&info, &untouched, sizeof info), 0);
    CHECK_EQ(__QvGetMemoryInfoByCategory(1, &info), 1u);
    CHECK(std::string(info.name) == "a name of forty characters, whi");
    CHECK(__QvGetMemoryInfoByCategory(0, &info) == 1 && std::string(info.name) == "QV_MISC");
    CHECK(__QvGetMemoryInfoByCategory(63, &info) == 1 && std::string(info.name) == "thread's");
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(),
            "ERROR INTERNAL : A name must be specified when registering memory categories\n");
}

// The slab bytes of each category, from the slabs themselves.
std::array<int64_t, 64> RecountSlabs() {
  std::array<int64_t, 64> bytes = {};
  for (const auto& [block, size] : LiveBlocks()) {
    const QV_SLAB* const slab = static_cast<const QV_SLAB*>(block);
    const bool isSlab = size >= 65520 && ((size + 16) & (size + 15)) == 0 && slab->magic == 0xBEEF;
    if (isSlab) bytes[slab->category] += int64_t(size + 16);
  }
  return bytes;
}

// Faults: the snapshot taken of one category alone, or at every acquisition; large blocks counted;
// bytes taken off the wrong category.
TEST(Statistics, FiguresAndPeaksFollowTheSlabs) {
  for (uint32_t seed : {1u, 2u}) {
    const ChildResult child = RunChild([seed] {
      InstallScriptedHost();
      __QvEnableMemoryStatisticsCollection();
      for (const char* name : {"one", "two", "three"}) __QvRegisterMemoryCategory(name);
      std::mt19937 random(seed);
      std::array<int64_t, 64> atPeak = {};
      int64_t peak = 0;
      std::vector<void*> blocks;
      for (int i = 0; i < 1500; i++) {
        if (blocks.empty() || random() % 100 < (i % 300 < 150 ? 60 : 35)) {
          const uint32_t size = random() % 3 == 0 ? 40000 : kHalfSlab;
          blocks.push_back(__QvMalloc(uint32_t(random() % 4), size, uint32_t(random() % 2)));
        } else {
          std::swap(blocks[random() % blocks.size()], blocks.back());
          __QvFree(blocks.back());
          blocks.pop_back();
        }
        const std::array<int64_t, 64> now = RecountSlabs();
        const int64_t total = now[0] + now[1] + now[2] + now[3];
        if (total > peak) {
          peak = total;
          atPeak = now;
        }
        CHECK_EQ(__QvGetPeakTotalMemoryAllocated(), uint64_t(peak));
        CHECK_EQ(qv::TotalMemoryAllocated(), uint64_t(total));
        for (uint32_t category = 0; category < 4; category++) {
          QV_MEMORY_CATEGORY_INFO info;
          CHECK_EQ(__QvGetMemoryInfoByCategory(category, &info), 1u);
          CHECK_EQ(info.bytesAllocated, now[category]);
          CHECK_EQ(info.bytesAllocatedAtPeak, atPeak[category]);
        }
      }
    });
    EXPECT_TRUE(child.Ok()) << "seed " << seed << ": " << child.err;
  }
}

void FillSlabs(uint32_t category, int count, std::vector<void*>* blocks = nullptr) {
  for (int i = 0; i < 2 * count; i++) {
    void* const block = __QvMalloc(category, kHalfSlab, 0);
    if (blocks != nullptr) blocks->push_back(block);
  }
}

int64_t BytesOf(uint32_t category) {
  QV_MEMORY_CATEGORY_INFO info;
  CHECK_EQ(__QvGetMemoryInfoByCategory(category, &info), 1u);
  return info.bytesAllocated;
}

TEST(Statistics, SwitchedOnLateOrResetTheyStayAtOrAboveZeroAndTheTotalIsTheSum) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    for (const char* name : {"one", "two"}) __QvRegisterMemoryCategory(name);
    std::vector<void*> uncounted, counted;
    FillSlabs(1, 3, &uncounted);
    __QvEnableMemoryStatisticsCollection();
    CHECK_EQ(BytesOf(1), 0);
    FillSlabs(2, 2, &counted);
    for (void* block : uncounted) __QvFree(block);  // two slabs go, one is kept
    CHECK_EQ(BytesOf(1), 0);
    CHECK_EQ(BytesOf(2), 2 * 65536);
    CHECK_EQ(qv::TotalMemoryAllocated(), 2u * 65536);
    __QvInitializeMemoryCollector();  // resets the figures
    CHECK_EQ(__QvGetPeakTotalMemoryAllocated(), 0u);
    for (void* block : counted) __QvFree(block);
    CHECK_EQ(BytesOf(2), 0);
    CHECK_EQ(qv::TotalMemoryAllocated(), 0u);
    FillSlabs(0, 1);
    CHECK_EQ(__QvGetPeakTotalMemoryAllocated(), 65536u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(Statistics, EveryHundredthSlabWritesTheDump) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    FillSlabs(1, 7);  // do not count
    __QvEnableMemoryStatisticsCollection();
    __QvRegisterMemoryCategory("a name of 31 characters, in all");
    FillSlabs(1, 60);
    __QvInitializeMemoryCollector();  // resets the figures, not the count of slabs
    FillSlabs(1, 39);
    for (int i = 0; i < 200; i++) __QvMalloc(1, 40000, 0);
    CHECK_EQ(access("qvlog.log", F_OK), -1);
    FillSlabs(1, 1);
    __QvLogInternal(QVLOG_SEVERITY_INFO, QVLOG_MSG_COMMENT, 0, "between");
    FillSlabs(1, 100);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(),
            "# Periodic allocation status dump\n"
            "# Allocation status for QV_MISC                  :              0\n"
            "# Allocation status for a name of 31 characters, in all:        2621440\n"
            "# between\n"
            "# Periodic allocation status dump\n"
            "# Allocation status for QV_MISC                  :              0\n"
            "# Allocation status for a name of 31 characters, in all:        9175040\n");
}

}  // namespace

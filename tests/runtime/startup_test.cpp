// Start-up, processor services, hooks, atomics and bit scans.
#include <gtest/gtest.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <random>

#include "runtime/hooks.h"
#include "tests/support/child.h"
#include "tests/support/interpose.h"
#include "tests/support/threads.h"

using namespace qvtest;

// Faults: no guard, or a guard that lets the others return before the first has finished.
TEST(Startup, ThreadsThatRaceReturnStartedAndRegisterTheMessagesOnce) {
  for (int round = 0; round < 10; round++) {
    const ChildResult child = RunChild([] {
      CHECK_EQ(__qvNumberOfProcessors, 1);
      CHECK_EQ(__qvRtStarted, 0);
      CHECK_EQ(QVLOG_MSG_FAIL_READ_FILE_VERBOSE, 0u);
      RunThreads(4, [](int) {
        CHECK_EQ(__QvRtStartup(), 202375170u);
        CHECK_EQ(__qvRtStarted, 1);
        CHECK_EQ(__qvNumberOfProcessors, get_nprocs());
        CHECK_EQ(QVLOG_MSG_FAIL_READ_FILE_VERBOSE, QVLOG_MSG_ABNORMAL_TERMINATE + 11);
      });
      __qvNumberOfProcessors = 77;  // a tool's own setting outlives later calls
      __QvRtShutdown();
      CHECK_EQ(__QvRtStartup(), QV_STARTUP_RESULT);
      CHECK_EQ(__qvNumberOfProcessors, 77);
      const QVLOG_MESSAGE own = {"OWN", nullptr, 0, 0};
      CHECK_EQ(__QvRegisterLogMessage(&own), QVLOG_MSG_FAIL_READ_FILE_VERBOSE + 1);
    });
    ASSERT_TRUE(child.Ok()) << child.err;
  }
}

// Faults: units of another size, a 64-bit product, a yield for 0 units.
TEST(Startup, SleepIsACountOfYieldsModulo32Bits) {
  const ChildResult child = RunChild([] {
    g_onYield = [] {};
    CHECK_EQ(__QvYield(), 0);
    CHECK_EQ(t_yields, 1u);
    __QvSleep(0);
    CHECK_EQ(t_yields, 1u);
    __QvSleep(859);  // 4,295,000,000 is 32,704 above 2^32
    CHECK_EQ(t_yields, 1u + 32704);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(Startup, PageSizeIsAskedForOnce) {
  const ChildResult failing = RunChild([] {
    g_sysconf = [](int) { return -1L; };
    CHECK_EQ(__QvGetNativePageSize(), 4096u);
    g_sysconf = [](int) { return 8192L; };
    CHECK_EQ(__QvGetNativePageSize(), 4096u);
  });
  EXPECT_TRUE(failing.Ok()) << failing.err;
  const ChildResult large = RunChild([] {
    g_sysconf = [](int) { return 0x7'0000'4000L; };
    CHECK_EQ(__QvGetNativePageSize(), 0x4000u);
    g_sysconf = nullptr;
    CHECK_EQ(__QvGetNativePageSize(), 0x4000u);
  });
  EXPECT_TRUE(large.Ok()) << large.err;
}

namespace {

void CheckNoHooks() {
  CHECK_EQ(__QvGetCurrentThreadId(), 0u);
  CHECK_EQ(__QvGetNativeThreadId(), 0u);
  CHECK_EQ(__QvGetNativeParentThreadId(), 0u);
  CHECK_EQ(__QvTlsAlloc(), 0xFFFFFFFFu);
  CHECK_EQ(__QvTlsFree(3), 0u);
  CHECK(__QvTlsGetValue(3) == nullptr);
  CHECK_EQ(__QvTlsSetValue(3, nullptr), 0u);
  CHECK_EQ(__QvGetPid(), 0xFFFFFFFFu);
}

void* Pointer(uint64_t word) { return reinterpret_cast<void*>(word); }

}  // namespace

// Faults: two hooks swapped, arguments or results narrowed, null not taken as none.
TEST(Hooks, PassArgumentsAndResultsAndNullRemovesThem) {
  const ChildResult child = RunChild([] {
    CheckNoHooks();
    __QvSetGetCurrentThreadIdProc([] { return uint64_t{0xA000000000000001}; });
    __QvSetGetNativeThreadIdProc([] { return uint64_t{0xB000000000000002}; });
    __QvSetGetNativeParentThreadIdProc([] { return uint64_t{0xC000000000000003}; });
    __QvSetTlsAllocProc([] { return 0xD0000004u; });
    __QvSetTlsFreeProc([](uint32_t slot) { return slot + 5; });
    __QvSetTlsGetValueProc([](uint32_t slot) { return Pointer(slot + 0xE00000000000); });
    __QvSetTlsSetValueProc(
        [](uint32_t slot, void* value) { return slot ^ uint32_t(uint64_t(value) >> 32); });
    __QvSetGetPidProc([] { return 0xF0000008u; });
    CHECK_EQ(__QvGetCurrentThreadId(), 0xA000000000000001);
    CHECK_EQ(__QvGetNativeThreadId(), 0xB000000000000002);
    CHECK_EQ(__QvGetNativeParentThreadId(), 0xC000000000000003);
    CHECK_EQ(__QvTlsAlloc(), 0xD0000004u);
    CHECK_EQ(__QvTlsFree(0x80000000), 0x80000005u);
    CHECK(__QvTlsGetValue(0x80000000) == Pointer(0xE00080000000));
    CHECK_EQ(__QvTlsSetValue(0x80000000, Pointer(0x1234567800000000)), 0x92345678u);
    CHECK_EQ(__QvGetPid(), 0xF0000008u);

    // The exported pointers are the hooks themselves.
    CHECK_EQ(__qvGetNativeParentThreadIdProc(), 0xC000000000000003);
    CHECK_EQ(__qvTlsFreeProc(1), 6u);
    __qvGetCurrentThreadIdProc = __qvGetNativeThreadIdProc;
    CHECK_EQ(__QvGetCurrentThreadId(), 0xB000000000000002);

    __QvSetGetCurrentThreadIdProc(nullptr);
    __QvSetGetNativeThreadIdProc(nullptr);
    __QvSetGetNativeParentThreadIdProc(nullptr);
    __QvSetTlsAllocProc(nullptr);
    __QvSetTlsFreeProc(nullptr);
    __QvSetTlsGetValueProc(nullptr);
    __QvSetTlsSetValueProc(nullptr);
    __QvSetGetPidProc(nullptr);
    CheckNoHooks();
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(Hooks, ThreadServicesAreStoredInOrderAndUnchecked) {
  const ChildResult child = RunChild([] {
    const auto procs = [](uint64_t first) {
      return __QvSetThreadProcs(QV_CREATE_THREAD_PROC(first), QV_EXIT_THREAD_PROC(first * 2),
                                QV_WAIT_FOR_THREAD_PROC(first * 3),
                                QV_ADD_FINI_FUNCTION_PROC(first * 4));
    };
    CHECK_EQ(procs(100), 1u);
    CHECK_EQ(uint64_t(qv::g_threadProcs.create), 100u);
    CHECK_EQ(uint64_t(qv::g_threadProcs.exit), 200u);
    CHECK_EQ(uint64_t(qv::g_threadProcs.wait), 300u);
    CHECK_EQ(uint64_t(qv::g_threadProcs.addFini), 400u);
    CHECK_EQ(procs(0), 1u);
    CHECK(qv::g_threadProcs.create == nullptr && qv::g_threadProcs.addFini == nullptr);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

namespace {

// The plain names and their twins.
struct Atomics {
  uint32_t (*increment)(volatile uint32_t*);
  uint32_t (*decrement)(volatile uint32_t*);
  uint32_t (*exchangeAdd)(volatile uint32_t*, uint32_t);
  uint32_t (*compareExchange)(volatile uint32_t*, uint32_t, uint32_t);
  uint64_t (*compareExchange64)(volatile uint64_t*, uint64_t, uint64_t);
};
constexpr Atomics kTwins[] = {
    {__QvInterlockedIncrement, __QvInterlockedDecrement, __QvInterlockedExchangeAdd,
     __QvInterlockedCompareExchange, __QvInterlockedCompareExchange64},
    {__QvInterlockedIncrementInternal, __QvInterlockedDecrementInternal,
     __QvInterlockedExchangeAddInternal, __QvInterlockedCompareExchangeInternal,
     __QvInterlockedCompareExchange64Internal}};

}  // namespace

// Faults: old value for new or the reverse, exchange and comparand swapped, a store on failure, the
// wrong width (a neighbour changes).
TEST(Atomics, ResultsAndWraps) {
  for (const Atomics& atomics : kTwins) {
    uint32_t word[2] = {0xFFFFFFFF, 42};
    EXPECT_EQ(atomics.increment(word), 0u);
    EXPECT_EQ(atomics.decrement(word), 0xFFFFFFFFu);
    EXPECT_EQ(atomics.exchangeAdd(word, 4), 0xFFFFFFFFu);
    EXPECT_EQ(atomics.compareExchange(word, 5, 3), 3u);
    EXPECT_EQ(word[0], 5u);
    EXPECT_EQ(atomics.compareExchange(word, 9, 4), 5u);
    EXPECT_EQ(word[0], 5u);
    EXPECT_EQ(word[1], 42u);
    uint64_t wide = 0x1'00000003;
    EXPECT_EQ(atomics.compareExchange64(&wide, 7, 3), 0x1'00000003u);
    EXPECT_EQ(wide, 0x1'00000003u);
    EXPECT_EQ(atomics.compareExchange64(&wide, 0x2'00000005, 0x1'00000003), 0x1'00000003u);
    EXPECT_EQ(wide, 0x2'00000005u);
  }
}

// Faults: a read-modify-write without its lock prefix loses updates or hands a value out twice.
TEST(Atomics, FourThreadsLoseNoUpdate) {
  const ChildResult child = RunChild([] {
    constexpr uint32_t kRounds = 20000;
    for (const Atomics& atomics : kTwins) {
      uint32_t up = 0, tickets = 0, exchanged = 0;
      uint64_t wide = 0;
      std::vector<uint32_t> taken[4];
      RunThreads(4, [&](int thread) {
        for (uint32_t i = 0; i < kRounds; i++) {
          atomics.increment(&up);
          if (i % 2 == 0) atomics.decrement(&up);
          taken[thread].push_back(atomics.exchangeAdd(&tickets, 3));
          uint32_t seen = 0;
          for (uint32_t was; (was = atomics.compareExchange(&exchanged, seen + 1, seen)) != seen;) {
            seen = was;
          }
          uint64_t seen64 = 0;
          for (uint64_t was; (was = atomics.compareExchange64(&wide, seen64 + (uint64_t{1} << 31),
                                                              seen64)) != seen64;) {
            seen64 = was;
          }
        }
      });
      CHECK_EQ(up, 4 * kRounds / 2);
      CHECK_EQ(exchanged, 4 * kRounds);
      CHECK_EQ(wide, (uint64_t{4} * kRounds) << 31);
      std::vector<uint32_t> all;
      for (const auto& some : taken) all.insert(all.end(), some.begin(), some.end());
      std::sort(all.begin(), all.end());
      for (uint32_t i = 0; i < all.size(); i++) CHECK_EQ(all[i], 3 * i);
    }
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(BitScans, AgreeWithALoop) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 20000; i++) {
    const uint64_t wide = (random() | 1) << (random() % 64) >> (random() % 64);
    if (wide != 0) {
      uint32_t highest = 63;
      while ((wide >> highest) == 0) highest--;
      ASSERT_EQ(__QvGetMostSignificantOneIndexLong(wide), highest) << wide;
    }
    const uint32_t bits = uint32_t(wide);
    if (bits == 0) continue;
    uint32_t lowest = 0, highest = 31;
    while ((bits >> lowest & 1) == 0) lowest++;
    while ((bits >> highest) == 0) highest--;
    ASSERT_EQ(__QvGetLeastSignificantOneIndex(bits), lowest) << bits;
    ASSERT_EQ(__QvGetLeastSignificantOneIndexInternal(bits), lowest) << bits;
    ASSERT_EQ(__QvGetMostSignificantOneIndexInternal(bits), highest) << bits;
  }
}

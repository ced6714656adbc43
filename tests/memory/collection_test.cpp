// Reserves, collectors, probes and the end of memory. Swap is scripted, and the pause between two
// probes is shortened: this program has its own sysinfo and sched_yield.
#include "memory/collection.h"

#include <gtest/gtest.h>
#include <setjmp.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/log_text.h"
#include "tests/support/scripted_host.h"

namespace {

struct SwapReading {
  uint64_t total, free;
};
constinit const SwapReading* g_swap = nullptr;  // null: sysinfo fails
constinit int g_swapReadings = 0;
constinit bool g_yieldsAreFast = false;

}  // namespace

extern "C" int sysinfo(struct sysinfo* info) noexcept {
  ++g_swapReadings;
  if (g_swap == nullptr) return -1;
  *info = {};
  info->totalswap = g_swap->total;
  info->freeswap = g_swap->free;
  return 0;
}

extern "C" int sched_yield() noexcept {
  return qv::LoadRelaxed(g_yieldsAreFast) ? 0 : int(syscall(SYS_sched_yield));
}

namespace {

using namespace qvtest;

constexpr uint32_t kLarge = 40000;  // a request of its own to the hook: 40016 bytes
constexpr char kReserve[] = "33554416";
constexpr char kEnd[] = "ERROR OUT_OF_MEMORY\nERROR ABNORMAL_TERMINATE\n";
constexpr char kFreeing[] = "WARNING FREEING_RESERVES hidden num_bytes=33554416";

std::string BriefLog() {
  FILE* const file = fopen("qvlog.log", "r");
  std::string bytes;
  for (int c; file != nullptr && (c = fgetc(file)) != EOF;) bytes += char(c);
  if (file != nullptr) fclose(file);
  return ReadLog(bytes).Brief();
}

int CountInLog(const std::string& line) {
  int count = 0;
  const std::string log = BriefLog();
  for (size_t at = 0; (at = log.find(line + "\n", at)) != log.npos; at++) count++;
  return count;
}

TEST(Reserves, AreTakenOnceAndUpToTheFirstRefusal) {
  const ChildResult child = RunChild([] {
    __QvSetGetNativeThreadIdProc(ThreadId);
    InstallScriptedHost();
    TakeEvents();
    Script().refuse = RefuseCalls(3, 3);
    __QvInitializeMemoryCollectorAndReserveMemory(5);
    CHECK(TakeEvents() == "+33554416 +33554416 !33554416 ");
    __QvInitializeMemoryCollectorAndReserveMemory(5);
    __QvInitializeMemoryCollector();
    CHECK(TakeEvents().empty());
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  const ChildResult tooEarly = RunChild([] {
    __QvInitializeMemoryCollectorAndReserveMemory(2);  // there is no hook to ask
    InstallScriptedHost();
    CHECK(TakeEvents() == "+5237760 ");
  });
  EXPECT_TRUE(tooEarly.Ok()) << tooEarly.err;
}

// Each failure of the hook costs one reserve, the last taken first; it is freed, then reported, and
// only then is the hook asked again. Failures beyond the reserves end the process.
TEST(Reserves, OneIsGivenBackForEachFailure) {
  for (int failures = 0; failures <= 3; failures++) {
    const ChildResult child = RunChild([failures] {
      InstallScriptedHost();
      __QvRtStartup();
      static constinit void* taken[2] = {};
      static constinit int asked = 0, freed = 0;
      __QvInitializeMemoryCollectorAndReserveMemory(2);
      for (const auto& [block, bytes] : LiveBlocks()) {
        if (bytes == QV_RESERVE_BYTES) taken[taken[0] != nullptr] = block;
      }
      void** const first = static_cast<void**>(taken[0]);
      void* const top =
          *first == taken[1] ? taken[0] : taken[1];  // links: the last taken names the first
      TakeEvents();
      Script().refuse = RefuseCalls(1, uint64_t(failures));
      if (failures == 0) Script().refuse = {};
      Script().onAllocate = [](uint64_t) { CHECK_EQ(CountInLog(kFreeing), asked++); };
      Script().onFree = [top](void* block, uint64_t) {
        CHECK_EQ(block == top, freed == 0);
        CHECK_EQ(CountInLog(kFreeing), freed++);
      };
      __QvMalloc(0, kLarge, 0);
      dprintf(1, "%s", TakeEvents().c_str());
    });
    std::string events, log;
    for (int i = 0; i < failures; i++) {
      events += std::string("!40016 -") + kReserve + " ";
      log += std::string(kFreeing) + "\n";
    }
    if (failures < 3) {
      EXPECT_EQ(child.status, 0) << child.err;
      EXPECT_EQ(child.out, events + "+40016 ");
      EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(), log);
    } else {
      EXPECT_EQ(child.status, 255) << child.err;
      EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(),
                std::string(kFreeing) + "\n" + kFreeing + "\n" + kEnd);
    }
  }
}

template <int kNumber>
void CountingCollector() {
  dprintf(1, "%d ", kNumber);
}

template <int... kNumbers>
void RegisterCounting(std::integer_sequence<int, kNumbers...>) {
  (CHECK_EQ(__QvRegisterMemoryCollector(CountingCollector<kNumbers>), 0), ...);
}

// Runs the collectors: the engine asks from inside the allocate hook.
void CollectFromInside(uint64_t bytes = 0) {
  Script().onAllocate = [bytes](uint64_t) {
    Script().onAllocate = {};
    __QvAsynchronousCollectMemory(bytes);
  };
  __QvFree(__QvMalloc(0, kLarge, 0));
}

TEST(Collectors, RunInOrderUpToSixteen) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    CHECK_EQ(__QvRegisterMemoryCollector(nullptr), -1);
    RegisterCounting(std::make_integer_sequence<int, 15>());
    // Registers another while it runs, which then runs too: the count is read before each call.
    CHECK_EQ(__QvRegisterMemoryCollector(CountingCollector<15>), 0);
    for (int i = 0; i < 3; i++) CHECK_EQ(__QvRegisterMemoryCollector(CountingCollector<16>), -1);
    CollectFromInside();
    dprintf(1, "| ");
    __QvInitializeMemoryCollector();
    CollectFromInside();
    CHECK_EQ(__QvGetTotalTimesMemoryCollected(), 0u);  // statistics are off
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(child.out, "| 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 ");
  EXPECT_EQ(
      ReadLog(child.Read("qvlog.log")).Brief(),
      "ERROR INTERNAL : A valid memory collector hook must be specified to register it with QVRT\n"
      "WARNING COLLECT_MEMORY\n");
}

// A collector that registers another, allocates from a new slab and releases one, under the allocator
// lock; the report with statistics, to the letter.
TEST(Collectors, MayRegisterAllocateAndReleaseAndAreReported) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    __QvInitializeMemoryCollector();
    __QvEnableMemoryStatisticsCollection();
    __QvRegisterMemoryCategory("cache");
    static constinit void* cache[4] = {};
    for (void*& block : cache) block = __QvMalloc(1, 32728, 0);
    __QvRegisterMemoryCollector([] {
      __QvRegisterMemoryCollector(CountingCollector<1>);
      for (void* block : cache) __QvFree(block);  // one slab of two goes
      __QvFree(__QvMalloc(0, 32728, 2));          // and one of 256 KiB comes
    });
    CollectFromInside(0x123456789A);
    CHECK_EQ(__QvGetTotalTimesMemoryCollected(), 1u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(child.out, "1 ");
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(),
            "# Jig requested at least 78187493530 bytes\n"
            "WARNING COLLECT_MEMORY\n"
            "# Start collecting memory: __qvTotalMemoryAllocated=131072\n"
            "# MemoryAllocated by QV_MISC                  :              0\n"
            "# MemoryAllocated by cache                    :         131072\n"
            "# Stop collecting memory: __qvTotalMemoryAllocated=327680\n"
            "# MemoryAllocated by QV_MISC                  :         262144\n"
            "# MemoryAllocated by cache                    :          65536\n"
            "# We freed 18446744073709355008 bytes\n");
}

TEST(Collectors, OneWarningForEachShortageHoweverOftenTheHookAsks) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    __QvAsynchronousCollectMemory(1);  // before the initialisation: nothing
    __QvInitializeMemoryCollectorAndReserveMemory(1);
    __QvRegisterMemoryCollector(CountingCollector<7>);
    TakeEvents();
    Script().onAllocate = [](uint64_t) {
      for (int i = 0; i < 3; i++) __QvAsynchronousCollectMemory(1);
    };
    Script().refuse = RefuseCalls(1, 1);
    __QvMalloc(0, kLarge, 0);  // three collections; none while the reserve is given back
    dprintf(1, "| ");
    __QvMalloc(1, 8, 0);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(child.out, "7 7 7 | 7 7 7 ");
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(),
            std::string("WARNING COLLECT_MEMORY\n") + kFreeing + "\nWARNING COLLECT_MEMORY\n");
}

TEST(Collectors, RunWhenSwapHasFallenByMoreThanASixteenth) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    static constinit int collections = 0;
    __QvRegisterMemoryCollector([] { ++collections; });
    const SwapReading emptied = {1600, 0};
    g_swap = &emptied;
    __QvMalloc(0, kLarge, 0);
    CHECK_EQ(g_swapReadings, 0);  // not before the initialisation
    __QvInitializeMemoryCollector();
    const struct {
      SwapReading swap;
      bool collects;
    } steps[] = {
        {{1600, 1000}, false}, {{1600, 900}, false},
        {{1600, 899}, true},  // below 1000 by more than 100
        {{1600, 899}, false},  {{1600, 799}, false},
        {{1600, 798}, true},  // the marks began anew at 899
        {{1600, 5}, false},    {{1600, 700}, false},
        {{1600, 1000}, false},  // a new highest forgets the lowest
        {{1615, 900}, false},  {{1615, 899}, true},
        {{0, 0}, false},  // 1615 / 16 is 100
        {{0, 0}, false},       {{0, 0}, false},
    };
    uint32_t category = 1;
    for (const auto& [swap, collects] : steps) {
      const int before = collections;
      g_swap = &swap;
      __QvMalloc(category, category % 2 != 0 ? kLarge : 8, 0);  // large blocks and slabs alike
      category++;
      CHECK_EQ(collections - before, collects ? 1 : 0);
    }
    g_swap = nullptr;
    __QvMalloc(0, kLarge, 0);
    CHECK_EQ(g_swapReadings, int(std::size(steps)) + 1);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Count("WARNING COLLECT_MEMORY"), 3);
}

TEST(PreCheck, ProbesRoundedSizesAndKeepsNothing) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    TakeEvents();
    const uint32_t probes[][2] = {{0, 65520},
                                  {100, 65520},
                                  {65520, 65520},
                                  {65521, 131056},
                                  {131056, 131056},
                                  {0xFFFFFFFF, 65520},
                                  {1u << 20, (1u << 20) + 65520}};
    for (const auto& [bytes, probe] : probes) {
      __QvPreVirtualAllocCheck(bytes);
      const std::string size = std::to_string(probe) + " ";
      CHECK(TakeEvents() == "+" + size + "-" + size);
    }
    for (int i = 0; i < 10; i++) __QvPostVirtualAllocCheck(0);
    __QvPreVirtualAllocCheck(1);
    CHECK(TakeEvents() == "+65520 -65520 ");
    __QvPostVirtualAllocCheck(0);  // the eleventh
    __QvPreVirtualAllocCheck(1);
    CHECK(TakeEvents().empty());
    __QvPostVirtualAllocCheck(-1);
    __QvInitializeMemoryCollector();
    __QvAsynchronousCollectMemory((uint64_t{7} << 32) + 100);  // from outside the hook: 32 bits
    CHECK(TakeEvents() == "+65520 -65520 ");
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(child.Read("qvlog.log"), "");
  EXPECT_TRUE(
      RunChild([] { __QvPreVirtualAllocCheck(1); }).Ok());  // without a hook there is none to ask
}

constexpr char kRetry[] = "# Memory collection 1 failed.  Retrying after a few seconds...\n";

// The flag is up during the second attempt and down when the check returns. The waiter must not pass
// while it is up; after a check without a pause it passes at once.
TEST(PreCheck, OthersWaitForItsPause) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    static constinit uint32_t attempts = 0, passed = 0;
    static std::thread waiter;
    Script().refuse = RefuseCalls(1, 1);
    Script().onAllocate = [](uint64_t) {
      if (++attempts != 2) return;
      waiter = std::thread([] {
        __QvWaitForPreVirtualAllocThread();
        qv::StoreRelease(passed, 1u);
      });
      usleep(20000);
      CHECK_EQ(qv::LoadAcquire(passed), 0u);
    };
    g_yieldsAreFast = true;
    __QvPreVirtualAllocCheck(1);
    waiter.join();
    __QvWaitForPreVirtualAllocThread();
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(), kRetry);
}

// Two attempts, then the reserves, then one warning per process. The engine asks for a collection
// inside each attempt: one COLLECT_MEMORY for each check, none of it while reserves go.
TEST(PreCheck, RetriesThenTradesReservesThenWarnsOnce) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    __QvInitializeMemoryCollectorAndReserveMemory(2);
    __QvEnableMemoryStatisticsCollection();
    TakeEvents();
    g_yieldsAreFast = true;
    Script().onAllocate = [](uint64_t) { __QvAsynchronousCollectMemory(9); };
    Script().refuse = RefuseCalls(1, 3);
    __QvPreVirtualAllocCheck(1);
    dprintf(1, "%s\n", TakeEvents().c_str());
    Script().onAllocate = {};
    for (int i = 0; i < 2; i++) {
      Script().refuse = i == 0 ? RefuseCalls(1, 0) : RefuseCalls(1, 2);
      __QvPreVirtualAllocCheck(1);
      dprintf(1, "%s\n", TakeEvents().c_str());
    }
    Script().refuse = {};
    __QvMalloc(1, 8, 0);  // all locks are free again
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(child.out,
            "!65520 !65520 -33554416 !65520 -33554416 +65520 -65520 \n"
            "!65520 !65520 \n!65520 !65520 \n");
  const std::string collection =
      "# Start collecting memory: __qvTotalMemoryAllocated=0\n"
      "# MemoryAllocated by QV_MISC                  :              0\n"
      "# Stop collecting memory: __qvTotalMemoryAllocated=0\n"
      "# MemoryAllocated by QV_MISC                  :              0\n"
      "# We freed 0 bytes\n";
  const std::string asked = "# Jig requested at least 9 bytes\n";
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(),
            asked + "WARNING COLLECT_MEMORY\n" + collection + kRetry + asked + collection + kFreeing +
                "\n" + kFreeing + "\n" + kRetry +
                "# Allocation status for QV_MISC                  :              0\n" +
                "WARNING MEMORY_IS_TIGHT\n" + kRetry);
}

TEST(OutOfMemory, IsReportedWithTheCategoriesAndEndsTheProcess) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    __QvEnableMemoryStatisticsCollection();
    __QvRegisterMemoryCategory("mine");
    __QvMalloc(1, 8, 0);
    Script().refuse = RefuseCalls(1, 0);
    __QvMalloc(1, 32728, 1);
  });
  EXPECT_EQ(child.status, 255) << child.err;
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(),
            std::string("# Allocation status for QV_MISC                  :              0\n"
                        "# Allocation status for mine                     :          65536\n") +
                kEnd);
}

// The collector's allocation fails while the thread holds the allocator lock twice. Were it still held,
// the other thread that the exit handler waits for could get no slab.
TEST(OutOfMemory, InsideACollectorLeavesTheAllocatorLockFree) {
  for (const bool identify : {true, false}) {
    const ChildResult child = RunChild([identify] {
      InstallScriptedHost({}, identify);
      __QvRtStartup();
      __QvInitializeMemoryCollector();
      __QvRegisterMemoryCollector([] { __QvMalloc(9, 8, 0); });
      __QvSetExitHandler([](int32_t) {
        Script() = {};
        if (__qvGetNativeThreadIdProc == nullptr) {  // no lock is held: a request finds itself outside
          TakeEvents();
          __QvAsynchronousCollectMemory(1);
          CHECK(TakeEvents() == "+65520 -65520 ");
        }
        std::thread([] { __QvMalloc(8, 8, 0); }).join();
        dprintf(1, "done");
      });
      Script().refuse = RefuseCalls(1, 0);
      CollectFromInside();
    });
    EXPECT_EQ(child.status, 255) << child.err;
    EXPECT_EQ(child.out, "done");
    EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(), std::string("WARNING COLLECT_MEMORY\n") + kEnd);
  }
}

// An exit handler that needs memory itself comes to its end: each thread reports at most once.
TEST(OutOfMemory, InTheExitHandlerDoesNotStartOver) {
  for (const int threads : {1, 4}) {
    const ChildResult child = RunChild([threads] {
      InstallScriptedHost();
      __QvRtStartup();
      Script().refuse = [](uint64_t) { return true; };
      static constinit uint32_t arrived = 0;
      __QvSetExitHandler([](int32_t) {
        usleep(3000);
        __QvMalloc(1, 8, 0);
      });
      OnThreads(threads, [threads](int thread) {
        for (qv::Increment(arrived); qv::LoadAcquire(arrived) != uint32_t(threads);) usleep(100);
        __QvMalloc(2 + uint32_t(thread), 8, 0);
      });
    });
    EXPECT_EQ(child.status, 255) << child.err;
    const LogText log = ReadLog(child.Read("qvlog.log"));
    EXPECT_TRUE(log.Whole()) << log.broken;
    EXPECT_GE(log.Count("ERROR OUT_OF_MEMORY"), 1);
    EXPECT_LE(log.Count("ERROR OUT_OF_MEMORY"), threads);
  }
}

// A tool may end a failed operation only, not the process. Nothing is held when its handler runs, so it
// can, and each shortage is reported.
TEST(OutOfMemory, IsReportedAgainAfterTheExitHandlerLeftByAJump) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    static jmp_buf back;
    static constinit volatile int left = 0;
    __QvSetExitHandler([](int32_t) { longjmp(back, 1); });
    Script().refuse = [](uint64_t) { return true; };
    if (setjmp(back) != 0) left = left + 1;
    if (left < 3) __QvMalloc(1, 8, 0);
    Script().refuse = {};
    CHECK_EQ(left, 3);
    CHECK(__QvMalloc(1, 8, 0) != nullptr);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Count("ERROR OUT_OF_MEMORY"), 3);
}

// Without a thread-id hook the locks keep no trace of their holder; from inside the hook is still
// inside.
TEST(Unidentified, CollectionAndReservesWorkWithoutAThreadIdHook) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost({}, false);
    __QvRtStartup();
    __QvInitializeMemoryCollectorAndReserveMemory(1);
    __QvRegisterMemoryCollector(CountingCollector<3>);
    CollectFromInside();
    TakeEvents();
    __QvAsynchronousCollectMemory(1);
    CHECK(TakeEvents() == "+65520 -65520 ");
    Script().onAllocate = [](uint64_t) { __QvSetGetNativeThreadIdProc(ThreadId); };
    __QvMalloc(0, kLarge, 0);
    Script().onAllocate = {};
    __QvSetGetNativeThreadIdProc(nullptr);
    __QvAsynchronousCollectMemory(1);  // outside, although the hook came and went inside
    CHECK(TakeEvents() == "+40016 +65520 -65520 ");
    Script().refuse = RefuseCalls(1, 1);
    __QvMalloc(0, kLarge, 0);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(child.out, "3 ");
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(),
            std::string("WARNING COLLECT_MEMORY\n") + kFreeing + "\n");
}

// A life in which every kind of call asks the hook.
void LiveThroughEverything() {
  __QvInitializeMemoryCollectorAndReserveMemory(1);
  __QvEnableMemoryStatisticsCollection();
  __QvRegisterMemoryCollector([] { __QvFree(__QvMalloc(3, 5000, 0)); });
  __QvRtStartup();
  dprintf(1, "started ");
  CHECK_EQ(__QvCreateLogger("life", "life.log", 0), 1u);
  const int32_t source = int32_t(__QvGetLoggerHandle("a name that takes a slab of its own"));
  const char* const names[] = {"value", nullptr};
  const QVLOG_MESSAGE message = {"OF_LIFE", names, 0, source};
  const uint32_t id = __QvRegisterLogMessage2(&message);
  __QvLogInternal(QVLOG_SEVERITY_INFO, id, 0, QVLOG_ARG_INTEGER, 5);
  for (uint32_t size : {0u, 500u, 9000u, 32728u, 50000u}) __QvMalloc(2, size, size % 3);
  QV_XML_FILE* file = __QvXMLCreateFile("life.xml", 0);
  __QvXMLWriteStringElement(file, "a", "b");
  __QvXMLCloseFile(&file);
  __QvStrDestroy(__QvStrAlloc(1, 200, "text"));
  CollectFromInside();
  __QvPreVirtualAllocCheck(1);
  dprintf(1, "lived");
}

// The n-th call of the hook fails, once or from then on, for every n. Once, the reserve makes up for
// it. A failure before the tool has its log opens the default one.
TEST(OutOfMemory, EveryFailureOfTheHookEndsInSuccessOrInOrder) {
  for (const bool forever : {false, true}) {
    for (uint64_t n = 1;; n++) {
      const ChildResult child = RunChild([&] {
        g_yieldsAreFast = true;
        uint64_t calls = 0;
        const auto refuse = [&](uint64_t) { return ++calls == n || (forever && calls > n); };
        InstallScriptedHost({.refuse = refuse, .onAllocate = {}, .onFree = {}});
        LiveThroughEverything();
        if (calls < n) dprintf(1, " untouched");
      });
      const LogText early = ReadLog(child.Read("qvlog.log"));
      const LogText log = ReadLog(child.Read("life.log"));
      EXPECT_TRUE(early.Whole() && log.Whole(1 + int(early.items.size()))) << n << log.broken;
      if (child.status == 0) {
        EXPECT_EQ(child.out.substr(0, 13), "started lived") << n << child.err;
      } else {
        EXPECT_EQ(child.status, 255) << n << child.err;
        EXPECT_TRUE(forever || n == 1) << n;
        EXPECT_EQ(child.err.empty(), n > 1) << n << child.err;
        const std::string all = early.Brief() + log.Brief();
        EXPECT_TRUE(child.out != "started " || all.ends_with(kEnd)) << n << all;
      }
      ASSERT_LT(n, 200u);
      if (child.out == "started lived untouched") break;
    }
  }
}

}  // namespace

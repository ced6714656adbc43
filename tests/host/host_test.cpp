// The stand-in host: each case runs in a process of its own, since one installs the host only once.
#include "host/qvhost.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "include/qvrt.h"
#include "runtime/hooks.h"
#include "tests/support/child.h"

namespace {

using qvtest::RunChild;

constexpr uint64_t kSlabBytes = 65520;

// Runs body on a thread of its own and waits for it.
void OnThread(const std::function<void()>& body) { std::thread(body).join(); }

void MustEndWell(pid_t child) {
  int status = 0;
  CHECK_EQ(waitpid(child, &status, 0), child);
  CHECK_EQ(status, 0);
}

void CheckId() { CHECK_EQ(__QvGetNativeThreadId(), uint64_t(gettid())); }

TEST(Host, KnowsEveryThreadByItsKernelIdInEveryKindOfChildProcess) {
  const auto child = RunChild([] {
    QvHostInstall();
    CheckId();
    OnThread(CheckId);
    CHECK_EQ(__QvGetCurrentThreadId(), __QvGetNativeThreadId());
    CHECK_EQ(__QvGetPid(), uint32_t(getpid()));
    CHECK_EQ(__QvGetNativeParentThreadId(), 0u);
    // Children of fork, of libc's _Fork and of a bare clone: the last two run no fork handler. A
    // grandchild tells a generation that every child starts anew from one that goes on.
    const std::function<pid_t()> ways[] = {
        [] { return fork(); }, [] { return _Fork(); },
        [] { return pid_t(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0)); }};
    for (const auto& way : ways) {
      const pid_t first = way();
      if (first == 0) {
        const pid_t second = way();
        if (second == 0) {
          CheckId();
          _exit(0);
        }
        CheckId();
        MustEndWell(second);
        CHECK_EQ(__QvGetPid(), uint32_t(getpid()));
        _exit(0);
      }
      MustEndWell(first);
    }
    CheckId();
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(Host, SlotsAreNullInNewThreadsAndAfterReuse) {
  const auto child = RunChild([] {
    QvHostInstall();
    int marks[64];
    for (int i = 0; i < 64; i++) {
      const uint32_t slot = __QvTlsAlloc();
      CHECK_EQ(slot, uint32_t(i));
      CHECK_EQ(__QvTlsSetValue(slot, &marks[i]), 1u);
    }
    CHECK_EQ(__QvTlsAlloc(), 0xFFFFFFFFu);
    OnThread([&] {
      CHECK(__QvTlsGetValue(7) == nullptr);
      CHECK_EQ(__QvTlsSetValue(7, &marks[0]), 1u);
    });
    CHECK(__QvTlsGetValue(7) == &marks[7]);
    // Freed by another thread and handed out again: null here, though this thread had set it.
    OnThread([] {
      CHECK_EQ(__QvTlsFree(7), 1u);
      CHECK_EQ(__QvTlsFree(7), 0u);
      CHECK_EQ(__QvTlsAlloc(), 7u);
    });
    CHECK(__QvTlsGetValue(7) == nullptr);
    CHECK(__QvTlsGetValue(8) == &marks[8]);
    CHECK_EQ(__QvTlsFree(9), 1u);
    CHECK(__QvTlsGetValue(9) == nullptr);
    CHECK_EQ(__QvTlsSetValue(9, &marks[9]), 0u);
    CHECK_EQ(__QvTlsFree(64), 0u);
    CHECK(__QvTlsGetValue(0xFFFFFFFF) == nullptr);
    CHECK_EQ(__QvTlsSetValue(0xFFFFFFFF, &marks[0]), 0u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

// ---- Memory ----------------------------------------------------------------------------------------

struct Block {
  unsigned char* address;
  uint64_t bytes;
  unsigned char fill;
};

// Both ends and the middle: enough to see two blocks overlap, or one lose its pages.
void Fill(const Block& block) {
  if (block.bytes == 0) return;
  for (uint64_t at : {uint64_t{0}, block.bytes / 2, block.bytes - 1}) block.address[at] = block.fill;
}

void CheckFill(const Block& block) {
  if (block.bytes == 0) return;
  for (uint64_t at : {uint64_t{0}, block.bytes / 2, block.bytes - 1}) {
    CHECK_EQ(block.address[at], block.fill);
  }
}

uint64_t RandomSize(std::mt19937& random) {
  switch (random() % 4) {
    case 0: return kSlabBytes;
    case 1: return (uint64_t{65536} << random() % 6) - 16;
    case 2: return random() % 200000;
    default: return random() % (3 << 20);
  }
}

TEST(Host, BlocksAreWholeAndAlignedAndTheAccountsAreExact) {
  for (const unsigned seed : {1u, 2u, 3u}) {
    const auto child = RunChild([seed] {
      QvHostInstall();
      const uint64_t bytesBefore = QvHostBytesInUse(), blocksBefore = QvHostBlocksInUse();
      std::mt19937 random(seed);
      std::vector<Block> live;
      uint64_t bytes = 0;
      for (int step = 0; step < 3000; step++) {
        if (live.size() < 40 && random() % 5 < 3) {
          Block block = {nullptr, RandomSize(random), static_cast<unsigned char>(random())};
          block.address = static_cast<unsigned char*>(QvHostAllocate(block.bytes));
          CHECK(block.address != nullptr);
          CHECK_EQ(reinterpret_cast<uint64_t>(block.address) % 16, 0u);
          Fill(block);
          bytes += block.bytes;
          live.push_back(block);
        } else if (!live.empty()) {
          std::swap(live[random() % live.size()], live.back());
          CheckFill(live.back());
          QvHostFree(live.back().address);
          bytes -= live.back().bytes;
          live.pop_back();
        }
        CHECK_EQ(QvHostBytesInUse() - bytesBefore, bytes);
        CHECK_EQ(QvHostBlocksInUse() - blocksBefore, uint64_t(live.size()));
      }
      for (const Block& block : live) CheckFill(block);
    });
    EXPECT_TRUE(child.Ok()) << "seed " << seed << ": " << child.err;
  }
}

TEST(Host, KeepsSlabsForReuseGivesLargeBlocksBackAndWastesNoFirstBlock) {
  const auto child = RunChild([] {
    // The first block is large and comes from the region; freed, it is cut into slabs.
    void* const first = QvHostAllocate(5 << 20);
    const uint64_t mapped = QvHostBytesMapped();
    CHECK_EQ(mapped, uint64_t{1} << 25);
    QvHostFree(first);
    std::vector<void*> slabs;
    for (int i = 0; i < 500; i++) slabs.push_back(QvHostAllocate(kSlabBytes));
    CHECK_EQ(QvHostBytesMapped(), mapped);
    for (int i = 0; i < 2000; i++) {
      QvHostFree(slabs[size_t(i) % 500]);
      slabs[size_t(i) % 500] = QvHostAllocate(kSlabBytes);
    }
    CHECK_EQ(QvHostBytesMapped(), mapped);
    void* const large = QvHostAllocate(QV_RESERVE_BYTES);
    CHECK(QvHostBytesMapped() >= mapped + QV_RESERVE_BYTES);
    QvHostFree(large);
    CHECK_EQ(QvHostBytesMapped(), mapped);
    CHECK(QvHostAllocate(~uint64_t{0}) == nullptr);
    CHECK_EQ(QvHostBytesInUse(), 500 * kSlabBytes);
    QvHostFree(nullptr);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(Host, CeilingHoldsAgainstThreadsAndRefusesNothingBelowIt) {
  const auto child = RunChild([] {
    constexpr uint64_t kSlabs = 6;
    QvHostSetCeiling(kSlabs * kSlabBytes);
    std::atomic<uint32_t> held = 0;
    std::atomic<bool> passed = false;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
      threads.emplace_back([&] {
        for (int i = 0; i < 20000; i++) {
          void* const block = QvHostAllocate(kSlabBytes);
          if (block == nullptr) continue;
          if (++held > kSlabs) passed = true;
          --held;
          QvHostFree(block);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    CHECK(!passed);
    CHECK_EQ(QvHostBytesInUse(), 0u);
    for (uint64_t i = 0; i < kSlabs; i++) CHECK(QvHostAllocate(kSlabBytes) != nullptr);
    errno = ENOTTY;
    CHECK(QvHostAllocate(1) == nullptr);
    CHECK(QvHostAllocate(0) != nullptr);
    CHECK_EQ(errno, ENOTTY);
    QvHostSetCeiling(1);  // below what is in use already
    CHECK(QvHostAllocate(1) == nullptr);
    QvHostSetCeiling(0);
    CHECK(QvHostAllocate(1) != nullptr);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(Host, NeverCallsMallocAndNamesABlockFreedTwice) {
  const auto quiet = RunChild([] {
    QvHostInstall();
    __QvRtStartup();
    const size_t before = mallinfo2().uordblks;
    void* blocks[300];
    for (int i = 0; i < 300; i++) blocks[i] = QvHostAllocate(uint64_t(i) * 9000);
    for (void* block : blocks) QvHostFree(block);
    CheckId();
    CHECK_EQ(__QvTlsAlloc(), 0u);
    CHECK_EQ(mallinfo2().uordblks, before);
  });
  EXPECT_TRUE(quiet.Ok()) << quiet.err;
  const auto twice = RunChild([] {
    void* const block = QvHostAllocate(kSlabBytes);
    QvHostFree(block);
    QvHostFree(block);
  });
  EXPECT_EQ(twice.status, 128 + SIGABRT);
  EXPECT_EQ(twice.err.find("qvhost: a block was freed twice: 0x"), 0u) << twice.err;
  const auto foreign = RunChild([] {
    alignas(16) char memory[64] = {};
    QvHostFree(memory + 32);
  });
  EXPECT_EQ(foreign.status, 128 + SIGABRT);
  EXPECT_EQ(foreign.err.find("qvhost: a block was freed that is none of the host's"), 0u);
}

// ---- Fork ------------------------------------------------------------------------------------------

TEST(Host, AForkedChildAllocatesWhateverOtherThreadsWereDoing) {
  const auto child = RunChild([] {
    QvHostInstall();
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; t++) {
      threads.emplace_back([&stop, t] {
        while (!stop) QvHostFree(QvHostAllocate(kSlabBytes * uint64_t(1 + t)));
      });
    }
    for (int i = 0; i < 200; i++) {
      const pid_t forked = fork();
      if (forked == 0) {
        alarm(20);
        for (int k = 0; k < 3; k++) QvHostFree(QvHostAllocate(kSlabBytes));
        _exit(0);
      }
      MustEndWell(forked);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

// Handlers registered before the host's run between its taking the lock and its releasing it.
TEST(Host, ForkHandlersOfTheProgramMayAllocate) {
  const auto child = RunChild([] {
    static int calls = 0;
    const auto handler = [] {
      QvHostFree(QvHostAllocate(kSlabBytes));
      calls++;
    };
    pthread_atfork(handler, handler, handler);
    QvHostInstall();
    const pid_t forked = fork();
    CHECK_EQ(calls, 2);
    if (forked == 0) _exit(0);
    MustEndWell(forked);
    OnThread([] { QvHostFree(QvHostAllocate(kSlabBytes)); });  // the lock is free again
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

// ---- Thread services -------------------------------------------------------------------------------

const qv::ThreadProcs& Procs() { return qv::g_threadProcs; }  // as the library sees them

uint64_t g_handle = 0;
std::atomic<int> g_stage = 0;

void ReachStage(int stage) {
  while (g_stage < stage) usleep(100);
}

TEST(Host, EveryWaiterReturnsAfterTheThreadHasEnded) {
  const auto child = RunChild([] {
    QvHostInstall();
    const auto body = [](intptr_t argument) {
      CHECK_EQ(argument, -5);
      sigset_t blocked;
      pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
      CHECK(sigismember(&blocked, SIGTERM) && sigismember(&blocked, SIGPROF));
      CHECK(!sigismember(&blocked, SIGSEGV));
      CHECK_EQ(Procs().wait(&g_handle, 1000, nullptr), 0u);  // for itself
      ReachStage(1);
      usleep(20000);
      g_stage = 2;
      Procs().exit(17);
      qvtest::FailCheck(__FILE__, __LINE__, "exit returned");
    };
    CHECK_EQ(Procs().create(body, -5, 0, &g_handle), 1u);
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    CHECK(!sigismember(&blocked, SIGTERM));
    CHECK(g_handle != 0);
    std::atomic<int> sum = 0;
    std::vector<std::thread> waiters;
    for (int t = 0; t < 3; t++) {
      waiters.emplace_back([&sum] {
        int32_t code = 0;
        uint64_t copy = g_handle;
        CHECK_EQ(Procs().wait(&copy, 1000, &code), 1u);
        CHECK_EQ(g_stage.load(), 2);
        CHECK_EQ(copy, 0u);
        sum += code;
      });
    }
    g_stage = 1;
    for (std::thread& waiter : waiters) waiter.join();
    CHECK_EQ(sum.load(), 17);  // from the one that joined
    CHECK_EQ(Procs().wait(&g_handle, 1000, nullptr), 1u);
    CHECK_EQ(g_handle, 0u);
    CHECK_EQ(Procs().wait(&g_handle, 1000, nullptr), 1u);
    CHECK_EQ(Procs().wait(nullptr, 1000, nullptr), 0u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(Host, ThreadRecordsComeBackAndTheParentsThreadsAreGoneInAChild) {
  const auto child = RunChild([] {
    QvHostInstall();
    const auto nothing = [](intptr_t) {};
    for (int i = 0; i < 100; i++) {
      uint64_t handle = 0;
      CHECK_EQ(Procs().create(nothing, 0, 0, &handle), 1u);
      CHECK_EQ(Procs().wait(&handle, 1000, nullptr), 1u);
    }
    uint64_t handles[32];
    const auto untilStage = [](intptr_t) { ReachStage(1); };
    for (uint64_t& handle : handles) CHECK_EQ(Procs().create(untilStage, 0, 0, &handle), 1u);
    uint64_t tooMany = 5;
    CHECK_EQ(Procs().create(nothing, 0, 0, &tooMany), 0u);
    CHECK_EQ(tooMany, 0u);
    const pid_t forked = fork();
    if (forked == 0) {
      alarm(20);
      for (uint64_t& handle : handles) CHECK_EQ(Procs().wait(&handle, 1000, nullptr), 1u);
      _exit(0);
    }
    MustEndWell(forked);
    g_stage = 1;
    for (uint64_t& handle : handles) CHECK_EQ(Procs().wait(&handle, 1000, nullptr), 1u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(Host, FiniFunctionsRunInReverseOrderAndMayRegisterMore) {
  const auto child = RunChild([] {
    QvHostInstall();
    const auto print = [](void* text) { puts(static_cast<const char*>(text)); };
    static char one[] = "one", two[] = "two", late[] = "late";
    CHECK_EQ(Procs().addFini(print, one), 1u);
    const auto addLate = [](void*) {
      CHECK_EQ(Procs().addFini([](void* text) { puts(static_cast<char*>(text)); }, late), 1u);
    };
    CHECK_EQ(Procs().addFini(addLate, nullptr), 1u);
    CHECK_EQ(Procs().addFini(print, two), 1u);
    CHECK_EQ(Procs().addFini(nullptr, nullptr), 0u);
    for (int i = 3; i < 64; i++) CHECK_EQ(Procs().addFini([](void*) {}, nullptr), 1u);
    CHECK_EQ(Procs().addFini(print, one), 0u);
    exit(0);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(child.out, "two\nlate\none\n");
}

}  // namespace

// Memory before the tool has installed its hooks.
#include "memory/early_blocks.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <random>
#include <vector>

#include "include/qvrt.h"
#include "tests/support/child.h"
#include "tests/support/log_text.h"
#include "tests/support/scripted_host.h"

namespace {

using namespace qvtest;

struct Block {
  unsigned char* memory;
  uint32_t size;
};

// Sizes on both sides of every power of two, where a block that is a header too short would show.
Block NewBlock(std::mt19937& random) {
  const uint32_t power = 1u << random() % 19;
  const uint32_t around = power + uint32_t(random() % 24);
  const uint32_t size = around > 12 ? around - 12 : 0;
  const Block block = {static_cast<unsigned char*>(__QvMalloc(0, size, 0)), size};
  CHECK_EQ(reinterpret_cast<uintptr_t>(block.memory) % 16, 8u);
  memset(block.memory, int(size % 251), size);
  return block;
}

void FreeBlock(const Block& block) {
  CHECK(IsFilled(block.memory, block.size, int(block.size % 251)));
  __QvFree(block.memory);
}

// Without a hook there is no thread identity, and threads allocate all the same.
TEST(EarlyBlocks, KeepTheirContentsOnFourThreadsAndNeverReachTheFreeHook) {
  const ChildResult child = RunChild([] {
    static std::vector<Block> kept[4];
    OnThreads(4, [](int thread) {
      std::mt19937 random{unsigned(thread)};
      std::vector<Block>& blocks = kept[thread];
      for (int i = 0; i < 1000; i++) {
        blocks.push_back(NewBlock(random));
        if (blocks.size() < 60) continue;
        std::swap(blocks[random() % blocks.size()], blocks.back());
        FreeBlock(blocks.back());
        blocks.pop_back();
      }
    });
    InstallScriptedHost();
    for (const std::vector<Block>& blocks : kept) {
      for (const Block& block : blocks) FreeBlock(block);
    }
    CHECK(TakeEvents() == "+5237760 ");
    __QvFree(__QvMalloc(0, 8, 0));
    __QvFree(__QvMalloc(0, 70000, 0));
    CHECK(TakeEvents() == "+65520 +70016 -70016 ");
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(EarlyBlocks, AreReusedOrUnmapped) {
  const ChildResult child = RunChild([] {
    void* const first = __QvMalloc(0, 1000, 0);
    __QvFree(first);
    for (int i = 0; i < 1000; i++) {
      void* const next = __QvMalloc(0, 600 + uint32_t(i) % 400, 0);
      CHECK(next == first);
      __QvFree(next);
    }
    char* const large = static_cast<char*>(__QvMalloc(0, 1 << 20, 0));
    char* const page = large - 8;
    __QvFree(large);
    unsigned char resident[512];
    CHECK(mincore(page, (2 << 20) - 4096, resident) == -1 && errno == ENOMEM);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(EarlyBlocks, CarryStartUpAndTheLogInAProcessWithoutHooks) {
  const ChildResult child = RunChild([] {
    __QvRtStartup();
    void* const block = __QvMalloc(7, 100, 3);
    __QvFree(block);
    __QvFree(block);
    CHECK_EQ(__QvGetLoggerHandle("tool"), 1u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  const LogText log = ReadLog(child.Read("qvlog.log"));
  EXPECT_TRUE(log.Whole()) << log.broken;
  EXPECT_EQ(log.Brief(), "# Tried to free a memory chunk that has already been freed\n");
}

TEST(EarlyBlocks, EndTheProcessInOrderWhenTheSystemHasNoMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizers do not run under an address-space limit";
#endif
  const ChildResult child = RunChild([] {
    __QvRtStartup();
    const rlimit limit = {1 << 30, 1 << 30};
    CHECK_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    __QvMalloc(0, 0x7FFFFFFF, 0);
  });
  EXPECT_EQ(child.status, 255);
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(),
            "ERROR OUT_OF_MEMORY\nERROR ABNORMAL_TERMINATE\n");
}

}  // namespace

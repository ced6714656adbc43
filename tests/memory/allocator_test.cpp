// The allocator: layout and requests to the letter, its lists against a model, threads, misuse.
#include "memory/allocator.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/log_text.h"
#include "tests/support/scripted_host.h"

namespace {

using namespace qvtest;

constexpr uint64_t kTableBytes = 5237760;

uint64_t HeaderOf(const void* address) { return static_cast<const uint64_t*>(address)[-1]; }
QV_SLAB* SlabOf(const void* address) { return reinterpret_cast<QV_SLAB*>(HeaderOf(address)); }

// By the documented place in the table, which is the block that the hook gave for it.
QV_SIZE_CLASS* FindTable() {
  for (const auto& [block, bytes] : LiveBlocks()) {
    if (bytes == kTableBytes) return static_cast<QV_SIZE_CLASS*>(block);
  }
  CHECK(false && "the class table is not there");
}

QV_SIZE_CLASS& ClassOf(uint32_t category, uint32_t units) {
  static QV_SIZE_CLASS* const table = FindTable();
  return table[category * 2046 + units - 1];
}

void CheckClass(uint32_t category, uint32_t units) {
  const char* const wrong = qv::ValidateSizeClass(ClassOf(category, units), category);
  if (wrong != nullptr) FailCheck(__FILE__, __LINE__, wrong);
}

TEST(Allocator, SizesMapToUnitsAndSlabsAreLaidOutAsDocumented) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    CHECK(TakeEvents() == "+5237760 ");
    const uint32_t sizes[][2] = {{0, 1},  {8, 1},        {9, 2},        {24, 2},
                                 {25, 3}, {32712, 2045}, {32713, 2046}, {32728, 2046}};
    for (const auto& [size, units] : sizes) {
      const void* const p = __QvMalloc(63, size, 0);
      CHECK_EQ(SlabOf(p)->units, units);
      CHECK_EQ(ClassOf(63, units).units, units);
    }
    CHECK(TakeEvents() == "+65520 +65520 +65520 +65520 +65520 ");  // a slab for each class
    for (uint32_t shift : {0u, 1u, 5u, 8u}) {
      char* const p = static_cast<char*>(__QvMalloc(shift, 100, shift));
      CHECK(TakeEvents() == "+" + std::to_string((65536 << shift) - 16) + " ");
      const QV_SLAB* const slab = SlabOf(p);
      const uint32_t chunks = (((65536u << shift) - 16) / 16 - 3) / 7;
      CHECK(p == reinterpret_cast<const char*>(slab) + 48 + 8);
      CHECK(slab->chunkCount == chunks && slab->freeCount == chunks - 1 && slab->units == 7);
      CHECK(slab->magic == 0xBEEF && slab->category == shift && slab->slabSizeShift == shift);
      CHECK(ClassOf(shift, 7).firstSlab == slab && slab->previousSlab == nullptr);
      CHECK(slab->freeList == p - 8 + 112);
      for (uint32_t i = 1; i < chunks; i++) {  // ascending, bit 0 set, 1 in the last
        const uint64_t next = reinterpret_cast<uint64_t>(p - 8 + (i + 1) * 112) | 1;
        CHECK_EQ(HeaderOf(p + i * 112), i + 1 < chunks ? next : 1);
      }
    }
    char* const large = static_cast<char*>(__QvMalloc(0, 32729, 15));
    CHECK_EQ(HeaderOf(large), 0xBEEFu);
    __QvFree(large);
    __QvFree(nullptr);
    CHECK(TakeEvents() == "+32752 -32752 ");
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

// Faults: a full slab left on the list, a slab that regains a chunk put at the tail or twice, the wrong
// slab kept, links of a removed neighbour.
TEST(Allocator, SlabsLeaveAndRegainTheListAndOnlyTheLastIsKept) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    QV_SIZE_CLASS& sizeClass = ClassOf(1, 1);
    std::vector<void*> chunks;
    for (int i = 0; i < 3 * 4092; i++) {
      chunks.push_back(__QvMalloc(1, 8, 0));
      CHECK_EQ(sizeClass.firstSlab == nullptr, (i + 1) % 4092 == 0);
    }
    CHECK(TakeEvents() == "+5237760 +65520 +65520 +65520 ");
    QV_SLAB* const slabs[] = {SlabOf(chunks[0]), SlabOf(chunks[4092]), SlabOf(chunks[2 * 4092])};
    for (int i : {0, 2, 1}) {
      __QvFree(chunks[size_t(i) * 4092 + 7]);
      CHECK(sizeClass.firstSlab == slabs[i]);
    }
    CHECK(__QvMalloc(1, 0, 0) == chunks[4092 + 7]);
    __QvFree(chunks[4092 + 7]);
    const auto empty = [&](int slab) {
      for (int i = 0; i < 4092; i++) {
        if (i != 7) __QvFree(chunks[size_t(slab * 4092 + i)]);
      }
      CheckClass(1, 1);
    };
    empty(2);  // in the middle of the list 1, 2, 0
    CHECK(TakeEvents() == "-65520 " && slabs[1]->nextSlab == slabs[0]);
    empty(1);  // the first, with another behind it
    CHECK(TakeEvents() == "-65520 " && sizeClass.firstSlab == slabs[0]);
    empty(0);  // the only one
    CHECK(TakeEvents().empty() && slabs[0]->freeCount == 4092);
    for (int i = 0; i < 100; i++) __QvFree(__QvMalloc(1, 8, 0));
    CHECK(TakeEvents().empty());
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

struct Block {
  unsigned char* memory;
  uint32_t size, category;
  unsigned char pattern;
};

// Few classes of many units: each that is used keeps a slab.
uint32_t RandomSize(std::mt19937& random) {
  const uint32_t r = uint32_t(random());
  switch (r % 6) {
    case 0: return 32728 - r / 6 % 3 * 9000;
    case 1: return 32729 + r / 6 % 70000;
    case 2: return 600 + r / 6 % 8 * 500;
    case 3: return r / 6 % 600;
    default: return r / 6 % 40;
  }
}

Block NewBlock(std::mt19937& random) {
  const uint32_t size = RandomSize(random);
  const uint32_t category = random() % 2 != 0 ? 63 : 0;
  void* const memory = __QvMalloc(category, size, random() % 8 == 0 ? 2 : 0);
  CHECK_EQ(reinterpret_cast<uintptr_t>(memory) % 16, 8u);
  const Block block = {static_cast<unsigned char*>(memory), size, category, uint8_t(random())};
  memset(memory, block.pattern, size);
  return block;
}

// What another chunk, or the allocator, wrote into it shows.
void FreeBlock(const Block& block) {
  CHECK(IsFilled(block.memory, block.size, block.pattern));
  __QvFree(block.memory);
}

void CheckClassOf(const Block& block) {
  if (block.size <= 32728) CheckClass(block.category, (block.size + 23) / 16);
}

// After everything was freed: the table, and one empty slab for each class that was used.
void CheckOnlyKeptSlabsRemain() {
  std::map<uint32_t, int> slabsOfClass;
  for (const auto& [block, bytes] : LiveBlocks()) {
    if (bytes == kTableBytes) continue;
    const QV_SLAB* const slab = static_cast<const QV_SLAB*>(block);
    CHECK_EQ(slab->magic, 0xBEEF);
    CHECK_EQ(slab->freeCount, slab->chunkCount);
    CHECK_EQ(++slabsOfClass[slab->category * 2046u + slab->units], 1);
  }
}

TEST(Allocator, RandomUseKeepsContentsAndLists) {
  for (uint32_t seed : {1u, 2u, 3u}) {
    const ChildResult child = RunChild([seed] {
      InstallScriptedHost();
      std::mt19937 random(seed);
      std::vector<Block> blocks;
      for (int i = 0; i < 8000; i++) {
        const size_t target = i % 4000 < 2500 ? 1500 : 100;  // grow, then shrink
        if (blocks.empty() || random() % (2 * target) >= blocks.size()) {
          blocks.push_back(NewBlock(random));
          if (i % 16 == 0) CheckClassOf(blocks.back());
        } else {
          std::swap(blocks[random() % blocks.size()], blocks.back());
          FreeBlock(blocks.back());
          if (i % 16 == 0) CheckClassOf(blocks.back());
          blocks.pop_back();
        }
      }
      for (const Block& block : blocks) FreeBlock(block);
      CheckOnlyKeptSlabsRemain();
    });
    EXPECT_TRUE(child.Ok()) << "seed " << seed << ": " << child.err;
  }
}

// A block is released by whichever thread draws it from the common slots, mostly not its maker.
TEST(Allocator, FourThreadsAllocateAndReleaseEachOthersBlocks) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    static constinit Block* slots[64] = {};
    OnThreads(4, [](int thread) {
      std::mt19937 random{unsigned(thread)};
      for (int i = 0; i < 4000; i++) {
        Block* const mine = random() % 8 == 0 ? nullptr : new Block(NewBlock(random));
        Block* const drawn = qv::Exchange(slots[random() % 64], mine);
        if (drawn != nullptr) FreeBlock(*drawn);
        delete drawn;
      }
    });
    for (Block* block : slots) {
      if (block != nullptr) FreeBlock(*block);
      delete block;
    }
    for (uint32_t units = 1; units <= 2046; units++) CheckClass(63, units);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

// The hook is never asked under a class lock (another thread would wait for it); a slab goes back under
// its class's lock, a large block under none.
TEST(Allocator, HooksRunUnderTheDocumentedLocks) {
  const ChildResult child = RunChild([] {
    static constinit int slabsFreed = 0, largeFreed = 0;
    InstallScriptedHost();
    QV_SIZE_CLASS& sizeClass = ClassOf(5, 2046);
    Script().onAllocate = [&](uint64_t) { CHECK(!__QvIsSpinLockInAcquiredState(&sizeClass.lock)); };
    Script().onFree = [&](void*, uint64_t bytes) {
      const bool slab = bytes == 65520;
      CHECK_EQ(__QvIsSpinLockAcquiredByCallingThread(&sizeClass.lock), slab ? 1u : 0u);
      ++(slab ? slabsFreed : largeFreed);
    };
    void* chunks[4];
    for (void*& chunk : chunks) chunk = __QvMalloc(5, 32728, 0);
    for (void* chunk : chunks) __QvFree(chunk);
    __QvFree(__QvMalloc(5, 40000, 0));
    CHECK(slabsFreed == 1 && largeFreed == 1);
    CHECK_EQ(sizeClass.lock.state | sizeClass.lock.recursionCount, 0u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(Allocator, SecondReleaseOfAChunkIsReportedAndChangesNothing) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    void* const a = __QvMalloc(2, 8, 0);
    void* const b = __QvMalloc(2, 8, 0);
    QV_SLAB* const slab = SlabOf(a);
    while (slab->freeCount != 0) __QvMalloc(2, 8, 0);
    __QvFree(a);  // its word is 1: it has no successor
    __QvFree(b);  // its word is a's address
    __QvFree(a);
    __QvFree(b);
    CHECK_EQ(slab->freeCount, 2u);
    CheckClass(2, 1);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  const char* const line = "# Tried to free a memory chunk that has already been freed\n";
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(), std::string(line) + line);
}

TEST(Allocator, RequestsOutsideTheContractAreFatalAndNamed) {
  struct Case {
    uint32_t category, size, shift;
    const char* text;  // null: within the contract, but the hook has no such block
    const char* asked;
  };
  const Case cases[] = {
      {64, 8, 0, "Memory was requested in category 64; categories run from 0 to 63", ""},
      {0xFFFFFFFF, 8, 0, "Memory was requested in category 4294967295; categories run from 0 to 63",
       ""},
      {0, 8, 16, "Memory was requested with slab size shift 16; shifts run from 0 to 15", ""},
      {0, 0xFFFFFFE9, 0, "A memory request of 4294967273 bytes is too large", ""},
      {0, 0xFFFFFFE8, 0, nullptr, "4294967280\n"},
      {63, 32728, 15, nullptr, "2147483632\n"},
  };
  for (const Case& c : cases) {
    for (const bool early : {false, true}) {
      if (early && c.text == nullptr) continue;
      const ChildResult child = RunChild([&] {
        __QvSetGetNativeThreadIdProc(ThreadId);
        if (!early) InstallScriptedHost();
        __QvRtStartup();
        Script().refuse = [](uint64_t bytes) { return dprintf(1, "%lu\n", bytes) > 0; };
        __QvMalloc(c.category, c.size, c.shift);
      });
      EXPECT_EQ(child.status, 255) << c.asked;
      EXPECT_EQ(child.out, c.asked);
      const std::string first = c.text == nullptr ? "ERROR OUT_OF_MEMORY" : "ERROR INTERNAL : ";
      EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(),
                first + (c.text == nullptr ? "" : c.text) + "\nERROR ABNORMAL_TERMINATE\n");
    }
  }
}

// A foreign address whose word is even and leads to readable memory.
TEST(Allocator, ForeignAddressIsFatal) {
  const ChildResult child = RunChild([] {
    InstallScriptedHost();
    __QvRtStartup();
    static uint64_t notASlab[8] = {};
    static uint64_t words[2] = {reinterpret_cast<uint64_t>(notASlab), 0};
    __QvFree(&words[1]);
  });
  EXPECT_EQ(child.status, 255);
  EXPECT_NE(child.Read("qvlog.log").find("An address was freed that the library did not allocate: 0x"),
            std::string::npos);
}

TEST(Allocator, InitialisesOnceAndEndsClearlyWithoutItsTable) {
  const ChildResult twice = RunChild([] {
    __QvInitializeSubAllocator(nullptr, nullptr);  // ignored
    InstallScriptedHost();
    __QvInitializeSubAllocator([](uint64_t) -> void* { abort(); }, nullptr);
    __QvFree(__QvMalloc(0, 8, 0));
    CHECK(TakeEvents() == "+5237760 +65520 ");
  });
  EXPECT_TRUE(twice.Ok()) << twice.err;
  const ChildResult refused = RunChild([] {
    __QvSetExitHandler([](int32_t code) { dprintf(1, "handler %d", code); });
    InstallScriptedHost({.refuse = RefuseCalls(1, 1), .onAllocate = {}, .onFree = {}});
  });
  EXPECT_EQ(refused.status, 255);
  EXPECT_EQ(refused.out, "handler -1");
  EXPECT_EQ(refused.err,
            "libqvrt12: the allocate hook cannot give the size-class table (5237760 bytes); ending the "
            "process\n");
}

TEST(Allocator, WithoutAFreeHookEmptySlabsAreReused) {
  const ChildResult child = RunChild([] {
    static constinit int asked = 0;
    const auto allocate = [](uint64_t bytes) -> void* {
      ++asked;
      return aligned_alloc(16, bytes);
    };
    __QvInitializeSubAllocator(allocate, nullptr);
    for (int round = 0; round < 3; round++) {
      void* chunks[4];
      for (void*& chunk : chunks) chunk = __QvMalloc(0, 32728, 0);
      for (void* chunk : chunks) __QvFree(chunk);
    }
    __QvFree(__QvMalloc(0, 40000, 0));
    CHECK_EQ(asked, 1 + 2 + 1);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

}  // namespace

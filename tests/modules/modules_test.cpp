// Modules: the table against std::map with its shape walked, the maps file, back traces, images.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <iterator>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "include/qvrt.h"
#include "modules/module_table.h"
#include "tests/support/child.h"

namespace {

std::vector<int> g_draws;  // what rand() gives, from the back; then always a draw that does not raise
int g_drawn = 0;

}  // namespace

extern "C" int rand(void) noexcept {
  g_drawn++;
  if (g_draws.empty()) return 0x0CCCCCCC;
  const int draw = g_draws.back();
  g_draws.pop_back();
  return draw;
}

namespace {

uint32_t Pid() { return uint32_t(getpid()); }

#define CHECK_TABLE()                                                     \
  do {                                                                    \
    const char* const reason = qv::ValidateModuleTable();                 \
    if (reason != nullptr) qvtest::FailCheck(__FILE__, __LINE__, reason); \
  } while (0)

TEST(ModuleTable, RandomLoadsAndUnloadsAgreeWithAMap) {
  const auto child = qvtest::RunChild([] {
    std::mt19937_64 random(7);
    std::map<uint64_t, std::pair<uint64_t, uint64_t>> model;  // start -> end, handle
    uint64_t handle = 0;
    CHECK_EQ(__QvGetModuleForVariable(1, &handle), 0u);
    __QvUnloadModule(0, 0);
    const ModuleRecord* sentinel = nullptr;
    for (uint64_t step = 1; step < 60000; step++) {
      const uint64_t start = (random() % 600) * 0x1000;  // 0 among them
      if (random() % 16 == 0) g_draws.push_back(0);
      if (random() % 5 < 3) {
        const ModuleRecord* const record =
            __QvLoadModule(step, start, start + 0x800 + random() % 0x1000);
        if (model.emplace(start, std::pair(0, 0)).second) {
          CHECK_EQ(record->handle, step);
          model[start] = {record->end, step};
        } else {
          CHECK(sentinel == nullptr || sentinel == record);
          sentinel = record;
        }
      } else {
        __QvUnloadModule(random(), start);
        model.erase(start);
      }
      const uint64_t address = (random() % 600) * 0x1000 + random() % 4 * 0x400 + random() % 2;
      const auto above = model.lower_bound(address);
      handle = ~0ull;
      const uint64_t found = __QvGetModuleForVariable(address, &handle);
      if (above == model.begin() || address >= std::prev(above)->second.first) {
        CHECK_EQ(found, 0u);
        CHECK_EQ(handle, ~0ull);
      } else {
        CHECK_EQ(found, std::prev(above)->first);
        CHECK_EQ(handle, std::prev(above)->second.second);
      }
      if (step % 64 == 0) CHECK_TABLE();
    }
    while (!model.empty()) {
      __QvUnloadModule(0, model.begin()->first);
      model.erase(model.begin());
    }
    CHECK_TABLE();
    CHECK_EQ(__QvGetModuleForVariable(0x800, nullptr), 0u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

// Every record takes part in all levels of its day, one draw each while there is a level left;
// unloading lowers the top level over empty ones.
TEST(ModuleTable, HeightsFollowTheDraws) {
  const auto child = qvtest::RunChild([] {
    g_draws = {0, 0x0CCCCCCB, 0x0CCCCCCC};  // stays, raises, raises
    ModuleRecord* const a = __QvLoadModule(1, 0x1000, 0x2000);
    ModuleRecord* const b = __QvLoadModule(2, 0x3000, 0x4000);
    ModuleRecord* const c = __QvLoadModule(3, 0x2000, 0x3000);
    ModuleRecord* const sentinel = __QvLoadModule(9, 0x1000, 0x9000);
    CHECK_EQ(g_drawn, 3);  // a refused load draws nothing
    CHECK(sentinel->forward[0] == a && a->forward[0] == c && c->forward[0] == b);
    CHECK(b->forward[0] == sentinel);
    CHECK(sentinel->forward[1] == c && c->forward[1] == b && b->forward[1] == sentinel);
    CHECK(sentinel->forward[2] == c && c->forward[2] == sentinel);
    CHECK(sentinel->forward[3] == sentinel && sentinel->forward[10] == sentinel);
    __QvUnloadModule(0, 0x2000);
    CHECK(sentinel->forward[2] == sentinel && sentinel->forward[1] == b);
    ModuleRecord* const d = __QvLoadModule(4, 0x5000, 0x6000);  // top level is 1 again
    CHECK(b->forward[1] == d && sentinel->forward[2] == sentinel);
    for (uint64_t i = 0; i < 20; i++) {
      g_draws = {0};
      __QvLoadModule(i, 0x10000 + i, 0x20000);
    }
    CHECK_EQ(g_drawn, 4 + 9);  // none once level 10 is in use
    CHECK_TABLE();
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(AddressRanges, MappingsAndStacksOfThisProcess) {
  const auto child = qvtest::RunChild([] {
    uint64_t end = 5, base = 5;
    int local = 0;
    const uint64_t here = reinterpret_cast<uint64_t>(&local);
    CHECK_EQ(__QvGetModuleAddressRange(here, &end), 0u);  // no process-id hook: no maps file
    CHECK_EQ(end, 5u);
    __QvSetGetPidProc(Pid);
    char* const pages =
        static_cast<char*>(mmap(nullptr, 5 * 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    munmap(pages, 4096);
    mprotect(pages + 2 * 4096, 4096, PROT_READ | PROT_WRITE);
    munmap(pages + 4 * 4096, 4096);
    const uint64_t middle = reinterpret_cast<uint64_t>(pages + 2 * 4096);
    CHECK_EQ(__QvGetModuleAddressRange(middle + 5, &end), middle);
    CHECK_EQ(end, middle + 4096);
    CHECK_EQ(__QvGetModuleAddressRange(middle + 4096, &end), middle);  // its last address counts
    CHECK_EQ(__QvGetModuleAddressRange(middle + 4097, &end), middle + 4096);
    end = 5;
    CHECK_EQ(__QvGetModuleAddressRange(16, &end), 0u);
    CHECK_EQ(end, 5u);
    CHECK_EQ(__QvGetModuleAddressRange(middle, nullptr), 0u);
    CHECK_EQ(__QvGetThreadStackBaseAndSize(middle, nullptr), 0u);
    const uint64_t size = __QvGetThreadStackBaseAndSize(here, &base);
    CHECK(size != 0 && base > here && base - size < here);
    CHECK_EQ(__QvGetThreadStackBaseAndSize(16, &base), 0u);
    CHECK_EQ(base, 0u);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
      threads.emplace_back([middle] {
        for (int n = 0; n < 200; n++) {
          uint64_t to = 0;
          CHECK_EQ(__QvGetModuleAddressRange(middle + 1, &to), middle);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    CHECK_EQ(__QvGetImageOffsetFromPreferredAddress(), 0u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

__attribute__((noinline)) uint16_t Capture(void* start, void** frames) {
  const uint16_t count = __QvCaptureStackBackTrace(1, 2, 3, start, 5, frames);
  __asm__ volatile("");
  return count;
}

__attribute__((noinline)) uint16_t Deep(int depth, void* start, void** frames) {
  const uint16_t count = depth == 0 ? Capture(start, frames) : Deep(depth - 1, start, frames);
  __asm__ volatile("");
  return count;
}

TEST(BackTrace, CutsTheFramesBeforeTheStartFrame) {
  const auto child = qvtest::RunChild([] {
    void* frames[25];
    CHECK_EQ(Capture(nullptr, frames), 0);  // not on the stack: none, but the frames were looked at
    void* whole[25];
    memcpy(whole, frames, sizeof whole);
    const uint16_t all = Capture(whole[0], frames);
    CHECK(all > 8 && frames[0] == whole[0]);
    void* const start = whole[all - 3];  // far beyond this function, so the same at each call below
    CHECK_EQ(Capture(start, frames), 3);
    CHECK(frames[0] == start && frames[2] == whole[all - 1]);
    CHECK_EQ(Deep(60, start, frames), 0);  // beyond the 25 innermost
    char** const names = __QvGetStackBackTraceSymbols(whole, 2);
    CHECK(names != nullptr && names[1] != nullptr);
    free(names);
    CHECK_EQ(__QvCaptureStackBackTrace(0, 0, 0, nullptr, 0, nullptr), 0);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(Images, LoadAndLookUp) {
  const auto child = qvtest::RunChild([] {
    CHECK(__QvRtLoadImage("/no/such/image.so") == nullptr);
    CHECK(__QvRtGetSymbol(nullptr, "cos") == nullptr);
    CHECK(dlerror() != nullptr);  // a null image leaves the loader's error as it was
    void* const image = __QvRtLoadImage("libm.so.6");
    CHECK(image != nullptr);
    CHECK(__QvRtGetSymbol(image, "cos") == dlsym(image, "cos") && dlsym(image, "cos") != nullptr);
    CHECK(__QvRtGetSymbol(image, "no_such_symbol") == nullptr);
    CHECK(__QvRtGetSymbol(image, nullptr) == nullptr);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

}  // namespace

// Module look-ups beside std::map and a binary search of a sorted vector; stack back traces beside the
// C library's and libunwind's.
#include <dlfcn.h>
#include <execinfo.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "bench/support/bench.h"
#include "include/qvrt.h"

namespace {

constexpr uint64_t kModuleBytes = 0x10000, kStride = 0x18000;

struct Modules {
  std::vector<uint64_t> starts;  // in load order
  std::vector<uint64_t> addresses;
  std::map<uint64_t, uint64_t> map;
  std::vector<std::pair<uint64_t, uint64_t>> sorted;

  // order: 0 ascending, 1 descending, 2 random
  Modules(int64_t count, int64_t order) {
    std::mt19937_64 random(11);
    for (int64_t i = 0; i < count; i++) starts.push_back(0x7F0000000000 + uint64_t(i) * kStride);
    if (order == 1) std::reverse(starts.begin(), starts.end());
    if (order == 2) std::shuffle(starts.begin(), starts.end(), random);
    for (const uint64_t start : starts) {
      map[start] = start + kModuleBytes;
      __QvLoadModule(start, start, start + kModuleBytes);
    }
    sorted.assign(map.begin(), map.end());
    for (int i = 0; i < 1 << 14; i++) {
      addresses.push_back(starts[random() % starts.size()] + 1 + random() % kModuleBytes);
    }
  }
  ~Modules() {
    for (const uint64_t start : starts) __QvUnloadModule(0, start);
  }
};

template <class Find>
void LookUp(benchmark::State& state, Find find) {
  const Modules modules(state.range(0), state.range(1));
  size_t at = 0;
  uint64_t sum = 0;
  for (auto _ : state) {
    sum += find(modules, modules.addresses[at++ & (modules.addresses.size() - 1)]);
  }
  benchmark::DoNotOptimize(sum);
}

uint64_t FindOurs(const Modules&, uint64_t address) {
  uint64_t handle;
  return __QvGetModuleForVariable(address, &handle);
}

uint64_t FindInMap(const Modules& modules, uint64_t address) {
  auto above = modules.map.upper_bound(address);
  if (above == modules.map.begin()) return 0;
  --above;
  return address < above->second ? above->first : 0;
}

uint64_t FindInSorted(const Modules& modules, uint64_t address) {
  auto above =
      std::upper_bound(modules.sorted.begin(), modules.sorted.end(), std::pair(address, UINT64_MAX));
  if (above == modules.sorted.begin()) return 0;
  --above;
  return address < above->second ? above->first : 0;
}

using BackTrace = int (*)(void**, int);

__attribute__((noinline)) int AtDepth(int depth, BackTrace trace, void** frames) {
  const int count = depth == 0 ? trace(frames, 25) : AtDepth(depth - 1, trace, frames);
  benchmark::DoNotOptimize(count);
  return count;
}

int OursAsBackTrace(void** frames, int) {
  return __QvCaptureStackBackTrace(0, 0, 0, frames[24], 0, frames);
}

void Trace(benchmark::State& state, BackTrace trace) {
  void* frames[25] = {};
  for (auto _ : state) AtDepth(5, trace, frames);
}

}  // namespace

void qvbench::Setup() {
  StartHost();
  for (const int64_t order : {0, 1, 2}) {
    for (const int64_t count : {50, 500, 5000}) {
      if (Smoke() && count > 500) continue;
      Add("module_lookup", "qvrt", [](auto& state) { LookUp(state, FindOurs); })->Args({count, order});
      Add("module_lookup", "std_map", [](auto& state) {
        LookUp(state, FindInMap);
      })->Args({count, order});
      Add("module_lookup", "sorted_vector", [](auto& state) {
        LookUp(state, FindInSorted);
      })->Args({count, order});
    }
  }
  Aim("module_lookup", "std_map", 1.0 / 3);
  Add("back_trace", "qvrt", [](auto& state) { Trace(state, OursAsBackTrace); });
  Add("back_trace", "libc", [](auto& state) { Trace(state, backtrace); });
  if (void* const libunwind = OpenPeer("libunwind.so.8")) {
    const auto trace = reinterpret_cast<BackTrace>(FindInPeer(libunwind, "backtrace"));
    if (trace != nullptr) Add("back_trace", "libunwind", [trace](auto& state) { Trace(state, trace); });
  }
}

// Memory of the collector. Design: collectors/qvheap/room.h.
#include "collectors/qvheap/room.h"

#include "collectors/qvheap/sites.h"
#include "host/qvhost.h"

namespace qvheap {
namespace {

constexpr uint64_t kSlabBytes = (1 << 16) - 16;
constexpr uint64_t kLargeHeadBytes = 64;  // more than the library adds to a large request

constexpr const char* kNames[kRoomCategories] = {"threads", "blockSizes", "liveBlocks", "sites",
                                                 "stacks",  "modules",    "report"};

struct Provided {
  void* block;
  uint64_t bytes;
};

// The first is for Allocate, which comes before what an operation around it has provided.
constinit thread_local Provided t_provided[1 + Provision::kMostSlabs] = {};
constinit uint32_t g_numbers[kRoomCategories] = {};
constinit uint64_t g_largeBytes[kRoomCategories] = {};

constexpr uint64_t kReserveBytes[] = {kSlabBytes, kSlabBytes, kSlabBytes,
                                      sizeof(QV_XML_FILE) + kLargeHeadBytes};
constinit void* g_reserve[sizeof kReserveBytes / sizeof kReserveBytes[0]] = {};  // census lock

// The library's allocate hook.
void* TakeBlock(uint64_t bytes) {
  for (Provided& provided : t_provided) {
    if (provided.block == nullptr || provided.bytes < bytes) continue;
    void* const block = provided.block;
    provided.block = nullptr;
    return block;
  }
  void* const block = QvHostAllocate(bytes);
  if (block != nullptr) return block;
  __QvAsynchronousCollectMemory(bytes);
  return QvHostAllocate(bytes);
}

bool Provide(Provided& provided, uint64_t bytes) {
  void* block = QvHostAllocate(bytes);
  if (block == nullptr && FoldSmallSites()) block = QvHostAllocate(bytes);
  provided = {block, bytes};
  return block != nullptr;
}

void GiveBack(Provided& provided) {
  if (provided.block != nullptr) QvHostFree(provided.block);
  provided.block = nullptr;
}

bool IsLarge(uint64_t bytes) { return bytes > QV_LARGEST_SMALL_REQUEST; }

}  // namespace

void InstallRoom() {
  QvHostUseSmallPages();
  __QvInitializeSubAllocator(TakeBlock, QvHostFree);
  for (uint32_t i = 0; i < kRoomCategories; i++) {
    g_numbers[i] = uint32_t(__QvRegisterMemoryCategory(kNames[i]));
  }
  __QvEnableMemoryStatisticsCollection();
  __QvInitializeMemoryCollector();
  __QvRegisterMemoryCollector(FoldSmallSitesIfCan);
}

uint32_t LibraryCategory(Category category) { return g_numbers[category]; }

Provision::Provision(uint32_t slabs, uint64_t largestBytes) {
  if (largestBytes > kSlabBytes) {
    granted_ = Provide(t_provided[slabs--], largestBytes + kLargeHeadBytes);
  }
  while (granted_ && slabs > 0) granted_ = Provide(t_provided[slabs--], kSlabBytes);
}

Provision::~Provision() {
  for (uint32_t i = 1; i <= kMostSlabs; i++) GiveBack(t_provided[i]);
}

void KeepReserveLocked() {
  for (uint32_t i = 0; i < sizeof g_reserve / sizeof g_reserve[0]; i++) {
    if (g_reserve[i] == nullptr) g_reserve[i] = QvHostAllocate(kReserveBytes[i]);
  }
}

void GiveReserveBackLocked() {
  for (void*& block : g_reserve) {
    if (block != nullptr) QvHostFree(block);
    block = nullptr;
  }
}

void* Allocate(Category category, uint64_t bytes) {
  const bool large = IsLarge(bytes);
  if (!Provide(t_provided[0], large ? bytes + kLargeHeadBytes : kSlabBytes)) return nullptr;
  void* const block = __QvMalloc(g_numbers[category], uint32_t(bytes), 0);
  if (large) __atomic_fetch_add(&g_largeBytes[category], bytes, __ATOMIC_RELAXED);
  GiveBack(t_provided[0]);
  return block;
}

uint64_t LeafGrowthBytes(uint64_t entries, uint32_t leaves) {
  return 4 * sizeof(QV_HASH_BUCKET) * (entries / leaves);
}

uint64_t LargeBytes(Category category) { return Load(g_largeBytes[category]); }

}  // namespace qvheap

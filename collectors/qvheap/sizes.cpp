// The sizes of live blocks: making the tables. Design: collectors/qvheap/sizes.h.
#include "collectors/qvheap/sizes.h"

#include <string.h>

#include "collectors/qvheap/census.h"
#include "collectors/qvheap/room.h"

namespace qvheap {
namespace {

// All tables of a kind: those in use, the stale ones of the parent process, and cleared ones that were
// never used. Under the census lock.
template <class Table>
struct Tables {
  Table* inUse;
  Table* oldestInUse;
  Table* stale;
  Table* fresh;
  uint32_t freshCount;
};

constexpr uint32_t kTablesAtOnce = 8;
static_assert(kTablesAtOnce * sizeof(Leaf) > 1 << 20);  // so that the host maps it

constinit Tables<Leaf> g_leaves = {};
constinit Tables<Middle> g_middleTables = {};

template <class Table>
Table* TakeStaleLocked(Tables<Table>& tables) {
  Table* const table = tables.stale;
  if (table == nullptr) return nullptr;
  tables.stale = table->next;
  memset(static_cast<void*>(table), 0, sizeof(Table));
  return table;
}

template <class Table>
Table* TakeFreshLocked(Tables<Table>& tables) {
  if (tables.freshCount == 0) {
    tables.fresh = static_cast<Table*>(Allocate(kRoomSizes, kTablesAtOnce * sizeof(Table)));
    if (tables.fresh == nullptr) return nullptr;
    tables.freshCount = kTablesAtOnce;
  }
  tables.freshCount--;
  return tables.fresh++;
}

// Where address space is scarce, one may be had where eight may not.
template <class Table>
Table* TakeSingleLocked() {
  void* const table = Allocate(kRoomSizes, sizeof(Table));
  return table != nullptr ? static_cast<Table*>(memset(table, 0, sizeof(Table))) : nullptr;
}

// A cleared table; null if there is no memory.
template <class Table>
Table* MakeTableLocked(Tables<Table>& tables) {
  Table* table = TakeStaleLocked(tables);
  if (table == nullptr) table = TakeFreshLocked(tables);
  if (table == nullptr) table = TakeSingleLocked<Table>();
  if (table == nullptr) return nullptr;
  table->next = tables.inUse;
  tables.inUse = table;
  if (table->next == nullptr) tables.oldestInUse = table;
  return table;
}

// Touches one table, not all: each would cost a child process a copied page.
template <class Table>
void MakeAllStale(Tables<Table>& tables) {
  if (tables.inUse == nullptr) return;
  tables.oldestInUse->next = tables.stale;
  tables.stale = tables.inUse;
  tables.inUse = nullptr;
}

// Were an origin to be 0, the table would be taken for missing, and blocks there for unrecorded.
void PublishOrigin(uint64_t& origin, const void* table, uint64_t firstIndex, uint64_t elementBytes) {
  __atomic_store_n(&origin, reinterpret_cast<uint64_t>(table) - firstIndex * elementBytes,
                   __ATOMIC_RELEASE);
}

bool MakeMiddleLocked(uint64_t index) {
  if (g_middles[index] != 0) return true;
  Middle* const middle = MakeTableLocked(g_middleTables);
  if (middle == nullptr) return false;
  middle->index = index;
  PublishOrigin(g_middles[index], middle->leaves, index << (kMiddleShift - kLeafShift),
                sizeof middle->leaves[0]);
  return true;
}

bool MakeLeafLocked(uint64_t index) {
  const uint64_t leaves = g_middles[index >> (kMiddleShift - kLeafShift)];
  uint64_t& origin = *reinterpret_cast<uint64_t*>(leaves + index * sizeof leaves);
  if (origin != 0) return true;
  Leaf* const leaf = MakeTableLocked(g_leaves);
  if (leaf == nullptr) return false;
  PublishOrigin(origin, leaf->codes, index << (kLeafShift - kGranuleShift), sizeof leaf->codes[0]);
  return true;
}

}  // namespace

constinit uint64_t g_middles[kMiddles] = {};

uint8_t* MakeCodeSlow(const void* block) {
  const uint64_t address = reinterpret_cast<uint64_t>(block);
  if (address >> kAddressBits != 0) return nullptr;
  const Inside inside;
  const SpinGuard guard(g_censusLock);
  if (!MakeMiddleLocked(address >> kMiddleShift) || !MakeLeafLocked(address >> kLeafShift)) {
    return nullptr;
  }
  return FindCode(block);
}

void ForgetAllSizes() {
  for (Middle* middle = g_middleTables.inUse; middle != nullptr; middle = middle->next) {
    g_middles[middle->index] = 0;
  }
  MakeAllStale(g_middleTables);
  MakeAllStale(g_leaves);
}

}  // namespace qvheap

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

Middle* FindMiddleLocked(uint64_t index) {
  if (g_middles[index] != nullptr) return g_middles[index];
  Middle* const middle = MakeTableLocked(g_middleTables);
  if (middle == nullptr) return nullptr;
  middle->index = index;
  __atomic_store_n(&g_middles[index], middle, __ATOMIC_RELEASE);
  return middle;
}

bool MakeLeafLocked(Middle& middle, uint64_t index) {
  if (middle.leaves[index] != nullptr) return true;
  Leaf* const leaf = MakeTableLocked(g_leaves);
  __atomic_store_n(&middle.leaves[index], leaf, __ATOMIC_RELEASE);
  return leaf != nullptr;
}

}  // namespace

constinit Middle* g_middles[1 << (kAddressBits - kMiddleShift)] = {};

uint8_t* MakeCodeSlow(const void* block) {
  const uint64_t address = reinterpret_cast<uint64_t>(block);
  if (address >> kAddressBits != 0) return nullptr;
  const Inside inside;
  const SpinGuard guard(g_censusLock);
  Middle* const middle = FindMiddleLocked(address >> kMiddleShift);
  if (middle == nullptr) return nullptr;
  if (!MakeLeafLocked(*middle, (address >> kLeafShift) % kLeavesPerMiddle)) return nullptr;
  return FindCode(block);
}

void ForgetAllSizes() {
  for (Middle* middle = g_middleTables.inUse; middle != nullptr; middle = middle->next) {
    g_middles[middle->index] = nullptr;
  }
  MakeAllStale(g_middleTables);
  MakeAllStale(g_leaves);
}

}  // namespace qvheap

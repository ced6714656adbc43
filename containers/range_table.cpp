// Range table: the exported calls. Design: containers/range_table.h.
#include "containers/range_lookup.h"

#include "memory/allocate.h"

static_assert(sizeof(QV_RANGE_TABLE) == 32 && offsetof(QV_RANGE_TABLE, maxLevel) == 8 &&
              offsetof(QV_RANGE_TABLE, destroyItem) == 16 && offsetof(QV_RANGE_TABLE, levels) == 24);

namespace qv {
namespace {

RangeTable* CreateRangeTable(uint32_t maxLevel, uint32_t category, uint32_t flags,
                             QV_RANGE_DESTROY_ITEM destroyItem) {
  const uint32_t levels = maxLevel - kFinestLevel + 1;
  const uint32_t unused = (kLevels - levels) * uint32_t{sizeof(BlockIndex)};
  RangeTable* const table =
      static_cast<RangeTable*>(Allocate(category, uint32_t{sizeof(RangeTable)} - unused));
  table->flags = flags;
  table->minLevel = kFinestLevel;
  table->maxLevel = maxLevel;
  table->destroyItem = destroyItem;
  table->usedLevels = 0;
  table->levels =
      static_cast<QV_HASH_TABLE**>(Allocate(category, levels * uint32_t{sizeof(QV_HASH_TABLE*)}));
  for (uint32_t i = 0; i < levels; i++) table->levels[i] = nullptr;
  return table;
}

void DestroyRangeTable(RangeTable& table) {
  for (uint32_t level = kFinestLevel; level <= table.maxLevel; level++) {
    HashTable* const hash = LevelTable(table, level);
    if (hash == nullptr) continue;
    DestroyHashTable(*hash, nullptr);
    ReleaseIndex(IndexOf(table, level));
  }
  Release(table.levels);
  Release(&table);
}

}  // namespace
}  // namespace qv

QV_RANGE_TABLE* __QvCreateRangeTable(uint64_t largestRange, uint32_t category, uint32_t slabSizeShift,
                                     uint32_t flags, QV_RANGE_DESTROY_ITEM destroyItem) {
  qv::CheckContainerMemory("range table", category, slabSizeShift);
  return qv::CreateRangeTable(qv::LevelFor(largestRange, qv::kCoarsestLevel), category,
                              qv::ContainerFlags(flags, category, slabSizeShift), destroyItem);
}

void __QvInsertRangeTableEntry(QV_RANGE_TABLE* table, uint64_t start, uint64_t end, uint64_t item) {
  if (table != nullptr && table->levels != nullptr) qv::InsertRange(qv::Own(*table), start, end, item);
}

uint64_t __QvLookupRangeTable(QV_RANGE_TABLE* table, uint64_t address, uint64_t* startOut,
                              uint64_t* endOut) {
  const QV_RANGE_RECORD* const record =
      table != nullptr ? qv::FindRange(qv::Own(*table), address) : nullptr;
  if (startOut != nullptr) *startOut = record != nullptr ? record->start : 0;
  if (endOut != nullptr) *endOut = record != nullptr ? record->end : 0;
  return record != nullptr ? record->item : 0;
}

void __QvRemoveRangeTableEntry(QV_RANGE_TABLE* table, uint64_t start, uint64_t end) {
  if (table != nullptr) qv::RemoveAndBury(qv::Own(*table), {start, end}, nullptr);
}

void __QvDestroyRangeTableEntry(QV_RANGE_TABLE* table, uint64_t start, uint64_t end) {
  if (table != nullptr) qv::RemoveAndBury(qv::Own(*table), {start, end}, table->destroyItem);
}

uint64_t __QvRemoveFirstRangeTableEntry(QV_RANGE_TABLE* table, uint64_t low, uint64_t high) {
  return table != nullptr ? qv::RemoveFirstRange(qv::Own(*table), low, high) : 0;
}

void __QvDestroyRangeTableSpan(QV_RANGE_TABLE* table, uint64_t base, uint64_t length,
                               uint64_t* startOut, uint64_t* endOut) {
  const qv::Bounds cleared =
      table != nullptr ? qv::DestroySpan(qv::Own(*table), base, length) : qv::Bounds{0, 0};
  if (startOut != nullptr) *startOut = cleared.start;
  if (endOut != nullptr) *endOut = cleared.end;
}

void __QvScanAndEmptyRangeTable(QV_RANGE_TABLE* table) {
  if (table == nullptr) return;
  qv::DeadRecords dead;
  qv::RemoveAllRanges(qv::Own(*table), dead);
  dead.Bury(table->destroyItem);
}

void __QvDestroyRangeTable(QV_RANGE_TABLE* table) {
  if (table != nullptr) qv::DestroyRangeTable(qv::Own(*table));
}

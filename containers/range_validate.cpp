// Range table: the validator. Design: containers/range_table.h.
#include "containers/range_table.h"

namespace qv {
namespace {

bool Names(const RangeTable& table, uint32_t level, const void* data, const QV_RANGE_RECORD& record) {
  if (!HoldsChains(table, level)) return data == &record;
  const QV_RANGE_LINK* link = static_cast<const QV_RANGE_LINK*>(data);
  while (link != nullptr && link->record != &record) link = link->next;
  return link != nullptr;
}

// Counts the blocks of the record's range that name it; sets `meets` if one of them is the block given.
uint32_t CountNames(const RangeTable& table, const QV_RANGE_RECORD& record, uint64_t address,
                    uint32_t level, bool& meets) {
  BlockWalk walk(record.start, record.end, table.maxLevel);
  BlockRun run;
  uint32_t names = 0;
  while (walk.Next(run)) {
    const HashTable* const hash = LevelTable(table, run.level);
    for (uint64_t i = 0; hash != nullptr && i < run.count; i++) {
      const uint64_t block = run.address + i * BlockBytes(run.level);
      const QV_HASH_ENTRY* const entry = FindEntry(*hash, block, run.level);
      if (entry == nullptr || !Names(table, run.level, entry->data, record)) continue;
      names++;
      meets |= block == address && run.level == level;
    }
  }
  return names;
}

const char* ValidateRecord(const RangeTable& table, const QV_RANGE_RECORD* record, uint64_t address,
                           uint32_t level) {
  if (record == nullptr || record->marker != QV_RANGE_RECORD_MARKER) return "a record has no marker";
  if (record->table != &table) return "a record is of another table";
  bool meets = false;
  if (CountNames(table, *record, address, level, meets) != record->references) return "references";
  return meets ? nullptr : "a block names a range that it is no block of";
}

const char* ValidateBlock(const RangeTable& table, const QV_HASH_ENTRY& entry, uint32_t level) {
  if (RoundDown(entry.key, level) != entry.key) return "a block is not aligned to its size";
  const Named named = NamedBy(entry.data, HoldsChains(table, level));
  if (FindBlock(table, entry.key, level) != named) return "the index names something else";
  if (MayHaveBlock(IndexOf(table, level), entry.key, level) == 0) return "the filter misses a block";
  if (!HoldsChains(table, level)) {
    return ValidateRecord(table, static_cast<const QV_RANGE_RECORD*>(entry.data), entry.key, level);
  }
  const QV_RANGE_LINK* link = static_cast<const QV_RANGE_LINK*>(entry.data);
  if (link == nullptr) return "a block has an empty chain";
  const char* wrong = nullptr;
  for (; link != nullptr && wrong == nullptr; link = link->next) {
    wrong = ValidateRecord(table, link->record, entry.key, level);
  }
  return wrong;
}

}  // namespace

const char* ValidateRangeTable(const QV_RANGE_TABLE& publicTable) {
  const RangeTable& table = Own(publicTable);
  if (table.minLevel != kFinestLevel || table.maxLevel > kCoarsestLevel) return "levels";
  for (uint32_t level = kFinestLevel; level <= table.maxLevel; level++) {
    const HashTable* const hash = LevelTable(table, level);
    if ((hash != nullptr) != ((table.usedLevels >> level & 1) != 0)) return "used levels";
    if (hash == nullptr) continue;
    const char* wrong = ValidateHashTable(*hash);
    if (wrong == nullptr) wrong = ValidateIndex(IndexOf(table, level), uint64_t(hash->count), level);
    ForEachEntry(*hash, [&](const QV_HASH_ENTRY& entry) {
      if (wrong == nullptr) wrong = ValidateBlock(table, entry, level);
    });
    if (wrong != nullptr) return wrong;
  }
  return nullptr;
}

}  // namespace qv

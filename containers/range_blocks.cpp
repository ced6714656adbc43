// Range table: what changes it: blocks, the records behind them, ranges, the whole table.
// Design: containers/range_table.h.
#include "containers/range_table.h"
#include "memory/allocate.h"

static_assert(sizeof(QV_RANGE_RECORD) == 48 && offsetof(QV_RANGE_RECORD, start) == 8 &&
              offsetof(QV_RANGE_RECORD, end) == 16 && offsetof(QV_RANGE_RECORD, table) == 24);
static_assert(offsetof(QV_RANGE_RECORD, item) == 32 && offsetof(QV_RANGE_RECORD, references) == 40);
static_assert(sizeof(QV_RANGE_LINK) == 16 && offsetof(QV_RANGE_LINK, record) == 8);

namespace qv {
namespace {

constexpr uint32_t kLevelTableFlags = QV_HASH_TABLE_NO_LOCKING | 0x4;

void* AllocateFor(const RangeTable& table, uint32_t bytes) {
  return Allocate(CategoryOf(table.flags), bytes, SlabShiftOf(table.flags));
}

// ---- Blocks -----------------------------------------------------------------------------------------

QV_COLD HashTable& MakeLevelSlow(RangeTable& table, uint32_t level) {
  const uint32_t flags =
      ContainerFlags(kLevelTableFlags, CategoryOf(table.flags), SlabShiftOf(table.flags));
  HashTable* const hash =
      CreateHashTable(flags, &qvShiftXorHashFunctions[level - kFinestLevel], 1, nullptr, nullptr);
  MakeIndex(CategoryOf(table.flags), IndexOf(table, level));
  table.levels[level - kFinestLevel] = hash;
  table.usedLevels |= 1u << level;
  return *hash;
}

HashTable& LevelTableMade(RangeTable& table, uint32_t level) {
  HashTable* const hash = LevelTable(table, level);
  return QV_LIKELY(hash != nullptr) ? *hash : MakeLevelSlow(table, level);
}

// Memory is taken first. Whoever is asked for it may have a collector remove any ranges of this table; the
// entry and its slot come after that, with nothing in between.
void AddBlock(RangeTable& table, HashTable& hash, uint64_t address, uint32_t level, void* data) {
  BlockIndex& index = IndexOf(table, level);
  MakeRoomInIndex(CategoryOf(table.flags), uint64_t(hash.count) + 1, level, index);
  AddEntry(hash, address, data);
  AddToIndex(index, {address, NamedBy(data, HoldsChains(table, level))}, level);
}

void RemoveBlock(RangeTable& table, uint32_t level, HashTable& hash, QV_HASH_ENTRY** at) {
  RemoveFromIndex(IndexOf(table, level), (*at)->key, level);
  CountEntryOut(hash);
  RemoveEntry(hash, at);
}

QV_RANGE_LINK* NewLink(const RangeTable& table, RangeRecord* record) {
  QV_RANGE_LINK* const link = static_cast<QV_RANGE_LINK*>(AllocateFor(table, sizeof(QV_RANGE_LINK)));
  link->next = nullptr;
  link->record = record;
  return link;
}

// The index follows the chain of a block.
void RenameBlock(const RangeTable& table, const QV_HASH_ENTRY& entry, uint32_t level) {
  RenameInIndex(IndexOf(table, level), {entry.key, NamedBy(entry.data, true)}, level);
}

// Second in the chain of a block that is there.
void AddLink(const RangeTable& table, const QV_HASH_ENTRY& entry, uint32_t level, QV_RANGE_LINK* link) {
  QV_RANGE_LINK& first = *static_cast<QV_RANGE_LINK*>(entry.data);
  link->next = first.next;
  first.next = link;
  RenameBlock(table, entry, level);
}

// Has a block name the record; false if it names another, which it can only where no chain is.
bool Register(RangeTable& table, HashTable& hash, uint64_t address, uint32_t level,
              RangeRecord* record) {
  if (!HoldsChains(table, level)) {
    if (FindBlock(table, address, level) != 0) return false;
    AddBlock(table, hash, address, level, record);
    return true;
  }
  QV_RANGE_LINK* const link = NewLink(table, record);  // before the search, see AddBlock
  if (FindBlock(table, address, level) != 0) {
    AddLink(table, *FindEntry(hash, address, level), level, link);
  } else {
    AddBlock(table, hash, address, level, link);
  }
  return true;
}

// Takes the first link of a range with these bounds out of the chain; its record, or null.
RangeRecord* TakeLink(QV_RANGE_LINK*& first, const Bounds& bounds) {
  QV_RANGE_LINK** at = &first;
  while (*at != nullptr && !bounds.Are(*(*at)->record)) at = &(*at)->next;
  QV_RANGE_LINK* const link = *at;
  if (link == nullptr) return nullptr;
  RangeRecord* const record = static_cast<RangeRecord*>(link->record);
  *at = link->next;
  Release(link);
  return record;
}

// Has the block no longer name a range with these bounds; its record, or null if it did not.
RangeRecord* Unregister(RangeTable& table, uint32_t level, HashTable& hash, QV_HASH_ENTRY** at,
                        const Bounds& bounds) {
  QV_HASH_ENTRY* const entry = *at;
  if (!HoldsChains(table, level)) {
    RangeRecord* const record = static_cast<RangeRecord*>(entry->data);
    if (!bounds.Are(*record)) return nullptr;
    RemoveBlock(table, level, hash, at);
    return record;
  }
  QV_RANGE_LINK* first = static_cast<QV_RANGE_LINK*>(entry->data);
  RangeRecord* const record = TakeLink(first, bounds);
  entry->data = first;
  if (first == nullptr) {
    RemoveBlock(table, level, hash, at);
  } else {
    RenameBlock(table, *entry, level);
  }
  return record;
}

// ---- Records ----------------------------------------------------------------------------------------

RangeRecord* NewRecord(RangeTable& table, uint64_t start, uint64_t end, uint64_t item) {
  RangeRecord* const record = static_cast<RangeRecord*>(AllocateFor(table, sizeof(RangeRecord)));
  record->marker = QV_RANGE_RECORD_MARKER;
  record->start = start;
  record->end = end;
  record->table = &table;
  record->item = item;
  record->references = 0;
  return record;
}

// ---- Removal ----------------------------------------------------------------------------------------

void RemoveFrom(RangeTable& table, HashTable& hash, uint64_t address, uint32_t level,
                const Bounds& bounds, DeadRecords& dead) {
  QV_HASH_ENTRY** const at = FindPlainLink(BucketOf(hash, address, level), address);
  if (*at != nullptr) dead.Drop(Unregister(table, level, hash, at, bounds));
}

// More blocks than their table has entries: bounds that were never inserted, and may take years to look
// up block by block. Every entry is looked at instead.
void RemoveEntriesSlow(RangeTable& table, HashTable& hash, const BlockRun& run, const Bounds& bounds,
                       DeadRecords& dead) {
  const uint64_t last = run.address + (run.count - 1) * BlockBytes(run.level);
  for (int32_t i = 0; i < hash.bucketCount; i++) {
    QV_HASH_ENTRY** at = &hash.buckets[i].head;
    while (QV_HASH_ENTRY* const entry = *at) {
      const bool meets = entry->key >= run.address && entry->key <= last;
      if (meets) dead.Drop(Unregister(table, run.level, hash, at, bounds));
      if (*at == entry) at = &entry->next;
    }
  }
}

void EmptyBlock(const RangeTable& table, uint32_t level, void* data, DeadRecords& dead) {
  if (!HoldsChains(table, level)) return dead.Drop(static_cast<RangeRecord*>(data));
  QV_RANGE_LINK* next;
  for (QV_RANGE_LINK* link = static_cast<QV_RANGE_LINK*>(data); link != nullptr; link = next) {
    next = link->next;
    dead.Drop(static_cast<RangeRecord*>(link->record));
    Release(link);
  }
}

void EmptyLevel(RangeTable& table, HashTable& hash, uint32_t level, DeadRecords& dead) {
  for (int32_t i = 0; i < hash.bucketCount; i++) {
    QV_HASH_BUCKET& bucket = hash.buckets[i];
    while (bucket.head != nullptr) {
      CountEntryOut(hash);
      EmptyBlock(table, level, RemoveEntry(hash, &bucket.head), dead);
    }
  }
  EmptyIndex(IndexOf(table, level));
}

}  // namespace

void DeadRecords::Drop(RangeRecord* record) {
  if (record == nullptr || --record->references != 0) return;
  record->nextDead = nullptr;
  *last_ = record;
  last_ = &record->nextDead;
}

void DeadRecords::Bury(QV_RANGE_DESTROY_ITEM destroyItem) {
  for (RangeRecord* record = first_; record != nullptr;) {
    RangeRecord* const next = record->nextDead;
    const uint64_t item = record->item;
    Release(record);
    if (destroyItem != nullptr) destroyItem(item);
    record = next;
  }
}

// ---- Ranges -----------------------------------------------------------------------------------------

void InsertRange(RangeTable& table, uint64_t start, uint64_t end, uint64_t item) {
  RangeRecord* const record = NewRecord(table, start, end, item);
  BlockWalk walk(start, end, table.maxLevel);
  BlockRun run;
  while (walk.Next(run)) {
    HashTable& hash = LevelTableMade(table, run.level);
    for (uint64_t i = 0; i < run.count; i++) {
      const uint64_t address = run.address + i * BlockBytes(run.level);
      record->references++;  // beforehand: the record outlives a collector that empties the table
      if (!Register(table, hash, address, run.level, record)) record->references--;
    }
  }
  if (record->references == 0) Release(record);
}

void RemoveRange(RangeTable& table, const Bounds& bounds, DeadRecords& dead) {
  BlockWalk walk(bounds.start, bounds.end, table.maxLevel);
  BlockRun run;
  while (walk.Next(run)) {
    HashTable* const hash = LevelTable(table, run.level);
    if (hash == nullptr) continue;
    if (run.count > uint64_t(hash->count) && run.count > 1) {
      RemoveEntriesSlow(table, *hash, run, bounds, dead);
      continue;
    }
    for (uint64_t i = 0; i < run.count; i++) {
      RemoveFrom(table, *hash, run.address + i * BlockBytes(run.level), run.level, bounds, dead);
    }
  }
}

void RemoveAndBury(RangeTable& table, const Bounds& bounds, QV_RANGE_DESTROY_ITEM destroyItem) {
  DeadRecords dead;
  RemoveRange(table, bounds, dead);
  dead.Bury(destroyItem);
}

void RemoveAllRanges(RangeTable& table, DeadRecords& dead) {
  for (uint32_t level = kFinestLevel; level <= table.maxLevel; level++) {
    if (HashTable* const hash = LevelTable(table, level)) EmptyLevel(table, *hash, level, dead);
  }
}

}  // namespace qv

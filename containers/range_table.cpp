// Range table. Design: containers/range_table.h.
#include "containers/range_table.h"

#include <string.h>

#include "memory/allocate.h"

static_assert(sizeof(QV_RANGE_TABLE) == 32 && offsetof(QV_RANGE_TABLE, maxLevel) == 8 &&
              offsetof(QV_RANGE_TABLE, destroyItem) == 16 && offsetof(QV_RANGE_TABLE, levels) == 24);
static_assert(sizeof(QV_RANGE_RECORD) == 48 && offsetof(QV_RANGE_RECORD, start) == 8 &&
              offsetof(QV_RANGE_RECORD, end) == 16 && offsetof(QV_RANGE_RECORD, table) == 24);
static_assert(offsetof(QV_RANGE_RECORD, item) == 32 && offsetof(QV_RANGE_RECORD, references) == 40);
static_assert(sizeof(QV_RANGE_LINK) == 16 && offsetof(QV_RANGE_LINK, record) == 8);

namespace qv {
namespace {

constexpr uint32_t kLevelTableFlags = QV_HASH_TABLE_NO_LOCKING | 0x4;

uint32_t LevelFor(uint64_t length, uint32_t maxLevel) {
  const uint32_t level = 62 - uint32_t(__builtin_clzll(length | kFinestBlock));
  return level < maxLevel ? level : maxLevel;
}

QV_INLINE HashTable* LevelTable(const QV_RANGE_TABLE& table, uint32_t level) {
  return static_cast<HashTable*>(table.levels[level - kFinestLevel]);
}

// Whether the blocks of the level hold chains of links instead of records.
QV_INLINE bool HoldsChains(const QV_RANGE_TABLE& table, uint32_t level) {
  return level == kFinestLevel && (table.flags & QV_RANGE_TABLE_UNSHARED_BLOCKS) == 0;
}

void* AllocateFor(const QV_RANGE_TABLE& table, uint32_t bytes) {
  return Allocate(CategoryOf(table.flags), bytes, SlabShiftOf(table.flags));
}

// ---- Blocks -----------------------------------------------------------------------------------------

// The bucket of a block: the hash function of the level, without the call.
QV_INLINE QV_HASH_BUCKET& BucketOf(const QV_HASH_TABLE& hash, uint64_t address, uint32_t level) {
  return BucketAt(hash, ShiftXor(address, level - kFinestLevel + 1));
}

QV_INLINE QV_HASH_ENTRY* FindBlock(const QV_HASH_TABLE& hash, uint64_t address, uint32_t level) {
  return FindPlain(BucketOf(hash, address, level).head, address);
}

HashTable& LevelTableMade(QV_RANGE_TABLE& table, uint32_t level) {
  QV_HASH_TABLE*& slot = table.levels[level - kFinestLevel];
  if (QV_UNLIKELY(slot == nullptr)) {
    const uint32_t flags =
        ContainerFlags(kLevelTableFlags, CategoryOf(table.flags), SlabShiftOf(table.flags));
    slot = CreateHashTable(flags, &qvShiftXorHashFunctions[level - kFinestLevel], 1, nullptr, nullptr);
  }
  return Own(*slot);
}

void AddLink(QV_RANGE_TABLE& table, HashTable& hash, uint64_t address, QV_HASH_ENTRY* entry,
             RangeRecord* record) {
  QV_RANGE_LINK* const link = static_cast<QV_RANGE_LINK*>(AllocateFor(table, sizeof(QV_RANGE_LINK)));
  link->record = record;
  link->next = nullptr;
  if (entry == nullptr) return AddEntry(hash, address, link);
  QV_RANGE_LINK* const first = static_cast<QV_RANGE_LINK*>(entry->data);
  link->next = first->next;
  first->next = link;
}

// Has a block name the record; false if it names another, which it can only where no chain is.
bool Register(QV_RANGE_TABLE& table, HashTable& hash, uint64_t address, uint32_t level,
              RangeRecord* record) {
  QV_HASH_ENTRY* const entry = FindBlock(hash, address, level);
  if (HoldsChains(table, level)) {
    AddLink(table, hash, address, entry, record);
    return true;
  }
  if (entry == nullptr) AddEntry(hash, address, record);
  return entry == nullptr;
}

// What a removal looks for.
struct Bounds {
  uint64_t start, end;
  bool Are(const QV_RANGE_RECORD& record) const { return record.start == start && record.end == end; }
};

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

// Takes the block out of its level's table; its data.
void* RemoveBlock(HashTable& hash, QV_HASH_ENTRY** at) {
  CountEntryOut(hash);
  return RemoveEntry(hash, at);
}

// Has the block no longer name a range with these bounds; its record, or null if it did not.
RangeRecord* Unregister(const QV_RANGE_TABLE& table, uint32_t level, HashTable& hash,
                        QV_HASH_ENTRY** at, const Bounds& bounds) {
  QV_HASH_ENTRY* const entry = *at;
  if (!HoldsChains(table, level)) {
    RangeRecord* const record = static_cast<RangeRecord*>(entry->data);
    if (!bounds.Are(*record)) return nullptr;
    RemoveBlock(hash, at);
    return record;
  }
  QV_RANGE_LINK* first = static_cast<QV_RANGE_LINK*>(entry->data);
  RangeRecord* const record = TakeLink(first, bounds);
  entry->data = first;
  if (first == nullptr) RemoveBlock(hash, at);
  return record;
}

// ---- Records ----------------------------------------------------------------------------------------

// Records that nothing names any more, in the order in which they died.
class DeadRecords : NonCopyable {
 public:
  void Drop(RangeRecord* record) {  // one reference of it; null does nothing
    if (record == nullptr || --record->references != 0) return;
    record->nextDead = nullptr;
    *last_ = record;
    last_ = &record->nextDead;
  }

  // Last of all, by (4). destroyItem may be null.
  void Bury(QV_RANGE_DESTROY_ITEM destroyItem) {
    for (RangeRecord* record = first_; record != nullptr;) {
      RangeRecord* const next = record->nextDead;
      const uint64_t item = record->item;
      Release(record);
      if (destroyItem != nullptr) destroyItem(item);
      record = next;
    }
  }

 private:
  RangeRecord* first_ = nullptr;
  RangeRecord** last_ = &first_;
};

RangeRecord* NewRecord(QV_RANGE_TABLE& table, uint64_t start, uint64_t end, uint64_t item) {
  RangeRecord* const record = static_cast<RangeRecord*>(AllocateFor(table, sizeof(RangeRecord)));
  record->marker = QV_RANGE_RECORD_MARKER;
  record->start = start;
  record->end = end;
  record->table = &table;
  record->item = item;
  record->references = 0;
  return record;
}

void Insert(QV_RANGE_TABLE& table, uint64_t start, uint64_t end, uint64_t item) {
  RangeRecord* const record = NewRecord(table, start, end, item);
  BlockWalk walk(start, end, table.maxLevel);
  BlockRun run;
  while (walk.Next(run)) {
    HashTable& hash = LevelTableMade(table, run.level);
    for (uint64_t i = 0; i < run.count; i++) {
      const uint64_t address = run.address + i * BlockBytes(run.level);
      record->references += Register(table, hash, address, run.level, record);
    }
  }
  if (record->references == 0) Release(record);
}

// ---- Removal ----------------------------------------------------------------------------------------

void RemoveFrom(const QV_RANGE_TABLE& table, HashTable& hash, uint64_t address, uint32_t level,
                const Bounds& bounds, DeadRecords& dead) {
  QV_HASH_ENTRY** const at = FindPlainLink(BucketOf(hash, address, level), address);
  if (*at != nullptr) dead.Drop(Unregister(table, level, hash, at, bounds));
}

// More blocks than their table has entries: bounds that were never inserted, and may take years to look
// up block by block. Every entry is looked at instead.
void RemoveEntriesSlow(const QV_RANGE_TABLE& table, HashTable& hash, const BlockRun& run,
                       const Bounds& bounds, DeadRecords& dead) {
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

// Takes the range with these bounds out of all its blocks.
void Remove(const QV_RANGE_TABLE& table, const Bounds& bounds, DeadRecords& dead) {
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

void RemoveAndBury(const QV_RANGE_TABLE& table, const Bounds& bounds,
                   QV_RANGE_DESTROY_ITEM destroyItem) {
  DeadRecords dead;
  Remove(table, bounds, dead);
  dead.Bury(destroyItem);
}

// ---- Searches ---------------------------------------------------------------------------------------

// The first entry whose block holds the address, from the largest size asked for down.
struct Found {
  QV_HASH_ENTRY* entry;  // null: none
  uint32_t level;
};

QV_INLINE Found Search(const QV_RANGE_TABLE& table, uint64_t address, uint32_t level) {
  for (;; level--) {
    if (const HashTable* const hash = LevelTable(table, level)) {
      QV_HASH_ENTRY* const entry = FindBlock(*hash, RoundDown(address, level), level);
      if (entry != nullptr) return {entry, level};
    }
    if (level == kFinestLevel) return {nullptr, level};
  }
}

template <class Wanted>
QV_INLINE QV_RANGE_RECORD* FirstInChain(const QV_HASH_ENTRY& entry, Wanted wanted) {
  const QV_RANGE_LINK* link = static_cast<const QV_RANGE_LINK*>(entry.data);
  while (link != nullptr && !wanted(*link->record)) link = link->next;
  return link != nullptr ? link->record : nullptr;
}

QV_INLINE QV_RANGE_RECORD* Lookup(const QV_RANGE_TABLE& table, uint64_t address) {
  const Found found = Search(table, address, table.maxLevel);
  if (found.entry == nullptr) return nullptr;
  if (!HoldsChains(table, found.level)) return static_cast<QV_RANGE_RECORD*>(found.entry->data);
  return FirstInChain(*found.entry, [address](const QV_RANGE_RECORD& record) {
    return record.start <= address && address < record.end;
  });
}

// The positions of an interval at which a block may be found, in steps of 32 bytes. Where nothing is
// found for more steps than the table has buckets and entries, it looks at all of these once for the
// next block, so that an interval that is wide and empty ends.
class IntervalWalk {
 public:
  IntervalWalk(const QV_RANGE_TABLE& table, uint64_t low, uint64_t high)
      : table_(table), position_(RoundDown(low, kFinestLevel)), high_(high) {}

  bool AtEnd() const { return position_ >= high_; }
  // What is at this position, asking no level whose block is larger than the rest of the interval.
  Found Here() const { return Search(table_, position_, LevelFor(high_ - position_, table_.maxLevel)); }
  void MoveTo(uint64_t position) { position_ = RoundDown(position, kFinestLevel); }
  void Step() {
    if (QV_UNLIKELY(++steps_ > patience_)) return JumpSlow();
    position_ = position_ + kFinestBlock != 0 ? position_ + kFinestBlock : high_;
  }

 private:
  QV_COLD void JumpSlow();
  void ConsiderBlock(uint64_t address, uint32_t level, uint64_t& nearest) const {
    if (address <= position_ || address >= nearest) return;
    if (level <= LevelFor(high_ - address, table_.maxLevel)) nearest = address;
  }

  const QV_RANGE_TABLE& table_;
  uint64_t position_;
  const uint64_t high_;
  uint64_t steps_ = 0;
  uint64_t patience_ = 256;
};

// A block that holds a later position but not this one starts after this one: the next position at
// which something is found is the start of a block.
void IntervalWalk::JumpSlow() {
  uint64_t nearest = high_;
  uint64_t looks = 0;
  for (uint32_t level = kFinestLevel; level <= table_.maxLevel; level++) {
    const HashTable* const hash = LevelTable(table_, level);
    if (hash == nullptr) continue;
    looks += uint64_t(hash->bucketCount) + uint64_t(hash->count);
    ForEachEntry(*hash, [&](const QV_HASH_ENTRY& e) { ConsiderBlock(e.key, level, nearest); });
  }
  position_ = nearest;
  steps_ = 0;
  patience_ = looks;
}

// Whether what a search found is a range that lies inside the interval, or a record without a chain.
QV_RANGE_RECORD* ChooseInside(const QV_RANGE_TABLE& table, const Found& found, uint64_t low,
                              uint64_t high) {
  if (!HoldsChains(table, found.level)) return static_cast<QV_RANGE_RECORD*>(found.entry->data);
  return FirstInChain(*found.entry, [low, high](const QV_RANGE_RECORD& record) {
    return low <= record.start && record.end <= high;
  });
}

uint64_t RemoveFirst(const QV_RANGE_TABLE& table, uint64_t low, uint64_t high) {
  for (IntervalWalk walk(table, low, high); !walk.AtEnd(); walk.Step()) {
    const Found found = walk.Here();
    if (found.entry == nullptr) continue;
    const QV_RANGE_RECORD* const record = ChooseInside(table, found, low, high);
    if (record == nullptr) continue;
    const uint64_t item = record->item;
    RemoveAndBury(table, {record->start, record->end}, nullptr);
    return item;
  }
  return 0;
}

// ---- Clearing a span ---------------------------------------------------------------------------------

void DestroyRange(const QV_RANGE_TABLE& table, const Bounds& bounds) {
  RemoveAndBury(table, bounds, table.destroyItem);
}

// Every range found from `low` on; those in chains only if they lie inside. Searches again after each
// one, since the callback may have changed the table.
void DestroyInside(const QV_RANGE_TABLE& table, uint64_t low, uint64_t high) {
  IntervalWalk walk(table, low, high);
  while (!walk.AtEnd()) {
    const Found found = walk.Here();
    const QV_RANGE_RECORD* const record =
        found.entry != nullptr ? ChooseInside(table, found, low, high) : nullptr;
    if (record == nullptr) {
      walk.Step();
      continue;
    }
    const Bounds bounds = {record->start, record->end};
    // A range may end inside a 32-byte block that others share: back to the start of that block.
    if (!HoldsChains(table, found.level)) walk.MoveTo(bounds.end);
    DestroyRange(table, bounds);
  }
}

// The range that holds the address is destroyed, its bounds returned; 0 and 0 if there is none, or one
// that starts at 0.
Bounds DestroyRangeAt(const QV_RANGE_TABLE& table, uint64_t address) {
  const QV_RANGE_RECORD* const record = Lookup(table, address);
  if (record == nullptr || record->start == 0) return {0, 0};
  const Bounds bounds = {record->start, record->end};
  DestroyRange(table, bounds);
  return bounds;
}

// Returns the extent cleared.
Bounds DestroySpan(const QV_RANGE_TABLE& table, uint64_t base, uint64_t length) {
  uint64_t high = base + length >= base ? base + length : UINT64_MAX;
  Bounds cleared = {base, high};
  const Bounds first = DestroyRangeAt(table, base);
  const uint64_t low = first.start != 0 ? first.end : base;
  if (first.start != 0 && first.start < base) cleared.start = first.start;
  if (first.end > high) cleared.end = first.end;
  if (low >= high) return cleared;
  const Bounds last = DestroyRangeAt(table, high - 1);
  if (last.end > high) cleared.end = last.end;
  if (last.start != 0) high = last.start;
  DestroyInside(table, low, high);
  return cleared;
}

// ---- The whole table --------------------------------------------------------------------------------

void EmptyBlock(const QV_RANGE_TABLE& table, uint32_t level, void* data, DeadRecords& dead) {
  if (!HoldsChains(table, level)) return dead.Drop(static_cast<RangeRecord*>(data));
  QV_RANGE_LINK* next;
  for (QV_RANGE_LINK* link = static_cast<QV_RANGE_LINK*>(data); link != nullptr; link = next) {
    next = link->next;
    dead.Drop(static_cast<RangeRecord*>(link->record));
    Release(link);
  }
}

void Empty(const QV_RANGE_TABLE& table, DeadRecords& dead) {
  for (uint32_t level = kFinestLevel; level <= table.maxLevel; level++) {
    HashTable* const hash = LevelTable(table, level);
    for (int32_t i = 0; hash != nullptr && i < hash->bucketCount; i++) {
      QV_HASH_BUCKET& bucket = hash->buckets[i];
      while (bucket.head != nullptr) {
        EmptyBlock(table, level, RemoveBlock(*hash, &bucket.head), dead);
      }
    }
  }
}

// ---- Validation -------------------------------------------------------------------------------------

bool Names(const QV_RANGE_TABLE& table, uint32_t level, const void* data,
           const QV_RANGE_RECORD& record) {
  if (!HoldsChains(table, level)) return data == &record;
  const QV_RANGE_LINK* link = static_cast<const QV_RANGE_LINK*>(data);
  while (link != nullptr && link->record != &record) link = link->next;
  return link != nullptr;
}

// Counts the blocks of the record's range that name it; sets `meets` if one of them is the block given.
uint32_t CountNames(const QV_RANGE_TABLE& table, const QV_RANGE_RECORD& record, uint64_t address,
                    uint32_t level, bool& meets) {
  BlockWalk walk(record.start, record.end, table.maxLevel);
  BlockRun run;
  uint32_t names = 0;
  while (walk.Next(run)) {
    const HashTable* const hash = LevelTable(table, run.level);
    for (uint64_t i = 0; hash != nullptr && i < run.count; i++) {
      const uint64_t block = run.address + i * BlockBytes(run.level);
      const QV_HASH_ENTRY* const entry = FindBlock(*hash, block, run.level);
      if (entry == nullptr || !Names(table, run.level, entry->data, record)) continue;
      names++;
      meets |= block == address && run.level == level;
    }
  }
  return names;
}

const char* ValidateRecord(const QV_RANGE_TABLE& table, const QV_RANGE_RECORD* record, uint64_t address,
                           uint32_t level) {
  if (record == nullptr || record->marker != QV_RANGE_RECORD_MARKER) return "a record has no marker";
  if (record->table != &table) return "a record is of another table";
  bool meets = false;
  if (CountNames(table, *record, address, level, meets) != record->references) return "references";
  return meets ? nullptr : "a block names a range that it is no block of";
}

const char* ValidateBlock(const QV_RANGE_TABLE& table, const QV_HASH_ENTRY& entry, uint32_t level) {
  if (RoundDown(entry.key, level) != entry.key) return "a block is not aligned to its size";
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

const char* ValidateRangeTable(const QV_RANGE_TABLE& table) {
  if (table.minLevel != kFinestLevel || table.maxLevel > kCoarsestLevel) return "levels";
  for (uint32_t level = kFinestLevel; level <= table.maxLevel; level++) {
    const HashTable* const hash = LevelTable(table, level);
    if (hash == nullptr) continue;
    const char* wrong = ValidateHashTable(*hash);
    ForEachEntry(*hash, [&](const QV_HASH_ENTRY& entry) {
      if (wrong == nullptr) wrong = ValidateBlock(table, entry, level);
    });
    if (wrong != nullptr) return wrong;
  }
  return nullptr;
}

}  // namespace qv

QV_RANGE_TABLE* __QvCreateRangeTable(uint64_t largestRange, uint32_t category, uint32_t slabSizeShift,
                                     uint32_t flags, QV_RANGE_DESTROY_ITEM destroyItem) {
  qv::CheckContainerMemory("range table", category, slabSizeShift);
  QV_RANGE_TABLE* const table =
      static_cast<QV_RANGE_TABLE*>(qv::Allocate(category, sizeof(QV_RANGE_TABLE)));
  table->flags = qv::ContainerFlags(flags, category, slabSizeShift);
  table->minLevel = qv::kFinestLevel;
  table->maxLevel = qv::LevelFor(largestRange, qv::kCoarsestLevel);
  table->destroyItem = destroyItem;
  const uint32_t bytes = (table->maxLevel - qv::kFinestLevel + 1) * uint32_t{sizeof(QV_HASH_TABLE*)};
  table->levels = static_cast<QV_HASH_TABLE**>(qv::Allocate(category, bytes));
  memset(table->levels, 0, bytes);
  return table;
}

void __QvInsertRangeTableEntry(QV_RANGE_TABLE* table, uint64_t start, uint64_t end, uint64_t item) {
  if (table != nullptr && table->levels != nullptr) qv::Insert(*table, start, end, item);
}

uint64_t __QvLookupRangeTable(QV_RANGE_TABLE* table, uint64_t address, uint64_t* startOut,
                              uint64_t* endOut) {
  const QV_RANGE_RECORD* const record = table != nullptr ? qv::Lookup(*table, address) : nullptr;
  if (startOut != nullptr) *startOut = record != nullptr ? record->start : 0;
  if (endOut != nullptr) *endOut = record != nullptr ? record->end : 0;
  return record != nullptr ? record->item : 0;
}

void __QvRemoveRangeTableEntry(QV_RANGE_TABLE* table, uint64_t start, uint64_t end) {
  if (table != nullptr) qv::RemoveAndBury(*table, {start, end}, nullptr);
}

void __QvDestroyRangeTableEntry(QV_RANGE_TABLE* table, uint64_t start, uint64_t end) {
  if (table != nullptr) qv::DestroyRange(*table, {start, end});
}

uint64_t __QvRemoveFirstRangeTableEntry(QV_RANGE_TABLE* table, uint64_t low, uint64_t high) {
  return table != nullptr ? qv::RemoveFirst(*table, low, high) : 0;
}

void __QvDestroyRangeTableSpan(QV_RANGE_TABLE* table, uint64_t base, uint64_t length,
                               uint64_t* startOut, uint64_t* endOut) {
  const qv::Bounds cleared =
      table != nullptr ? qv::DestroySpan(*table, base, length) : qv::Bounds{0, 0};
  if (startOut != nullptr) *startOut = cleared.start;
  if (endOut != nullptr) *endOut = cleared.end;
}

void __QvScanAndEmptyRangeTable(QV_RANGE_TABLE* table) {
  if (table == nullptr) return;
  qv::DeadRecords dead;
  qv::Empty(*table, dead);
  dead.Bury(table->destroyItem);
}

void __QvDestroyRangeTable(QV_RANGE_TABLE* table) {
  if (table == nullptr) return;
  for (uint32_t level = qv::kFinestLevel; level <= table->maxLevel; level++) {
    if (qv::HashTable* const hash = qv::LevelTable(*table, level)) qv::DestroyHashTable(*hash, nullptr);
  }
  qv::Release(table->levels);
  qv::Release(table);
}

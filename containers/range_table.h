// Range table, inside view.
//
//   [0x10, 0xC0)   block   level   levels[level - 4]
//                  0x00    4       entry -> link -> record  (outside)
//                  0x20    4       entry -> link -> record
//                  0x40    5       entry -> record
//                  0x80    5       entry -> record
//
// Invariants
//  (1) A block of level L is 2^(L+1) bytes at a multiple of that. Every block of a range lies inside the
//      range, except the 32-byte blocks at its two ends.
//  (2) The blocks of a range follow from its bounds alone: BlockWalk gives them, the same for insertion
//      and for removal.
//  (3) references is the number of hash entries and links that name the record. It is above 0: a record
//      that nothing names is gone.
//  (4) Filter and index of a level know exactly the blocks that its hash table holds.
//  (5) destroyItem runs last, when no structure of the table holds anything of the range. It may use the
//      table, so nothing read before it is used after it.
#pragma once

#include "containers/hash_table.h"
#include "containers/range_index.h"

namespace qv {

// The level of the largest block not above the length.
QV_INLINE uint32_t LevelFor(uint64_t length, uint32_t maxLevel) {
  const uint32_t level = 62 - uint32_t(__builtin_clzll(length | kFinestBlock));
  return level < maxLevel ? level : maxLevel;
}

// ---- Records ----------------------------------------------------------------------------------------

// What is behind each QV_RANGE_TABLE.
struct RangeTable : QV_RANGE_TABLE {
  uint32_t usedLevels;          // bit L: level L has a hash table and an index
  BlockIndex indexes[kLevels];  // allocated up to maxLevel
};

// What is behind each QV_RANGE_RECORD. The link fits into the chunk that the record takes in any case.
struct RangeRecord : QV_RANGE_RECORD {
  RangeRecord* nextDead;
};

struct Bounds {
  uint64_t start, end;
  bool Are(const QV_RANGE_RECORD& record) const { return record.start == start && record.end == end; }
};

// Records that nothing names any more, in the order in which they died.
class DeadRecords : NonCopyable {
 public:
  void Drop(RangeRecord* record);                // gives one reference up; null does nothing
  void Bury(QV_RANGE_DESTROY_ITEM destroyItem);  // last of all, by (5); destroyItem may be null

 private:
  RangeRecord* first_ = nullptr;
  RangeRecord** last_ = &first_;
};

// ---- Blocks -----------------------------------------------------------------------------------------

// Blocks of one level that follow on each other; more than one only at the table's largest size.
struct BlockRun {
  uint64_t address;
  uint64_t count;
  uint32_t level;
};

// Gives the blocks of [start, end) in ascending order: at each position the largest block that is
// aligned there, ends by `end` and is not larger than the table's largest; a 32-byte block where none
// is, which is only at the two ends. Nothing for an empty or inverted range.
//
// Cutting the range at the boundaries of the largest block that fits, and what is left at both sides in
// the same way, gives the same blocks in the same order.
class BlockWalk {
 public:
  BlockWalk(uint64_t start, uint64_t end, uint32_t maxLevel)
      : position_(start), end_(end), maxLevel_(maxLevel) {}

  bool Next(BlockRun& run) {
    if (position_ >= end_) return false;
    const uint64_t fits = uint64_t{1} << (63 - __builtin_clzll((end_ - position_) | kFinestBlock));
    const uint32_t bits = uint32_t(__builtin_ctzll(position_ | fits | BlockBytes(maxLevel_)));
    run.level = bits > kFinestLevel + 1 ? bits - 1 : kFinestLevel;
    run.address = RoundDown(position_, run.level);
    const uint64_t room = run.level == maxLevel_ ? (end_ - run.address) >> (run.level + 1) : 1;
    run.count = room != 0 ? room : 1;
    // The last block may reach past the end, and past the top of the address space to 0.
    position_ = run.address + run.count * BlockBytes(run.level);
    if (position_ == 0) position_ = end_;
    return true;
  }

 private:
  uint64_t position_;
  const uint64_t end_;
  const uint32_t maxLevel_;
};

QV_INLINE const RangeTable& Own(const QV_RANGE_TABLE& table) {
  return static_cast<const RangeTable&>(table);
}
QV_INLINE RangeTable& Own(QV_RANGE_TABLE& table) { return static_cast<RangeTable&>(table); }

QV_INLINE HashTable* LevelTable(const RangeTable& table, uint32_t level) {
  return static_cast<HashTable*>(table.levels[level - kFinestLevel]);
}

// Whether the blocks of the level hold chains of links instead of records.
QV_INLINE bool HoldsChains(const RangeTable& table, uint32_t level) {
  return level == kFinestLevel && (table.flags & QV_RANGE_TABLE_UNSHARED_BLOCKS) == 0;
}

QV_INLINE const BlockIndex& IndexOf(const RangeTable& table, uint32_t level) {
  return table.indexes[level - kFinestLevel];
}
QV_INLINE BlockIndex& IndexOf(RangeTable& table, uint32_t level) {
  return table.indexes[level - kFinestLevel];
}

// The bucket of a block: the hash function of the level, without the call.
QV_INLINE QV_HASH_BUCKET& BucketOf(const QV_HASH_TABLE& hash, uint64_t address, uint32_t level) {
  return BucketAt(hash, ShiftXor(address, level - kFinestLevel + 1));
}
QV_INLINE QV_HASH_ENTRY* FindEntry(const QV_HASH_TABLE& hash, uint64_t address, uint32_t level) {
  return FindPlain(hash, BucketOf(hash, address, level).head, address);
}

// What the data of a block's entry names.
QV_INLINE Named NamedBy(const void* data, bool chains) {
  const QV_RANGE_LINK* const link = static_cast<const QV_RANGE_LINK*>(data);
  if (!chains) return reinterpret_cast<Named>(data);
  return link->next != nullptr ? reinterpret_cast<Named>(link) | 1
                               : reinterpret_cast<Named>(link->record);
}

// What the block names. The level is in use.
QV_INLINE Named FindBlock(const RangeTable& table, uint64_t address, uint32_t level) {
  const BlockIndex& index = IndexOf(table, level);
  if (QV_LIKELY(index.slots != nullptr)) return SlotOf(index, address, level).named;
  const QV_HASH_ENTRY* const entry = FindEntry(*LevelTable(table, level), address, level);
  return entry != nullptr ? NamedBy(entry->data, HoldsChains(table, level)) : 0;
}

// ---- Changes ----------------------------------------------------------------------------------------

void InsertRange(RangeTable& table, uint64_t start, uint64_t end, uint64_t item);
// Takes the range with these bounds out of all its blocks.
void RemoveRange(RangeTable& table, const Bounds& bounds, DeadRecords& dead);
void RemoveAllRanges(RangeTable& table, DeadRecords& dead);
// Removes the range and passes its item on, if destroyItem is not null.
void RemoveAndBury(RangeTable& table, const Bounds& bounds, QV_RANGE_DESTROY_ITEM destroyItem);
// The exported calls of these purposes; DestroySpan returns the extent cleared.
uint64_t RemoveFirstRange(RangeTable& table, uint64_t low, uint64_t high);
Bounds DestroySpan(RangeTable& table, uint64_t base, uint64_t length);

// Walks the table: null if all is well, else what is wrong.
const char* ValidateRangeTable(const QV_RANGE_TABLE& table);

}  // namespace qv

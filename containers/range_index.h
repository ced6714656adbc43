// What knows which blocks a level of a range table has, beside its hash table.
//
//   filter   | word | word | word | ...      16 bits for each bucket: can the block be there at all?
//   slots    | entry | null | entry | ...    open addressing: the block's entry in the hash table
//
// An address has a block on every level, and most levels do not hold it; to learn that from their hash
// tables costs a bucket and a chain each. The filters are small enough to stay in the cache, and asking
// all of them takes no branch that could be mispredicted.
//
// Where a block is there, the hash table of a fine level is a slow way to it: its hash function uses every
// eighth, fourth or second bucket only, so that chains are up to eight entries long, each entry a miss of
// the cache in a large table. A slot names the entry at once. Slots are few: a level begins with 32, and at
// most half of them are in use. A level of more blocks than any program has ranges for does without.
#pragma once

#include "containers/hash_table.h"

namespace qv {

inline constexpr uint32_t kFinestLevel = 4;
inline constexpr uint32_t kCoarsestLevel = 26;
inline constexpr uint32_t kLevels = kCoarsestLevel - kFinestLevel + 1;
inline constexpr uint64_t kFinestBlock = 32;

QV_INLINE uint64_t BlockBytes(uint32_t level) { return uint64_t{2} << level; }
QV_INLINE uint64_t RoundDown(uint64_t address, uint32_t level) { return address & -BlockBytes(level); }

struct BlockIndex {
  uint16_t* filter;       // as many words as the level's hash table has buckets
  uint64_t filterMask;    // their number less one
  QV_HASH_ENTRY** slots;  // null: the level does without
  uint32_t slotShift;     // there are 2^(64 - slotShift) slots
};

// A block's number by the golden ratio, as a fraction of 2^64: its upper bits are spread well, and those
// of blocks that follow on each other best.
QV_INLINE uint64_t MixBlock(uint64_t address, uint32_t level) {
  return (address >> (level + 1)) * 0x9E3779B97F4A7C15;
}

// Where a filter notes a block: two bits of one word. The word is that of the block's bucket or, on the
// finest levels, one of the group of words whose other buckets the level's hash function never uses.
class BlockMark {
 public:
  QV_INLINE BlockMark(uint64_t address, uint32_t level, uint64_t mask) {
    const uint64_t mixed = MixBlock(address, level);
    const uint64_t hash = ShiftXor(RoundDown(address, level), level - kFinestLevel + 1);
    const uint64_t unused = 7u >> (level - kFinestLevel);
    word_ = (hash & mask) | (mixed >> 48 & unused);
    first_ = uint32_t(mixed >> 60);
    second_ = uint32_t(mixed >> 56 & 15);
  }
  QV_INLINE uint64_t Word() const { return word_; }
  QV_INLINE uint32_t Bits() const { return 1u << first_ | 1u << second_; }
  QV_INLINE bool IsIn(uint32_t word) const { return (word >> first_ & word >> second_ & 1) != 0; }

 private:
  uint64_t word_;
  uint32_t first_, second_;
};

QV_INLINE uint64_t SlotMask(const BlockIndex& index) { return ~uint64_t{0} >> index.slotShift; }
QV_INLINE uint64_t FirstSlot(const BlockIndex& index, uint64_t address, uint32_t level) {
  return MixBlock(address, level) >> index.slotShift;
}

// The bucket of a block: the hash function of the level, without the call.
QV_INLINE QV_HASH_BUCKET& BucketOf(const QV_HASH_TABLE& hash, uint64_t address, uint32_t level) {
  return BucketAt(hash, ShiftXor(address, level - kFinestLevel + 1));
}

QV_INLINE QV_HASH_ENTRY* FindInIndex(const BlockIndex& index, const QV_HASH_TABLE& hash,
                                     uint64_t address, uint32_t level) {
  if (QV_UNLIKELY(index.slots == nullptr)) {
    return FindPlain(hash, BucketOf(hash, address, level).head, address);
  }
  uint64_t slot = FirstSlot(index, address, level);
  QV_HASH_ENTRY* entry;
  while ((entry = index.slots[slot]) != nullptr && entry->key != address) {
    slot = (slot + 1) & SlotMask(index);
  }
  return entry;
}

extern uint64_t g_mostSlots;  // a power of two; tests set it

// Memory of an index is charged to the category of its level's hash table.
void MakeIndex(const HashTable& hash, uint32_t level, BlockIndex& index);
void ReleaseIndex(BlockIndex& index);
void AddToIndex(const HashTable& hash, uint64_t address, uint32_t level, BlockIndex& index);
// To be called while the entry is still there for the slots, and once it is gone for the filter.
void RemoveFromSlots(const BlockIndex& index, uint64_t address, uint32_t level);
void RemoveFromFilter(const HashTable& hash, uint64_t address, uint32_t level, const BlockIndex& index);
void EmptyIndex(const BlockIndex& index);

// Null if all is well, else what is wrong.
const char* ValidateIndex(const HashTable& hash, uint32_t level, const BlockIndex& index);

}  // namespace qv

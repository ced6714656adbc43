// What knows which blocks a level of a range table has, beside its hash table.
//
//   words   | 64 bits | 64 bits | ...                      a filter: can the block be there at all?
//   slots   | block, named | null | ... 8 to a word | ...  open addressing: what the block names
//
// An address has a block on every level, and most levels do not hold it; to learn that from their hash
// tables costs a bucket and a chain each. The filters are small enough to stay in the cache, and asking
// all of them takes no branch that could be mispredicted.
//
// Where a block is there, the hash table of a fine level is a slow way to it: its hash function uses every
// eighth, fourth or second bucket only, so that chains are up to eight entries long, each a miss of the
// cache in a large table, and behind the entry comes a link. A slot names the record at once.
//
// Invariants
//  (1) Between a block's first slot and its own none is empty. At most half of the slots are in use.
//  (2) A word has exactly the bits of the blocks whose first slot is one of its eight. So what it holds
//      can be made again from the slots when a block leaves.
//  (3) A level of more blocks than one allocation has slots for does without: slots is null, and its
//      words say that every block can be there.
#pragma once

#include "runtime/base.h"

namespace qv {

inline constexpr uint32_t kFinestLevel = 4;
inline constexpr uint32_t kCoarsestLevel = 26;
inline constexpr uint32_t kLevels = kCoarsestLevel - kFinestLevel + 1;
inline constexpr uint64_t kFinestBlock = 32;

QV_INLINE uint64_t BlockBytes(uint32_t level) { return uint64_t{2} << level; }
QV_INLINE uint64_t RoundDown(uint64_t address, uint32_t level) { return address & -BlockBytes(level); }

// What a block names: its record; or the first of several links, told by bit 0; or 0, nothing.
using Named = uintptr_t;

struct BlockSlot {
  uint64_t block;
  Named named;  // 0 in an empty slot
};

struct BlockIndex {
  const uint64_t* words;
  BlockSlot* slots;    // or null, by (3)
  uint32_t slotShift;  // there are 2^(64 - slotShift) slots
  uint32_t wordShift;  // and 2^(64 - wordShift) words
};

// A block's number by the golden ratio, as a fraction of 2^64. Its upper bits are spread well, best those
// of blocks that follow on each other; they give the slot and the word, others the two bits in the word.
QV_INLINE uint64_t MixBlock(uint64_t address, uint32_t level) {
  return (address >> (level + 1)) * 0x9E3779B97F4A7C15;
}
QV_INLINE uint32_t FirstBit(uint64_t mixed) { return mixed >> 32 & 63; }
QV_INLINE uint32_t SecondBit(uint64_t mixed) { return mixed >> 26 & 63; }

// Whether the filter lets the block pass, as 1 or 0.
QV_INLINE uint32_t MayHaveBlock(const BlockIndex& index, uint64_t address, uint32_t level) {
  const uint64_t mixed = MixBlock(address, level);
  const uint64_t word = index.words[mixed >> index.wordShift];
  return uint32_t(word >> FirstBit(mixed) & word >> SecondBit(mixed) & 1);
}

QV_INLINE uint64_t SlotMask(const BlockIndex& index) { return ~uint64_t{0} >> index.slotShift; }

// The block's slot, or the empty one in which its search ends. Not for an index without slots.
QV_INLINE BlockSlot& SlotOf(const BlockIndex& index, uint64_t block, uint32_t level) {
  uint64_t slot = MixBlock(block, level) >> index.slotShift;
  while (index.slots[slot].named != 0 && index.slots[slot].block != block) {
    slot = (slot + 1) & SlotMask(index);
  }
  return index.slots[slot];
}

extern uint64_t g_mostSlots;  // a power of two; tests set it

void MakeIndex(uint32_t category, BlockIndex& index);
void ReleaseIndex(BlockIndex& index);
// For `count` blocks; the one call here that takes memory.
void MakeRoomInIndex(uint32_t category, uint64_t count, uint32_t level, BlockIndex& index);
// Of a block that is not there yet and for which there is room.
void AddToIndex(const BlockIndex& index, const BlockSlot& block, uint32_t level);
void RenameInIndex(const BlockIndex& index, const BlockSlot& block, uint32_t level);
void RemoveFromIndex(const BlockIndex& index, uint64_t block, uint32_t level);
void EmptyIndex(const BlockIndex& index);

// Null if all is well with an index of so many blocks, else what is wrong.
const char* ValidateIndex(const BlockIndex& index, uint64_t count, uint32_t level);

}  // namespace qv

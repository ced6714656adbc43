// Range table, inside view.
//
//   [0x10, 0xC0)        block       level   its hash table: levels[level - 4]
//                       0x00        4       -> link -> record      (reaches outside, below)
//                       0x20        4       -> link -> record
//                       0x40        5       -> record
//                       0x80        5       -> record
//
// Invariants
//  (1) A block of level L is 2^(L+1) bytes at a multiple of that. Every block of a range lies inside the
//      range, except the 32-byte blocks at its two ends.
//  (2) The blocks of a range follow from its bounds alone: BlockWalk gives them, the same for insertion
//      and for removal.
//  (3) references is the number of hash entries and links that name the record. It is above 0: a record
//      that nothing names is gone.
//  (4) destroyItem runs last, when no structure of the table holds anything of the range. It may use the
//      table, so nothing read before it is used after it.
#pragma once

#include "containers/hash_table.h"

namespace qv {

inline constexpr uint32_t kFinestLevel = 4;
inline constexpr uint32_t kCoarsestLevel = 26;
inline constexpr uint64_t kFinestBlock = 32;

QV_INLINE uint64_t BlockBytes(uint32_t level) { return uint64_t{2} << level; }
QV_INLINE uint64_t RoundDown(uint64_t address, uint32_t level) { return address & -BlockBytes(level); }

// What is behind each QV_RANGE_RECORD; the link fits into the chunk that the record needs in any case.
struct RangeRecord : QV_RANGE_RECORD {
  RangeRecord* nextDead;  // while its table is being emptied
};

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

const char* ValidateRangeTable(const QV_RANGE_TABLE& table);

}  // namespace qv

// Range table: what goes through an interval of addresses, position by position.
// Design: containers/range_table.h.
#include "containers/range_lookup.h"

namespace qv {
namespace {

// The positions of an interval at which a block may be found, in steps of 32 bytes. Where nothing is
// found for more steps than the table has buckets and entries, it looks at all of these once for the
// next block, so that an interval that is wide and empty ends.
class IntervalWalk {
 public:
  IntervalWalk(RangeTable& table, uint64_t low, uint64_t high)
      : table_(table), position_(RoundDown(low, kFinestLevel)), high_(high) {}

  bool AtEnd() const { return position_ >= high_; }
  // What is at this position, asking no level whose block is larger than the rest of the interval.
  FoundBlock Here() const {
    return FindBlockAt(table_, position_, LevelFor(high_ - position_, table_.maxLevel));
  }
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

  const RangeTable& table_;
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

// The range of a position that a removal from [low, high) takes, or null: in a chain the first one that
// lies inside, elsewhere the only one.
QV_RANGE_RECORD* ChooseInside(const RangeTable& table, const FoundBlock& found, uint64_t low,
                              uint64_t high) {
  if (found.named == 0) return nullptr;
  if (!HoldsChains(table, found.level)) return reinterpret_cast<QV_RANGE_RECORD*>(found.named);
  return FirstInChain(found.named, [low, high](const QV_RANGE_RECORD& record) {
    return low <= record.start && record.end <= high;
  });
}

// Every range found from `low` on; those in chains only if they lie inside. Searches again after each
// one, since the callback may have changed the table.
void DestroyInside(RangeTable& table, uint64_t low, uint64_t high) {
  IntervalWalk walk(table, low, high);
  while (!walk.AtEnd()) {
    const FoundBlock found = walk.Here();
    const QV_RANGE_RECORD* const record = ChooseInside(table, found, low, high);
    if (record == nullptr) {
      walk.Step();
      continue;
    }
    const Bounds bounds = {record->start, record->end};
    // A range may end inside a 32-byte block that others share: back to the start of that block.
    if (!HoldsChains(table, found.level)) walk.MoveTo(bounds.end);
    RemoveAndBury(table, bounds, table.destroyItem);
  }
}

// The range that holds the address is destroyed, its bounds returned; 0 and 0 if there is none, or one
// that starts at 0.
Bounds DestroyRangeAt(RangeTable& table, uint64_t address) {
  const QV_RANGE_RECORD* const record = FindRange(table, address);
  if (record == nullptr || record->start == 0) return {0, 0};
  const Bounds bounds = {record->start, record->end};
  RemoveAndBury(table, bounds, table.destroyItem);
  return bounds;
}

}  // namespace

uint64_t RemoveFirstRange(RangeTable& table, uint64_t low, uint64_t high) {
  for (IntervalWalk walk(table, low, high); !walk.AtEnd(); walk.Step()) {
    const QV_RANGE_RECORD* const record = ChooseInside(table, walk.Here(), low, high);
    if (record == nullptr) continue;
    const uint64_t item = record->item;
    RemoveAndBury(table, {record->start, record->end}, nullptr);
    return item;
  }
  return 0;
}

Bounds DestroySpan(RangeTable& table, uint64_t base, uint64_t length) {
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

}  // namespace qv

// Range table: which range holds an address. Design: containers/range_table.h.
#pragma once

#include "containers/range_table.h"

namespace qv {

struct FoundBlock {
  Named named;  // 0: there is none
  uint32_t level;
};

// The levels among those given whose block of the address may be registered.
QV_INLINE uint32_t AskFilters(const RangeTable& table, uint64_t address, uint32_t levels) {
  uint32_t candidates = 0;
  for (; levels != 0; levels &= levels - 1) {
    const uint32_t level = uint32_t(__builtin_ctz(levels));
    candidates |= MayHaveBlock(IndexOf(table, level), address, level) << level;
  }
  return candidates;
}

// The registered block that holds the address, from the level given down.
QV_INLINE FoundBlock FindBlockAt(const RangeTable& table, uint64_t address, uint32_t level) {
  uint32_t candidates = AskFilters(table, address, table.usedLevels & ((2u << level) - 1));
  while (candidates != 0) {
    level = 31 - uint32_t(__builtin_clz(candidates));
    const Named named = FindBlock(table, RoundDown(address, level), level);
    if (QV_LIKELY(named != 0)) return {named, level};
    candidates ^= 1u << level;
  }
  return {0, kFinestLevel};
}

// The first record that is wanted of those that a block with a chain names, or null.
template <class Wanted>
QV_INLINE QV_RANGE_RECORD* FirstInChain(Named named, Wanted wanted) {
  if (QV_LIKELY((named & 1) == 0)) {
    QV_RANGE_RECORD* const record = reinterpret_cast<QV_RANGE_RECORD*>(named);
    return wanted(*record) ? record : nullptr;
  }
  const QV_RANGE_LINK* link = reinterpret_cast<const QV_RANGE_LINK*>(named & ~Named{1});
  while (link != nullptr && !wanted(*link->record)) link = link->next;
  return link != nullptr ? link->record : nullptr;
}

// The range that holds the address, or null. A record that no chain names is not compared.
QV_INLINE QV_RANGE_RECORD* FindRange(const RangeTable& table, uint64_t address) {
  const FoundBlock found = FindBlockAt(table, address, table.maxLevel);
  if (found.named == 0) return nullptr;
  if (!HoldsChains(table, found.level)) return reinterpret_cast<QV_RANGE_RECORD*>(found.named);
  return FirstInChain(found.named, [address](const QV_RANGE_RECORD& record) {
    return record.start <= address && address < record.end;
  });
}

}  // namespace qv

// Range table: random runs beside a model that knows every range and every block, with the memory
// accounted for; both ends of the address space; bounds that were never inserted, ranges that overlap,
// item destructors that use the table.
#include "containers/range_table.h"

#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/containers/accounting_host.h"
#include "tests/support/child.h"

namespace {

using qvtest::BytesInUse;
using qvtest::ChunkBytes;
using Table = QV_RANGE_TABLE;

constexpr uint32_t kCategory = 13;
constexpr uint64_t kTop = UINT64_MAX;

std::map<uint64_t, int> g_destroyed;
void DestroyItem(uint64_t item) { g_destroyed[item]++; }

Table* NewTable(uint64_t largestRange, uint32_t flags = 0,
                QV_RANGE_DESTROY_ITEM destroy = DestroyItem) {
  qvtest::InstallAccountingHost();
  g_destroyed.clear();
  return __QvCreateRangeTable(largestRange, kCategory, 0, flags, destroy);
}
void EndTable(Table* table) {
  ASSERT_SOUND(qv::ValidateRangeTable(*table));
  __QvScanAndEmptyRangeTable(table);
  __QvDestroyRangeTable(table);
  ASSERT_EQ(BytesInUse(kCategory), 0u);
}
uint64_t ItemAt(Table* table, uint64_t address) {
  return __QvLookupRangeTable(table, address, nullptr, nullptr);
}

// ---- The model --------------------------------------------------------------------------------------

using Block = std::pair<uint32_t, uint64_t>;  // level, address

uint32_t LevelFor(uint64_t length, uint32_t maxLevel) {
  uint32_t level = 4;
  while (level < maxLevel && length >> (level + 2) != 0) level++;
  return level;
}
uint64_t Down(uint64_t address, uint32_t level) { return address >> (level + 1) << (level + 1); }

// The documented procedure, word by word; past the top of the address space there is nothing.
void Cut(uint64_t start, uint64_t end, uint32_t maxLevel, std::vector<Block>& blocks) {
  if (end <= start) return;
  for (uint32_t level = LevelFor(end - start, maxLevel);; level = LevelFor(end - start, maxLevel)) {
    const uint64_t size = uint64_t{2} << level;
    uint64_t a = Down(start, level);
    if (a != start && level == 4) {
      blocks.push_back({4, a});
      a += 32;
    } else if (a != start) {
      const uint64_t b = a + size < a || a + size > end ? end : a + size;
      Cut(start, b, maxLevel, blocks);
      a = b;
    }
    if (a < start) return;
    for (; a + size > a && a + size <= end; a += size) blocks.push_back({level, a});
    if (a >= end) return;
    if (level == 4) return blocks.push_back({4, a});
    start = a;
  }
}

struct Range {
  uint64_t start, end, item;
};

class Model {
 public:
  explicit Model(uint32_t maxLevel) : maxLevel_(maxLevel) {}

  void Insert(const Range& range) {
    ranges_[range.start] = range;
    for (const Block& block : BlocksOf(range)) {
      std::vector<uint64_t>& chain = blocks_[block];
      chain.insert(chain.empty() ? chain.end() : chain.begin() + 1, range.start);
      used_.insert({block.first, true});
    }
  }
  void Remove(uint64_t start) {
    for (const Block& block : BlocksOf(ranges_.at(start))) {
      std::erase(blocks_[block], start);
      if (blocks_[block].empty()) blocks_.erase(block);
    }
    ranges_.erase(start);
  }
  const Range* At(uint64_t address) const {
    auto at = ranges_.upper_bound(address);
    if (at == ranges_.begin() || (--at)->second.end <= address) return nullptr;
    return &at->second;
  }
  bool Overlaps(uint64_t start, uint64_t end) const {
    const auto at = ranges_.lower_bound(end);
    return at != ranges_.begin() && std::prev(at)->second.end > start;
  }
  std::vector<Range> Meeting(uint64_t start, uint64_t end) const {
    std::vector<Range> meeting;
    for (const auto& [key, range] : ranges_) {
      if (range.start < end && range.end > start) meeting.push_back(range);
    }
    return meeting;
  }
  // The first range to be removed from the interval: positions in steps of 32 bytes.
  const Range* First(uint64_t low, uint64_t high, bool chains) const {
    for (uint64_t p = low & ~uint64_t{31}; p < high; p += 32) {
      if (const Range* const found = FirstAt(p, low, high, chains)) return found;
      if (p + 32 < p) break;
    }
    return nullptr;
  }

  const std::map<uint64_t, Range>& Ranges() const { return ranges_; }
  bool LevelIsUsed(uint32_t level) const { return used_.count(level) != 0; }
  uint64_t Bytes(bool chains) const {
    uint64_t bytes = ranges_.size() * ChunkBytes(sizeof(QV_RANGE_RECORD));
    for (const auto& [block, chain] : blocks_) {
      bytes += 32 + (block.first == 4 && chains ? chain.size() * ChunkBytes(sizeof(QV_RANGE_LINK)) : 0);
    }
    return bytes;
  }

 private:
  std::vector<Block> BlocksOf(const Range& range) const {
    std::vector<Block> blocks;
    Cut(range.start, range.end, maxLevel_, blocks);
    return blocks;
  }
  const Range* FirstAt(uint64_t p, uint64_t low, uint64_t high, bool chains) const {
    for (uint32_t level = LevelFor(high - p, maxLevel_); level >= 4; level--) {
      const auto at = blocks_.find({level, Down(p, level)});
      if (at == blocks_.end()) continue;
      for (const uint64_t start : at->second) {
        const Range& range = ranges_.at(start);
        if (level > 4 || !chains || (low <= range.start && range.end <= high)) return &range;
      }
      return nullptr;
    }
    return nullptr;
  }

  const uint32_t maxLevel_;
  std::map<uint64_t, Range> ranges_;
  std::map<Block, std::vector<uint64_t>> blocks_;  // starts in the order of the chain
  std::map<uint32_t, bool> used_;
};

TEST(RangeTable, BlocksAreThoseOfTheDocumentedProcedure) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 30000; i++) {
    const uint32_t maxLevel = 4 + uint32_t(random() % 23);
    const uint64_t length = random() & ((uint64_t{2} << random() % (maxLevel + 8)) - 1);
    uint64_t start = random() >> random() % 64 << random() % 8;
    if (i % 4 == 0) start = kTop - random() % 100000;
    if (i % 4 == 1) start = random() % 1000;
    const uint64_t end = start + length < start ? kTop : start + length;
    std::vector<Block> expected, blocks;
    Cut(start, end, maxLevel, expected);
    qv::BlockWalk walk(start, end, maxLevel);
    for (qv::BlockRun run; walk.Next(run);) {
      for (uint64_t k = 0; k < run.count; k++)
        blocks.push_back({run.level, run.address + (k << (run.level + 1))});
    }
    ASSERT_EQ(blocks, expected) << std::hex << start << " " << end << " " << maxLevel;
  }
}

// ---- Random runs ------------------------------------------------------------------------------------

class RandomRun {
 public:
  // Ranges lie in [base, base + width) at multiples of `grain`.
  RandomRun(uint64_t largestRange, uint32_t flags, uint64_t base, uint64_t width, uint64_t grain,
            uint32_t seed)
      : base_(base),
        width_(width),
        grain_(grain),
        chains_(flags == 0),
        random_(seed),
        largeBefore_(qvtest::LargeBytesInUse()),
        table_(NewTable(largestRange, flags)),
        model_(table_->maxLevel) {}

  void Steps(int count) {
    for (int step = 0; step < count && !testing::Test::HasFatalFailure(); step++) {
      const uint64_t dice = random_() % 200;
      if (dice < 90) {
        Insert();
      } else if (dice < 140) {
        Look();
      } else if (dice < 170) {
        Remove(dice % 2 == 0);
      } else if (dice < 185) {
        RemoveFirst();
      } else if (dice < 199) {
        ClearSpan();
      } else if (random_() % 8 == 0) {
        Empty();
      }
      if (step % 32 == 0) Check();
    }
    Check();
    Empty();
    __QvDestroyRangeTable(table_);
    ASSERT_EQ(BytesInUse(kCategory), 0u);
    ASSERT_EQ(qvtest::LargeBytesInUse(), largeBefore_);
  }

 private:
  uint64_t Address() { return base_ + random_() % width_; }
  uint64_t Bound() { return base_ + random_() % (width_ / grain_) * grain_; }
  uint64_t Length() {
    const uint64_t most = random_() % 4 == 0 ? width_ / 3 : random_() % 2 == 0 ? 400 : 3 * grain_;
    return (1 + random_() % most + grain_ - 1) / grain_ * grain_;
  }

  void Insert() {
    const Range range = {Bound(), 0, ++nextItem_};
    const uint64_t end = range.start + Length();
    if (end > base_ + width_ || end < range.start || model_.Overlaps(range.start, end)) return;
    __QvInsertRangeTableEntry(table_, range.start, end, range.item);
    model_.Insert({range.start, end, range.item});
  }
  void Look() {
    const uint64_t address = Address();
    const Range* const expected = model_.At(address);
    uint64_t start = 1, end = 1;
    ASSERT_EQ(__QvLookupRangeTable(table_, address, &start, &end), expected ? expected->item : 0);
    ASSERT_EQ(start, expected ? expected->start : 0);
    ASSERT_EQ(end, expected ? expected->end : 0);
  }
  void Remove(bool destroy) {
    const Range* const found = model_.At(Address());
    if (found == nullptr) return;
    const Range range = *found;
    const auto remove = destroy ? __QvDestroyRangeTableEntry : __QvRemoveRangeTableEntry;
    // No other bounds will do.
    remove(table_, range.start, range.end - grain_);
    remove(table_, range.start + grain_, range.end);
    remove(table_, range.start, range.end + grain_);
    remove(table_, range.start, range.end);
    Forget(range, destroy);
  }
  void RemoveFirst() {
    const uint64_t low = Address(), high = random_() % 3 == 0 ? Address() : low + random_() % 300;
    const Range* const found = model_.First(low, high, chains_);
    ASSERT_EQ(__QvRemoveFirstRangeTableEntry(table_, low, high), found ? found->item : 0)
        << std::hex << low << " " << high;
    if (found != nullptr) Forget(Range(*found), false);
  }
  void ClearSpan() {
    const uint64_t base = Address(), length = random_() % 3 == 0 ? random_() % width_ : random_() % 200;
    const uint64_t high = base + length < base ? kTop : base + length;
    uint64_t first = base, last = high, start = 1, end = 1;
    for (const Range& range : model_.Meeting(base, length == 0 ? base + 1 : high)) {
      first = std::min(first, range.start);
      last = std::max(last, range.end);
      Forget(range, true);
    }
    __QvDestroyRangeTableSpan(table_, base, length, &start, &end);
    ASSERT_EQ(start, first);
    ASSERT_EQ(end, last);
  }
  void Empty() {
    for (const auto& [start, range] : model_.Ranges()) expectedDestroyed_[range.item]++;
    while (!model_.Ranges().empty()) model_.Remove(model_.Ranges().begin()->first);
    __QvScanAndEmptyRangeTable(table_);
    ASSERT_EQ(g_destroyed, expectedDestroyed_);
  }
  void Forget(const Range& range, bool destroyed) {
    if (destroyed) expectedDestroyed_[range.item]++;
    model_.Remove(range.start);
  }

  // 17 for each slot, one word to spare; nothing for a level that does without.
  uint64_t IndexBytes(uint32_t level) const {
    const qv::BlockIndex& index = qv::IndexOf(qv::Own(*table_), level);
    return index.slots == nullptr ? 0 : ChunkBytes((17u << (64 - index.slotShift)) + 8);
  }

  void Check() {
    ASSERT_SOUND(qv::ValidateRangeTable(*table_));
    ASSERT_EQ(g_destroyed, expectedDestroyed_);
    uint64_t bytes = model_.Bytes(chains_), large = 0;
    const uint64_t levels = table_->maxLevel - 3;
    bytes += ChunkBytes(40 + 24 * levels) + ChunkBytes(8 * levels);  // with three words for each index
    for (uint32_t level = 4; level <= table_->maxLevel; level++) {
      const QV_HASH_TABLE* const hash = table_->levels[level - 4];
      ASSERT_EQ(hash != nullptr, model_.LevelIsUsed(level)) << level;
      if (hash == nullptr) continue;
      const uint64_t buckets = ChunkBytes(uint64_t(hash->bucketCount) * sizeof(QV_HASH_BUCKET));
      (buckets > 2046 * 16 ? large : bytes) += buckets;
      const uint64_t index = IndexBytes(level);
      (index > 2046 * 16 ? large : bytes) += index;
      bytes += ChunkBytes(sizeof(qv::HashTable));
    }
    ASSERT_EQ(BytesInUse(kCategory), bytes);
    ASSERT_EQ(qvtest::LargeBytesInUse(), largeBefore_ + large);
  }

  const uint64_t base_, width_, grain_;
  const bool chains_;
  std::mt19937_64 random_;
  const uint64_t largeBefore_;
  Table* const table_;
  Model model_;
  std::map<uint64_t, int> expectedDestroyed_;
  uint64_t nextItem_ = 0;
};

TEST(RangeTable, RandomRunsAgreeWithAModelAndAccountForEveryByte) {
  qvtest::InstallAccountingHost();
  for (uint32_t seed = 1; seed <= 2; seed++) {
    for (const uint64_t largest : {uint64_t{0}, uint64_t{64}, uint64_t{4096}, kTop}) {
      for (const uint64_t base : {uint64_t{1}, uint64_t{0x7F0000001234}, kTop - 0x3000}) {
        SCOPED_TRACE("largest " + std::to_string(largest) + ", base " + std::to_string(base) +
                     ", seed " + std::to_string(seed));
        RandomRun(largest, 0, base, 0x3000, 1, seed).Steps(3000);
        RandomRun(largest, 0, base & ~uint64_t{15}, 0x3000, 16, seed).Steps(3000);
        RandomRun(largest, QV_RANGE_TABLE_UNSHARED_BLOCKS, (base | 31) - 31 + (base < 32 ? 32 : 0),
                  0x2000, 32, seed)
            .Steps(3000);
        if (HasFatalFailure()) return;
      }
    }
  }
  RandomRun(kTop, 0, uint64_t{1} << 40, uint64_t{1} << 20, 16, 5).Steps(30000);
}

// Levels that have more blocks than an index can name, and find them by their hash tables.
TEST(RangeTable, LevelsTooLargeForAnIndexDoWithout) {
  qvtest::InstallAccountingHost();
  const uint64_t usual = std::exchange(qv::g_mostSlots, 64);
  Table* const table = NewTable(4096);
  for (uint64_t i = 0; i < 100; i++) __QvInsertRangeTableEntry(table, i * 64, i * 64 + 32, i + 1);
  EXPECT_EQ(qv::IndexOf(qv::Own(*table), 4).slots, nullptr);
  EXPECT_EQ(__QvLookupRangeTable(table, 99 * 64 + 31, nullptr, nullptr), 100u);
  EXPECT_EQ(__QvLookupRangeTable(table, 99 * 64 + 32, nullptr, nullptr), 0u);
  __QvScanAndEmptyRangeTable(table);
  ASSERT_SOUND(qv::ValidateRangeTable(*table));
  __QvDestroyRangeTable(table);
  EXPECT_EQ(BytesInUse(kCategory), 0u);
  RandomRun(kTop, 0, 0x7F0000001230, 0x3000, 16, 6).Steps(6000);
  RandomRun(kTop, QV_RANGE_TABLE_UNSHARED_BLOCKS, 0x7F0000001220, 0x4000, 32, 6).Steps(6000);
  qv::g_mostSlots = usual;
}

// ---- The documented layout and examples --------------------------------------------------------------

TEST(RangeTable, LevelsComeFromTheLargestRangeAndAreMadeOnFirstUse) {
  const std::pair<uint64_t, uint32_t> levels[] = {
      {0, 4},        {31, 4},    {32, 4},    {63, 4},       {64, 5},
      {4096, 11},    {4097, 11}, {8191, 11}, {1 << 27, 26}, {(1 << 28) - 1, 26},
      {1 << 28, 26}, {kTop, 26}};
  for (const auto& [largest, maxLevel] : levels) {
    Table* const table = NewTable(largest, 0xFF0FFFFE);
    EXPECT_EQ(table->minLevel, 4u);
    EXPECT_EQ(table->maxLevel, maxLevel) << largest;
    EXPECT_EQ(table->flags, 0xFF0000FE | kCategory << 8) << std::hex << table->flags;
    for (uint32_t level = 4; level <= maxLevel; level++) {
      ASSERT_EQ(table->levels[level - 4], nullptr);
      const uint64_t size = uint64_t{2} << level;
      __QvInsertRangeTableEntry(table, size, size * 2, level);
      const QV_HASH_TABLE* const hash = table->levels[level - 4];
      ASSERT_NE(hash, nullptr);
      EXPECT_EQ(hash->hashFunctions[0], qv::qvShiftXorHashFunctions[level - 4]);
      EXPECT_EQ(hash->flags, 6u | kCategory << 8);
      EXPECT_EQ(hash->count, 1);
      EXPECT_EQ(hash->level, 0);
    }
    EndTable(table);
  }
}

TEST(RangeTable, RecordsAndLinksAreAsDocumented) {
  Table* const table = NewTable(4096);
  __QvInsertRangeTableEntry(table, 0x10, 0x50, 7);  // blocks 0x00, 0x20, 0x40
  __QvInsertRangeTableEntry(table, 0x50, 0x58, 8);
  __QvInsertRangeTableEntry(table, 0x58, 0xC0, 9);
  const auto linkAt = [=](uint64_t block) {
    return static_cast<const QV_RANGE_LINK*>(__QvLookupHashTable(table->levels[0], block));
  };
  const QV_RANGE_RECORD& first = *linkAt(0)->record;
  EXPECT_EQ(first.marker, QV_RANGE_RECORD_MARKER);
  EXPECT_EQ(first.start, 0x10u);
  EXPECT_EQ(first.end, 0x50u);
  EXPECT_EQ(first.table, table);
  EXPECT_EQ(first.item, 7u);
  EXPECT_EQ(first.references, 3u);
  EXPECT_EQ(linkAt(0x20)->record, &first);
  EXPECT_EQ(linkAt(0x20)->next, nullptr);
  EXPECT_EQ(linkAt(0x40)->record, &first);  // then the newest, then the one before it
  EXPECT_EQ(linkAt(0x40)->next->record->item, 9u);
  EXPECT_EQ(linkAt(0x40)->next->next->record->item, 8u);
  EXPECT_EQ(linkAt(0x60)->record->item, 9u);
  const auto* const record =
      static_cast<const QV_RANGE_RECORD*>(__QvLookupHashTable(table->levels[5 - 4 + 0], 0x80));
  EXPECT_EQ(record, linkAt(0x60)->record);
  EXPECT_EQ(record->references, 3u);
  __QvRemoveRangeTableEntry(table, 0x10, 0x50);
  EXPECT_EQ(linkAt(0x40)->record->item, 9u);
  EXPECT_EQ(linkAt(0), nullptr);
  EndTable(table);
  EXPECT_EQ(g_destroyed, (std::map<uint64_t, int>{{8, 1}, {9, 1}}));
}

TEST(RangeTable, UnsharedBlocksBelongToTheirRangeAsAWhole) {
  Table* const table = NewTable(4096, QV_RANGE_TABLE_UNSHARED_BLOCKS);
  __QvInsertRangeTableEntry(table, 0x1000, 0x1010, 5);
  EXPECT_EQ(ItemAt(table, 0x1018), 5u);
  EXPECT_EQ(ItemAt(table, 0x1020), 0u);
  EXPECT_EQ(static_cast<QV_RANGE_RECORD*>(__QvLookupHashTable(table->levels[0], 0x1000))->item, 5u);
  // The range ends inside its block: the scan comes back to the block and goes on from there.
  uint64_t start = 0, end = 0;
  __QvInsertRangeTableEntry(table, 0x1020, 0x1031, 6);
  __QvDestroyRangeTableSpan(table, 0xFF0, 0x200, &start, &end);
  EXPECT_EQ(g_destroyed.size(), 2u);
  EndTable(table);
}

TEST(RangeTable, SpansThatRunOverTheRangesAtTheirEnds) {
  Table* const table = NewTable(4096);
  uint64_t start = 0, end = 0;
  __QvInsertRangeTableEntry(table, 0x1000, 0x2000, 1);
  __QvDestroyRangeTableSpan(table, 0x1000, 0x800, &start, &end);
  EXPECT_EQ(std::pair(start, end), std::pair(uint64_t{0x1000}, uint64_t{0x2000}));
  __QvInsertRangeTableEntry(table, 0x1000, 0x2000, 1);
  __QvInsertRangeTableEntry(table, 0x2000, 0x3000, 2);
  __QvDestroyRangeTableSpan(table, 0x1800, 0x1000, &start, &end);
  EXPECT_EQ(std::pair(start, end), std::pair(uint64_t{0x1000}, uint64_t{0x3000}));
  EXPECT_EQ(g_destroyed, (std::map<uint64_t, int>{{1, 2}, {2, 1}}));
  // A range from address 0 is not found by its bounds, only by a block that fits the span.
  __QvInsertRangeTableEntry(table, 0, 0x1000, 3);
  __QvDestroyRangeTableSpan(table, 0x100, 0x80, nullptr, nullptr);
  EXPECT_EQ(ItemAt(table, 0x100), 3u);
  __QvDestroyRangeTableSpan(table, 0, 0x1000, nullptr, nullptr);
  EXPECT_EQ(ItemAt(table, 0x100), 0u);
  EndTable(table);
}

// ---- Hostile inputs ---------------------------------------------------------------------------------

TEST(RangeTable, EveryLoopEndsAtTheEndsOfTheAddressSpace) {
  Table* const table = NewTable(kTop);
  uint64_t start = 1, end = 1;
  __QvInsertRangeTableEntry(table, kTop - 15, kTop, 1);
  __QvInsertRangeTableEntry(table, kTop - 0x2FFFF, kTop - 100, 2);
  __QvInsertRangeTableEntry(table, 0, 0x123456, 3);
  __QvInsertRangeTableEntry(table, uint64_t{1} << 47, (uint64_t{1} << 47) + 40, 4);
  EXPECT_EQ(ItemAt(table, kTop - 1), 1u);
  EXPECT_EQ(ItemAt(table, kTop), 0u);
  EXPECT_EQ(ItemAt(table, 0), 3u);
  ASSERT_SOUND(qv::ValidateRangeTable(*table));
  // Intervals and bounds as wide as the address space.
  __QvRemoveRangeTableEntry(table, 0, kTop);
  __QvRemoveRangeTableEntry(table, 1, kTop - 1);
  EXPECT_EQ(__QvRemoveFirstRangeTableEntry(table, 0x200000, kTop), 4u);
  EXPECT_EQ(__QvRemoveFirstRangeTableEntry(table, kTop - 31, kTop), 1u);
  EXPECT_EQ(__QvRemoveFirstRangeTableEntry(table, kTop - 31, kTop), 0u);
  EXPECT_EQ(__QvRemoveFirstRangeTableEntry(table, kTop, 0), 0u);
  __QvDestroyRangeTableSpan(table, 0x200000, kTop, &start, &end);  // it would end below its beginning
  EXPECT_EQ(std::pair(start, end), std::pair(uint64_t{0x200000}, kTop));
  EXPECT_EQ(g_destroyed, (std::map<uint64_t, int>{{2, 1}}));
  __QvInsertRangeTableEntry(table, kTop - 1, kTop, 5);
  __QvDestroyRangeTableSpan(table, 1, kTop, &start, &end);
  EXPECT_EQ(g_destroyed, (std::map<uint64_t, int>{{2, 1}, {3, 1}, {5, 1}}));
  EndTable(table);
}

TEST(RangeTable, EmptyInvertedAndOverlappingRangesLeaveNothingBehind) {
  for (const uint32_t flags : {0u, uint32_t{QV_RANGE_TABLE_UNSHARED_BLOCKS}}) {
    Table* const table = NewTable(1024, flags);
    const uint64_t empty = BytesInUse(kCategory);
    __QvInsertRangeTableEntry(table, 0x40, 0x40, 1);
    __QvInsertRangeTableEntry(table, 0x80, 0x40, 1);
    __QvInsertRangeTableEntry(table, kTop, 0, 1);
    EXPECT_EQ(BytesInUse(kCategory), empty);
    // The same range three times, one inside it, one across its end, a long one over all of them.
    const std::pair<uint64_t, uint64_t> ranges[] = {{0x1010, 0x1450}, {0x1010, 0x1450},
                                                    {0x1010, 0x1450}, {0x1100, 0x1180},
                                                    {0x1440, 0x14F0}, {0x10, 0x8001}};
    for (const auto& [low, high] : ranges) {
      __QvInsertRangeTableEntry(table, low, high, 2);
      ASSERT_SOUND(qv::ValidateRangeTable(*table));
    }
    for (const auto& [low, high] : ranges) {
      __QvDestroyRangeTableEntry(table, low, high);
      ASSERT_SOUND(qv::ValidateRangeTable(*table));
    }
    for (uint64_t address = 0; address < 0x8100; address++) ASSERT_EQ(ItemAt(table, address), 0u);
    for (uint32_t level = 4; level <= table->maxLevel; level++) {
      const QV_HASH_TABLE* const hash = table->levels[level - 4];
      EXPECT_TRUE(hash == nullptr || hash->count == 0);
    }
    EndTable(table);
  }
}

TEST(RangeTable, LongChainsOfRangesThatShareABlock) {
  Table* const table = NewTable(0);
  for (uint64_t i = 0; i < 32 * 100; i++)
    __QvInsertRangeTableEntry(table, 0x1000 + i, 0x1001 + i, i + 1);
  for (uint64_t i = 0; i < 32 * 100; i++) ASSERT_EQ(ItemAt(table, 0x1000 + i), i + 1);
  EXPECT_EQ(__QvRemoveFirstRangeTableEntry(table, 0x1005, 0x1007), 7u);  // the newer one is met first
  EXPECT_EQ(__QvRemoveFirstRangeTableEntry(table, 0x1005, 0x1007), 6u);
  EXPECT_EQ(__QvRemoveFirstRangeTableEntry(table, 0x1005, 0x1007), 0u);
  __QvDestroyRangeTableSpan(table, 0x1003, 0x7FE, nullptr, nullptr);
  EXPECT_EQ(g_destroyed.size(), 0x7FEu - 2);
  EXPECT_EQ(ItemAt(table, 0x1002), 3u);
  EXPECT_EQ(ItemAt(table, 0x1801), 0x802u);
  EndTable(table);
}

// An item destructor that uses the table: nothing of its range is in it any more.
Table* g_used;
std::function<void(uint64_t)> g_use;
void UseTable(uint64_t item) {
  g_destroyed[item]++;
  g_use(item);
}

TEST(RangeTable, ItemDestructorsMayUseTheTable) {
  g_used = NewTable(4096, 0, UseTable);
  const auto fill = [] {
    for (uint64_t i = 1; i <= 40; i++) __QvInsertRangeTableEntry(g_used, i * 24, i * 24 + 24, i);
  };
  fill();
  // Destroys its neighbours, in the same blocks, and puts one range elsewhere.
  g_use = [](uint64_t i) {
    EXPECT_EQ(ItemAt(g_used, i * 24), 0u);
    EXPECT_EQ(ItemAt(g_used, i * 24 + 23), 0u);
    __QvDestroyRangeTableEntry(g_used, (i + 1) * 24, (i + 2) * 24);
    __QvInsertRangeTableEntry(g_used, 0x10000 + i * 24, 0x10000 + i * 24 + 24, i + 100);
    ASSERT_SOUND(qv::ValidateRangeTable(*g_used));
  };
  __QvDestroyRangeTableEntry(g_used, 30 * 24, 31 * 24);  // takes 30 to 40
  EXPECT_EQ(g_destroyed.size(), 11u);
  __QvDestroyRangeTableSpan(g_used, 24, 10 * 24, nullptr, nullptr);  // takes 1 to 29
  EXPECT_EQ(g_destroyed.size(), 40u);
  g_use = [](uint64_t i) {
    EXPECT_EQ(ItemAt(g_used, 0x10000 + (i - 100) * 24), 0u);
    __QvInsertRangeTableEntry(g_used, i * 100, i * 100 + 7, i + 1000);
  };
  __QvScanAndEmptyRangeTable(g_used);
  EXPECT_EQ(g_destroyed.size(), 80u);
  EXPECT_EQ(ItemAt(g_used, 14006), 1140u);
  for (const auto& [item, count] : g_destroyed) EXPECT_EQ(count, 1) << item;
  g_use = [](uint64_t) {};
  EndTable(g_used);
}

// ---- A memory collector in the middle of an insertion -----------------------------------------------

Table* g_collected;
uint32_t g_collections;
std::mt19937 g_random(5);

// Gives up every range, or about every second one.
void GiveRangesUp() {
  g_collections++;
  if (g_collections % 2 == 0) return __QvScanAndEmptyRangeTable(g_collected);
  for (uint64_t low = 0; low < 1 << 20; low += 512) {
    if (g_random() % 2 == 0) __QvDestroyRangeTableSpan(g_collected, low, 256, nullptr, nullptr);
  }
}

// Blocks of all sizes are taken beside the table and kept, so that slabs run out now for a record, now for
// a link or an entry.
TEST(RangeTable, AMemoryCollectorMayRemoveRangesAmidAnInsertion) {
  const qvtest::ChildResult child = qvtest::RunChild([] {
    qvtest::InstallAccountingHost();
    __QvInitializeMemoryCollector();
    __QvRegisterMemoryCollector(GiveRangesUp);
    Table* const table = __QvCreateRangeTable(4096, kCategory, 0, 0, DestroyItem);
    g_collected = table;
    qvtest::AccountingHost::Get().beforeAllocation = __QvAsynchronousCollectMemory;
    std::vector<void*> kept;
    uint32_t amid = 0;
    for (uint64_t i = 0; i < 20000; i++) {
      const uint64_t start = g_random() % (1 << 15) * 32 + g_random() % 2 * 8;
      const uint64_t length = i % 50 == 0 ? 3000 : 1 + g_random() % 40;
      for (int taken = 0; taken < 8; taken++) {
        kept.push_back(__QvMalloc(kCategory, uint32_t(8 + 16 * (g_random() % 4)), 0));
      }
      const uint32_t before = g_collections;
      __QvInsertRangeTableEntry(table, start, start + length, i + 1);
      if (g_collections == before) continue;
      amid++;
      CHECK(qv::ValidateRangeTable(*table) == nullptr);
      __QvRemoveRangeTableEntry(table, start, start + length);
      CHECK(qv::ValidateRangeTable(*table) == nullptr);
    }
    CHECK(amid > 20);
    qvtest::AccountingHost::Get().beforeAllocation = nullptr;
    for (void* const block : kept) __QvFree(block);
    __QvScanAndEmptyRangeTable(table);
    __QvDestroyRangeTable(table);
    CHECK_EQ(BytesInUse(kCategory), 0u);
  });
  ASSERT_EQ(child.status, 0) << child.err;
}

TEST(RangeTable, NullAndMisusedArguments) {
  uint64_t start = 1, end = 1;
  __QvInsertRangeTableEntry(nullptr, 1, 2, 3);
  EXPECT_EQ(__QvLookupRangeTable(nullptr, 1, &start, &end), 0u);
  EXPECT_EQ(std::pair(start, end), std::pair(uint64_t{0}, uint64_t{0}));
  __QvRemoveRangeTableEntry(nullptr, 1, 2);
  __QvDestroyRangeTableEntry(nullptr, 1, 2);
  EXPECT_EQ(__QvRemoveFirstRangeTableEntry(nullptr, 1, 2), 0u);
  __QvDestroyRangeTableSpan(nullptr, 1, 2, &start, &end);
  __QvScanAndEmptyRangeTable(nullptr);
  __QvDestroyRangeTable(nullptr);
  Table* const table = NewTable(64, 0, nullptr);
  __QvInsertRangeTableEntry(table, 1, 2, 0);
  EXPECT_EQ(__QvLookupRangeTable(table, 1, &start, &end), 0u);
  EXPECT_EQ(std::pair(start, end), std::pair(uint64_t{1}, uint64_t{2}));
  __QvDestroyRangeTableEntry(table, 1, 2);
  EndTable(table);
  const qvtest::ChildResult child = qvtest::RunChild([] {
    qvtest::InstallAccountingHost();
    __QvCreateRangeTable(64, 64, 0, 0, nullptr);
  });
  EXPECT_EQ(child.status, 255);
  EXPECT_NE(child.Read("qvlog.log").find("range table"), std::string::npos);
}

}  // namespace

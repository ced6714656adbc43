// Hash table: random runs against std::unordered_map with the memory accounted for, the layout as it
// is documented, callbacks that change the table under a scan, null and misused arguments. What threads
// do to it is in hash_table_threads_test.cpp.
#include "containers/hash_table.h"

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "tests/containers/accounting_host.h"
#include "tests/support/child.h"

namespace {

using qvtest::BytesInUse;
using qvtest::ChunkBytes;
using Table = QV_HASH_TABLE;

constexpr uint32_t kCategory = 11;

void* Data(uint64_t number) { return reinterpret_cast<void*>(number); }
uint64_t Number(void* data) { return reinterpret_cast<uint64_t>(data); }

// What the documented layout takes: records, bucket arrays, and entries that end at their lock where
// the table does not lock.
void AddTableBytes(const Table* table, uint64_t& chunks, uint64_t& large) {
  const uint64_t buckets = ChunkBytes(uint64_t(table->bucketCount) *
                                      qv::BytesPerBucket(static_cast<const qv::HashTable&>(*table)));
  chunks += ChunkBytes(sizeof(qv::HashTable));
  (buckets > 2046 * 16 ? large : chunks) += buckets;
  const uint64_t entry = (table->flags & QV_HASH_TABLE_NO_LOCKING) != 0 ? 32 : 64;
  if (table->level == 0) chunks += uint64_t(table->count) * entry;
  for (int32_t i = 0; table->level > 0 && i < table->bucketCount; i++) {
    const QV_HASH_ENTRY* const head = table->buckets[i].head;
    if (head != nullptr) AddTableBytes(reinterpret_cast<const Table*>(head), chunks, large);
  }
}

// ---- Callbacks --------------------------------------------------------------------------------------

std::unordered_map<uint64_t, int> g_released;  // keys that releaseKey was given
void ReleaseKey(uint64_t key) { g_released[key]++; }
int32_t SameNumber(uint64_t entryKey, uint64_t key) { return entryKey == key ? -4 : 0; }

std::vector<uint64_t> g_seen;  // data that a callback was given
int32_t Acquire(void* data) {
  g_seen.push_back(Number(data));
  return int32_t(Number(data) % 7);
}
int32_t VisitByRemainder(void* data, uint64_t divisor) {
  g_seen.push_back(Number(data));
  return Number(data) % divisor == 0 ? INT32_MIN : 0;
}
int32_t ReleaseOdd(void* data) { return Number(data) % 2 == 1 ? 3 : 0; }
void See(void* data) { g_seen.push_back(Number(data)); }

uint64_t HashToOne(const Table*, uint64_t) { return 5; }
uint64_t HashByTable(const Table* table, uint64_t key) {
  return (key * 0x9E3779B97F4A7C15) >> (64 - table->bucketBits);
}

// ---- Random runs ------------------------------------------------------------------------------------

struct Flavour {
  const char* name;
  uint32_t flags;
  int32_t levels;
  QV_HASH_FUNCTION hashes[3];
  uint64_t keyStride;
  uint32_t keys;
};

class RandomRun {
 public:
  RandomRun(const Flavour& flavour, uint32_t seed)
      : flavour_(flavour),
        random_(seed),
        largeBefore_(qvtest::LargeBytesInUse()),
        table_(__QvCreateHashTable(flavour.flags, flavour.hashes, flavour.levels, SameNumber,
                                   ReleaseKey, kCategory, seed % 3)) {
    g_released.clear();
  }

  void Steps(int count) {
    for (int step = 0; step < count && !testing::Test::HasFatalFailure(); step++) {
      const uint64_t dice = random_() % 1000;
      const uint64_t insertions = step / 3000 % 2 == 0 ? 600 : 250;  // it grows and shrinks by turns
      if (dice < insertions) {
        Insert();
      } else if (dice < 850) {
        Remove();
      } else if (dice < 995) {
        Look();
      } else {
        Scan();
      }
      if (step % 128 == 0) Check();
    }
    Check();
    Destroy();
  }

 private:
  bool CustomKeys() const { return (flavour_.flags & QV_HASH_TABLE_CUSTOM_KEYS) != 0; }
  uint64_t Key() { return random_() % flavour_.keys * flavour_.keyStride; }

  void Insert() {
    const uint64_t key = Key(), data = ++nextData_;
    const auto [at, added] = model_.emplace(key, data);
    ASSERT_EQ(Number(__QvInsertHashTableEntry(table_, key, Data(data))), at->second);
  }
  void Remove() {
    const uint64_t key = Key();
    const auto at = model_.find(key);
    const uint64_t expected = at != model_.end() ? at->second : 0;
    ASSERT_EQ(Number(__QvRemoveHashTableEntry(table_, key)), expected);
    if (expected != 0) Forget(at);
  }
  void Look() {
    const uint64_t key = Key();
    const auto at = model_.find(key);
    const uint64_t expected = at != model_.end() ? at->second : 0;
    ASSERT_EQ(Number(__QvLookupHashTable(table_, key)), expected);
    void* out = Data(99);
    g_seen.clear();
    const int32_t result = __QvLookupAndAcquireHashTableDataItem(table_, key, Acquire, &out);
    ASSERT_EQ(Number(out), expected);
    ASSERT_EQ(result, expected != 0 ? int32_t(expected % 7) : 1);
    ASSERT_EQ(g_seen, expected != 0 ? std::vector<uint64_t>{expected} : std::vector<uint64_t>{});
  }

  void Scan() {
    const uint64_t divisor = 2 + random_() % 9;
    const uint64_t kind = random_() % 4;
    uint32_t count = 0, removed;
    g_seen.clear();
    if (kind == 3) {
      removed = __QvScanAndEmptyHashTable(table_, ReleaseOdd, &count);
    } else {
      removed = __QvScanHashTable(table_, VisitByRemainder, divisor, kind != 0,
                                  kind == 1 ? ReleaseOdd : nullptr, &count);
      ASSERT_EQ(Sorted(g_seen), AllData());
    }
    ASSERT_EQ(count, model_.size());
    ForgetIf([=](uint64_t data) {
      const bool odd = data % 2 == 1, divides = data % divisor == 0;
      return kind == 3 ? odd : kind == 1 ? odd && divides : kind == 2 && divides;
    });
    ASSERT_EQ(count - removed, model_.size());
  }

  template <class Goes>
  void ForgetIf(Goes goes) {
    for (auto at = model_.begin(); at != model_.end();) {
      const auto next = std::next(at);
      if (goes(at->second)) Forget(at);
      at = next;
    }
  }
  void Forget(std::unordered_map<uint64_t, uint64_t>::iterator at) {
    releases_[at->first]++;
    model_.erase(at);
  }

  void Check() {
    ASSERT_SOUND(qv::ValidateHashTable(*table_));
    ASSERT_TRUE(CustomKeys() ? g_released == releases_ : g_released.empty());
    uint64_t chunks = 0, large = 0;
    AddTableBytes(table_, chunks, large);
    ASSERT_EQ(BytesInUse(kCategory), chunks);
    ASSERT_EQ(qvtest::LargeBytesInUse(), largeBefore_ + large);
  }

  void Destroy() {
    for (const auto& [key, data] : model_) releases_[key]++;
    g_seen.clear();
    __QvDestroyHashTable(table_, See);
    ASSERT_EQ(Sorted(g_seen), AllData());
    ASSERT_TRUE(!CustomKeys() || g_released == releases_);
    ASSERT_EQ(BytesInUse(kCategory), 0u);
    ASSERT_EQ(qvtest::LargeBytesInUse(), largeBefore_);
  }

  static std::vector<uint64_t> Sorted(std::vector<uint64_t> numbers) {
    std::sort(numbers.begin(), numbers.end());
    return numbers;
  }
  std::vector<uint64_t> AllData() const {
    std::vector<uint64_t> all;
    for (const auto& [key, data] : model_) all.push_back(data);
    return Sorted(all);
  }

  const Flavour& flavour_;
  std::mt19937 random_;
  const uint64_t largeBefore_;
  Table* const table_;
  std::unordered_map<uint64_t, uint64_t> model_;
  std::unordered_map<uint64_t, int> releases_;
  uint64_t nextData_ = 0;
};

TEST(HashTable, RandomRunsAgreeWithAModelAndAccountForEveryByte) {
  qvtest::InstallAccountingHost();
  const QV_HASH_FUNCTION member9 = qv::qvShiftXorHashFunctions[8];
  const Flavour flavours[] = {
      {"plain", 0x2, 1, {}, 1, 3000},
      {"plain, locks", 0, 1, {}, 0x10001, 3000},
      {"one bucket for all", 0x2, 1, {HashToOne}, 0x123456789, 400},
      {"one bucket for all, locks", 0x80, 1, {HashToOne}, 1, 300},
      {"512 buckets, custom keys", 0x80 | 0x2 | 0x8 | 0x10, 1, {}, 3, 3000},
      {"1024 buckets, hash by table", 0x80 | 0x10, 1, {HashByTable}, 64, 5000},
      {"two levels", 0x2, 2, {}, 0x3F, 4000},
      {"two levels, locks, custom keys", 0x80 | 0x8, 2, {member9}, 0x40000, 3000},
      {"three levels, locks", 0, 3, {nullptr, HashByTable, HashToOne}, 0x100001, 3000},
      {"three levels", 0x2 | 0x10, 3, {}, 0x7FFFFFFFFFF1, 2000},
  };
  for (uint32_t seed = 1; seed <= 3; seed++) {
    for (const Flavour& flavour : flavours) {
      SCOPED_TRACE(std::string(flavour.name) + ", seed " + std::to_string(seed));
      RandomRun(flavour, seed).Steps(12000);
      if (HasFatalFailure()) return;
    }
  }
}

// ---- The documented layout --------------------------------------------------------------------------

std::vector<uint64_t> ChainKeys(const Table* table, uint32_t bucket) {
  std::vector<uint64_t> keys;
  for (const QV_HASH_ENTRY* e = table->buckets[bucket].head; e != nullptr; e = e->next) {
    keys.push_back(e->key);
  }
  return keys;
}

TEST(HashTable, GrowsBeforeTheEntryAfterOneTooMany) {
  qvtest::InstallAccountingHost();
  for (const auto& [flags, buckets, bits] :
       {std::tuple(0x2u, 256, 8), {0x8u, 512, 9}, {0x18u, 512, 9}, {0x12u, 1024, 10}}) {
    Table* const table = __QvCreateHashTable(flags, nullptr, 1, nullptr, nullptr, kCategory, 0);
    ASSERT_EQ(table->bucketCount, buckets);
    ASSERT_EQ(table->bucketBits, bits);
    for (int32_t i = 0; i <= buckets; i++) __QvInsertHashTableEntry(table, uint64_t(i), Data(1));
    ASSERT_EQ(table->bucketCount, buckets);
    // The same key again must not grow it, nor a bucket's order depend on anything but age.
    __QvInsertHashTableEntry(table, uint64_t(buckets), Data(2));
    ASSERT_EQ(table->bucketCount, buckets);
    ASSERT_EQ(ChainKeys(table, 0), (std::vector<uint64_t>{uint64_t(buckets), 0}));
    __QvInsertHashTableEntry(table, uint64_t(buckets) * 2, Data(1));
    ASSERT_EQ(table->bucketCount, buckets * 2);
    ASSERT_EQ(table->bucketBits, bits + 1);
    ASSERT_EQ(ChainKeys(table, 0), (std::vector<uint64_t>{uint64_t(buckets) * 2, 0}));
    ASSERT_SOUND(qv::ValidateHashTable(*table));
    for (int32_t i = 0; i < buckets; i++) __QvRemoveHashTableEntry(table, uint64_t(i));
    ASSERT_EQ(table->bucketCount, buckets * 2);
    __QvDestroyHashTable(table, nullptr);
  }
  // Growth takes each chain from its head: three that stay together come out the other way round.
  Table* const table = __QvCreateHashTable(0x2, nullptr, 1, nullptr, nullptr, kCategory, 0);
  for (uint64_t key : {0x400ull, 0x800ull, 0xC00ull}) __QvInsertHashTableEntry(table, key, Data(1));
  for (uint64_t key = 1; key < 256; key++) __QvInsertHashTableEntry(table, key, Data(1));
  ASSERT_EQ(table->bucketCount, 512);
  ASSERT_EQ(ChainKeys(table, 0), (std::vector<uint64_t>{0x400, 0x800, 0xC00}));
  __QvDestroyHashTable(table, nullptr);
}

const Table* SubTable(const Table* table, uint32_t bucket) {
  return reinterpret_cast<const Table*>(table->buckets[bucket].head);
}

TEST(HashTable, DefaultHashesTakeTheDocumentedBitsAtEachLevel) {
  qvtest::InstallAccountingHost();
  Table* const two = __QvCreateHashTable(0, nullptr, 2, nullptr, nullptr, kCategory, 5);
  for (uint64_t key : {0x100ull, 0x10100ull, 0x200ull}) __QvInsertHashTableEntry(two, key, Data(key));
  ASSERT_EQ(two->level, 1);
  ASSERT_EQ(two->count, 2);
  ASSERT_EQ(SubTable(two, 1)->count, 2);
  ASSERT_EQ(SubTable(two, 2)->count, 1);
  ASSERT_EQ(SubTable(two, 1)->level, 0);
  ASSERT_EQ(SubTable(two, 1)->flags, 5u << 16 | kCategory << 8);
  Table* const three = __QvCreateHashTable(0xFFF40002, nullptr, 3, nullptr, nullptr, kCategory, 0);
  __QvInsertHashTableEntry(three, 0xFFFFFFFFAA00BBCC, Data(1));
  ASSERT_EQ(three->flags, 0xFFF00002 | kCategory << 8);
  ASSERT_EQ(ChainKeys(SubTable(SubTable(three, 0xAA), 0xBB), 0xCC).size(), 1u);
  for (Table* table : {two, three}) {
    ASSERT_SOUND(qv::ValidateHashTable(*table));
    __QvDestroyHashTable(table, nullptr);
  }
  // A leaf keeps its parent's function in its own slot alone, and the compare and release callbacks.
  const QV_HASH_FUNCTION functions[] = {HashByTable, HashToOne};
  Table* const custom = __QvCreateHashTable(0x80, functions, 2, SameNumber, ReleaseKey, kCategory, 0);
  __QvInsertHashTableEntry(custom, 77, Data(1));
  const Table* const leaf = SubTable(custom, 5);
  ASSERT_EQ(leaf->hashFunctions[0], HashByTable);
  ASSERT_EQ(leaf->hashFunctions[1], qv::HashByOneShift);
  ASSERT_EQ(leaf->compareKeys, SameNumber);
  ASSERT_EQ(leaf->releaseKey, ReleaseKey);
  __QvDestroyHashTable(custom, nullptr);
}

// The same steps with and without locks.
class StepOrder : public testing::TestWithParam<uint32_t> {};

TEST_P(StepOrder, AKeyIsReleasedBeforeItsRemovalIsCountedAndAnEmptyLeafHashesNothing) {
  qvtest::InstallAccountingHost();
  static Table* table;
  static int hashes, countSeen;
  hashes = 0;
  const QV_HASH_FUNCTION hash = [](const Table*, uint64_t key) { return hashes++, key; };
  table = __QvCreateHashTable(
      GetParam() | 0x80, &hash, 1, SameNumber, [](uint64_t) { countSeen = table->count; }, kCategory,
      0);
  void* out;
  EXPECT_EQ(__QvLookupHashTable(table, 1), nullptr);
  EXPECT_EQ(__QvLookupAndAcquireHashTableDataItem(table, 1, Acquire, &out), 1);
  EXPECT_EQ(hashes, 0);
  for (uint64_t key = 1; key <= 3; key++) __QvInsertHashTableEntry(table, key, Data(key));
  __QvRemoveHashTableEntry(table, 2);
  EXPECT_EQ(countSeen, 3);
  EXPECT_EQ(table->count, 2);
  __QvDestroyHashTable(table, nullptr);
}
INSTANTIATE_TEST_SUITE_P(LocksOrNot, StepOrder,
                         testing::Values(0u, uint32_t{QV_HASH_TABLE_NO_LOCKING}));

TEST(HashTable, ShiftXorFamilyShiftsOnceArithmeticallyAndOnceLogically) {
  const auto& family = qv::qvShiftXorHashFunctions;
  EXPECT_EQ(family[0](nullptr, 6), 2u);
  EXPECT_EQ(family[3](nullptr, 0x100), 0x11u);
  EXPECT_EQ(family[0](nullptr, uint64_t(-2)), uint64_t{1} << 63);
  for (uint32_t k = 1; k <= 27; k++) {
    const uint64_t key = 0x8123456789ABCDEF;
    const uint64_t s = key >> k | ~(~uint64_t{0} >> k);
    EXPECT_EQ(family[k - 1](nullptr, key), s ^ s >> k) << k;
  }
}

// Lock words of a table that takes no locks: as the allocator gave them, or 0 in an array made by growth;
// and if they look held by another thread, nobody minds.
TEST(HashTable, NoLockWordIsTouchedWithoutLocking) {
  qvtest::InstallAccountingHost();
  Table* const table = __QvCreateHashTable(0x2, nullptr, 1, nullptr, nullptr, 44, 0);
  QV_SHARED_EXCLUSIVE_LOCK untouched, held = {2, 0, 12345, 0, 1, 0};
  memset(&untouched, 0xA5, sizeof untouched);
  EXPECT_EQ(memcmp(&table->lock, &untouched, sizeof untouched), 0);
  EXPECT_EQ(memcmp(&table->buckets[255].lock, &untouched, sizeof untouched), 0);
  for (uint64_t key = 0; key < 300; key++) __QvInsertHashTableEntry(table, key, Data(key + 1));
  const QV_SHARED_EXCLUSIVE_LOCK zero = {};
  EXPECT_EQ(memcmp(&table->buckets[7].lock, &zero, sizeof zero), 0);
  table->lock = held;
  for (int32_t i = 0; i < table->bucketCount; i++) table->buckets[i].lock = held;
  uint32_t count = 0;
  void* out = nullptr;
  EXPECT_EQ(Number(__QvLookupHashTable(table, 8)), 9u);
  EXPECT_EQ(__QvLookupAndAcquireHashTableDataItem(table, 8, Acquire, &out), 2);
  EXPECT_EQ(Number(__QvRemoveHashTableEntry(table, 8)), 9u);
  EXPECT_EQ(Number(__QvInsertHashTableEntry(table, 8, Data(10))), 10u);
  EXPECT_EQ(__QvScanHashTable(table, VisitByRemainder, 300, 1, nullptr, &count), 1u);
  EXPECT_EQ(__QvScanAndEmptyHashTable(table, ReleaseOdd, &count), 149u);
  EXPECT_EQ(count, 299u);
  EXPECT_EQ(memcmp(&table->lock, &held, sizeof held), 0);
  EXPECT_EQ(memcmp(&table->buckets[8].lock, &held, sizeof held), 0);
  __QvDestroyHashTable(table, nullptr);
}

// ---- Scans whose callbacks change the table ----------------------------------------------------------

struct Reentry {
  Table* table;
  std::function<int32_t(uint64_t)> visit;
};
Reentry g_reentry;
int32_t Reenter(void* data, uint64_t) { return g_reentry.visit(Number(data)); }

// Visits all, with removal of what the callback answers non-zero to.
uint32_t ScanWith(Table* table, std::function<int32_t(uint64_t)> visit) {
  g_reentry = {table, std::move(visit)};
  return __QvScanHashTable(table, Reenter, 0, 1, nullptr, nullptr);
}

class ScanReentry : public testing::TestWithParam<uint32_t> {
 protected:
  void SetUp() override {
    qvtest::InstallAccountingHost();
    const QV_HASH_FUNCTION toOne[] = {HashToOne};
    table_ = __QvCreateHashTable(GetParam(), toOne, 1, nullptr, nullptr, kCategory, 0);
    for (uint64_t key = 1; key <= 9; key++) __QvInsertHashTableEntry(table_, key, Data(key));
  }
  void TearDown() override {
    ASSERT_SOUND(qv::ValidateHashTable(*table_));
    __QvDestroyHashTable(table_, nullptr);
    EXPECT_EQ(BytesInUse(kCategory), 0u);
  }
  void Remove(uint64_t key) { __QvRemoveHashTableEntry(table_, key); }

  Table* table_;  // one chain: 9, 8, ... 1
};

TEST_P(ScanReentry, EntriesThatACallbackRemovesAreNeverSeenAgain) {
  std::vector<uint64_t> seen;
  const uint32_t removed = ScanWith(table_, [&](uint64_t data) {
    seen.push_back(data);
    if (data == 8) Remove(8);                        // itself
    if (data == 7) Remove(6), Remove(9);             // its successor, and one that is over
    if (data == 5) Remove(5), Remove(7), Remove(4);  // itself, its predecessor, its successor
    return data == 3 || data == 8 || data == 5;
  });
  EXPECT_EQ(seen, (std::vector<uint64_t>{9, 8, 7, 5, 3, 2, 1}));
  EXPECT_EQ(removed, 1u);  // 5 and 8 went by other hands
  EXPECT_EQ(ChainKeys(table_, 5), (std::vector<uint64_t>{2, 1}));
}

TEST_P(ScanReentry, InsertionsGoThroughAndGrowthWaitsForTheScan) {
  std::vector<uint64_t> seen;
  ScanWith(table_, [&](uint64_t data) {
    seen.push_back(data);
    if (data == 9) {
      for (uint64_t key = 100; key < 600; key++) __QvInsertHashTableEntry(table_, key, Data(key));
      Remove(9);
      __QvInsertHashTableEntry(table_, 9, Data(9));
    }
    return data % 2 == 0;
  });
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 9u), 1);
  EXPECT_EQ(std::vector<uint64_t>(seen.end() - 8, seen.end()),
            (std::vector<uint64_t>{8, 7, 6, 5, 4, 3, 2, 1}));
  EXPECT_EQ(table_->bucketCount, 256);
  ASSERT_SOUND(qv::ValidateHashTable(*table_));
  __QvInsertHashTableEntry(table_, 10, Data(10));
  EXPECT_EQ(table_->bucketCount, 512);
}

TEST_P(ScanReentry, AScanInsideAScan) {
  std::vector<uint64_t> seen;
  const uint32_t removed = ScanWith(table_, [&](uint64_t data) {
    seen.push_back(data);
    if (data == 7) {
      uint32_t count = 0;
      // With locks the inner one finds the leaf held; without, it takes 9, 7, 5, 3 and 1 from under us.
      const uint32_t inner = __QvScanAndEmptyHashTable(table_, ReleaseOdd, &count);
      EXPECT_EQ(count, 9u);
      EXPECT_EQ(inner, (GetParam() & 0x2) != 0 ? 5u : 0u);
    }
    return data == 7 || data == 6;
  });
  if ((GetParam() & 0x2) != 0) {
    EXPECT_EQ(seen, (std::vector<uint64_t>{9, 8, 7, 6, 4, 2}));
    EXPECT_EQ(removed, 1u);
  } else {
    EXPECT_EQ(seen.size(), 9u);
    EXPECT_EQ(removed, 2u);
  }
}

INSTANTIATE_TEST_SUITE_P(LocksOrNot, ScanReentry, testing::Values(0u, 0x2u));

// ---- Arguments --------------------------------------------------------------------------------------

TEST(HashTable, NullAndOddArguments) {
  qvtest::InstallAccountingHost();
  void* out = Data(1);
  uint32_t count = 9;
  EXPECT_EQ(__QvInsertHashTableEntry(nullptr, 1, Data(1)), nullptr);
  EXPECT_EQ(__QvLookupHashTable(nullptr, 1), nullptr);
  EXPECT_EQ(__QvLookupAndAcquireHashTableDataItem(nullptr, 1, Acquire, &out), 1);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(__QvRemoveHashTableEntry(nullptr, 1), nullptr);
  EXPECT_EQ(__QvScanHashTable(nullptr, VisitByRemainder, 1, 1, nullptr, &count), 0u);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(__QvScanAndEmptyHashTable(nullptr, nullptr, nullptr), 0u);
  __QvDestroyHashTable(nullptr, nullptr);

  for (int32_t levels : {INT32_MIN, 0, 1, 3, 4, INT32_MAX}) {
    Table* const table = __QvCreateHashTable(0x82, nullptr, levels, nullptr, nullptr, kCategory, 0);
    EXPECT_EQ(table->level, levels < 1 ? 0 : 2 * (levels > 1));
    __QvInsertHashTableEntry(table, 3, nullptr);  // without a compare callback: integers
    __QvInsertHashTableEntry(table, 4, Data(4));
    EXPECT_EQ(Number(__QvLookupHashTable(table, 4)), 4u);
    EXPECT_EQ(__QvLookupAndAcquireHashTableDataItem(table, 4, nullptr, nullptr), 1);
    EXPECT_EQ(__QvScanHashTable(table, nullptr, 0, 1, nullptr, &count), 0u);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(__QvRemoveHashTableEntry(table, 3), nullptr);  // null data goes, and is counted out
    EXPECT_EQ(__QvScanAndEmptyHashTable(table, nullptr, &count), 1u);
    EXPECT_EQ(count, 1u);
    ASSERT_SOUND(qv::ValidateHashTable(*table));
    __QvDestroyHashTable(table, nullptr);
  }
  EXPECT_EQ(BytesInUse(kCategory), 0u);
}

TEST(HashTable, ACategoryOrShiftThatTheFlagsWouldCutOffIsFatal) {
  for (const auto& [category, shift, text] :
       {std::tuple(256u, 0u, "memory category 256"), {0u, 16u, "slab size shift 16"}}) {
    const qvtest::ChildResult child = qvtest::RunChild([=, c = category, s = shift] {
      qvtest::InstallAccountingHost();
      __QvCreateHashTable(0, nullptr, 1, nullptr, nullptr, c, s);
    });
    EXPECT_EQ(child.status, 255);
    EXPECT_NE(child.Read("qvlog.log").find(text), std::string::npos);
  }
}

}  // namespace

// Hash table under threads: which locks are held when a callback runs, who waits for whom, the race to
// make a sub-table, and four threads that do everything at once.
#include <sched.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "containers/hash_table.h"
#include "tests/containers/accounting_host.h"

namespace {

using Table = QV_HASH_TABLE;
using Lock = QV_SHARED_EXCLUSIVE_LOCK;

constexpr uint32_t kCategory = 12;
constexpr uint32_t kFree = 0, kShared = 1, kExclusive = 2;

void* Data(uint64_t number) { return reinterpret_cast<void*>(number); }

// ---- Which locks are held ---------------------------------------------------------------------------

// One line for each callback: its name, then the states of the locks of table, bucket 5 and entry 5.
Table* g_watched;
std::vector<std::string> g_log;
void Note(const char* what) {
  const QV_HASH_BUCKET& bucket = g_watched->buckets[5];
  const uint32_t entry = bucket.head != nullptr ? bucket.head->lock.state : 9;
  g_log.push_back(what + std::to_string(g_watched->lock.state) + std::to_string(bucket.lock.state) +
                  std::to_string(entry));
}
int32_t NoteCompare(uint64_t a, uint64_t b) { return Note("compare "), a == b; }
void NoteRelease(uint64_t) { Note("key "); }
int32_t NoteAcquire(void*) { return Note("acquire "), 0; }
int32_t NoteVisit(void*, uint64_t) { return Note("visit "), 1; }
int32_t NoteReleaseData(void*) { return Note("data "), 1; }
void NoteFree(void*) { Note("free "); }

TEST(HashTableThreads, CallbacksRunUnderTheDocumentedLocks) {
  qvtest::InstallAccountingHost();
  g_watched = __QvCreateHashTable(0x80, nullptr, 1, NoteCompare, NoteRelease, kCategory, 0);
  const auto logged = [](auto act) {
    g_log.clear();
    act();
    EXPECT_EQ(g_watched->lock.state, kFree);
    EXPECT_EQ(g_watched->buckets[5].lock.state, kFree);
    return g_log;
  };
  using Log = std::vector<std::string>;
  void* out;
  EXPECT_EQ(logged([] { __QvInsertHashTableEntry(g_watched, 5, Data(1)); }), Log{});
  EXPECT_EQ(logged([] { __QvInsertHashTableEntry(g_watched, 5, Data(1)); }), Log{"compare 120"});
  EXPECT_EQ(logged([] { __QvInsertHashTableEntry(g_watched, 5 + 256, Data(1)); }),
            (Log{"compare 120", "compare 200"}));
  EXPECT_EQ(logged([] { __QvLookupHashTable(g_watched, 5 + 256); }), Log{"compare 110"});
  EXPECT_EQ(
      logged([&] { __QvLookupAndAcquireHashTableDataItem(g_watched, 5 + 256, NoteAcquire, &out); }),
      (Log{"compare 110", "acquire 110"}));
  EXPECT_EQ(logged([] { __QvRemoveHashTableEntry(g_watched, 5); }),
            (Log{"compare 120", "compare 120", "key 120"}));
  EXPECT_EQ(logged([] { __QvScanHashTable(g_watched, NoteVisit, 0, 1, NoteReleaseData, nullptr); }),
            (Log{"visit 202", "data 202", "key 202"}));
  __QvInsertHashTableEntry(g_watched, 5, Data(1));
  EXPECT_EQ(logged([] { __QvScanAndEmptyHashTable(g_watched, NoteReleaseData, nullptr); }),
            (Log{"data 202", "key 202"}));
  __QvInsertHashTableEntry(g_watched, 5, Data(1));
  g_log.clear();
  __QvDestroyHashTable(g_watched, NoteFree);
  EXPECT_EQ(g_log, (Log{"free 000", "key 000"}));  // still in its chain
}

// ---- Who waits --------------------------------------------------------------------------------------

// Runs the act on another thread while this one holds the lock: to its end, however long that takes, if
// it is to pass; if it is to wait, long enough for one that does not wait to be found out.
bool RunsWhileHeld(Lock& lock, uint32_t mode, bool toTheEnd, const std::function<void()>& act) {
  std::atomic<bool> done = false;
  mode == kShared ? __QvAcquireSharedLock(&lock) : __QvAcquireExclusiveLock(&lock);
  std::thread other([&] {
    act();
    done = true;
  });
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(40);
  while (!done && (toTheEnd || std::chrono::steady_clock::now() < end)) sched_yield();
  const bool ran = done;
  mode == kShared ? __QvReleaseSharedLock(&lock) : __QvReleaseExclusiveLock(&lock);
  other.join();
  return ran;
}
void Passes(Lock& lock, uint32_t mode, const std::function<void()>& act) {
  RunsWhileHeld(lock, mode, true, act);
}
bool Waits(Lock& lock, uint32_t mode, const std::function<void()>& act) {
  return !RunsWhileHeld(lock, mode, false, act);
}

TEST(HashTableThreads, OperationsWaitForTheLocksTheyTakeAndForNoOther) {
  qvtest::InstallAccountingHost();
  Table* const table = __QvCreateHashTable(0, nullptr, 1, nullptr, nullptr, kCategory, 0);
  for (uint64_t key = 1; key < 20; key++) __QvInsertHashTableEntry(table, key, Data(key));
  Lock& all = table->lock;
  Lock& bucket = table->buckets[5].lock;
  Lock& neighbour = table->buckets[6].lock;
  Lock& entry = table->buckets[5].head->lock;
  const auto look = [&] { __QvLookupHashTable(table, 5); };
  const auto insert = [&] { __QvInsertHashTableEntry(table, 5, Data(1)); };
  const auto remove = [&] { __QvRemoveHashTableEntry(table, 5); };
  for (const auto& act : {std::function<void()>(look), std::function<void()>(insert)}) {
    EXPECT_TRUE(Waits(all, kExclusive, act));
    Passes(all, kShared, act);  // the key is there
    EXPECT_TRUE(Waits(bucket, kExclusive, act));
    Passes(neighbour, kExclusive, act);
    Passes(entry, kExclusive, act);
  }
  Passes(bucket, kShared, look);
  EXPECT_TRUE(Waits(bucket, kShared, insert));
  EXPECT_TRUE(Waits(all, kShared, [&] { __QvInsertHashTableEntry(table, 77, Data(1)); }));
  EXPECT_TRUE(Waits(bucket, kShared, remove));
  EXPECT_EQ(table->count, 19);
  // A removal counts the entry out under the exclusive lock, after the entry is gone.
  EXPECT_TRUE(Waits(all, kShared, [&] { __QvRemoveHashTableEntry(table, 6); }));
  EXPECT_EQ(table->count, 18);
  ASSERT_SOUND(qv::ValidateHashTable(*table));
  __QvDestroyHashTable(table, nullptr);
}

int32_t Always(void*, uint64_t) { return 1; }

TEST(HashTableThreads, ScansPassOverWhatIsHeldAndNeverWait) {
  qvtest::InstallAccountingHost();
  Table* const table = __QvCreateHashTable(0, nullptr, 2, nullptr, nullptr, kCategory, 0);
  for (uint64_t key = 0; key < 512; key++) __QvInsertHashTableEntry(table, key, Data(key + 1));
  Table* const leaf = reinterpret_cast<Table*>(table->buckets[1].head);
  uint32_t removed = 0, count = 0;
  const auto scan = [&] { removed = __QvScanHashTable(table, Always, 0, 1, nullptr, &count); };
  // A leaf that another thread reads, and an entry that another thread holds in the other leaf.
  const auto scanBesideEntry = [&] { Passes(leaf->lock, kShared, scan); };
  QV_HASH_ENTRY* const kept = reinterpret_cast<Table*>(table->buckets[0].head)->buckets[7].head;
  Passes(kept->lock, kShared, scanBesideEntry);
  EXPECT_EQ(removed, 255u);
  EXPECT_EQ(count, 512u);
  EXPECT_NE(__QvLookupHashTable(table, kept->key), nullptr);
  // A leaf that the caller itself holds.
  __QvAcquireExclusiveLock(&leaf->lock);
  EXPECT_EQ(__QvScanAndEmptyHashTable(table, nullptr, &count), 1u);
  EXPECT_EQ(count, 257u);
  EXPECT_EQ(leaf->lock.recursionCount, 1u);
  __QvReleaseExclusiveLock(&leaf->lock);
  EXPECT_EQ(__QvScanAndEmptyHashTable(table, nullptr, &count), 256u);
  ASSERT_SOUND(qv::ValidateHashTable(*table));
  __QvDestroyHashTable(table, nullptr);
}

// ---- Four threads -----------------------------------------------------------------------------------

constexpr int kThreads = 4;

// All threads begin at once.
void OnThreads(const std::function<void(int)>& body) {
  std::atomic<int> ready = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; i++) {
    threads.emplace_back([&, i] {
      ready++;
      while (ready < kThreads) sched_yield();
      body(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(HashTableThreads, SubTablesAreMadeOnceByThreadsThatMeet) {
  qvtest::InstallAccountingHost();
  for (uint64_t round = 0; round < 60; round++) {
    Table* const table = __QvCreateHashTable(0, nullptr, 3, nullptr, nullptr, kCategory, 0);
    OnThreads([&](int thread) {
      for (uint64_t i = 0; i < 8; i++) {
        const uint64_t key = i << 24 | ((i * 7 + round) & 0xFF) << 8 | uint64_t(thread);
        EXPECT_EQ(__QvInsertHashTableEntry(table, key, Data(key + 1)), Data(key + 1));
      }
    });
    EXPECT_EQ(table->count, 8);
    ASSERT_SOUND(qv::ValidateHashTable(*table));  // the counts of sub-tables and entries among it
    uint32_t count = 0;
    EXPECT_EQ(__QvScanAndEmptyHashTable(table, nullptr, &count), 8u * kThreads);
    __QvDestroyHashTable(table, nullptr);
    ASSERT_EQ(qvtest::BytesInUse(kCategory), 0u);
  }
}

// What the table holds: freed as soon as the last reference goes, so that a sanitizer sees every use
// after that; the table's own reference goes with the entry.
struct Item {
  uint64_t key;
  std::atomic<uint32_t> references = 1;
  std::atomic<uint32_t> removals = 0;
};
std::atomic<int> g_items;

Item* NewItem(uint64_t key) {
  g_items++;
  return new Item{key};
}
void Drop(Item* item) {
  if (--item->references != 0) return;
  delete item;
  g_items--;
}
int32_t Reference(void* data) {
  Item* const item = static_cast<Item*>(data);
  EXPECT_GT(item->references++, 0u) << "acquired after it was freed";
  return 0;
}
void Removed(Item* item) {
  EXPECT_EQ(item->removals++, 0u) << "removed twice";
  Drop(item);
}
int32_t VisitOwnedBy(void* data, uint64_t owner) {
  return static_cast<Item*>(data)->key % (kThreads + 1) == owner;
}
int32_t RemovedByScan(void* data) { return Removed(static_cast<Item*>(data)), 1; }
void RemovedByDestruction(void* data) { Removed(static_cast<Item*>(data)); }

// Keys of residue `thread` belong to that thread alone: it knows which are there, in spite of all that
// goes on around them. Keys of the last residue are everybody's.
class Worker {
 public:
  Worker(Table* table, int thread, uint64_t stride)
      : table_(table), thread_(uint64_t(thread)), stride_(stride), random_(uint32_t(thread) + 1) {}

  void Run(int steps) {
    for (int step = 0; step < steps; step++) {
      const uint64_t dice = random_() % 400;
      const bool shared = random_() % 2 == 0;
      const uint64_t index = random_() % kKeys;
      if (dice < 160) {
        Look(KeyOf(index, shared), index, shared);
      } else if (dice < 280) {
        Insert(KeyOf(index, shared), index, shared);
      } else if (dice < 399) {
        Remove(KeyOf(index, shared), index, shared);
      } else {
        Scan();
      }
    }
    for (uint64_t i = 0; i < kKeys; i++) Look(KeyOf(i, false), i, false);
  }
  uint64_t Present() const {
    uint64_t count = 0;
    for (const Item* item : mine_) count += item != nullptr;
    return count;
  }

 private:
  static constexpr uint64_t kKeys = 600;

  uint64_t KeyOf(uint64_t index, bool shared) const {
    return (index * stride_) * (kThreads + 1) + (shared ? uint64_t(kThreads) : thread_);
  }

  void Look(uint64_t key, uint64_t index, bool shared) {
    void* data = Data(1);
    const int32_t result = __QvLookupAndAcquireHashTableDataItem(table_, key, Reference, &data);
    Item* const item = static_cast<Item*>(data);
    EXPECT_EQ(result, item == nullptr);
    if (!shared) {
      EXPECT_EQ(item, mine_[index]);
      EXPECT_EQ(__QvLookupHashTable(table_, key), mine_[index]);
    }
    if (item == nullptr) return;
    EXPECT_EQ(item->key, key);
    Drop(item);
  }

  void Insert(uint64_t key, uint64_t index, bool shared) {
    Item* const item = NewItem(key);
    void* const stored = __QvInsertHashTableEntry(table_, key, item);
    if (!shared) {
      EXPECT_EQ(stored, mine_[index] != nullptr ? mine_[index] : item);
      mine_[index] = static_cast<Item*>(stored);
    }
    if (stored != item) Drop(item);
  }

  void Remove(uint64_t key, uint64_t index, bool shared) {
    Item* const item = static_cast<Item*>(__QvRemoveHashTableEntry(table_, key));
    if (!shared) {
      EXPECT_EQ(item, mine_[index]);
      mine_[index] = nullptr;
    }
    if (item != nullptr) {
      EXPECT_EQ(item->key, key);
      Removed(item);
    }
  }

  // Empties the keys of everybody; other keys are only looked at.
  void Scan() {
    uint32_t count = 0;
    const uint32_t removed =
        __QvScanHashTable(table_, VisitOwnedBy, kThreads, 1, RemovedByScan, &count);
    EXPECT_LE(removed, count);
  }

  Table* const table_;
  const uint64_t thread_, stride_;
  std::mt19937 random_;
  Item* mine_[kKeys] = {};
};

TEST(HashTableThreads, NoEntryIsLostDoubledOrResurrected) {
  qvtest::InstallAccountingHost();
  const struct {
    uint32_t flags;
    int32_t levels;
    uint64_t stride;
  } flavours[] = {{0, 1, 1}, {0x80, 1, 0x100}, {0x8, 2, 0x33}, {0, 3, 0x12345}};
  for (const auto& flavour : flavours) {
    SCOPED_TRACE(flavour.levels);
    Table* const table =
        __QvCreateHashTable(flavour.flags, nullptr, flavour.levels, nullptr, nullptr, kCategory, 0);
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < kThreads; i++) {
      workers.push_back(std::make_unique<Worker>(table, i, flavour.stride));
    }
    OnThreads([&](int thread) { workers[size_t(thread)]->Run(20000); });
    ASSERT_SOUND(qv::ValidateHashTable(*table));
    uint64_t owned = 0;
    for (const auto& worker : workers) owned += worker->Present();
    uint32_t count = 0;
    const uint32_t shared = __QvScanHashTable(table, VisitOwnedBy, kThreads, 1, RemovedByScan, &count);
    EXPECT_EQ(count - shared, owned);
    __QvDestroyHashTable(table, RemovedByDestruction);
    EXPECT_EQ(g_items, 0);
    ASSERT_EQ(qvtest::BytesInUse(kCategory), 0u);
  }
}

}  // namespace

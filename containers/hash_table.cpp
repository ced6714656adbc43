// Hash table: creation, growth, entries, and the exported calls but for the scans, which are in
// hash_scan.cpp. Design: containers/hash_table.h.
#include "containers/hash_table.h"

#include <string.h>

#include "log/report.h"
#include "memory/allocate.h"

static_assert(sizeof(QV_HASH_ENTRY) == 56 && offsetof(QV_HASH_ENTRY, key) == 8 &&
              offsetof(QV_HASH_ENTRY, data) == 16 && offsetof(QV_HASH_ENTRY, lock) == 24);
static_assert(sizeof(QV_HASH_BUCKET) == 40 && offsetof(QV_HASH_BUCKET, head) == 32);
static_assert(offsetof(QV_HASH_TABLE, hashFunctions) == 32 &&
              offsetof(QV_HASH_TABLE, compareKeys) == 56 && offsetof(QV_HASH_TABLE, releaseKey) == 64);
static_assert(offsetof(QV_HASH_TABLE, buckets) == 72 && offsetof(QV_HASH_TABLE, bucketCount) == 80 &&
              offsetof(QV_HASH_TABLE, bucketBits) == 84 && offsetof(QV_HASH_TABLE, count) == 88);
static_assert(offsetof(QV_HASH_TABLE, level) == 92 && offsetof(QV_HASH_TABLE, flags) == 96);

namespace qv {

uint64_t HashByKey(const QV_HASH_TABLE*, uint64_t key) { return key; }
uint64_t HashByOneShift(const QV_HASH_TABLE* table, uint64_t key) {
  return key >> (table->bucketBits & 63);
}
uint64_t HashByThreeShifts(const QV_HASH_TABLE* table, uint64_t key) {
  return key >> (3 * table->bucketBits & 63);
}

namespace {

constexpr uint32_t kEntryBytes = sizeof(QV_HASH_ENTRY);
constexpr uint32_t kEntryBytesWithoutLock = offsetof(QV_HASH_ENTRY, lock);
// A bucket array is one allocation, so it must stay below 4 GiB.
constexpr int32_t kMostBuckets = 1 << 26;
static_assert(uint64_t{kMostBuckets} * (sizeof(QV_HASH_BUCKET) + 8) < 0xFFFFFFE8);
constexpr uint32_t kSubTableSpinCount = 500;

template <uint32_t k>
uint64_t HashByShiftXor(const QV_HASH_TABLE*, uint64_t key) {
  return ShiftXor(key, k);
}

bool ComparesByCall(const QV_HASH_TABLE& table) {
  return (table.flags & QV_HASH_TABLE_CUSTOM_KEYS) != 0 && table.compareKeys != nullptr;
}

// ---- Creation ---------------------------------------------------------------------------------------

int32_t FirstBucketBits(uint32_t flags) {
  if ((flags & QV_HASH_TABLE_512_BUCKETS) != 0) return 9;
  return (flags & QV_HASH_TABLE_1024_BUCKETS) != 0 ? 10 : 8;
}

void FillHashFunctions(QV_HASH_TABLE& table, const QV_HASH_FUNCTION* given, int32_t levels) {
  constexpr QV_HASH_FUNCTION kDefaults[QV_HASH_LEVELS] = {HashByKey, HashByOneShift, HashByThreeShifts};
  for (int32_t i = 0; i < QV_HASH_LEVELS; i++) {
    const bool own = given != nullptr && i < levels && given[i] != nullptr;
    table.hashFunctions[i] = own ? given[i] : kDefaults[i];
  }
}

QV_HASH_BUCKET* AllocateBuckets(const HashTable& table, int32_t count) {
  const uint32_t bytes = uint32_t(count) * BytesPerBucket(table);
  return static_cast<QV_HASH_BUCKET*>(Allocate(CategoryOf(table.flags), bytes));
}

void InitializeBuckets(HashTable& table) {
  const bool locks = Locks(table);
  if (table.plain) memset(HeadsOf(table), 0, size_t(table.bucketCount) * sizeof(QV_HASH_ENTRY*));
  for (int32_t i = 0; i < table.bucketCount; i++) {
    if (locks) SharedInitialize(table.buckets[i].lock, 0);
    table.buckets[i].head = nullptr;
  }
}

HashTable* CreateSubTable(const QV_HASH_TABLE& parent) {
  return CreateHashTable(parent.flags, parent.hashFunctions, parent.level, parent.compareKeys,
                         parent.releaseKey);
}

QV_HASH_TABLE* WaitForSubTable(const QV_HASH_BUCKET& bucket) {
  Waiter waiter(kSubTableSpinCount);
  HashTable* table;
  while ((table = SubTableOf(bucket)) == nullptr) waiter.Spin();
  return table;
}

// The sub-table of a bucket that had none when it was looked at.
QV_COLD QV_HASH_TABLE* MakeSubTableSlow(QV_HASH_TABLE& upper, QV_HASH_BUCKET& bucket) {
  QV_HASH_ENTRY* const beingMade = reinterpret_cast<QV_HASH_ENTRY*>(kBeingMade);
  if (Locks(upper)) {
    QV_HASH_ENTRY* const found = CompareExchange(bucket.head, beingMade, nullptr);
    if (found != nullptr) return WaitForSubTable(bucket);
  }
  HashTable* const table = CreateSubTable(upper);
  QV_HASH_ENTRY* const head = reinterpret_cast<QV_HASH_ENTRY*>(table);
  if (Locks(upper)) {
    TryExchange(bucket.head, head, beingMade);
    Increment(upper.count);
  } else {
    bucket.head = head;
    upper.count++;
  }
  return table;
}

QV_INLINE HashTable& LeafForInsertion(QV_HASH_TABLE* table, uint64_t key) {
  while (table->level > 0) {
    QV_HASH_BUCKET& bucket = BucketAt(*table, UpperHash(*table, key));
    QV_HASH_TABLE* const next = SubTableOf(bucket);
    table = QV_LIKELY(next != nullptr) ? next : MakeSubTableSlow(*table, bucket);
  }
  return Own(*table);
}

// ---- Growth -----------------------------------------------------------------------------------------

void PushEntry(HashTable& leaf, QV_HASH_BUCKET& bucket, QV_HASH_ENTRY* entry) {
  entry->next = bucket.head;
  bucket.head = entry;
  if (leaf.plain) HeadsOf(leaf)[&bucket - leaf.buckets] = entry;
}

// Every chain from its head, each entry to the head of its new chain: a chain that stays together ends
// up the other way round.
void MoveChain(HashTable& leaf, QV_HASH_ENTRY* entry) {
  while (entry != nullptr) {
    QV_HASH_ENTRY* const next = entry->next;
    PushEntry(leaf, BucketAt(leaf, LeafHash(leaf, entry->key)), entry);
    entry = next;
  }
}

// The array made by growth has its locks initialised whether the table locks or not.
QV_COLD void GrowSlow(HashTable& leaf) {
  QV_HASH_BUCKET* const old = leaf.buckets;
  const int32_t oldCount = leaf.bucketCount;
  QV_HASH_BUCKET* const buckets = AllocateBuckets(leaf, oldCount * 2);
  memset(buckets, 0, size_t(oldCount) * 2 * BytesPerBucket(leaf));
  StoreRelaxed(leaf.buckets, buckets);  // whole words: a prefetch reads them without the lock
  leaf.bucketBits++;
  StoreRelaxed(leaf.bucketCount, oldCount * 2);
  for (int32_t i = 0; i < oldCount; i++) MoveChain(leaf, old[i].head);
  Release(old);
}

bool GrowthIsDue(const HashTable& leaf) {
  return leaf.count > leaf.bucketCount && leaf.bucketCount < kMostBuckets && leaf.scans == nullptr;
}

// ---- Entries ----------------------------------------------------------------------------------------

QV_HASH_ENTRY* NewEntry(const QV_HASH_TABLE& leaf, uint64_t key, void* data) {
  const bool locks = Locks(leaf);
  QV_HASH_ENTRY* const entry = static_cast<QV_HASH_ENTRY*>(Allocate(
      CategoryOf(leaf.flags), locks ? kEntryBytes : kEntryBytesWithoutLock, SlabShiftOf(leaf.flags)));
  entry->key = key;
  entry->data = data;
  if (locks) SharedInitialize(entry->lock, 0);
  return entry;
}

QV_INLINE QV_HASH_ENTRY* Find(const QV_HASH_TABLE& leaf, const QV_HASH_BUCKET& bucket, uint64_t key) {
  QV_HASH_ENTRY* entry = bucket.head;
  if (QV_LIKELY(!ComparesByCall(leaf))) return FindPlain(leaf, entry, key);
  while (entry != nullptr && leaf.compareKeys(entry->key, key) == 0) entry = entry->next;
  return entry;
}

QV_INLINE QV_HASH_ENTRY** FindLink(const QV_HASH_TABLE& leaf, QV_HASH_BUCKET& bucket, uint64_t key) {
  if (QV_LIKELY(!ComparesByCall(leaf))) return FindPlainLink(bucket, key);
  QV_HASH_ENTRY** link = &bucket.head;
  while (*link != nullptr && leaf.compareKeys((*link)->key, key) == 0) link = &(*link)->next;
  return link;
}

QV_INLINE void* DataOf(const QV_HASH_ENTRY* entry) { return entry != nullptr ? entry->data : nullptr; }

// An entry pushed onto the chain whose head a scan was about to look at comes before that scan.
QV_COLD void PassScansSlow(HashTable& leaf, const QV_HASH_BUCKET& bucket, QV_HASH_ENTRY* entry) {
  for (HashScan* scan = leaf.scans; scan != nullptr; scan = scan->outer) {
    if (scan->link == &bucket.head) scan->link = &entry->next;
  }
}

QV_COLD void LeaveScansSlow(HashTable& leaf, QV_HASH_ENTRY** link, const QV_HASH_ENTRY* entry) {
  for (HashScan* scan = leaf.scans; scan != nullptr; scan = scan->outer) {
    if (scan->link == &entry->next) scan->link = link;
    if (scan->entry == entry) scan->entry = nullptr;
  }
}

// ---- Operations of a leaf that locks. The caller's id is asked for once and serves all four steps. ---

// A locked instruction waits for the loads before it, but not for prefetches: the bucket comes in while
// the table is being locked, the first entry while the bucket is. Both words may be out of date by the
// time they are used, or of two different arrays; a prefetch does not mind. The table's lock is asked for
// first, and to be written: where readers of two processors meet, one trip of its line then does for
// finding out what the word is and for changing it.
QV_INLINE void PrefetchLocks(const QV_HASH_TABLE& leaf, uint64_t key) {
  PrefetchForWrite(&leaf.lock);
  if (leaf.hashFunctions[0] != HashByKey) return;
  const QV_HASH_BUCKET* const buckets = LoadRelaxed(leaf.buckets);
  const QV_HASH_BUCKET* const bucket = buckets + (key & uint64_t(LoadRelaxed(leaf.bucketCount) - 1));
  PrefetchForWrite(&bucket->lock);
  __builtin_prefetch(&bucket->head);
}
// Where chunks of the allocator begin, the link lies on one line, the key and the data on the next. By
// number: the chain may be empty, and prefetching near 0 does no harm.
QV_INLINE void PrefetchEntry(const QV_HASH_BUCKET& bucket) {
  const uintptr_t entry = reinterpret_cast<uintptr_t>(LoadRelaxed(bucket.head));
  __builtin_prefetch(reinterpret_cast<const void*>(entry));
  __builtin_prefetch(reinterpret_cast<const void*>(entry + offsetof(QV_HASH_ENTRY, key)));
}

void* LookupLocking(QV_HASH_TABLE& leaf, uint64_t key) {
  void* data = nullptr;
  PrefetchLocks(leaf, key);
  SharedAcquire(leaf.lock);
  if (QV_LIKELY(LoadRelaxed(leaf.count) > 0)) {
    QV_HASH_BUCKET& bucket = BucketAt(leaf, LeafHash(leaf, key));
    PrefetchEntry(bucket);
    SharedAcquire(bucket.lock);
    data = DataOf(Find(leaf, bucket, key));
    SharedRelease(bucket.lock);
  }
  SharedRelease(leaf.lock);
  return data;
}

__attribute__((noinline)) void* Lookup(QV_HASH_TABLE* table, uint64_t key) {
  QV_HASH_TABLE* const leaf = LeafFor(table, key);
  if (QV_UNLIKELY(leaf == nullptr)) return nullptr;
  if (Locks(*leaf)) return LookupLocking(*leaf, key);
  if (leaf->count <= 0) return nullptr;
  return DataOf(Find(*leaf, BucketAt(*leaf, LeafHash(*leaf, key)), key));
}

int32_t CallAcquire(QV_HASH_ACQUIRE_DATA acquire, void* data) {
  return acquire != nullptr ? acquire(data) : 1;
}

// `out` gets the data under the same locks as acquire: with them goes the right to keep the entry.
int32_t AcquireItem(const QV_HASH_ENTRY* entry, QV_HASH_ACQUIRE_DATA acquire, void** out) {
  if (entry == nullptr) return 1;
  void* const data = entry->data;
  const int32_t result = CallAcquire(acquire, data);
  if (out != nullptr) *out = data;
  return result;
}

int32_t AcquireItemLocking(QV_HASH_TABLE& leaf, uint64_t key, QV_HASH_ACQUIRE_DATA acquire,
                           void** out) {
  int32_t result = 1;
  PrefetchLocks(leaf, key);
  SharedAcquire(leaf.lock);
  if (LoadRelaxed(leaf.count) > 0) {
    QV_HASH_BUCKET& bucket = BucketAt(leaf, LeafHash(leaf, key));
    PrefetchEntry(bucket);
    SharedAcquire(bucket.lock);
    result = AcquireItem(Find(leaf, bucket, key), acquire, out);
    SharedRelease(bucket.lock);
  }
  SharedRelease(leaf.lock);
  return result;
}

// True if the key is there; the search that lets most duplicates go by without the exclusive lock.
bool FindForInsertion(QV_HASH_TABLE& leaf, uint64_t key, uint32_t me, void*& data) {
  PrefetchLocks(leaf, key);
  SharedAcquire(leaf.lock);
  QV_HASH_BUCKET& bucket = BucketAt(leaf, LeafHash(leaf, key));
  PrefetchEntry(bucket);
  ExclusiveAcquireAs(bucket.lock, me);
  const QV_HASH_ENTRY* const entry = Find(leaf, bucket, key);
  if (entry != nullptr) data = entry->data;
  ExclusiveRelease(bucket.lock);
  SharedRelease(leaf.lock);
  return entry != nullptr;
}

void* InsertLocking(HashTable& leaf, uint64_t key, void* data) {
  const uint32_t me = SelfId();
  if (FindForInsertion(leaf, key, me, data)) return data;
  ExclusiveAcquireAs(leaf.lock, me);
  // Another thread may have inserted the key meanwhile, or grown the leaf.
  const QV_HASH_ENTRY* const entry = Find(leaf, BucketAt(leaf, LeafHash(leaf, key)), key);
  if (entry == nullptr) {
    AddEntry(leaf, key, data);
  } else {
    data = entry->data;
  }
  ExclusiveRelease(leaf.lock);
  return data;
}

bool RemoveFromBucketLocking(HashTable& leaf, uint64_t key, uint32_t me, void*& data) {
  PrefetchLocks(leaf, key);
  SharedAcquire(leaf.lock);
  QV_HASH_BUCKET& bucket = BucketAt(leaf, LeafHash(leaf, key));
  PrefetchEntry(bucket);
  ExclusiveAcquireAs(bucket.lock, me);
  QV_HASH_ENTRY** const link = FindLink(leaf, bucket, key);
  const bool found = *link != nullptr;
  if (found) data = RemoveEntry(leaf, link);
  ExclusiveRelease(bucket.lock);
  SharedRelease(leaf.lock);
  return found;
}

void* RemoveLocking(HashTable& leaf, uint64_t key) {
  const uint32_t me = SelfId();
  void* data = nullptr;
  if (!RemoveFromBucketLocking(leaf, key, me, data)) return nullptr;
  ExclusiveAcquireAs(leaf.lock, me);
  CountEntryOut(leaf);
  ExclusiveRelease(leaf.lock);
  return data;
}

}  // namespace

constinit const QV_HASH_FUNCTION qvShiftXorHashFunctions[kShiftXorFunctions] = {
    HashByShiftXor<1>,  HashByShiftXor<2>,  HashByShiftXor<3>,  HashByShiftXor<4>,  HashByShiftXor<5>,
    HashByShiftXor<6>,  HashByShiftXor<7>,  HashByShiftXor<8>,  HashByShiftXor<9>,  HashByShiftXor<10>,
    HashByShiftXor<11>, HashByShiftXor<12>, HashByShiftXor<13>, HashByShiftXor<14>, HashByShiftXor<15>,
    HashByShiftXor<16>, HashByShiftXor<17>, HashByShiftXor<18>, HashByShiftXor<19>, HashByShiftXor<20>,
    HashByShiftXor<21>, HashByShiftXor<22>, HashByShiftXor<23>, HashByShiftXor<24>, HashByShiftXor<25>,
    HashByShiftXor<26>, HashByShiftXor<27>};

void CheckContainerMemory(const char* container, uint32_t category, uint32_t slabSizeShift) {
  if (category >= QV_MEMORY_CATEGORIES) {
    LogFatalToolDefect("A %s was to be created in memory category %u; categories run from 0 to 63",
                       container, category);
  }
  if (slabSizeShift > 15) {
    LogFatalToolDefect("A %s was to be created with slab size shift %u; shifts run from 0 to 15",
                       container, slabSizeShift);
  }
}

HashTable* CreateHashTable(uint32_t flags, const QV_HASH_FUNCTION* hashFunctions, int32_t levels,
                           QV_HASH_COMPARE_KEYS compareKeys, QV_HASH_RELEASE_KEY releaseKey) {
  HashTable* const table = static_cast<HashTable*>(Allocate(CategoryOf(flags), sizeof(HashTable)));
  table->flags = flags;
  table->compareKeys = compareKeys;
  table->releaseKey = releaseKey;
  FillHashFunctions(*table, hashFunctions, levels);
  if (Locks(*table)) SharedInitialize(table->lock, 0);
  table->bucketBits = FirstBucketBits(flags);
  table->bucketCount = 1 << table->bucketBits;
  table->level = levels - 1;
  table->count = 0;
  table->scans = nullptr;
  table->plain = table->level == 0 && !Locks(*table) && !ComparesByCall(*table) &&
                 table->hashFunctions[0] == HashByKey;
  table->buckets = AllocateBuckets(*table, table->bucketCount);
  InitializeBuckets(*table);
  return table;
}

void AddEntry(HashTable& leaf, uint64_t key, void* data) {
  if (QV_UNLIKELY(GrowthIsDue(leaf))) GrowSlow(leaf);
  // The allocation may run a collector, and that may use the table: the bucket is found afterwards.
  QV_HASH_ENTRY* const entry = NewEntry(leaf, key, data);
  QV_HASH_BUCKET& bucket = BucketAt(leaf, LeafHash(leaf, key));
  if (QV_UNLIKELY(leaf.scans != nullptr)) PassScansSlow(leaf, bucket, entry);
  PushEntry(leaf, bucket, entry);
  StoreRelaxed(leaf.count, leaf.count + 1);
}

void UnlinkEntry(HashTable& leaf, QV_HASH_ENTRY** link) {
  QV_HASH_ENTRY* const entry = *link;
  StoreRelaxed(*link, entry->next);  // a prefetch reads it without the lock of the bucket
  if (leaf.plain) CopyHead(leaf, link);
  if (QV_UNLIKELY(leaf.scans != nullptr)) LeaveScansSlow(leaf, link, entry);
}

void* RemoveEntry(HashTable& leaf, QV_HASH_ENTRY** link) {
  QV_HASH_ENTRY* const entry = *link;
  void* const data = entry->data;
  UnlinkEntry(leaf, link);
  ReleaseKeyOf(leaf, *entry);
  Release(entry);
  return data;
}

}  // namespace qv

QV_HASH_TABLE* __QvCreateHashTable(uint32_t flags, const QV_HASH_FUNCTION* hashFunctions,
                                   int32_t levels, QV_HASH_COMPARE_KEYS compareKeys,
                                   QV_HASH_RELEASE_KEY releaseKey, uint32_t category,
                                   uint32_t slabSizeShift) {
  qv::CheckContainerMemory("hash table", category, slabSizeShift);
  levels = levels < 1 ? 1 : levels > QV_HASH_LEVELS ? QV_HASH_LEVELS : levels;
  return qv::CreateHashTable(qv::ContainerFlags(flags, category, slabSizeShift), hashFunctions, levels,
                             compareKeys, releaseKey);
}

void* __QvLookupHashTable(QV_HASH_TABLE* table, uint64_t key) {
  if (QV_LIKELY(table != nullptr && qv::Own(*table).plain)) {
    return qv::DataOf(qv::FindPlain(*table, qv::HeadFor(qv::Own(*table), key), key));
  }
  return qv::Lookup(table, key);
}

int32_t __QvLookupAndAcquireHashTableDataItem(QV_HASH_TABLE* table, uint64_t key,
                                              QV_HASH_ACQUIRE_DATA acquire, void** out) {
  if (out != nullptr) *out = nullptr;
  QV_HASH_TABLE* const leaf = qv::LeafFor(table, key);
  if (leaf == nullptr) return 1;
  if (qv::Locks(*leaf)) return qv::AcquireItemLocking(*leaf, key, acquire, out);
  if (leaf->count <= 0) return 1;
  QV_HASH_BUCKET& bucket = qv::BucketAt(*leaf, qv::LeafHash(*leaf, key));
  return qv::AcquireItem(qv::Find(*leaf, bucket, key), acquire, out);
}

void* __QvInsertHashTableEntry(QV_HASH_TABLE* table, uint64_t key, void* data) {
  if (QV_UNLIKELY(table == nullptr)) return nullptr;
  qv::HashTable& leaf = qv::LeafForInsertion(table, key);
  if (qv::Locks(leaf)) return qv::InsertLocking(leaf, key, data);
  const QV_HASH_ENTRY* const entry = qv::Find(leaf, qv::BucketAt(leaf, qv::LeafHash(leaf, key)), key);
  if (entry != nullptr) return entry->data;
  qv::AddEntry(leaf, key, data);
  return data;
}

void* __QvRemoveHashTableEntry(QV_HASH_TABLE* table, uint64_t key) {
  QV_HASH_TABLE* const found = qv::LeafFor(table, key);
  if (QV_UNLIKELY(found == nullptr)) return nullptr;
  qv::HashTable& leaf = qv::Own(*found);
  if (qv::Locks(leaf)) return qv::RemoveLocking(leaf, key);
  QV_HASH_ENTRY** const link = qv::FindLink(leaf, qv::BucketAt(leaf, qv::LeafHash(leaf, key)), key);
  if (*link == nullptr) return nullptr;
  void* const data = qv::RemoveEntry(leaf, link);  // the key is released before the count changes
  qv::CountEntryOut(leaf);
  return data;
}

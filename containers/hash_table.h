// Hash table, inside view: what the table's own operations and the range table share.
//
//   top (level 2)          sub-table (level 1)       leaf (level 0)
//   buckets[i].head -----> buckets[j].head --------> buckets[k].head -> entry -> entry -> null
//
//   bucket  | lock 0 | head 32 |                     entry  | next 0 | key 8 | data 16 | lock 24 |
//                                                    without locks an entry ends at 24: with the
//                                                    allocator's header word 32 bytes instead of 64
//
// Invariants (of tables that lock; the others have one thread at a time)
//  (1) The record of an upper table is constant but for `count`, which is counted up atomically. A head
//      there goes from null to 1 to a sub-table, by compare-exchange, and never back. The exchange that
//      publishes a sub-table pairs with the acquiring load of those who go down.
//  (2) A leaf's array and bucketCount change under its exclusive lock; so does `count`, which a scan
//      may read without.
//  (3) A leaf's chains change under its exclusive lock, or under its shared lock and the exclusive lock
//      of the bucket. Whoever reads a chain holds one of the two locks against that.
//  (4) `scans` is written by the thread that scans, which holds the leaf exclusively. Whoever finds it
//      non-null under one of the locks of (3) therefore runs inside a callback of that scan.
#pragma once

#include "runtime/shared_lock.h"

namespace qv {

// A scan under way in one leaf, on the scanner's stack. Its callbacks may insert and remove: an entry
// that leaves takes itself out of all scans of its leaf, and a leaf that is being scanned does not grow.
struct HashScan {
  QV_HASH_ENTRY** link;  // what names the entry under the scan, or its successor once it is gone
  QV_HASH_ENTRY* entry;  // null once a callback has removed it
  HashScan* outer;       // of the same leaf, which a callback of it is scanning again
};

// What is behind each QV_HASH_TABLE.
struct HashTable : QV_HASH_TABLE {
  HashScan* scans;
  bool plain;  // a leaf that takes no locks, hashes by the key and compares integers
};

// A bucket has room for a lock, whether the table locks or not: where look-ups are short, the heads of the
// chains have most of the cache to fetch. So the array of a plain leaf is followed by the heads alone.
QV_INLINE QV_HASH_ENTRY** HeadsOf(const QV_HASH_TABLE& leaf) {
  return reinterpret_cast<QV_HASH_ENTRY**>(leaf.buckets + leaf.bucketCount);
}
QV_INLINE uint32_t BytesPerBucket(const HashTable& table) {
  return uint32_t{sizeof(QV_HASH_BUCKET)} + (table.plain ? uint32_t{sizeof(QV_HASH_ENTRY*)} : 0);
}
QV_INLINE QV_HASH_ENTRY* HeadFor(const HashTable& plainLeaf, uint64_t hash) {
  return HeadsOf(plainLeaf)[hash & uint64_t(plainLeaf.bucketCount - 1)];
}
// After a change of the link: it may be a head.
QV_INLINE void CopyHead(const HashTable& plainLeaf, QV_HASH_ENTRY* const* link) {
  const uint64_t offset =
      reinterpret_cast<uint64_t>(link) - reinterpret_cast<uint64_t>(plainLeaf.buckets);
  const uint64_t bucket = offset / sizeof(QV_HASH_BUCKET);
  if (bucket < uint64_t(plainLeaf.bucketCount)) HeadsOf(plainLeaf)[bucket] = *link;
}

QV_INLINE HashTable& Own(QV_HASH_TABLE& table) { return static_cast<HashTable&>(table); }

inline constexpr uint32_t kHashKept =
    ~(0xFFu << QV_HASH_TABLE_CATEGORY_SHIFT | 0xFu << QV_HASH_TABLE_SLAB_SIZE_SHIFT);

// The flags word of both tables: the creator's, with the category and the slab shift put in.
QV_INLINE uint32_t ContainerFlags(uint32_t flags, uint32_t category, uint32_t slabSizeShift) {
  return (flags & kHashKept) | (category & 0xFF) << QV_HASH_TABLE_CATEGORY_SHIFT |
         (slabSizeShift & 0xF) << QV_HASH_TABLE_SLAB_SIZE_SHIFT;
}
QV_INLINE uint32_t CategoryOf(uint32_t flags) { return flags >> QV_HASH_TABLE_CATEGORY_SHIFT & 0xFF; }
QV_INLINE uint32_t SlabShiftOf(uint32_t flags) { return flags >> QV_HASH_TABLE_SLAB_SIZE_SHIFT & 0xF; }

// Ends the process with a message if either is outside what the allocator takes: the flags word would
// cut it off and charge another category.
void CheckContainerMemory(const char* container, uint32_t category, uint32_t slabSizeShift);

QV_INLINE bool Locks(const QV_HASH_TABLE& table) {
  return (table.flags & QV_HASH_TABLE_NO_LOCKING) == 0;
}

// ---- Hashing ----------------------------------------------------------------------------------------

// The defaults of slots 0, 1 and 2. Known by address, so that a table that has them makes no call.
uint64_t HashByKey(const QV_HASH_TABLE* table, uint64_t key);
uint64_t HashByOneShift(const QV_HASH_TABLE* table, uint64_t key);
uint64_t HashByThreeShifts(const QV_HASH_TABLE* table, uint64_t key);

// Member k, at index k - 1.
inline constexpr uint32_t kShiftXorFunctions = 27;
extern const QV_HASH_FUNCTION qvShiftXorHashFunctions[kShiftXorFunctions];

QV_INLINE uint64_t ShiftXor(uint64_t key, uint32_t k) {
  const uint64_t s = uint64_t(int64_t(key) >> k);
  return s ^ (s >> k);
}

QV_INLINE uint64_t LeafHash(const QV_HASH_TABLE& leaf, uint64_t key) {
  const QV_HASH_FUNCTION function = leaf.hashFunctions[0];
  return QV_LIKELY(function == HashByKey) ? key : function(&leaf, key);
}

QV_INLINE uint64_t UpperHash(const QV_HASH_TABLE& upper, uint64_t key) {
  const QV_HASH_FUNCTION function = upper.hashFunctions[upper.level];
  if (QV_LIKELY(function == HashByOneShift)) return key >> (upper.bucketBits & 63);
  if (QV_LIKELY(function == HashByThreeShifts)) return key >> (3 * upper.bucketBits & 63);
  return function(&upper, key);
}

QV_INLINE QV_HASH_BUCKET& BucketAt(const QV_HASH_TABLE& table, uint64_t hash) {
  return table.buckets[hash & uint64_t(table.bucketCount - 1)];
}

// ---- Going down -------------------------------------------------------------------------------------

inline constexpr uint64_t kBeingMade = 1;  // a head in whose bucket a thread is making the sub-table

QV_INLINE HashTable* SubTableOf(const QV_HASH_BUCKET& bucket) {
  QV_HASH_ENTRY* const head = LoadAcquire(bucket.head);
  return reinterpret_cast<uint64_t>(head) <= kBeingMade ? nullptr : reinterpret_cast<HashTable*>(head);
}

// The leaf for the key; null if it has not been made.
QV_INLINE QV_HASH_TABLE* LeafFor(QV_HASH_TABLE* table, uint64_t key) {
  while (table != nullptr && table->level > 0) {
    table = SubTableOf(BucketAt(*table, UpperHash(*table, key)));
  }
  return table;
}

// `one` if the word is 0, else `other`; by a conditional move, which compilers are not to be talked into.
QV_INLINE QV_HASH_ENTRY* IfZero(uint64_t word, QV_HASH_ENTRY* one, QV_HASH_ENTRY* other) {
  __asm__("test %1, %1\n\tcmovz %2, %0" : "+r"(other) : "r"(word), "r"(one) : "cc");
  return other;
}

// ---- Chains. The caller holds what (3) asks for. -----------------------------------------------------

// Which of its first entries ends the search of a chain cannot be predicted. While the table is in the
// cache, a wrong guess costs more than an entry too many: two a step, the right one by arithmetic. In a
// larger one the entry too many is a miss of the cache.
inline constexpr int32_t kMostCachedBuckets = 1 << 17;

QV_INLINE QV_HASH_ENTRY* FindPlainCached(QV_HASH_ENTRY* entry, uint64_t key) {
  while (entry != nullptr) {
    QV_HASH_ENTRY* const next = entry->next;
    QV_HASH_ENTRY* const second = IfZero(reinterpret_cast<uint64_t>(next), entry, next);
    QV_HASH_ENTRY* const found = IfZero(entry->key ^ key, entry, second);
    if (QV_LIKELY(found->key == key)) return found;
    entry = second->next;
  }
  return nullptr;
}

QV_INLINE QV_HASH_ENTRY* FindPlain(const QV_HASH_TABLE& leaf, QV_HASH_ENTRY* entry, uint64_t key) {
  if (QV_LIKELY(leaf.bucketCount <= kMostCachedBuckets)) return FindPlainCached(entry, key);
  while (entry != nullptr && entry->key != key) entry = entry->next;
  return entry;
}

// The link that names the entry with the key, or the null link at the end of its chain.
QV_INLINE QV_HASH_ENTRY** FindPlainLink(QV_HASH_BUCKET& bucket, uint64_t key) {
  QV_HASH_ENTRY** link = &bucket.head;
  while (*link != nullptr && (*link)->key != key) link = &(*link)->next;
  return link;
}

// Calls releaseKey for an entry that leaves, where keys are custom.
QV_INLINE void ReleaseKeyOf(const QV_HASH_TABLE& leaf, const QV_HASH_ENTRY& entry) {
  if (QV_LIKELY((leaf.flags & QV_HASH_TABLE_CUSTOM_KEYS) == 0) || leaf.releaseKey == nullptr) return;
  leaf.releaseKey(entry.key);
}

QV_INLINE void CountEntryOut(QV_HASH_TABLE& leaf) { StoreRelaxed(leaf.count, leaf.count - 1); }

// __QvCreateHashTable for a caller whose arguments are good.
HashTable* CreateHashTable(uint32_t flags, const QV_HASH_FUNCTION* hashFunctions, int32_t levels,
                           QV_HASH_COMPARE_KEYS compareKeys, QV_HASH_RELEASE_KEY releaseKey);
void DestroyHashTable(HashTable& table, QV_HASH_FREE_DATA freeData);
// Adds an entry that is not there yet, growing the leaf first if it is due. The exclusive lock of a leaf
// that locks is held.
void AddEntry(HashTable& leaf, uint64_t key, void* data);
// Takes an entry out of its chain and of all scans. It is still there, and still counted.
void UnlinkEntry(HashTable& leaf, QV_HASH_ENTRY** link);

// Takes an entry out and frees it, key released; its data.
void* RemoveEntry(HashTable& leaf, QV_HASH_ENTRY** link);

template <class Use>
QV_INLINE void ForEachEntry(const QV_HASH_TABLE& leaf, Use use) {
  for (int32_t i = 0; i < leaf.bucketCount; i++) {
    for (QV_HASH_ENTRY* entry = leaf.buckets[i].head; entry != nullptr; entry = entry->next)
      use(*entry);
  }
}

// Walks the table: null if all is well, else what is wrong. No other thread is using it.
const char* ValidateHashTable(const QV_HASH_TABLE& table);

}  // namespace qv

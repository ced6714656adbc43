// Hash table: what walks a whole table: the scans, the destruction, the validator.
// Design: containers/hash_table.h.
#include "containers/hash_table.h"
#include "memory/allocate.h"

namespace qv {
namespace {

// ---- Scans ------------------------------------------------------------------------------------------

// Which entries a scan removes.
struct Choice {
  QV_HASH_VISIT visit;  // null: every entry is offered for release
  uint64_t context;
  bool removeMatches;
  QV_HASH_RELEASE_DATA release;
};

// Runs the callbacks for the entry under the scan. Any of them may have removed it in the end.
bool Chosen(const Choice& choice, const HashScan& scan) {
  void* const data = scan.entry->data;
  if (choice.visit != nullptr) {
    const bool matches = choice.visit(data, choice.context) != 0;
    if (!matches || !choice.removeMatches || scan.entry == nullptr) return false;
  }
  return choice.release == nullptr || choice.release(data) != 0;
}

uint32_t RemoveScanned(HashTable& leaf, HashScan& scan) {
  QV_HASH_ENTRY* const entry = scan.entry;
  ReleaseKeyOf(leaf, *entry);
  if (scan.entry == nullptr) return 0;
  UnlinkEntry(leaf, scan.link);
  CountEntryOut(leaf);
  Release(entry);
  return 1;
}

uint32_t ScanChain(HashTable& leaf, QV_HASH_BUCKET& bucket, HashScan& scan, const Choice& choice) {
  const bool locks = Locks(leaf);
  uint32_t removed = 0;
  scan.link = &bucket.head;
  while (QV_HASH_ENTRY* const entry = *scan.link) {
    if (locks && !ExclusiveTryOnce(entry->lock)) {
      scan.link = &entry->next;
      continue;
    }
    scan.entry = entry;
    const bool goes = Chosen(choice, scan);
    if (scan.entry == nullptr) continue;  // a callback removed it: the link names its successor
    if (goes) {
      removed += RemoveScanned(leaf, scan);
      continue;
    }
    if (locks) ExclusiveRelease(entry->lock);
    scan.link = &entry->next;
  }
  return removed;
}

uint32_t ScanBuckets(HashTable& leaf, const Choice& choice) {
  HashScan scan = {nullptr, nullptr, leaf.scans};
  uint32_t removed = 0;
  leaf.scans = &scan;
  for (int32_t i = 0; i < leaf.bucketCount; i++) {
    removed += ScanChain(leaf, leaf.buckets[i], scan, choice);
  }
  leaf.scans = scan.outer;
  return removed;
}

uint32_t ScanLeaf(HashTable& leaf, const Choice& choice, uint32_t& count) {
  count += uint32_t(LoadRelaxed(leaf.count));
  if (!Locks(leaf)) return ScanBuckets(leaf, choice);
  if (ExclusiveIsMine(leaf.lock) || !ExclusiveTryOnce(leaf.lock)) return 0;
  const uint32_t removed = ScanBuckets(leaf, choice);
  ExclusiveRelease(leaf.lock);
  return removed;
}

uint32_t ScanTable(HashTable& table, const Choice& choice, uint32_t& count) {
  if (table.level <= 0) return ScanLeaf(table, choice, count);
  uint32_t removed = 0;
  for (int32_t i = 0; i < table.bucketCount; i++) {
    if (HashTable* const subTable = SubTableOf(table.buckets[i])) {
      removed += ScanTable(*subTable, choice, count);
    }
  }
  return removed;
}

uint32_t Scan(QV_HASH_TABLE* table, const Choice& choice, uint32_t* outCount) {
  uint32_t count = 0;
  const uint32_t removed = table != nullptr ? ScanTable(Own(*table), choice, count) : 0;
  if (outCount != nullptr) *outCount = count;
  return removed;
}

int32_t VisitNothing(void*, uint64_t) { return 0; }

// ---- Destruction ------------------------------------------------------------------------------------

// Each entry leaves its chain after its callbacks and before it is freed: a callback that reads the table
// still finds what is being destroyed, and never a freed entry.
void DestroyChain(const HashTable& leaf, QV_HASH_BUCKET& bucket, QV_HASH_FREE_DATA freeData) {
  while (QV_HASH_ENTRY* const entry = bucket.head) {
    if (freeData != nullptr) freeData(entry->data);
    ReleaseKeyOf(leaf, *entry);
    bucket.head = entry->next;
    if (leaf.plain) CopyHead(leaf, &bucket.head);
    Release(entry);
  }
}

}  // namespace

void DestroyHashTable(HashTable& table, QV_HASH_FREE_DATA freeData) {
  for (int32_t i = 0; i < table.bucketCount; i++) {
    QV_HASH_BUCKET& bucket = table.buckets[i];
    if (table.level <= 0) {
      DestroyChain(table, bucket, freeData);
    } else if (HashTable* const subTable = SubTableOf(bucket)) {
      DestroyHashTable(*subTable, freeData);
    }
  }
  Release(table.buckets);
  Release(&table);
}

namespace {

// ---- Validation -------------------------------------------------------------------------------------

bool IsFree(const QV_SHARED_EXCLUSIVE_LOCK& lock) {
  return lock.state == 0 && lock.readerCount == 0 && lock.owner == 0 && lock.recursionCount == 0;
}

bool HasTwin(const QV_HASH_ENTRY& entry) {
  const QV_HASH_ENTRY* later = entry.next;
  while (later != nullptr && later->key != entry.key) later = later->next;
  return later != nullptr;
}

const char* ValidateChain(const QV_HASH_TABLE& leaf, const QV_HASH_BUCKET& bucket, int32_t& count) {
  for (const QV_HASH_ENTRY* entry = bucket.head; entry != nullptr; entry = entry->next) {
    if (++count > leaf.count) return "more entries than the count, or a chain is a loop";
    if (&BucketAt(leaf, LeafHash(leaf, entry->key)) != &bucket) return "an entry is in another bucket";
    if ((leaf.flags & QV_HASH_TABLE_CUSTOM_KEYS) == 0 && HasTwin(*entry)) return "a key is there twice";
    if (Locks(leaf) && !IsFree(entry->lock)) return "an entry's lock is held";
  }
  return nullptr;
}

const char* ValidateSubTable(const QV_HASH_TABLE& table, const QV_HASH_BUCKET& bucket, int32_t& count) {
  if (bucket.head == nullptr) return nullptr;
  const HashTable* const subTable = SubTableOf(bucket);
  if (subTable == nullptr) return "a sub-table is still being made";
  count++;
  if (subTable->level != table.level - 1) return "a sub-table is of the wrong level";
  if (subTable->flags != table.flags) return "a sub-table has other flags";
  return ValidateHashTable(*subTable);
}

const char* ValidateBucket(const HashTable& table, const QV_HASH_BUCKET& bucket, int32_t& count) {
  if (table.plain && HeadsOf(table)[&bucket - table.buckets] != bucket.head)
    return "a head is not copied";
  if (Locks(table) && !IsFree(bucket.lock)) return "a bucket's lock is held";
  return table.level > 0 ? ValidateSubTable(table, bucket, count) : ValidateChain(table, bucket, count);
}

}  // namespace

const char* ValidateHashTable(const QV_HASH_TABLE& ofTool) {
  const HashTable& table = static_cast<const HashTable&>(ofTool);
  if (Locks(table) && !IsFree(table.lock)) return "a table's lock is held";
  if (table.scans != nullptr) return "a scan has left its mark behind";
  if (table.bucketCount != 1 << table.bucketBits || table.bucketBits < 8) return "bucket count";
  int32_t count = 0;
  for (int32_t i = 0; i < table.bucketCount; i++) {
    if (const char* const wrong = ValidateBucket(table, table.buckets[i], count)) return wrong;
  }
  return count == table.count ? nullptr : "the count is not the number of entries";
}

}  // namespace qv

uint32_t __QvScanHashTable(QV_HASH_TABLE* table, QV_HASH_VISIT visit, uint64_t context,
                           uint32_t removeMatches, QV_HASH_RELEASE_DATA release, uint32_t* outCount) {
  const QV_HASH_VISIT visitor = visit != nullptr ? visit : qv::VisitNothing;
  return qv::Scan(table, {visitor, context, removeMatches != 0, release}, outCount);
}

uint32_t __QvScanAndEmptyHashTable(QV_HASH_TABLE* table, QV_HASH_RELEASE_DATA release,
                                   uint32_t* outCount) {
  return qv::Scan(table, {nullptr, 0, true, release}, outCount);
}

void __QvDestroyHashTable(QV_HASH_TABLE* table, QV_HASH_FREE_DATA freeData) {
  if (table != nullptr) qv::DestroyHashTable(qv::Own(*table), freeData);
}

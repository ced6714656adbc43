// Live blocks that were looked at. Design: collectors/qvheap/blocks.h.
#include "collectors/qvheap/blocks.h"

#include <dlfcn.h>
#include <string.h>

#include "collectors/qvheap/heap.h"
#include "collectors/qvheap/room.h"

namespace qvheap {
namespace {

constexpr uint64_t kInCodesFromBytes = 144;
// From so many bytes on a block has eight codes to itself, or four: of libc's, which puts blocks of 32,
// 48, 64 ... bytes beside one another with 8 bytes of its own in each, or of any allocator's.
constexpr uint64_t kLibcsEightCodes = 41, kAnyEightCodes = 57;
constexpr uint64_t kLibcsFourCodes = 0, kAnyFourCodes = 25;
constexpr uint32_t kInShortCodeToSite = (1 << 16) - 1;
constexpr uint32_t kRecordsPerChunk = 1 << 16;
constexpr uint32_t kChunks = 1 << 8;  // numbers have 24 bits
constexpr uint32_t kLargestSite = (1 << 24) - 1;
constexpr uint32_t kBatch = 32;
constexpr uint32_t kSlabsPerEntry = 4;  // entry, record, a leaf with its buckets

struct __attribute__((packed, may_alias)) CodeOfRecord {
  uint32_t markAndNumber;  // the mark is the lowest byte
};

struct __attribute__((packed, may_alias)) ShortCodeInPlace {
  uint8_t mark;
  uint8_t bytes;
  uint16_t site;
  uint32_t born;
};
static_assert((sizeof(ShortCodeInPlace) - 1) << kGranuleShift < kAnyEightCodes);
static_assert((kLibcsEightCodes + 8 + 15) / 16 * 16 >= sizeof(ShortCodeInPlace) << kGranuleShift);
static_assert(kInCodesFromBytes <= 256);

struct __attribute__((packed, may_alias)) CodeInPlace {
  uint8_t mark;
  uint32_t site;
  uint32_t born;
  uint64_t bytes;
};
static_assert(sizeof(CodeInPlace) <= sizeof(Leaf::overrun) + 1);
static_assert(sizeof(CodeInPlace) << kGranuleShift <= kInCodesFromBytes);

constinit uint64_t g_eightCodesFrom = kAnyEightCodes;
constinit uint64_t g_fourCodesFrom = kAnyFourCodes;

// ---- Records ---------------------------------------------------------------------------------------

// A record in use is site:24 | bytes:8 | born:32, from the top; a free one the number of the next, or 0.
// Number 0 is no record.
constinit uint64_t* g_chunks[kChunks] = {};
constinit QV_SPIN_LOCK g_recordLock = {};
constinit uint32_t g_usedNumbers = 1;  // the lock guards these
constinit uint32_t g_freeNumber = 0;

uint64_t& RecordAt(uint32_t number) {
  return __atomic_load_n(&g_chunks[number / kRecordsPerChunk],
                         __ATOMIC_ACQUIRE)[number % kRecordsPerChunk];
}

bool HasChunkLocked(uint32_t number) {
  if (number >= kChunks * kRecordsPerChunk) return false;
  uint64_t*& chunk = g_chunks[number / kRecordsPerChunk];
  if (chunk != nullptr) return true;
  void* const fresh = Allocate(kRoomBlocks, kRecordsPerChunk * sizeof(uint64_t));
  __atomic_store_n(&chunk, static_cast<uint64_t*>(fresh), __ATOMIC_RELEASE);
  return fresh != nullptr;
}

void PushOwn(ThreadRecord& me, uint32_t number) {
  RecordAt(number) = me.freeRecord;
  me.freeRecord = number;
  me.freeRecords++;
}

uint32_t PopOwn(ThreadRecord& me) {
  const uint32_t number = me.freeRecord;
  me.freeRecord = uint32_t(RecordAt(number));
  me.freeRecords--;
  return number;
}

// A batch of records that somebody gave back, or else of new ones.
QVHEAP_COLD bool RefillSlow(ThreadRecord& me) {
  const SignalsBlocked blocked;
  const SpinGuard guard(g_recordLock);
  for (uint32_t i = 0; i < kBatch; i++) {
    uint32_t number = g_freeNumber;
    if (number != 0) {
      g_freeNumber = uint32_t(RecordAt(number));
    } else {
      number = g_usedNumbers;
      if (!HasChunkLocked(number)) break;
      g_usedNumbers++;
    }
    PushOwn(me, number);
  }
  return me.freeRecord != 0;
}

QVHEAP_COLD void GiveBackSlow(ThreadRecord& me, uint32_t keep) {
  const SignalsBlocked blocked;
  const SpinGuard guard(g_recordLock);
  while (me.freeRecords > keep && me.freeRecord != 0) {
    const uint32_t number = PopOwn(me);
    RecordAt(number) = g_freeNumber;
    g_freeNumber = number;
  }
}

bool KeepInRecord(ThreadRecord& me, uint8_t* code, const Sight& sight) {
  if (QVHEAP_UNLIKELY(me.freeRecord == 0) && !RefillSlow(me)) return false;
  const uint32_t number = PopOwn(me);
  RecordAt(number) = uint64_t{sight.site} << 40 | sight.bytes << 32 | sight.born;
  reinterpret_cast<CodeOfRecord*>(code)->markAndNumber = number << 8 | kInRecord;
  return true;
}

Sight TakeFromRecord(ThreadRecord& me, uint8_t* code) {
  CodeOfRecord* const ofRecord = reinterpret_cast<CodeOfRecord*>(code);
  const uint32_t number = ofRecord->markAndNumber >> 8;
  ofRecord->markAndNumber = 0;
  const uint64_t record = RecordAt(number);
  PushOwn(me, number);
  if (QVHEAP_UNLIKELY(me.freeRecords > 3 * kBatch)) GiveBackSlow(me, kBatch);
  const uint64_t bytes = record >> 32 & 0xFF;
  return {uint32_t(record >> 40), uint32_t(record), bytes, ExactWeight(bytes)};
}

// ---- In the codes ----------------------------------------------------------------------------------

void KeepInCodes(uint8_t* code, const Sight& sight) {
  *reinterpret_cast<CodeInPlace*>(code) = {kInCodes, sight.site, sight.born, sight.bytes};
}

Sight TakeFromCodes(uint8_t* code) {
  CodeInPlace* const inPlace = reinterpret_cast<CodeInPlace*>(code);
  const Sight sight = {inPlace->site, inPlace->born, inPlace->bytes, ExactWeight(inPlace->bytes)};
  memset(inPlace, 0, sizeof *inPlace);
  return sight;
}

void KeepInShortCode(uint8_t* code, const Sight& sight) {
  *reinterpret_cast<ShortCodeInPlace*>(code) = {kInShortCode, uint8_t(sight.bytes),
                                                uint16_t(sight.site), sight.born};
}

Sight TakeFromShortCode(uint8_t* code) {
  ShortCodeInPlace* const inPlace = reinterpret_cast<ShortCodeInPlace*>(code);
  const Sight sight = {inPlace->site, inPlace->born, inPlace->bytes, ExactWeight(inPlace->bytes)};
  memset(inPlace, 0, sizeof *inPlace);
  return sight;
}

// ---- The table -------------------------------------------------------------------------------------

constinit QV_HASH_TABLE* g_table = nullptr;
constinit QV_HASH_TABLE* g_staleTable = nullptr;  // of the parent process
constinit uint64_t g_entries = 0;                 // atomic
constinit QV_SPIN_LOCK g_tableLock = {};          // while g_table is made

// Addresses differ in the middle: both levels take bits of a product that depend on all of them.
uint64_t HashForLeaf(const QV_HASH_TABLE*, uint64_t address) {
  return (address * 0x9E3779B97F4A7C15) >> 24;
}
// Of the 256 sub-tables that there could be, 32: each has 10 KiB from the start.
constexpr uint32_t kLeaves = 32;
uint64_t HashForUpper(const QV_HASH_TABLE*, uint64_t address) {
  return (address * 0x9E3779B97F4A7C15) >> 59;
}
static_assert(kLeaves == 1 << (64 - 59));

QVHEAP_COLD void MakeTableSlow() {
  static const QV_HASH_FUNCTION kHash[QV_HASH_LEVELS] = {HashForLeaf, HashForUpper, nullptr};
  const SpinGuard guard(g_tableLock);
  if (g_table != nullptr) return;
  __QvDestroyHashTable(g_staleTable, __QvFree);
  g_staleTable = nullptr;
  QV_HASH_TABLE* const table =
      __QvCreateHashTable(0, kHash, 2, nullptr, nullptr, LibraryCategory(kRoomBlocks), 0);
  __atomic_store_n(&g_table, table, __ATOMIC_RELEASE);
}

bool KeepInTable(const void* block, uint8_t* code, const Sight& sight) {
  const SignalsBlocked blocked;
  const Provision provision(kSlabsPerEntry, LeafGrowthBytes(Load(g_entries), kLeaves));
  if (!provision.Granted()) return false;
  if (__atomic_load_n(&g_table, __ATOMIC_ACQUIRE) == nullptr) MakeTableSlow();
  Sight* const kept = static_cast<Sight*>(__QvMalloc(LibraryCategory(kRoomBlocks), sizeof sight, 0));
  *kept = sight;
  ClearCode(code);
  __QvInsertHashTableEntry(g_table, reinterpret_cast<uint64_t>(block), kept);
  *code = kInTable;
  __atomic_fetch_add(&g_entries, 1, __ATOMIC_RELAXED);
  return true;
}

Sight TakeFromTable(const void* block, uint8_t* code) {
  const SignalsBlocked blocked;
  *code = 0;
  Sight* const kept =
      static_cast<Sight*>(__QvRemoveHashTableEntry(g_table, reinterpret_cast<uint64_t>(block)));
  if (kept == nullptr) return {};
  __atomic_fetch_sub(&g_entries, 1, __ATOMIC_RELAXED);
  const Sight sight = *kept;
  __QvFree(kept);
  return sight;
}

bool IsExact(const Sight& sight) {
  const Weight exact = ExactWeight(sight.bytes);
  return sight.weight.blocks == exact.blocks && sight.weight.bytes == exact.bytes;
}

bool MayBeInRecord(const Sight& sight) {
  return sight.site <= kLargestSite && sight.bytes >= g_fourCodesFrom;
}

}  // namespace

void InstallBlocks() {
  Dl_info allocator, library;
  if (dladdr(reinterpret_cast<void*>(g_real.malloc), &allocator) == 0) return;
  if (dladdr(reinterpret_cast<void*>(g_real.fclose), &library) == 0) return;
  if (allocator.dli_fbase != library.dli_fbase) return;
  g_eightCodesFrom = kLibcsEightCodes;
  g_fourCodesFrom = kLibcsFourCodes;
}

bool KeepSight(ThreadRecord& me, const void* block, const Sight& sight) {
  uint8_t* const code = FindCode(block);
  if (!IsExact(sight)) return KeepInTable(block, code, sight);
  if (sight.bytes >= kInCodesFromBytes) {
    KeepInCodes(code, sight);
    return true;
  }
  if (sight.bytes >= g_eightCodesFrom && sight.site <= kInShortCodeToSite) {
    KeepInShortCode(code, sight);
    return true;
  }
  if (MayBeInRecord(sight) && KeepInRecord(me, code, sight)) return true;
  return KeepInTable(block, code, sight);
}

Sight TakeSight(ThreadRecord& me, const void* block) {
  uint8_t* const code = FindCode(block);
  if (*code == kInRecord) return TakeFromRecord(me, code);
  if (*code == kInShortCode) return TakeFromShortCode(code);
  if (*code == kInCodes) return TakeFromCodes(code);
  return TakeFromTable(block, code);
}

void GiveRecordsBack(ThreadRecord& me) {
  if (me.freeRecord != 0) GiveBackSlow(me, 0);
}

// The lists of the parent's threads are gone with their records. Nobody was inside: see Looking.
void ForgetAllSights() {
  __QvInitializeSpinLock(&g_recordLock);
  __QvInitializeSpinLock(&g_tableLock);
  g_usedNumbers = 1;
  g_freeNumber = 0;
  g_entries = 0;
  if (g_table == nullptr) return;
  // A child that is forked before it looks at anything has no table: the stale one is still the same.
  g_staleTable = g_table;
  g_table = nullptr;
}

}  // namespace qvheap

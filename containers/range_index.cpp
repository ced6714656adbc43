// Range table: the filters and slots of its levels. Design: containers/range_index.h.
#include "containers/range_index.h"

#include <string.h>

#include "memory/allocate.h"

namespace qv {

// What one allocation can hold.
constinit uint64_t g_mostSlots = uint64_t{1} << 28;

namespace {

constexpr uint32_t kFirstSlotShift = 59;  // 32 slots

uint64_t SlotCount(uint32_t shift) { return uint64_t{1} << (64 - shift); }

// ---- Filter -----------------------------------------------------------------------------------------

void NoteBlock(const BlockIndex& index, uint64_t address, uint32_t level) {
  const BlockMark mark(address, level, index.filterMask);
  index.filter[mark.Word()] = uint16_t(index.filter[mark.Word()] | mark.Bits());
}

// Of the size that the hash table has now, with all its blocks.
void MakeFilter(const HashTable& hash, uint32_t level, BlockIndex& index) {
  const uint32_t bytes = uint32_t(hash.bucketCount) * uint32_t{sizeof(uint16_t)};
  index.filter = static_cast<uint16_t*>(Allocate(CategoryOf(hash.flags), bytes));
  index.filterMask = uint64_t(hash.bucketCount - 1);
  memset(index.filter, 0, bytes);
  ForEachEntry(hash, [&](const QV_HASH_ENTRY& entry) { NoteBlock(index, entry.key, level); });
}

QV_COLD void GrowFilterSlow(const HashTable& hash, uint32_t level, BlockIndex& index) {
  uint16_t* const old = index.filter;
  MakeFilter(hash, level, index);
  Release(old);
}

// ---- Slots ------------------------------------------------------------------------------------------

void Place(const BlockIndex& index, QV_HASH_ENTRY* entry, uint32_t level) {
  uint64_t slot = FirstSlot(index, entry->key, level);
  while (index.slots[slot] != nullptr) slot = (slot + 1) & SlotMask(index);
  index.slots[slot] = entry;
}

void MakeSlots(const HashTable& hash, uint32_t level, uint32_t shift, BlockIndex& index) {
  const uint32_t bytes = uint32_t(SlotCount(shift) * sizeof(QV_HASH_ENTRY*));
  index.slots = static_cast<QV_HASH_ENTRY**>(Allocate(CategoryOf(hash.flags), bytes));
  index.slotShift = shift;
  memset(index.slots, 0, bytes);
  ForEachEntry(hash, [&](QV_HASH_ENTRY& entry) { Place(index, &entry, level); });
}

// The new ones hold the newest entry already.
QV_COLD void GrowSlotsSlow(const HashTable& hash, uint32_t level, BlockIndex& index) {
  QV_HASH_ENTRY** const old = index.slots;
  if (SlotCount(index.slotShift) < g_mostSlots) {
    MakeSlots(hash, level, index.slotShift - 1, index);
  } else {
    index.slots = nullptr;
  }
  Release(old);
}

}  // namespace

void MakeIndex(const HashTable& hash, uint32_t level, BlockIndex& index) {
  MakeFilter(hash, level, index);
  MakeSlots(hash, level, kFirstSlotShift, index);
}

void ReleaseIndex(BlockIndex& index) {
  Release(index.filter);
  Release(index.slots);
}

void AddToIndex(const HashTable& hash, uint64_t address, uint32_t level, BlockIndex& index) {
  if (QV_UNLIKELY(index.filterMask != uint64_t(hash.bucketCount - 1))) {
    GrowFilterSlow(hash, level, index);
  } else {
    NoteBlock(index, address, level);
  }
  if (QV_UNLIKELY(index.slots == nullptr)) return;
  if (QV_UNLIKELY(uint64_t(hash.count) > SlotCount(index.slotShift) / 2)) {
    return GrowSlotsSlow(hash, level, index);
  }
  Place(index, BucketOf(hash, address, level).head, level);
}

// What follows moves up, unless it would then come before its first slot.
void RemoveFromSlots(const BlockIndex& index, uint64_t address, uint32_t level) {
  if (QV_UNLIKELY(index.slots == nullptr)) return;
  const uint64_t mask = SlotMask(index);
  uint64_t gap = FirstSlot(index, address, level);
  while (index.slots[gap]->key != address) gap = (gap + 1) & mask;
  uint64_t slot = gap;
  while (QV_HASH_ENTRY* const entry = index.slots[slot = (slot + 1) & mask]) {
    const uint64_t wayFromFirst = (slot - FirstSlot(index, entry->key, level)) & mask;
    if (wayFromFirst < ((slot - gap) & mask)) continue;
    index.slots[gap] = entry;
    gap = slot;
  }
  index.slots[gap] = nullptr;
}

// The word is made again from what its bucket still holds.
void RemoveFromFilter(const HashTable& hash, uint64_t address, uint32_t level,
                      const BlockIndex& index) {
  const uint64_t word = BlockMark(address, level, index.filterMask).Word();
  uint32_t bits = 0;
  for (const QV_HASH_ENTRY* entry = BucketOf(hash, address, level).head; entry != nullptr;
       entry = entry->next) {
    const BlockMark mark(entry->key, level, index.filterMask);
    if (mark.Word() == word) bits |= mark.Bits();
  }
  index.filter[word] = uint16_t(bits);
}

void EmptyIndex(const BlockIndex& index) {
  memset(index.filter, 0, (index.filterMask + 1) * sizeof(uint16_t));
  if (index.slots != nullptr) memset(index.slots, 0, (SlotMask(index) + 1) * sizeof(QV_HASH_ENTRY*));
}

// ---- Validation -------------------------------------------------------------------------------------

namespace {

// How many bits of the entry's mark no later entry of its chain has: over a chain, the bits of its words.
uint64_t CountFirstUses(const BlockIndex& index, const QV_HASH_ENTRY& entry, uint32_t level) {
  const BlockMark mark(entry.key, level, index.filterMask);
  uint32_t bits = mark.Bits();
  for (const QV_HASH_ENTRY* later = entry.next; later != nullptr; later = later->next) {
    const BlockMark other(later->key, level, index.filterMask);
    if (other.Word() == mark.Word()) bits &= ~other.Bits();
  }
  return uint64_t(__builtin_popcount(bits));
}

// Every bit of the filter comes from a block, and every block has its bits.
const char* ValidateFilter(const HashTable& hash, uint32_t level, const BlockIndex& index) {
  if (index.filterMask != uint64_t(hash.bucketCount - 1)) return "a filter is of another size";
  const char* wrong = nullptr;
  uint64_t noted = 0, present = 0;
  for (uint64_t i = 0; i <= index.filterMask; i++) {
    noted += uint64_t(__builtin_popcount(index.filter[i]));
  }
  ForEachEntry(hash, [&](const QV_HASH_ENTRY& entry) {
    const BlockMark mark(entry.key, level, index.filterMask);
    if (!mark.IsIn(index.filter[mark.Word()])) wrong = "a filter does not know a block";
    present += CountFirstUses(index, entry, level);
  });
  if (wrong == nullptr && noted != present) wrong = "a filter has bits of no block";
  return wrong;
}

const char* ValidateSlots(const HashTable& hash, uint32_t level, const BlockIndex& index) {
  const char* wrong = nullptr;
  int64_t used = 0;
  for (uint64_t i = 0; i <= SlotMask(index); i++) used += index.slots[i] != nullptr;
  if (used != hash.count) return "the slots in use are not as many as the blocks";
  ForEachEntry(hash, [&](const QV_HASH_ENTRY& entry) {
    if (FindInIndex(index, hash, entry.key, level) != &entry) wrong = "a block is not found by slots";
  });
  return wrong;
}

}  // namespace

const char* ValidateIndex(const HashTable& hash, uint32_t level, const BlockIndex& index) {
  const char* const wrong = ValidateFilter(hash, level, index);
  return wrong != nullptr || index.slots == nullptr ? wrong : ValidateSlots(hash, level, index);
}

}  // namespace qv

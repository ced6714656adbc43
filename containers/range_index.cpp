// Range table: the filters and slots of its levels. Design: containers/range_index.h.
#include "containers/range_index.h"

#include <string.h>

#include "memory/allocate.h"

namespace qv {

constinit uint64_t g_mostSlots = uint64_t{1} << 27;  // with their words, 2.125 GiB

namespace {

constexpr uint32_t kSlotsOfWord = 8;
constexpr uint32_t kFirstSlots = 32;
constexpr uint32_t kSlotAndItsShare = sizeof(BlockSlot) + sizeof(uint64_t) / kSlotsOfWord;

// Memory begins 8 bytes past a multiple of 16. One word more, and no slot lies on two cache lines.
constexpr uint32_t kPadding = 1;

constexpr uint64_t kEveryBlock[2] = {~uint64_t{0}, ~uint64_t{0}};

uint64_t SlotCount(const BlockIndex& index) { return SlotMask(index) + 1; }
uint64_t* WordsOf(const BlockIndex& index) { return const_cast<uint64_t*>(index.words); }

uint64_t BitsOf(uint64_t mixed) {
  return uint64_t{1} << FirstBit(mixed) | uint64_t{1} << SecondBit(mixed);
}

void Clear(const BlockIndex& index) { memset(WordsOf(index), 0, SlotCount(index) * kSlotAndItsShare); }

void MakeEmpty(uint32_t category, uint64_t slots, BlockIndex& index) {
  uint64_t* const words =
      kPadding + static_cast<uint64_t*>(Allocate(category, uint32_t(slots * kSlotAndItsShare) + 8));
  index.words = words;
  index.slots = reinterpret_cast<BlockSlot*>(words + slots / kSlotsOfWord);
  index.slotShift = 1 + uint32_t(__builtin_clzll(slots));
  index.wordShift = index.slotShift + uint32_t(__builtin_ctz(kSlotsOfWord));
  Clear(index);
}

void DoWithout(BlockIndex& index) { index = {kEveryBlock, nullptr, 63, 63}; }

void Place(const BlockIndex& index, const BlockSlot& block, uint32_t level) {
  const uint64_t mixed = MixBlock(block.block, level);
  WordsOf(index)[mixed >> index.wordShift] |= BitsOf(mixed);
  SlotOf(index, block.block, level) = block;
}

// While memory is taken, a memory collector may take blocks out of the old slots.
QV_COLD void GrowSlow(uint32_t category, uint32_t level, BlockIndex& index) {
  const uint64_t slots = SlotCount(index) * 2;
  BlockIndex grown;
  if (slots <= g_mostSlots) {
    MakeEmpty(category, slots, grown);
    for (uint64_t i = 0; i < slots / 2; i++) {
      if (index.slots[i].named != 0) Place(grown, index.slots[i], level);
    }
  } else {
    DoWithout(grown);
  }
  Release(WordsOf(index) - kPadding);
  index = grown;
}

// What follows moves up into the gap, unless it would then come before its first slot.
void RemoveFromSlots(const BlockIndex& index, uint64_t block, uint32_t level) {
  const uint64_t mask = SlotMask(index);
  uint64_t gap = uint64_t(&SlotOf(index, block, level) - index.slots);
  for (uint64_t slot = (gap + 1) & mask; index.slots[slot].named != 0; slot = (slot + 1) & mask) {
    const uint64_t first = MixBlock(index.slots[slot].block, level) >> index.slotShift;
    if (((slot - first) & mask) < ((slot - gap) & mask)) continue;
    index.slots[gap] = index.slots[slot];
    gap = slot;
  }
  index.slots[gap].named = 0;
}

// The bits of a word, by (2). By (1) its blocks have been seen at the first empty slot behind its own.
uint64_t BitsOfWord(const BlockIndex& index, uint64_t word, uint32_t level) {
  uint64_t bits = 0;
  for (uint64_t passed = 0;; passed++) {
    const BlockSlot& slot = index.slots[(word * kSlotsOfWord + passed) & SlotMask(index)];
    if (slot.named == 0) {
      if (passed >= kSlotsOfWord - 1) return bits;
      continue;
    }
    const uint64_t mixed = MixBlock(slot.block, level);
    if (mixed >> index.wordShift == word) bits |= BitsOf(mixed);
  }
}

}  // namespace

void MakeIndex(uint32_t category, BlockIndex& index) { MakeEmpty(category, kFirstSlots, index); }

void ReleaseIndex(BlockIndex& index) {
  if (index.slots != nullptr) Release(WordsOf(index) - kPadding);
}

void MakeRoomInIndex(uint32_t category, uint64_t count, uint32_t level, BlockIndex& index) {
  if (QV_UNLIKELY(index.slots != nullptr && count > SlotCount(index) / 2)) {
    GrowSlow(category, level, index);
  }
}

void AddToIndex(const BlockIndex& index, const BlockSlot& block, uint32_t level) {
  if (QV_LIKELY(index.slots != nullptr)) Place(index, block, level);
}

void RenameInIndex(const BlockIndex& index, const BlockSlot& block, uint32_t level) {
  if (index.slots != nullptr) SlotOf(index, block.block, level) = block;
}

void RemoveFromIndex(const BlockIndex& index, uint64_t block, uint32_t level) {
  if (QV_UNLIKELY(index.slots == nullptr)) return;
  RemoveFromSlots(index, block, level);
  const uint64_t word = MixBlock(block, level) >> index.wordShift;
  WordsOf(index)[word] = BitsOfWord(index, word, level);
}

void EmptyIndex(const BlockIndex& index) {
  if (index.slots != nullptr) Clear(index);
}

const char* ValidateIndex(const BlockIndex& index, uint64_t count, uint32_t level) {
  if (index.slots == nullptr) return nullptr;
  uint64_t used = 0;
  for (uint64_t i = 0; i < SlotCount(index); i++) {
    const BlockSlot& slot = index.slots[i];
    if (slot.named == 0) continue;
    used++;
    if (&SlotOf(index, slot.block, level) != &slot) return "a slot is not found from its block";
  }
  if (used != count) return "the slots in use are not as many as the blocks";
  if (used > SlotCount(index) / 2) return "too many slots are in use";
  for (uint64_t word = 0; word < SlotCount(index) / kSlotsOfWord; word++) {
    if (index.words[word] != BitsOfWord(index, word, level)) return "a filter has bits of other blocks";
  }
  return nullptr;
}

}  // namespace qv

// The requested size of every live block, so that a release is charged with exactly the bytes that its
// allocation asked for.
//
// Why beside the heap: the allocator's usable size is not what was asked for, and a header or trailer
// of ours would move the program's blocks, change their spacing and be at the mercy of its stray
// writes. Here the program's heap is laid out as it would be without us. The price is one byte for
// every 8 bytes of address space that holds blocks, made in steps of 128 KiB for each 1 MiB.
//
//   address   | 46 ... 34 | 33 ... 20 | 19 ... 3 | 2 1 0 |
//                  |           |          |
//             g_middles   Middle::leaves  Leaf::codes: what starts in these 8 bytes
//
// What leads from one to the next is an origin: where the element would be that belongs to address 0,
// if the table began there. So the upper bits of the index need not be cut off.
//
//   code   0            no block that we know
//          1 to 248     a block of code - 1 bytes
//          251 to 254   a block that was looked at (collectors/qvheap/blocks.h)
//          255          a block of 248 bytes or more: its size is in the 8 codes that follow, which lie
//                       inside the block, so no other block needs them
//
// Invariants
//  (1) The codes of a block belong to the thread that owns the block: they are written after the
//  allocator
//      gave it out and cleared before the allocator takes it back. Hence no lock and no atomics there.
//  (2) Tables are made under the census lock and published with release order; they are never freed.
//      Leaves are cut from blocks of eight that the host maps for themselves, cleared: what no block
//      needs of them is never touched.
//  (3) In a child process nothing is known: all tables are stale and are cleared when they are used
//  again.
#pragma once

#include "collectors/qvheap/words.h"

namespace qvheap {

inline constexpr uint32_t kAddressBits = 47;
inline constexpr uint32_t kMiddleShift = 34;
inline constexpr uint32_t kLeafShift = 20;
inline constexpr uint32_t kGranuleShift = 3;
inline constexpr uint32_t kLeavesPerMiddle = 1 << (kMiddleShift - kLeafShift);
inline constexpr uint32_t kCodesPerLeaf = 1 << (kLeafShift - kGranuleShift);
inline constexpr uint64_t kLargestShortSize = 247;
inline constexpr uint8_t kLongCode = 255;
inline constexpr uint8_t kInShortCode = 251;
inline constexpr uint8_t kInRecord = 252;
inline constexpr uint8_t kInCodes = 253;
inline constexpr uint8_t kInTable = 254;
inline constexpr uint64_t kUnknownSize = ~uint64_t{0};
inline constexpr uint64_t kLookedAt = kUnknownSize - 1;

struct Leaf {
  Leaf* next;  // of all leaves in use, or of all stale ones
  uint8_t codes[kCodesPerLeaf];
  uint8_t overrun[16];  // a long code may begin in the last of them
};

struct Middle {
  Middle* next;  // as in Leaf
  uint64_t index;
  uint64_t leaves[kLeavesPerMiddle];  // origins of their codes; 0: there is none
};

inline constexpr uint64_t kMiddles = 1 << (kAddressBits - kMiddleShift);
extern QVHEAP_OURS uint64_t g_middles[kMiddles];  // origins of their leaves; 0: there is none

// Null if there is no memory for the tables, or the address is beyond them.
QVHEAP_COLD uint8_t* MakeCodeSlow(const void* block);
// For a child process; the census lock is held, other threads do not exist.
void ForgetAllSizes();

// Among the first so many middle tables.
QVHEAP_INLINE uint8_t* FindCodeAmong(const void* block, uint64_t middles) {
  const uint64_t address = reinterpret_cast<uint64_t>(block);
  const uint64_t index = address >> kMiddleShift;
  if (QVHEAP_UNLIKELY(index >= middles)) return nullptr;
  const uint64_t leaves = __atomic_load_n(&g_middles[index], __ATOMIC_ACQUIRE);
  if (QVHEAP_UNLIKELY(leaves == 0)) return nullptr;
  const uint64_t codes = __atomic_load_n(
      reinterpret_cast<const uint64_t*>(leaves + (address >> kLeafShift) * sizeof leaves),
      __ATOMIC_ACQUIRE);
  if (QVHEAP_UNLIKELY(codes == 0)) return nullptr;
  uint8_t* const code = reinterpret_cast<uint8_t*>(codes + (address >> kGranuleShift));
  if (code == nullptr) __builtin_unreachable();  // or callers would ask a third time
  return code;
}

QVHEAP_INLINE uint8_t* FindCode(const void* block) { return FindCodeAmong(block, kMiddles); }

struct __attribute__((packed, may_alias)) LongCode {
  uint8_t mark;  // kLongCode
  uint64_t bytes;
};

QVHEAP_INLINE bool IsShort(uint64_t bytes) { return QVHEAP_LIKELY(bytes <= kLargestShortSize); }

QVHEAP_INLINE void KeepShortSize(uint8_t* code, uint64_t bytes) { *code = uint8_t(bytes + 1); }
QVHEAP_INLINE void KeepLongSize(uint8_t* code, uint64_t bytes) {
  *reinterpret_cast<LongCode*>(code) = {kLongCode, bytes};
}

// False if the size could not be kept.
inline bool KeepSize(const void* block, uint64_t bytes) {
  uint8_t* code = FindCode(block);
  if (code == nullptr) code = MakeCodeSlow(block);
  if (code == nullptr) return false;
  IsShort(bytes) ? KeepShortSize(code, bytes) : KeepLongSize(code, bytes);
  return true;
}

// Of a block that was not looked at: its size, and its code is free.
QVHEAP_INLINE uint64_t ClearCode(uint8_t* code) {
  const uint8_t found = *code;
  *code = 0;
  if (QVHEAP_LIKELY(found != kLongCode)) return uint64_t{found} - 1;
  LongCode* const longCode = reinterpret_cast<LongCode*>(code);
  const uint64_t bytes = longCode->bytes;
  longCode->bytes = 0;
  return bytes;
}

// Forgets the block; kUnknownSize if we do not know it. kLookedAt if it was looked at: then nothing is
// forgotten, but TakeSight has to be asked.
QVHEAP_INLINE uint64_t TakeSize(const void* block) {
  uint8_t* const code = FindCode(block);
  if (QVHEAP_UNLIKELY(code == nullptr)) return kUnknownSize;
  const uint64_t bytes = uint64_t{*code} - 1;
  if (IsShort(bytes)) {
    *code = 0;
    return bytes;
  }
  if (QVHEAP_LIKELY(*code == kLongCode)) return ClearCode(code);
  return *code == 0 ? kUnknownSize : kLookedAt;
}

}  // namespace qvheap

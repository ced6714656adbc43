// Sets and multisets: what both do with lists of chunks.
//
//   header | count 24, category 8 | chunks -> [next|index 0|bits] -> [next|index 7|bits] -> null
//                                             values 0 to 63         values 448 to 511
//
// A multiset's chunk has 64 counts behind the same three fields. The operations on whole sets are
// merges of two or three lists (containers/set_merges.h); they are templates over the chunk, and what
// happens to a pair of chunks stands in a few overloads: here for sets, a word of 64 bits at a time, and in multisets.cpp in
// vectors.
//
// Invariants between operations
//  (1) `index` ascends strictly along a list.
//  (2) No chunk is empty; in a multiset a bit is set exactly where the multiplicity is not 0.
//  (3) `count` is the number of bits set. So a merge counts what it adds or takes away and is done when
//      the source ends: nobody can tell that the rest of the destination was not counted again.
//  (4) count is at most 2^24 - 1. Merges run on `room`, what is missing from that; what has no room is
//      refused, smallest element first in.
#pragma once

#include <string.h>

#include <type_traits>

#include "memory/allocate.h"
#include "runtime/base.h"

namespace qv {

// The header's kind of chunk.
template <class Header>
using ChunkOf = std::remove_pointer_t<decltype(Header::chunks)>;

QV_INLINE uint32_t ChunkIndex(uint32_t element) { return element / QV_SET_CHUNK_ELEMENTS; }
QV_INLINE uint32_t Slot(uint32_t element) { return element % QV_SET_CHUNK_ELEMENTS; }
QV_INLINE uint64_t BitOf(uint32_t element) { return uint64_t{1} << Slot(element); }

// The two presence words as one, the first in the low half.
template <class Chunk>
QV_INLINE uint64_t Bits(const Chunk& chunk) {
  uint64_t bits;
  memcpy(&bits, chunk.bits, sizeof bits);
  return bits;
}
template <class Chunk>
QV_INLINE void SetBits(Chunk& chunk, uint64_t bits) {
  memcpy(chunk.bits, &bits, sizeof bits);
}

// Ones in a word. The instruction is not in every x86-64, and the compiler's substitute is a call.
QV_INLINE uint32_t CountBits(uint64_t bits) {
  bits -= bits >> 1 & 0x5555555555555555;
  bits = (bits & 0x3333333333333333) + (bits >> 2 & 0x3333333333333333);
  bits = (bits + (bits >> 4)) & 0x0F0F0F0F0F0F0F0F;
  return uint32_t(bits * 0x0101010101010101 >> 56);
}

// The lowest `room` of the bits.
QV_COLD inline uint64_t LowestBits(uint64_t bits, uint32_t room) {
  uint64_t lowest = 0;
  for (; room != 0 && bits != 0; room--) {
    lowest |= bits & (0 - bits);
    bits &= bits - 1;
  }
  return lowest;
}

// ---- Lists ------------------------------------------------------------------------------------------

// The link, from this one on, to the first chunk whose index is not below `index`, or to the end.
template <class Chunk>
QV_INLINE Chunk** FindLink(Chunk** link, uint32_t index) {
  while (*link != nullptr && (*link)->index < index) link = &(*link)->next;
  return link;
}

template <class Header>
QV_INLINE ChunkOf<Header>* FindChunk(const Header& set, uint32_t index) {
  ChunkOf<Header>* chunk = set.chunks;
  while (chunk != nullptr && chunk->index < index) chunk = chunk->next;
  return chunk != nullptr && chunk->index == index ? chunk : nullptr;
}

// A new chunk before what the link leads to. Only next and index are written.
template <class Header>
QV_INLINE ChunkOf<Header>* InsertChunk(const Header& set, ChunkOf<Header>** link, uint32_t index) {
  using Chunk = ChunkOf<Header>;
  Chunk* const chunk = static_cast<Chunk*>(Allocate(set.category, sizeof(Chunk)));
  chunk->next = *link;
  chunk->index = index;
  return *link = chunk;
}

template <class Chunk>
QV_INLINE void RemoveChunk(Chunk** link) {
  Chunk* const chunk = *link;
  *link = chunk->next;
  Release(chunk);
}

// Ends the list at the link and releases what followed.
template <class Chunk>
void CutList(Chunk** link) {
  Chunk* chunk = *link;
  *link = nullptr;
  while (chunk != nullptr) {
    Chunk* const next = chunk->next;
    Release(chunk);
    chunk = next;
  }
}

template <class Header>
void Empty(Header& set) {
  set.count = 0;
  CutList(&set.chunks);
}

// ---- What happens to one chunk, or a pair; index and next are the list's business --------------------

QV_INLINE void CopyContents(QV_SET_CHUNK& to, const QV_SET_CHUNK& from) { SetBits(to, Bits(from)); }
void CopyContents(QV_MULTISET_CHUNK& to, const QV_MULTISET_CHUNK& from);

// Only the elements among `bits`.
QV_INLINE void CopySome(QV_SET_CHUNK& to, const QV_SET_CHUNK&, uint64_t bits) { SetBits(to, bits); }
void CopySome(QV_MULTISET_CHUNK& to, const QV_MULTISET_CHUNK& from, uint64_t bits);
void CopySome(QV_MULTISET_CHUNK& to, const QV_SET_CHUNK& from, uint64_t bits);  // once each

// Adds what is already in `to`, and those of the rest that are among `fresh`.
QV_INLINE void AddContents(QV_SET_CHUNK& to, const QV_SET_CHUNK&, uint64_t fresh) {
  SetBits(to, Bits(to) | fresh);
}
void AddContents(QV_MULTISET_CHUNK& to, const QV_MULTISET_CHUNK& from, uint64_t fresh);
void AddContents(QV_MULTISET_CHUNK& to, const QV_SET_CHUNK& from, uint64_t fresh);

QV_INLINE void SubtractContents(QV_SET_CHUNK& to, const QV_SET_CHUNK& from) {
  SetBits(to, Bits(to) & ~Bits(from));
}
void SubtractContents(QV_MULTISET_CHUNK& to, const QV_MULTISET_CHUNK& from);

// `to` may be one of the two.
QV_INLINE void IntersectContents(QV_SET_CHUNK& to, const QV_SET_CHUNK& a, const QV_SET_CHUNK& b) {
  SetBits(to, Bits(a) & Bits(b));
}
void IntersectContents(QV_MULTISET_CHUNK& to, const QV_MULTISET_CHUNK& a, const QV_MULTISET_CHUNK& b);

QV_INLINE bool SameContents(const QV_SET_CHUNK& a, const QV_SET_CHUNK& b) { return Bits(a) == Bits(b); }
QV_INLINE bool SameContents(const QV_MULTISET_CHUNK& a, const QV_MULTISET_CHUNK& b) {
  return Bits(a) == Bits(b) && memcmp(a.multiplicity, b.multiplicity, sizeof a.multiplicity) == 0;
}

// ---- Validation: null if all is well, else what is wrong ---------------------------------------------

const char* ValidateSet(const QV_SET& set);
const char* ValidateMultiSet(const QV_MULTISET& multiset);

// The list and the count; what else a chunk must be is `validateChunk`'s to say.
template <class Header, class ValidateChunk>
const char* ValidateChunks(const Header& set, ValidateChunk validateChunk) {
  uint64_t count = 0;
  uint64_t least = 0;
  for (const ChunkOf<Header>* chunk = set.chunks; chunk != nullptr; chunk = chunk->next) {
    if (chunk->index < least) return "indexes do not ascend";
    if (chunk->index > ChunkIndex(0xFFFFFFFF)) return "an index is too large";
    if (Bits(*chunk) == 0) return "a chunk is empty";
    const char* const reason = validateChunk(*chunk);
    if (reason != nullptr) return reason;
    least = uint64_t{chunk->index} + 1;
    count += CountBits(Bits(*chunk));
  }
  return count == set.count ? nullptr : "the count is not the number of elements";
}

}  // namespace qv

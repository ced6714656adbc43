// Sets and multisets: the operations on whole sets, merges of chunk lists. Design: containers/sets.h.
#pragma once

#include "containers/sets.h"

namespace qv {

// ---- Merges. The headers are different ones where both are written or read as lists. -----------------

template <class Header>
bool SameElements(const Header& a, const Header& b) {
  if (&a == &b) return true;
  if (a.count != b.count) return false;
  const ChunkOf<Header>* x = a.chunks;
  const ChunkOf<Header>* y = b.chunks;
  for (; x != nullptr && y != nullptr; x = x->next, y = y->next) {
    if (x->index != y->index || !SameContents(*x, *y)) return false;
  }
  return x == y;
}

// Those of the new elements that there is room for; takes it.
QV_INLINE uint64_t Admit(uint64_t fresh, uint32_t& room) {
  if (fresh == 0) return 0;
  uint32_t count = CountBits(fresh);
  if (QV_UNLIKELY(count > room)) {
    fresh = LowestBits(fresh, room);
    count = room;
  }
  room -= count;
  return fresh;
}

// Source: a header of the same kind, or a set for a multiset. A chunk of a set that gets nothing new is
// not written: a union that is repeated until nothing changes costs little more than the walk.
template <class Header, class Source>
void Unite(Header& destination, const Source& source) {
  constexpr bool kCounts = !std::is_same_v<Header, QV_SET>;
  uint32_t room = QV_SET_MAXIMUM_COUNT - destination.count;
  ChunkOf<Header>** link = &destination.chunks;
  for (const ChunkOf<Source>* from = source.chunks; from != nullptr; from = from->next) {
    link = FindLink(link, from->index);
    ChunkOf<Header>* to = *link;
    if (to != nullptr && to->index == from->index) {
      const uint64_t fresh = Admit(Bits(*from) & ~Bits(*to), room);
      if (kCounts || fresh != 0) AddContents(*to, *from, fresh);
      link = &to->next;
    } else if (const uint64_t fresh = Admit(Bits(*from), room)) {
      to = InsertChunk(destination, link, from->index);
      CopySome(*to, *from, fresh);
      link = &to->next;
    }
  }
  destination.count = (QV_SET_MAXIMUM_COUNT - room) & QV_SET_MAXIMUM_COUNT;
}

template <class Header>
void Subtract(Header& destination, const Header& source) {
  uint32_t count = destination.count;
  ChunkOf<Header>** link = &destination.chunks;
  for (const ChunkOf<Header>* from = source.chunks; from != nullptr; from = from->next) {
    link = FindLink(link, from->index);
    ChunkOf<Header>* const to = *link;
    if (to == nullptr) break;
    if (to->index != from->index) continue;
    const uint64_t before = Bits(*to);
    SubtractContents(*to, *from);
    const uint64_t left = Bits(*to);
    count -= CountBits(before & ~left);
    if (left == 0) RemoveChunk(link);
  }
  destination.count = count & QV_SET_MAXIMUM_COUNT;
}

// The chunk at the link, or a new one there.
template <class Header>
QV_INLINE ChunkOf<Header>* ReuseChunk(const Header& set, ChunkOf<Header>** link, uint32_t index) {
  if (*link == nullptr) return InsertChunk(set, link, index);
  (*link)->index = index;
  return *link;
}

template <class Header>
void Copy(Header& destination, const Header& source) {
  if (&destination == &source) return;
  ChunkOf<Header>** link = &destination.chunks;
  for (const ChunkOf<Header>* from = source.chunks; from != nullptr; from = from->next) {
    ChunkOf<Header>* const to = ReuseChunk(destination, link, from->index);
    CopyContents(*to, *from);
    link = &to->next;
  }
  CutList(link);
  destination.count = source.count;
}

// The destination's own chunks are overwritten in order. It may be a or b: as many of their chunks have
// been read as are written, at the least.
template <class Header>
void Intersect(Header& destination, const Header& a, const Header& b) {
  if (&a == &b) return Copy(destination, a);
  uint32_t count = 0;
  ChunkOf<Header>** link = &destination.chunks;
  const ChunkOf<Header>* x = a.chunks;
  const ChunkOf<Header>* y = b.chunks;
  while (x != nullptr && y != nullptr) {
    const uint32_t xIndex = x->index, yIndex = y->index;
    const uint64_t common = xIndex == yIndex ? Bits(*x) & Bits(*y) : 0;
    if (common != 0) {
      count += CountBits(common);
      ChunkOf<Header>* const to = ReuseChunk(destination, link, xIndex);
      IntersectContents(*to, *x, *y);
      link = &to->next;
    }
    if (xIndex <= yIndex) x = x->next;
    if (yIndex <= xIndex) y = y->next;
  }
  CutList(link);
  destination.count = count & QV_SET_MAXIMUM_COUNT;
}

template <class Header>
void Move(Header& destination, Header& source) {
  if (&destination == &source) return;
  Empty(destination);
  destination.chunks = source.chunks;
  destination.count = source.count;
  source.chunks = nullptr;
  source.count = 0;
}

}  // namespace qv

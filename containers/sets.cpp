// Sets: single elements, comparisons, the scan, and the exported calls. Design: containers/sets.h.
#include "containers/set_merges.h"

static_assert(sizeof(QV_SET) == 16 && offsetof(QV_SET, chunks) == 8);
static_assert(sizeof(QV_SET_CHUNK) == 24 && offsetof(QV_SET_CHUNK, index) == 8 &&
              offsetof(QV_SET_CHUNK, bits) == 12);

namespace qv {
namespace {

using Chunk = QV_SET_CHUNK;

void Add(QV_SET& set, uint32_t element) {
  Chunk** const link = FindLink(&set.chunks, ChunkIndex(element));
  Chunk* chunk = *link;
  const bool there = chunk != nullptr && chunk->index == ChunkIndex(element);
  if (there && (Bits(*chunk) & BitOf(element)) != 0) return;
  if (QV_UNLIKELY(set.count == QV_SET_MAXIMUM_COUNT)) return;
  if (there) {
    SetBits(*chunk, Bits(*chunk) | BitOf(element));
  } else {
    SetBits(*InsertChunk(set, link, ChunkIndex(element)), BitOf(element));
  }
  set.count++;
}

void Delete(QV_SET& set, uint32_t element) {
  Chunk** const link = FindLink(&set.chunks, ChunkIndex(element));
  Chunk* const chunk = *link;
  if (chunk == nullptr || chunk->index != ChunkIndex(element)) return;
  const uint64_t before = Bits(*chunk);
  if ((before & BitOf(element)) == 0) return;
  set.count--;
  if (before == BitOf(element)) return RemoveChunk(link);
  SetBits(*chunk, before & ~BitOf(element));
}

bool Within(const QV_SET& a, const QV_SET& b) {
  const Chunk* y = b.chunks;
  for (const Chunk* x = a.chunks; x != nullptr; x = x->next) {
    while (y != nullptr && y->index < x->index) y = y->next;
    if (y == nullptr || y->index != x->index || (Bits(*x) & ~Bits(*y)) != 0) return false;
  }
  return true;
}

bool Disjoint(const QV_SET& a, const QV_SET& b) {
  const Chunk* x = a.chunks;
  const Chunk* y = b.chunks;
  while (x != nullptr && y != nullptr) {
    const uint32_t xIndex = x->index, yIndex = y->index;
    if (xIndex == yIndex && (Bits(*x) & Bits(*y)) != 0) return false;
    if (xIndex <= yIndex) x = x->next;
    if (yIndex <= xIndex) y = y->next;
  }
  return true;
}

// The elements of one chunk, as it was at the start. True if a callback changed the set's count.
bool ScanChunk(const QV_SET& set, const Chunk& chunk, QV_SET_CALLBACK callback, uint64_t context) {
  const uint32_t first = chunk.index * QV_SET_CHUNK_ELEMENTS;
  const uint32_t count = set.count;
  bool changed = false;
  for (uint64_t bits = Bits(chunk); bits != 0; bits &= bits - 1) {
    callback(first + uint32_t(__builtin_ctzll(bits)), context);
    changed |= set.count != count;
  }
  return changed;
}

// The chunk may be gone after a change, so the next one is looked up again.
void Scan(const QV_SET& set, QV_SET_CALLBACK callback, uint64_t context) {
  const Chunk* chunk = set.chunks;
  while (chunk != nullptr) {
    const uint32_t index = chunk->index;
    if (QV_LIKELY(!ScanChunk(set, *chunk, callback, context))) {
      chunk = chunk->next;
    } else {
      chunk = set.chunks;
      while (chunk != nullptr && chunk->index <= index) chunk = chunk->next;
    }
  }
}

}  // namespace

const char* ValidateSet(const QV_SET& set) {
  return ValidateChunks(set, [](const Chunk&) -> const char* { return nullptr; });
}

}  // namespace qv

void __QvAddAnElementToSet(QV_SET* set, uint32_t element) {
  if (set != nullptr) qv::Add(*set, element);
}

void __QvDeleteAnElementFromSet(QV_SET* set, uint32_t element) {
  if (set != nullptr) qv::Delete(*set, element);
}

uint32_t __QvIsAnElementOfSet(const QV_SET* set, uint32_t element) {
  if (set == nullptr) return 0;
  const QV_SET_CHUNK* const chunk = qv::FindChunk(*set, qv::ChunkIndex(element));
  if (chunk == nullptr) return 0;
  return chunk->bits[qv::Slot(element) / 32] & uint32_t{1} << element % 32;
}

uint32_t __QvAreSetsEqual(const QV_SET* a, const QV_SET* b) {
  return a != nullptr && b != nullptr && qv::SameElements(*a, *b);
}

int32_t __QvCompareSets(const QV_SET* a, const QV_SET* b) {
  if (a == nullptr || b == nullptr || qv::SameElements(*a, *b)) return 0;
  const int32_t difference = int32_t(a->count) - int32_t(b->count);
  return difference != 0 ? difference : 1;
}

uint32_t __QvAreSetsDisjoint(const QV_SET* a, const QV_SET* b) {
  return a != nullptr && b != nullptr && a != b && qv::Disjoint(*a, *b);
}

uint32_t __QvIsASubsetOfSet(const QV_SET* a, const QV_SET* b) {
  return a != nullptr && b != nullptr && (a == b || qv::Within(*a, *b));
}

void __QvScanSet(const QV_SET* set, QV_SET_CALLBACK callback, uint64_t context) {
  if (set != nullptr && callback != nullptr) qv::Scan(*set, callback, context);
}

void __QvUnionSet(QV_SET* destination, const QV_SET* source) {
  if (destination == nullptr || source == nullptr || destination == source) return;
  qv::Unite(*destination, *source);
}

void __QvDifferenceSet(QV_SET* destination, const QV_SET* source) {
  if (destination == nullptr || source == nullptr) return;
  if (destination == source) return qv::Empty(*destination);
  qv::Subtract(*destination, *source);
}

void __QvIntersectSet(QV_SET* destination, const QV_SET* a, const QV_SET* b) {
  if (destination == nullptr || a == nullptr || b == nullptr) return;
  qv::Intersect(*destination, *a, *b);
}

void __QvConstructSet(QV_SET* destination, const QV_SET* source) {
  if (destination != nullptr && source != nullptr) qv::Copy(*destination, *source);
}

void __QvConstructSetAndDestroy(QV_SET* destination, QV_SET* source) {
  if (destination != nullptr && source != nullptr) qv::Move(*destination, *source);
}

void __QvDestroySet(QV_SET* set) {
  if (set != nullptr) qv::Empty(*set);
}

void __QvEmptySet(QV_SET* set) {
  if (set != nullptr) qv::Empty(*set);
}

void __QvPrintOutSet(const QV_SET*) {}

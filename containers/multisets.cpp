// Multisets: the 64 counts of a chunk in vectors, single elements, and the exported calls. Design:
// containers/sets.h.
//
// The vectors are four 32-bit lanes, which every x86-64 has. It has no unsigned comparison of lanes; a
// signed one of operands shifted by 2^31 takes its place. A chunk lies 8 bytes past a multiple of 16,
// hence its counts on a multiple, but nothing here depends on that.
#include <emmintrin.h>

#include "containers/set_merges.h"

using Chunk = QV_MULTISET_CHUNK;

static_assert(sizeof(QV_MULTISET) == sizeof(QV_SET) &&
              offsetof(QV_MULTISET, chunks) == offsetof(QV_SET, chunks));
static_assert(sizeof(Chunk) == 280 && offsetof(Chunk, index) == offsetof(QV_SET_CHUNK, index) &&
              offsetof(Chunk, bits) == offsetof(QV_SET_CHUNK, bits) &&
              offsetof(Chunk, multiplicity) == sizeof(QV_SET_CHUNK));

namespace qv {
namespace {

// ---- Four counts at a time --------------------------------------------------------------------------

constexpr uint32_t kLanes = 4;
using Lanes = __m128i;

QV_INLINE Lanes Load(const Chunk& chunk, uint32_t slot) {
  return _mm_loadu_si128(reinterpret_cast<const Lanes*>(chunk.multiplicity + slot));
}
QV_INLINE void Store(Chunk& chunk, uint32_t slot, Lanes lanes) {
  _mm_storeu_si128(reinterpret_cast<Lanes*>(chunk.multiplicity + slot), lanes);
}

// All ones in the lanes where a > b.
QV_INLINE Lanes Above(Lanes a, Lanes b) {
  const Lanes shift = _mm_set1_epi32(INT32_MIN);
  return _mm_cmpgt_epi32(_mm_xor_si128(a, shift), _mm_xor_si128(b, shift));
}
// a where the mask is set, else b.
QV_INLINE Lanes Select(Lanes mask, Lanes a, Lanes b) {
  return _mm_or_si128(_mm_and_si128(mask, a), _mm_andnot_si128(mask, b));
}
QV_INLINE Lanes AddSaturating(Lanes a, Lanes b) {
  const Lanes sum = _mm_add_epi32(a, b);
  return _mm_or_si128(sum, Above(a, sum));  // it wrapped where it came out smaller
}
QV_INLINE Lanes SubtractSaturating(Lanes a, Lanes b) {
  return _mm_and_si128(Above(a, b), _mm_sub_epi32(a, b));
}
QV_INLINE Lanes Smaller(Lanes a, Lanes b) { return Select(Above(a, b), b, a); }

// All ones in the lanes whose bit is set, the lowest of the four bits first.
QV_INLINE Lanes Spread(uint64_t fourBits) {
  const Lanes one = _mm_set_epi32(8, 4, 2, 1);
  return _mm_cmpeq_epi32(_mm_and_si128(_mm_set1_epi32(int32_t(fourBits & 15)), one), one);
}
// One bit for each of the 16 counts from `slot` on: is it 0.
QV_INLINE uint32_t Zeros(const Chunk& chunk, uint32_t slot) {
  const Lanes zero = _mm_setzero_si128();
  const Lanes low = _mm_packs_epi32(_mm_cmpeq_epi32(Load(chunk, slot), zero),
                                    _mm_cmpeq_epi32(Load(chunk, slot + 4), zero));
  const Lanes high = _mm_packs_epi32(_mm_cmpeq_epi32(Load(chunk, slot + 8), zero),
                                     _mm_cmpeq_epi32(Load(chunk, slot + 12), zero));
  return uint32_t(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
}

// Sets each count of `to` to what body(slot) gives for its four.
template <class Body>
QV_INLINE void ForAllLanes(Chunk& to, Body body) {
  for (uint32_t slot = 0; slot < QV_SET_CHUNK_ELEMENTS; slot += kLanes) Store(to, slot, body(slot));
}

uint64_t NonZero(const Chunk& chunk) {
  uint64_t zeros = 0;
  for (uint32_t slot = 0; slot < QV_SET_CHUNK_ELEMENTS; slot += 16) {
    zeros |= uint64_t{Zeros(chunk, slot)} << slot;
  }
  return ~zeros;
}

}  // namespace

// ---- A chunk, or a pair of them ---------------------------------------------------------------------

void CopyContents(Chunk& to, const Chunk& from) {
  SetBits(to, Bits(from));
  memcpy(to.multiplicity, from.multiplicity, sizeof to.multiplicity);
}

void CopySome(Chunk& to, const Chunk& from, uint64_t bits) {
  SetBits(to, bits);
  ForAllLanes(to, [&](uint32_t slot) { return _mm_and_si128(Spread(bits >> slot), Load(from, slot)); });
}

void CopySome(Chunk& to, const QV_SET_CHUNK&, uint64_t bits) {
  SetBits(to, bits);
  ForAllLanes(to, [&](uint32_t slot) { return _mm_srli_epi32(Spread(bits >> slot), 31); });
}

void AddContents(Chunk& to, const Chunk& from, uint64_t fresh) {
  const uint64_t before = Bits(to);
  SetBits(to, before | fresh);
  if (QV_LIKELY(((before | fresh) & Bits(from)) == Bits(from))) {
    return ForAllLanes(to,
                       [&](uint32_t slot) { return AddSaturating(Load(to, slot), Load(from, slot)); });
  }
  // Some are refused.
  ForAllLanes(to, [&](uint32_t slot) {
    const Lanes wanted = Spread((before | fresh) >> slot);
    return AddSaturating(Load(to, slot), _mm_and_si128(wanted, Load(from, slot)));
  });
}

void AddContents(Chunk& to, const QV_SET_CHUNK& from, uint64_t fresh) {
  const uint64_t before = Bits(to);
  const uint64_t added = Bits(from) & (before | fresh);
  SetBits(to, before | fresh);
  ForAllLanes(to, [&](uint32_t slot) {
    return AddSaturating(Load(to, slot), _mm_srli_epi32(Spread(added >> slot), 31));
  });
}

void SubtractContents(Chunk& to, const Chunk& from) {
  ForAllLanes(to, [&](uint32_t slot) { return SubtractSaturating(Load(to, slot), Load(from, slot)); });
  SetBits(to, NonZero(to));
}

void IntersectContents(Chunk& to, const Chunk& a, const Chunk& b) {
  SetBits(to, Bits(a) & Bits(b));
  ForAllLanes(to, [&](uint32_t slot) { return Smaller(Load(a, slot), Load(b, slot)); });
}

// ---- Single elements --------------------------------------------------------------------------------

namespace {

void Add(QV_MULTISET& multiset, uint32_t element) {
  Chunk** const link = FindLink(&multiset.chunks, ChunkIndex(element));
  Chunk* chunk = *link;
  const bool there = chunk != nullptr && chunk->index == ChunkIndex(element);
  const uint32_t before = there ? chunk->multiplicity[Slot(element)] : 0;
  if (QV_UNLIKELY(before == UINT32_MAX)) return;
  if (before == 0) {
    if (QV_UNLIKELY(multiset.count == QV_SET_MAXIMUM_COUNT)) return;
    if (!there) {
      chunk = InsertChunk(multiset, link, ChunkIndex(element));
      memset(chunk->bits, 0, sizeof(Chunk) - offsetof(Chunk, bits));
    }
    SetBits(*chunk, Bits(*chunk) | BitOf(element));
    multiset.count++;
  }
  chunk->multiplicity[Slot(element)] = before + 1;
}

// Takes up to `most` instances away.
void Delete(QV_MULTISET& multiset, uint32_t element, uint32_t most) {
  Chunk** const link = FindLink(&multiset.chunks, ChunkIndex(element));
  Chunk* const chunk = *link;
  if (chunk == nullptr || chunk->index != ChunkIndex(element)) return;
  uint32_t& multiplicity = chunk->multiplicity[Slot(element)];
  if (multiplicity == 0) return;
  multiplicity -= multiplicity < most ? multiplicity : most;
  if (multiplicity != 0) return;
  multiset.count--;
  SetBits(*chunk, Bits(*chunk) & ~BitOf(element));
  if (Bits(*chunk) == 0) RemoveChunk(link);
}

void Double(QV_MULTISET& multiset) {
  for (Chunk* chunk = multiset.chunks; chunk != nullptr; chunk = chunk->next) {
    AddContents(*chunk, *chunk, 0);
  }
}

}  // namespace

const char* ValidateMultiSet(const QV_MULTISET& multiset) {
  return ValidateChunks(multiset, [](const Chunk& chunk) -> const char* {
    for (uint32_t slot = 0; slot < QV_SET_CHUNK_ELEMENTS; slot++) {
      if ((chunk.multiplicity[slot] != 0) != ((Bits(chunk) >> slot & 1) != 0)) {
        return "a bit and its multiplicity differ";
      }
    }
    return nullptr;
  });
}

}  // namespace qv

void __QvAddAnElementToMultiSet(QV_MULTISET* multiset, uint32_t element) {
  if (multiset != nullptr) qv::Add(*multiset, element);
}

void __QvDeleteAnElementFromMultiSet(QV_MULTISET* multiset, uint32_t element) {
  if (multiset != nullptr) qv::Delete(*multiset, element, 1);
}

void __QvDeleteAllInstancesOfAnElementFromMultiSet(QV_MULTISET* multiset, uint32_t element) {
  if (multiset != nullptr) qv::Delete(*multiset, element, UINT32_MAX);
}

uint32_t __QvGetElementMultiplicity(const QV_MULTISET* multiset, uint32_t element) {
  if (multiset == nullptr) return 0;
  const Chunk* const chunk = qv::FindChunk(*multiset, qv::ChunkIndex(element));
  return chunk == nullptr ? 0 : chunk->multiplicity[qv::Slot(element)];
}

uint32_t __QvIsMultiSetEmpty(const QV_MULTISET* multiset) {
  return multiset == nullptr || multiset->count == 0;
}

uint32_t __QvAreMultiSetsEqual(const QV_MULTISET* a, const QV_MULTISET* b) {
  return a != nullptr && b != nullptr && qv::SameElements(*a, *b);
}

void __QvUnionMultiSet(QV_MULTISET* destination, const QV_MULTISET* source) {
  if (destination == nullptr || source == nullptr) return;
  if (destination == source) return qv::Double(*destination);
  qv::Unite(*destination, *source);
}

void __QvUnionMultiSetSet(QV_MULTISET* multiset, const QV_SET* set) {
  if (multiset != nullptr && set != nullptr) qv::Unite(*multiset, *set);
}

void __QvDifferenceMultiSet(QV_MULTISET* destination, const QV_MULTISET* source) {
  if (destination == nullptr || source == nullptr) return;
  if (destination == source) return qv::Empty(*destination);
  qv::Subtract(*destination, *source);
}

void __QvIntersectMultiSet(QV_MULTISET* destination, const QV_MULTISET* a, const QV_MULTISET* b) {
  if (destination == nullptr || a == nullptr || b == nullptr) return;
  qv::Intersect(*destination, *a, *b);
}

void __QvConstructMultiSet(QV_MULTISET* destination, const QV_MULTISET* source) {
  if (destination != nullptr && source != nullptr) qv::Copy(*destination, *source);
}

void __QvConstructMultiSetAndDestroy(QV_MULTISET* destination, QV_MULTISET* source) {
  if (destination != nullptr && source != nullptr) qv::Move(*destination, *source);
}

void __QvDestroyMultiSet(QV_MULTISET* multiset) {
  if (multiset != nullptr) qv::Empty(*multiset);
}

void __QvEmptyMultiSet(QV_MULTISET* multiset) {
  if (multiset != nullptr) qv::Empty(*multiset);
}

void __QvPrintOutMultiSet(const QV_MULTISET*) {}

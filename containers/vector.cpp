// Vector: pages, the merge, and the exported calls. Design: containers/vector.h.
#include "containers/vector.h"

#include <immintrin.h>
#include <string.h>

#include "memory/allocate.h"
#include "runtime/processor.h"

using Vector = QV_VECTOR;

static_assert(sizeof(Vector) == 6152 && offsetof(Vector, firstPage) == 4096 &&
              offsetof(Vector, sizeAndCategory) == 6144);

namespace qv {
namespace {

constexpr uint32_t kPages = QV_VECTOR_PAGES;
constexpr uint32_t kPageElements = QV_VECTOR_PAGE_ELEMENTS;
constexpr uint32_t kElements = kPages * kPageElements;
constexpr uint32_t kPageBytes = kPageElements * sizeof(uint64_t);
constexpr uint32_t kLengthBits = 24;
constexpr uint32_t kLengthMask = (1u << kLengthBits) - 1;

QV_INLINE uint32_t Length(const Vector& vector) { return vector.sizeAndCategory & kLengthMask; }
QV_INLINE uint32_t Category(const Vector& vector) { return vector.sizeAndCategory >> kLengthBits; }
QV_INLINE void SetLength(Vector& vector, uint32_t length) {
  vector.sizeAndCategory = (vector.sizeAndCategory & ~kLengthMask) | length;
}

// ---- Pages ------------------------------------------------------------------------------------------

uint64_t* NewPage(const Vector& vector) {
  return static_cast<uint64_t*>(Allocate(Category(vector), kPageBytes));
}
void CopyPage(uint64_t* to, const uint64_t* from) { memcpy(to, from, kPageBytes); }
void ClearPage(uint64_t* page) { memset(page, 0, kPageBytes); }

uint64_t* MakePage(Vector& vector, uint32_t page) {
  uint64_t* const fresh = NewPage(vector);
  ClearPage(fresh);
  return vector.pages[page] = fresh;
}

Vector* Initialize(Vector* vector, uint32_t category) {
  memset(vector, 0, sizeof *vector);
  vector->pages[0] = vector->firstPage;
  vector->sizeAndCategory = category << kLengthBits;
  return vector;
}

Vector* Create(uint32_t category) {
  return Initialize(static_cast<Vector*>(Allocate(category, sizeof(Vector))), category);
}

// The element if the index is below the length and its page is there, else null. The length never passes
// the last index, so there is one bound to look at.
QV_INLINE uint64_t* ExistingElement(const Vector* vector, uint32_t index) {
  if (QV_UNLIKELY(vector == nullptr || index >= Length(*vector))) return nullptr;
  uint64_t* const page = vector->pages[index / kPageElements];
  return QV_LIKELY(page != nullptr) ? page + index % kPageElements : nullptr;
}

// The element, which is about to be written: its page is made, the length reaches it. Null beyond the
// last index.
uint64_t* ElementToWrite(Vector* vector, uint32_t index) {
  if (vector == nullptr || index >= kElements) return nullptr;
  uint64_t* page = vector->pages[index / kPageElements];
  if (page == nullptr) page = MakePage(*vector, index / kPageElements);
  if (index >= Length(*vector)) SetLength(*vector, index + 1);
  return page + index % kPageElements;
}

// The first write to an element: whole calls, so that the usual ones need no stack.
QV_COLD uint64_t SetSlow(Vector* vector, uint32_t index, uint64_t value) {
  uint64_t* const element = ElementToWrite(vector, index);
  if (element == nullptr) return 0;
  const uint64_t before = *element;
  *element = value;
  return before;
}
QV_COLD uint64_t IncrementSlow(Vector* vector, uint32_t index) {
  uint64_t* const element = ElementToWrite(vector, index);
  return element == nullptr ? 0 : (*element)++;
}

// ---- Whole vectors ----------------------------------------------------------------------------------

void CopyPages(Vector& destination, const Vector& source) {
  for (uint32_t page = 0; page < kPages; page++) {
    uint64_t*& to = destination.pages[page];
    const uint64_t* const from = source.pages[page];
    if (from != nullptr) {
      if (to == nullptr) to = NewPage(destination);
      CopyPage(to, from);
    } else if (to != nullptr) {
      ClearPage(to);
    }
  }
}

// The larger of two counters in each half. There is no comparison of 64-bit lanes in every x86-64: a <
// b is the borrow of a - b, spread over its lane from the top bit.
QV_INLINE __m128i Larger(__m128i a, __m128i b) {
  const __m128i differ = _mm_xor_si128(a, b);
  const __m128i borrow =
      _mm_or_si128(_mm_andnot_si128(a, b), _mm_andnot_si128(differ, _mm_sub_epi64(a, b)));
  const __m128i less = _mm_srai_epi32(_mm_shuffle_epi32(borrow, 0xF5), 31);
  return _mm_xor_si128(a, _mm_and_si128(differ, less));
}

void MaxPageBaseline(uint64_t* to, const uint64_t* from) {
  for (uint32_t i = 0; i < kPageElements; i += 2) {
    __m128i* const a = reinterpret_cast<__m128i*>(to + i);
    const __m128i* const b = reinterpret_cast<const __m128i*>(from + i);
    _mm_storeu_si128(a, Larger(_mm_loadu_si128(a), _mm_loadu_si128(b)));
  }
}

// Signed comparison of operands shifted by 2^63.
__attribute__((target("avx2"))) void MaxPageAvx2(uint64_t* to, const uint64_t* from) {
  const __m256i shift = _mm256_set1_epi64x(INT64_MIN);
  for (uint32_t i = 0; i < kPageElements; i += 4) {
    __m256i* const a = reinterpret_cast<__m256i*>(to + i);
    const __m256i* const b = reinterpret_cast<const __m256i*>(from + i);
    const __m256i x = _mm256_loadu_si256(a), y = _mm256_loadu_si256(b);
    const __m256i less = _mm256_cmpgt_epi64(_mm256_xor_si256(y, shift), _mm256_xor_si256(x, shift));
    _mm256_storeu_si256(a, _mm256_blendv_epi8(x, y, less));
  }
}

void MaxPage(uint64_t* to, const uint64_t* from) {
  ProcessorHasAvx2() ? MaxPageAvx2(to, from) : MaxPageBaseline(to, from);
}

// The last page is taken whole: beyond the length both sides are 0. Where the length ends with a page,
// the last page is the one behind it: all 0, and made if the source has it.
void Max(Vector& destination, const Vector& source) {
  if (Length(destination) < Length(source)) SetLength(destination, Length(source));
  const uint32_t length = Length(destination);
  for (uint32_t page = 0; page <= length / kPageElements && page < kPages; page++) {
    uint64_t*& to = destination.pages[page];
    const uint64_t* const from = source.pages[page];
    if (from == nullptr) continue;
    if (to == nullptr) {
      CopyPage(to = NewPage(destination), from);
    } else {
      MaxPage(to, from);
    }
  }
}

}  // namespace

const char* ValidateVector(const Vector& vector) {
  if (vector.pages[0] != vector.firstPage) return "the first page is not the embedded one";
  if (Length(vector) > kElements) return "the length is too large";
  for (uint32_t index = Length(vector); index < kElements; index++) {
    const uint64_t* const page = vector.pages[index / kPageElements];
    if (page == nullptr) {
      index |= kPageElements - 1;
    } else if (page[index % kPageElements] != 0) {
      return "an element beyond the length is not 0";
    }
  }
  return nullptr;
}

}  // namespace qv

Vector* __QvInitializeVector(Vector* vector, uint32_t category) {
  return vector == nullptr ? nullptr : qv::Initialize(vector, category);
}

Vector* __QvCreateVector(uint32_t category) { return qv::Create(category); }

void __QvDestroyVector(Vector* vector) {
  if (vector == nullptr) return;
  for (uint32_t page = 1; page < qv::kPages; page++) qv::Release(vector->pages[page]);
  qv::Release(vector);
}

uint64_t __QvGetVectorElement(const Vector* vector, uint32_t index) {
  const uint64_t* const element = qv::ExistingElement(vector, index);
  return QV_LIKELY(element != nullptr) ? *element : 0;
}

uint64_t __QvSetVectorElement(Vector* vector, uint32_t index, uint64_t value) {
  uint64_t* const element = qv::ExistingElement(vector, index);
  if (QV_UNLIKELY(element == nullptr)) return qv::SetSlow(vector, index, value);
  const uint64_t before = *element;
  *element = value;
  return before;
}

uint64_t __QvIncrementVectorElement(Vector* vector, uint32_t index) {
  uint64_t* const element = qv::ExistingElement(vector, index);
  if (QV_UNLIKELY(element == nullptr)) return qv::IncrementSlow(vector, index);
  return (*element)++;
}

void __QvCopyVector(Vector* destination, const Vector* source) {
  if (destination == nullptr || source == nullptr || destination == source) return;
  qv::CopyPages(*destination, *source);
  qv::SetLength(*destination, qv::Length(*source));
}

Vector* __QvDuplicateVector(const Vector* source, uint32_t category) {
  if (source == nullptr) return nullptr;
  Vector* const vector = qv::Create(category);
  __QvCopyVector(vector, source);
  return vector;
}

void __QvMaxVector(Vector* destination, const Vector* source) {
  if (destination != nullptr && source != nullptr) qv::Max(*destination, *source);
}

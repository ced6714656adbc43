// Vector: random runs of every operation over a pool against plain arrays, pages and bytes included,
// with both forms of the merge; the ends of the index range; vectors in the caller's storage.
#include "containers/vector.h"

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "runtime/processor.h"
#include "tests/containers/accounting_host.h"

namespace {

constexpr uint32_t kElements = 131072;
constexpr uint32_t kCategory = 55;
constexpr uint64_t kLargest = ~uint64_t{0};

struct Model {
  std::map<uint32_t, std::vector<uint64_t>> pages = {{0, std::vector<uint64_t>(256)}};
  uint32_t length = 0;

  uint64_t Read(uint32_t index) const {
    const auto page = pages.find(index / 256);
    return page == pages.end() ? 0 : page->second[index % 256];
  }
  std::vector<uint64_t>& Page(uint32_t page) {
    return pages.try_emplace(page, std::vector<uint64_t>(256)).first->second;
  }
  void Write(uint32_t index, uint64_t value) {
    if (index >= kElements) return;
    Page(index / 256)[index % 256] = value;
    length = std::max(length, index + 1);
  }
  void Max(const Model& source) {
    length = std::max(length, source.length);
    for (const auto& [number, from] : source.pages) {
      if (number > length / 256) continue;
      std::vector<uint64_t>& to = Page(number);
      for (uint32_t i = 0; i < 256; i++) to[i] = std::max(to[i], from[i]);
    }
  }
  void Copy(const Model& source) {
    for (auto& [number, page] : pages) page.assign(256, 0);
    for (const auto& [number, page] : source.pages) pages[number] = page;
    length = source.length;
  }
};

class Pool {
 public:
  explicit Pool(uint32_t seed) : random_(seed) {
    // Storage that is not clean: what is prepared must not depend on it.
    for (QV_VECTOR& vector : placed_)
      std::fill_n(reinterpret_cast<char*>(&vector), sizeof vector, 0x5A);
    for (uint32_t i = 0; i < 3; i++) {
      vectors_[i] =
          i < 2 ? __QvInitializeVector(&placed_[i], kCategory + i) : __QvCreateVector(kCategory + i);
    }
  }

  void Run(int steps) {
    for (int step = 0; step < steps; step++) {
      const uint32_t d = uint32_t(random_() % 3), s = uint32_t(random_() % 3);
      switch (random_() % 64) {
        case 0:
          __QvCopyVector(vectors_[d], vectors_[s]);
          models_[d].Copy(Model(models_[s]));
          Validate();
          break;
        case 1:
          __QvMaxVector(vectors_[d], vectors_[s]);
          models_[d].Max(Model(models_[s]));
          Validate();
          break;
        case 2: Duplicate(s); break;
        case 3: Restart(); break;
        default: Write(d); break;
      }
      if (testing::Test::HasFatalFailure()) return;
    }
    Restart();
    __QvDestroyVector(vectors_[2]);
    EXPECT_EQ(qvtest::BytesInUse(kCategory + 2), 0u);
  }

 private:
  // Around the borders of pages and of the range.
  uint32_t Index() {
    const uint32_t page = uint32_t(random_() % 8);
    const uint32_t base = page < 4 ? page * 256 : (page + 505) * 256;  // 509 to 512
    return random_() % 4 == 0 ? base - uint32_t(random_() % 2) : base + uint32_t(random_() % 256);
  }

  void Write(uint32_t d) {
    const uint32_t index = Index();
    const uint64_t before = models_[d].Read(index);
    uint64_t value = random_() >> random_() % 64;  // both halves of the range, small ones too
    if (random_() % 8 == 0) value = random_() % 2 == 0 ? 0 : kLargest;
    if (random_() % 2 == 0) {
      ASSERT_EQ(__QvSetVectorElement(vectors_[d], index, value), before);
    } else {
      ASSERT_EQ(__QvIncrementVectorElement(vectors_[d], index), before);
      value = before + 1;
    }
    models_[d].Write(index, value);
    ASSERT_EQ(__QvGetVectorElement(vectors_[d], index), index < kElements ? value : 0);
  }

  void Duplicate(uint32_t s) {
    QV_VECTOR* const twin = __QvDuplicateVector(vectors_[s], 3);
    Check(*twin, models_[s], 3, sizeof(QV_VECTOR));
    __QvDestroyVector(twin);
    ASSERT_EQ(qvtest::BytesInUse(3), 0u);
  }

  // The documented way to give the pages of a placed vector back.
  void Restart() {
    for (uint32_t i = 0; i < 2; i++) {
      for (int page = 1; page < QV_VECTOR_PAGES; page++) __QvFree(vectors_[i]->pages[page]);
      ASSERT_EQ(qvtest::BytesInUse(kCategory + i), 0u);
      __QvInitializeVector(vectors_[i], kCategory + i);
      models_[i] = {};
    }
  }

  void Validate() {
    for (uint32_t i = 0; i < 3; i++) {
      Check(*vectors_[i], models_[i], kCategory + i, i < 2 ? 0 : sizeof(QV_VECTOR));
    }
  }

  static void Check(const QV_VECTOR& vector, const Model& model, uint32_t category, uint64_t record) {
    ASSERT_SOUND(qv::ValidateVector(vector));
    ASSERT_EQ(vector.sizeAndCategory, category << 24 | model.length);
    uint64_t bytes = record == 0 ? 0 : qvtest::ChunkBytes(record);
    for (uint32_t page = 0; page < 512; page++) {
      ASSERT_EQ(vector.pages[page] != nullptr, model.pages.count(page) != 0);
      ASSERT_EQ(__QvGetVectorElement(&vector, page * 256 + 255), model.Read(page * 256 + 255));
      if (vector.pages[page] == nullptr) continue;
      if (page != 0) bytes += qvtest::ChunkBytes(2048);
      const std::vector<uint64_t>& elements = model.pages.at(page);
      ASSERT_TRUE(std::equal(elements.begin(), elements.end(), vector.pages[page])) << "page " << page;
    }
    ASSERT_EQ(qvtest::BytesInUse(category), bytes);
  }

  QV_VECTOR placed_[2];
  QV_VECTOR* vectors_[3];
  Model models_[3];
  std::mt19937_64 random_;
};

class Vector : public testing::Test {
 protected:
  void SetUp() override { qvtest::InstallAccountingHost(); }
};

TEST_F(Vector, RandomRunsAgreeWithArrays) {
  for (uint32_t seed = 1; seed <= 4; seed++) {
    SCOPED_TRACE(seed);
    qv::g_processorFeatures = seed % 2 == 0 ? qv::kProcessorAsked : 0;  // no AVX2; whatever there is
    Pool(seed).Run(6000);
    if (HasFatalFailure()) return;
  }
  qv::g_processorFeatures = 0;
}

// The page behind a length that ends with a page is made too, cleared, where the source has it; at the
// last index there is no such page.
TEST_F(Vector, MergesThatEndOnAPageBorder) {
  QV_VECTOR a, b;
  __QvInitializeVector(&a, kCategory);
  __QvInitializeVector(&b, kCategory + 1);
  __QvSetVectorElement(&b, 256, 1);
  __QvCopyVector(&b, &a);  // keeps page 1, of length 0
  __QvSetVectorElement(&b, 255, 4);
  __QvMaxVector(&a, &b);
  EXPECT_EQ(a.sizeAndCategory & 0xFFFFFF, 256u);
  ASSERT_NE(a.pages[1], nullptr);
  for (int i = 0; i < QV_VECTOR_PAGE_ELEMENTS; i++) EXPECT_EQ(a.pages[1][i], 0u);
  EXPECT_EQ(__QvSetVectorElement(&b, kElements - 1, 3), 0u);
  __QvMaxVector(&a, &b);
  EXPECT_EQ(__QvGetVectorElement(&a, kElements - 1), 3u);
  EXPECT_EQ(__QvGetVectorElement(&a, kElements), 0u);
  ASSERT_SOUND(qv::ValidateVector(a));
  for (int page = 1; page < QV_VECTOR_PAGES; page++) {
    __QvFree(a.pages[page]);
    __QvFree(b.pages[page]);
  }
}

TEST_F(Vector, ANullVectorReadsAsZero) {
  QV_VECTOR* const vector = __QvCreateVector(kCategory);
  EXPECT_EQ(__QvInitializeVector(nullptr, 1), nullptr);
  EXPECT_EQ(__QvDuplicateVector(nullptr, 1), nullptr);
  __QvDestroyVector(nullptr);
  EXPECT_EQ(__QvGetVectorElement(nullptr, 0) + __QvSetVectorElement(nullptr, 0, 1), 0u);
  EXPECT_EQ(__QvIncrementVectorElement(nullptr, 0), 0u);
  for (QV_VECTOR* const destination : {static_cast<QV_VECTOR*>(nullptr), vector}) {
    __QvCopyVector(destination, nullptr);
    __QvMaxVector(destination, nullptr);
  }
  __QvMaxVector(nullptr, vector);
  __QvCopyVector(nullptr, vector);
  EXPECT_EQ(vector->sizeAndCategory, kCategory << 24);
  __QvDestroyVector(vector);
}

}  // namespace

// Sets and multisets: random runs of every operation over pools in which sources and destinations
// coincide, against std::map; the limits of count and multiplicity; scans that change the set.
#include "containers/sets.h"

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "tests/containers/accounting_host.h"

namespace {

constexpr uint32_t kPool = 4;
using Model = std::map<uint32_t, uint32_t>;  // element -> multiplicity; 1 in a set

const QV_SET* AsSet(const QV_SET& set) { return &set; }
const QV_SET* AsSet(const QV_MULTISET& set) { return reinterpret_cast<const QV_SET*>(&set); }

std::vector<uint32_t> g_scanned;
template <class Header>
std::vector<uint32_t> Scan(const Header& set) {
  g_scanned.clear();
  __QvScanSet(
      AsSet(set),
      [](uint32_t element, uint64_t context) {
        g_scanned.push_back(element);
        EXPECT_EQ(context, 0x123456789ABCDEFu);
      },
      0x123456789ABCDEF);
  return g_scanned;
}

uint32_t SumOf(uint32_t a, uint32_t b) {
  return uint32_t(std::min<uint64_t>(uint64_t{a} + b, UINT32_MAX));
}

// The two kinds, with their calls under one name.
struct SetKind {
  using Header = QV_SET;
  static constexpr bool kCounts = false;
  static constexpr auto Add = __QvAddAnElementToSet, Delete = __QvDeleteAnElementFromSet,
                        DeleteAll = __QvDeleteAnElementFromSet;
  static constexpr auto Union = __QvUnionSet, Difference = __QvDifferenceSet, Copy = __QvConstructSet;
  static constexpr auto Intersect = __QvIntersectSet;
  static constexpr auto Move = __QvConstructSetAndDestroy;
  static constexpr auto Empty = __QvEmptySet, Destroy = __QvDestroySet;
  static constexpr auto Equal = __QvAreSetsEqual;
  static constexpr auto Validate = qv::ValidateSet;
  static uint32_t Multiplicity(const QV_SET* set, uint32_t element) {
    const uint32_t bit = __QvIsAnElementOfSet(set, element);
    EXPECT_TRUE(bit == 0 || bit == 1u << element % 32);
    return bit != 0;
  }
};
struct MultiSetKind {
  using Header = QV_MULTISET;
  static constexpr bool kCounts = true;
  static constexpr auto Add = __QvAddAnElementToMultiSet, Delete = __QvDeleteAnElementFromMultiSet,
                        DeleteAll = __QvDeleteAllInstancesOfAnElementFromMultiSet;
  static constexpr auto Union = __QvUnionMultiSet, Difference = __QvDifferenceMultiSet,
                        Copy = __QvConstructMultiSet;
  static constexpr auto Intersect = __QvIntersectMultiSet;
  static constexpr auto Move = __QvConstructMultiSetAndDestroy;
  static constexpr auto Empty = __QvEmptyMultiSet, Destroy = __QvDestroyMultiSet;
  static constexpr auto Equal = __QvAreMultiSetsEqual;
  static constexpr auto Validate = qv::ValidateMultiSet;
  static constexpr auto Multiplicity = __QvGetElementMultiplicity;
};

template <class Kind>
class Pool {
 public:
  Pool(uint32_t firstCategory, uint32_t seed) : firstCategory_(firstCategory), random_(seed) {
    for (uint32_t i = 0; i < kPool; i++) sets_[i].category = (firstCategory_ + i) & 0xFF;
  }

  void Run(int steps) {
    for (int step = 0; step < steps; step++) {
      Change();
      Compare(Any(), Any());
      if (step % 8 == 0) ValidateAll();
      if (testing::Test::HasFatalFailure()) return;
    }
    for (uint32_t i = 0; i < kPool; i++) {
      (i % 2 == 0 ? Kind::Empty : Kind::Destroy)(&sets_[i]);
      models_[i].clear();
    }
    ValidateAll();
  }

 private:
  using Header = typename Kind::Header;

  uint32_t Any() { return uint32_t(random_() % kPool); }
  // Clusters around word and chunk borders, at both ends of the range.
  uint32_t Element() {
    const uint32_t cluster = uint32_t(random_() % 6);
    const uint32_t element = cluster * 640 + uint32_t(random_() % (cluster == 5 ? 3 : 150));
    return cluster % 2 == 0 ? element : ~element;
  }

  void Change() {
    const uint32_t d = Any(), a = Any(), b = Any();
    Header& set = sets_[d];
    Model& model = models_[d];
    switch (random_() % 40) {
      case 0:
        Kind::Union(&set, &sets_[a]);
        for (const auto& [element, n] : Model(models_[a])) {
          if (Kind::kCounts || d != a) model[element] = Kind::kCounts ? SumOf(model[element], n) : 1;
        }
        return;
      case 1: Kind::Difference(&set, &sets_[a]); return ModelDifference(model, models_[a]);
      case 2: {
        Kind::Intersect(&set, &sets_[a], &sets_[b]);
        Model common;
        for (const auto& [element, n] : models_[a]) {
          if (models_[b].count(element) != 0) common[element] = std::min(n, models_[b][element]);
        }
        model = common;
        return;
      }
      case 3:
        Kind::Copy(&set, &sets_[a]);
        model = Model(models_[a]);
        return;
      case 4:
        Kind::Move(&set, &sets_[a]);
        if (d == a) return;
        model = models_[a];
        models_[a].clear();
        return;
      case 5:
        if (random_() % 4 != 0) return;
        Kind::Empty(&set);
        model.clear();
        return;
      default: return ChangeOne(set, model);
    }
  }

  void ModelDifference(Model& model, Model source) {
    for (const auto& [element, n] : source) {
      const auto found = model.find(element);
      if (found == model.end()) continue;
      if (found->second > n) {
        found->second -= n;
      } else {
        model.erase(found);
      }
    }
  }

  void ChangeOne(Header& set, Model& model) {
    const uint32_t element = Element();
    const uint32_t kind = uint32_t(random_() % 8);
    if (kind < 5) {
      Kind::Add(&set, element);
      model[element] = Kind::kCounts ? SumOf(model[element], 1) : 1;
    } else if (kind == 5) {
      Kind::DeleteAll(&set, element);
      model.erase(element);
    } else {
      Kind::Delete(&set, element);
      ModelDifference(model, {{element, 1}});
    }
    ASSERT_EQ(Kind::Multiplicity(&set, element), model.count(element) ? model[element] : 0);
  }

  void Compare(uint32_t a, uint32_t b) {
    const Model &x = models_[a], &y = models_[b];
    ASSERT_EQ(Kind::Equal(&sets_[a], &sets_[b]), x == y);
    const auto inY = [&](const auto& entry) { return y.count(entry.first) != 0; };
    ASSERT_EQ(__QvIsASubsetOfSet(AsSet(sets_[a]), AsSet(sets_[b])),
              std::all_of(x.begin(), x.end(), inY));
    ASSERT_EQ(__QvAreSetsDisjoint(AsSet(sets_[a]), AsSet(sets_[b])),
              a != b && std::none_of(x.begin(), x.end(), inY));
    if (Kind::kCounts) return;
    const int32_t bySize = int32_t(x.size()) - int32_t(y.size());
    ASSERT_EQ(__QvCompareSets(AsSet(sets_[a]), AsSet(sets_[b])), x == y ? 0 : bySize != 0 ? bySize : 1);
  }

  void ValidateAll() {
    uint64_t chunks = 0, bytes = 0;
    for (uint32_t i = 0; i < kPool; i++) {
      ASSERT_SOUND(Kind::Validate(sets_[i]));
      ASSERT_EQ(sets_[i].category, firstCategory_ + i);
      std::vector<uint32_t> elements;
      for (const auto& [element, n] : models_[i]) {
        chunks += elements.empty() || elements.back() / 64 != element / 64;
        elements.push_back(element);
        ASSERT_EQ(Kind::Multiplicity(&sets_[i], element), n);
      }
      ASSERT_EQ(Scan(sets_[i]), elements);
      bytes += qvtest::BytesInUse(firstCategory_ + i);  // a moved chunk stays in its category
    }
    ASSERT_EQ(bytes, chunks * qvtest::ChunkBytes(sizeof(qv::ChunkOf<Header>)));
  }

  const uint32_t firstCategory_;
  Header sets_[kPool] = {};
  Model models_[kPool];
  std::mt19937 random_;
};

class Sets : public testing::Test {
 protected:
  void SetUp() override { qvtest::InstallAccountingHost(); }
};

TEST_F(Sets, RandomRunsAgreeWithAModel) {
  for (uint32_t seed = 1; seed <= 4; seed++) {
    SCOPED_TRACE(seed);
    Pool<SetKind>(20, seed).Run(6000);
    Pool<MultiSetKind>(30, seed).Run(6000);
    if (HasFatalFailure()) return;
  }
}

QV_SET SetOf(std::initializer_list<uint32_t> elements) {
  QV_SET set = {};
  for (const uint32_t element : elements) __QvAddAnElementToSet(&set, element);
  return set;
}

TEST_F(Sets, MultisetTakesASetOnceEach) {
  std::mt19937 random(5);
  QV_MULTISET multiset = {};
  Model model;
  for (int round = 0; round < 200; round++) {
    QV_SET set = {};
    for (uint64_t i = random() % 90; i-- != 0;) __QvAddAnElementToSet(&set, uint32_t(random() % 700));
    for (const uint32_t element : Scan(set)) model[element]++;
    __QvUnionMultiSetSet(&multiset, &set);
    __QvDestroySet(&set);
    ASSERT_SOUND(qv::ValidateMultiSet(multiset));
    for (uint32_t element = 0; element < 700; element++) {
      ASSERT_EQ(__QvGetElementMultiplicity(&multiset, element),
                model.count(element) ? model[element] : 0);
    }
  }
  __QvDestroyMultiSet(&multiset);
  EXPECT_EQ(__QvIsMultiSetEmpty(&multiset), 1u);
}

// The count has 24 bits and the category sits right above it.
TEST_F(Sets, WhatWouldPassTheLimitIsRefused) {
  QV_SET full = {0, 40, nullptr};
  for (uint32_t element = QV_SET_MAXIMUM_COUNT; element-- != 0;)
    __QvAddAnElementToSet(&full, element + 64);
  EXPECT_EQ(full.count, uint32_t{QV_SET_MAXIMUM_COUNT});
  const uint64_t bytes = qvtest::BytesInUse(40);
  const QV_SET more =
      SetOf({1, 63, 64, QV_SET_MAXIMUM_COUNT + 63, QV_SET_MAXIMUM_COUNT + 64, 0xFFFFFFFF});
  __QvAddAnElementToSet(&full, 3);                          // a new chunk
  __QvAddAnElementToSet(&full, QV_SET_MAXIMUM_COUNT + 64);  // a new bit
  __QvUnionSet(&full, &more);
  EXPECT_EQ(full.count, uint32_t{QV_SET_MAXIMUM_COUNT});
  EXPECT_EQ(full.category, 40u);
  EXPECT_EQ(qvtest::BytesInUse(40), bytes);
  EXPECT_EQ(__QvIsAnElementOfSet(&full, 3), 0u);
  __QvDeleteAnElementFromSet(&full, 64);
  __QvDeleteAnElementFromSet(&full, 65);
  __QvUnionSet(&full, &more);  // room for two: the smallest
  EXPECT_EQ(__QvIsAnElementOfSet(&full, 1), 2u);
  EXPECT_NE(__QvIsAnElementOfSet(&full, 63), 0u);
  EXPECT_EQ(__QvIsAnElementOfSet(&full, 64), 0u);
  EXPECT_NE(__QvIsAnElementOfSet(&full, QV_SET_MAXIMUM_COUNT + 63), 0u);
  ASSERT_SOUND(qv::ValidateSet(full));
  __QvDestroySet(&full);
  EXPECT_EQ(qvtest::BytesInUse(40), 0u);
  EXPECT_EQ(full.category, 40u);

  // A multiset that says it is nearly full. What it has may still grow.
  QV_MULTISET multiset = {0, 41, nullptr};
  __QvAddAnElementToMultiSet(&multiset, 64);
  multiset.count = QV_SET_MAXIMUM_COUNT - 2;
  QV_MULTISET source = {0, 42, nullptr};
  for (const uint32_t element : {65u, 70u, 64u, 66u, 200u})
    __QvAddAnElementToMultiSet(&source, element);
  __QvUnionMultiSet(&multiset, &source);
  __QvUnionMultiSetSet(&multiset, &more);
  __QvAddAnElementToMultiSet(&multiset, 67);
  EXPECT_EQ(multiset.count, uint32_t{QV_SET_MAXIMUM_COUNT});
  EXPECT_EQ(multiset.category, 41u);
  EXPECT_EQ(Scan(multiset), (std::vector<uint32_t>{64, 65, 66}));
  EXPECT_EQ(__QvGetElementMultiplicity(&multiset, 64), 3u);
  EXPECT_EQ(__QvGetElementMultiplicity(&multiset, 70) + __QvGetElementMultiplicity(&multiset, 67), 0u);
  multiset.count = 3;
  ASSERT_SOUND(qv::ValidateMultiSet(multiset));
  __QvDestroyMultiSet(&multiset);
  __QvDestroyMultiSet(&source);
  QV_SET emptied = more;
  __QvDestroySet(&emptied);
}

// A multiplicity that wrapped to 0 would leave an element that is present no times.
TEST_F(Sets, MultiplicitiesStopAtTheirLargestValue) {
  QV_MULTISET multiset = {};
  for (const uint32_t element : {0u, 0u, 0u, 1u, 63u}) __QvAddAnElementToMultiSet(&multiset, element);
  for (int i = 0; i < 31; i++) __QvUnionMultiSet(&multiset, &multiset);
  EXPECT_EQ(__QvGetElementMultiplicity(&multiset, 0), UINT32_MAX);
  EXPECT_EQ(__QvGetElementMultiplicity(&multiset, 1), 1u << 31);
  QV_MULTISET other = {};
  __QvConstructMultiSet(&other, &multiset);
  QV_SET set = SetOf({0, 1, 2});
  __QvUnionMultiSet(&other, &multiset);
  __QvAddAnElementToMultiSet(&other, 0);
  __QvUnionMultiSetSet(&other, &set);
  EXPECT_EQ(__QvGetElementMultiplicity(&other, 0), UINT32_MAX);
  EXPECT_EQ(__QvGetElementMultiplicity(&other, 63), UINT32_MAX);
  __QvDifferenceMultiSet(&other, &multiset);  // unsigned, on both sides of 2^31
  EXPECT_EQ(Scan(other), (std::vector<uint32_t>{1, 2, 63}));
  EXPECT_EQ(__QvGetElementMultiplicity(&other, 1), (1u << 31) - 1);
  __QvIntersectMultiSet(&other, &other, &multiset);
  EXPECT_EQ(__QvGetElementMultiplicity(&other, 63), (1u << 31) - 1);
  ASSERT_SOUND(qv::ValidateMultiSet(other));
  __QvDestroyMultiSet(&other);
  __QvDestroyMultiSet(&multiset);
  __QvDestroySet(&set);
}

QV_SET g_set;
std::vector<uint32_t> ScanWith(QV_SET_CALLBACK callback) {
  g_scanned.clear();
  __QvScanSet(&g_set, callback, 0);
  return g_scanned;
}

TEST_F(Sets, ScansGoOnWhenTheCallbackChangesTheSet) {
  const std::vector<uint32_t> elements = {1, 2, 70, 200, 201, 1000};
  g_set = SetOf({1, 2, 70, 200, 201, 1000});
  // Deletes what it is given: the chunk under the scan goes.
  const auto scanned = ScanWith([](uint32_t element, uint64_t) {
    g_scanned.push_back(element);
    __QvDeleteAnElementFromSet(&g_set, element);
  });
  EXPECT_EQ(scanned, elements);
  EXPECT_EQ(g_set.chunks, nullptr);
  // One call takes the chunk under the scan away, the next adds as many: the count is what it was.
  g_set = SetOf({64, 65, 200});
  EXPECT_EQ(ScanWith([](uint32_t element, uint64_t) {
              g_scanned.push_back(element);
              for (const uint32_t each : {64u, 65u}) {
                if (element == 64) __QvDeleteAnElementFromSet(&g_set, each);
                if (element == 65) __QvAddAnElementToSet(&g_set, each + 240);
              }
            }),
            (std::vector<uint32_t>{64, 65, 200, 304, 305}));
  // Empties the set.
  EXPECT_EQ(ScanWith([](uint32_t element, uint64_t) {
              g_scanned.push_back(element);
              __QvDestroySet(&g_set);
            }),
            (std::vector<uint32_t>{200}));
}

TEST_F(Sets, NullsAndTheEmptySet) {
  QV_SET set = SetOf({5}), empty = {};
  QV_MULTISET multiset = {};
  __QvAddAnElementToMultiSet(&multiset, 5);
  EXPECT_EQ(__QvAreSetsDisjoint(&empty, &empty), 0u);
  EXPECT_EQ(__QvIsASubsetOfSet(&empty, &set), 1u);
  EXPECT_EQ(__QvAreSetsEqual(nullptr, nullptr) + __QvAreSetsEqual(&set, nullptr), 0u);
  EXPECT_EQ(__QvCompareSets(nullptr, &set), 0);
  EXPECT_EQ(__QvAreSetsDisjoint(&set, nullptr) + __QvIsASubsetOfSet(nullptr, &set), 0u);
  EXPECT_EQ(__QvIsAnElementOfSet(nullptr, 5) + __QvGetElementMultiplicity(nullptr, 5), 0u);
  EXPECT_EQ(__QvAreMultiSetsEqual(nullptr, &multiset), 0u);
  EXPECT_EQ(__QvIsMultiSetEmpty(nullptr), 1u);
  EXPECT_EQ(__QvIsMultiSetEmpty(&multiset), 0u);
  for (QV_SET* const destination : {static_cast<QV_SET*>(nullptr), &set}) {
    __QvUnionSet(destination, nullptr);
    __QvDifferenceSet(destination, nullptr);
    __QvIntersectSet(destination, nullptr, &set);
    __QvIntersectSet(destination, &set, nullptr);
    __QvConstructSet(destination, nullptr);
    __QvConstructSetAndDestroy(destination, nullptr);
    __QvUnionMultiSetSet(nullptr, destination);
  }
  for (QV_MULTISET* const destination : {static_cast<QV_MULTISET*>(nullptr), &multiset}) {
    __QvUnionMultiSet(destination, nullptr);
    __QvUnionMultiSetSet(destination, nullptr);
    __QvDifferenceMultiSet(destination, nullptr);
    __QvIntersectMultiSet(destination, nullptr, &multiset);
    __QvIntersectMultiSet(destination, &multiset, nullptr);
    __QvConstructMultiSet(destination, nullptr);
    __QvConstructMultiSetAndDestroy(destination, nullptr);
  }
  __QvScanSet(&set, nullptr, 0);
  __QvScanSet(
      nullptr, [](uint32_t, uint64_t) { FAIL(); }, 0);
  __QvAddAnElementToSet(nullptr, 1);
  __QvDeleteAnElementFromSet(nullptr, 1);
  __QvEmptySet(nullptr);
  __QvDestroySet(nullptr);
  __QvAddAnElementToMultiSet(nullptr, 1);
  __QvDeleteAnElementFromMultiSet(nullptr, 1);
  __QvDeleteAllInstancesOfAnElementFromMultiSet(nullptr, 1);
  __QvEmptyMultiSet(nullptr);
  __QvDestroyMultiSet(nullptr);
  __QvPrintOutSet(&set);
  __QvPrintOutMultiSet(&multiset);
  EXPECT_EQ(Scan(set), (std::vector<uint32_t>{5}));
  EXPECT_EQ(Scan(multiset), (std::vector<uint32_t>{5}));
  __QvDestroySet(&set);
  __QvDestroyMultiSet(&multiset);
}

}  // namespace

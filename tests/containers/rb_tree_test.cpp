// Red-black tree: long random runs against std::multimap with every handle held, shapes after the
// documented steps, destructors that change the tree, damage that validation must find or must not
// mind.
#include "containers/rb_tree.h"

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/containers/accounting_host.h"

namespace {

using Tree = QV_RED_BLACK_TREE;
using Node = QV_RED_BLACK_NODE;
constexpr uint64_t kLast = ~uint64_t{0};
constexpr uint32_t kCategory = 9;

uint64_t g_compared = 0;
int32_t Descending(uint64_t a, uint64_t b) {  // only the sign of the result may count
  g_compared++;
  return a > b ? INT32_MIN : a < b ? 77 : 0;
}

std::vector<std::pair<char, uint64_t>> g_destroyed;
void RecordItem(uint64_t item) { g_destroyed.emplace_back('i', item); }
void RecordKey(uint64_t key) { g_destroyed.emplace_back('k', key); }

struct Order {
  bool descending;
  bool operator()(uint64_t a, uint64_t b) const { return descending ? a > b : a < b; }
};

// A tree beside a std::multimap. Equal keys stand in the order of insertion in both.
class Pair {
 public:
  Pair(bool descending, uint64_t keys, uint32_t seed)
      : keys_(keys),
        model_(Order{descending}),
        random_(seed),
        tree_(__QvCreateRedBlackTree(kCategory, descending ? Descending : nullptr, RecordItem,
                                     RecordKey)) {}

  void Run(int steps) {
    for (int step = 0; step < steps; step++) {
      const uint64_t dice = random_() % 100;
      if (dice < (step / 2000 % 2 == 0 ? 45u : 25u)) {  // it grows and shrinks by turns
        Insert();
      } else if (dice < 70) {
        Remove();
      } else if (dice < 72) {
        DestroyRange();
      } else {
        Query();
      }
      if (testing::Test::HasFatalFailure()) return;
      if (step % 16 == 0) Validate();
    }
    Validate();
    DestroyTree();
  }

 private:
  using Iterator = std::multimap<uint64_t, uint64_t, Order>::iterator;
  struct Entry {
    Node* node;
    Iterator iterator;
  };

  // Few enough keys to repeat, at both ends of the range.
  uint64_t Key() {
    const uint64_t key = random_() % keys_;
    return key % 2 == 0 ? key : kLast - key;
  }
  Node* Expected(Iterator iterator) {
    return iterator == model_.end() ? nullptr : nodes_[iterator->second];
  }
  static Iterator Previous(Iterator iterator) { return --iterator; }
  bool After(uint64_t a, uint64_t b) { return model_.key_comp()(b, a); }

  void Insert() {
    const uint64_t key = Key(), item = nextItem_++;
    const Iterator iterator = model_.emplace(key, item);
    __QvInsertRedBlackEntry(tree_, key, item);
    Node* const node = __QvGetRedBlackRangeEnd(tree_, key);
    uint64_t found = 0;
    ASSERT_EQ(__QvGetRedBlackItem(node, &found), 1u);
    ASSERT_EQ(found, item);
    nodes_[item] = node;
    entries_.push_back({node, iterator});
  }

  void Remove() {
    if (entries_.empty()) return;
    Entry& entry = entries_[random_() % entries_.size()];
    __QvRemoveRedBlackEntry(entry.node);
    ASSERT_TRUE(g_destroyed.empty());
    nodes_.erase(entry.iterator->second);
    model_.erase(entry.iterator);
    entry = entries_.back();
    entries_.pop_back();
  }

  void DestroyRange() {
    const uint64_t low = Key();
    const uint64_t high = random_() % 4 == 0 ? Key() : low;
    __QvDestroyRedBlackRange(tree_, low, high);
    std::vector<std::pair<char, uint64_t>> expected;
    Iterator iterator = model_.lower_bound(low);
    bool exact = iterator != model_.end() && iterator->first == low;
    // The first one of an exact match goes even where the range is inverted.
    while (iterator != model_.end() && (exact || !After(iterator->first, high))) {
      exact = false;
      expected.emplace_back('i', iterator->second);
      expected.emplace_back('k', iterator->first);
      nodes_.erase(iterator->second);
      std::erase_if(entries_, [&](const Entry& entry) { return entry.iterator == iterator; });
      iterator = model_.erase(iterator);
    }
    ASSERT_EQ(g_destroyed, expected);
    g_destroyed.clear();
  }

  void Query() {
    const uint64_t low = Key(), high = Key();
    Iterator start = model_.lower_bound(low);
    if (start != model_.end() && start->first != low && After(start->first, high)) start = model_.end();
    ASSERT_EQ(__QvGetRedBlackRangeStart(tree_, low, high), Expected(start));
    Iterator end = model_.upper_bound(high);
    end = end == model_.begin() ? model_.end() : Previous(end);
    ASSERT_EQ(__QvGetRedBlackRangeEnd(tree_, high), Expected(end));
    if (entries_.empty()) return;
    const Entry& entry = entries_[random_() % entries_.size()];
    Iterator next = std::next(entry.iterator);
    if (next != model_.end() && After(next->first, high)) next = model_.end();
    ASSERT_EQ(__QvGetRedBlackRangeNext(entry.node, high), Expected(next));
    Iterator prev = entry.iterator == model_.begin() ? model_.end() : Previous(entry.iterator);
    if (prev != model_.end() && After(low, prev->first)) prev = model_.end();
    ASSERT_EQ(__QvGetRedBlackRangePrev(entry.node, low), Expected(prev));
  }

  void Validate() {
    ASSERT_SOUND(qv::ValidateTree(*tree_));
    ASSERT_EQ(__QvValidateRedBlack(tree_), 1u);
    ASSERT_EQ(tree_->count, model_.size());
    const uint64_t nodes = model_.size() + 1;
    ASSERT_EQ(qvtest::BytesInUse(kCategory),
              qvtest::ChunkBytes(sizeof(Tree)) + nodes * qvtest::ChunkBytes(sizeof(Node)));
    for (const Entry& entry : entries_) {  // what a handle names never moves
      ASSERT_EQ(entry.node->key, entry.iterator->first);
      ASSERT_EQ(entry.node->item, entry.iterator->second);
    }
  }

  void DestroyTree() {
    std::vector<std::pair<char, uint64_t>> expected;
    for (const auto& [key, item] : model_) {
      expected.emplace_back('i', item);
      expected.emplace_back('k', key);
    }
    __QvDestroyRedBlackTree(tree_);
    ASSERT_EQ(g_destroyed, expected);
    g_destroyed.clear();
    ASSERT_EQ(qvtest::BytesInUse(kCategory), 0u);
  }

  const uint64_t keys_;
  std::multimap<uint64_t, uint64_t, Order> model_;
  std::map<uint64_t, Node*> nodes_;  // by item
  std::vector<Entry> entries_;
  std::mt19937_64 random_;
  uint64_t nextItem_ = 1;
  Tree* const tree_;
};

class RedBlackTree : public testing::Test {
 protected:
  void SetUp() override { qvtest::InstallAccountingHost(); }
};

TEST_F(RedBlackTree, RandomRunsAgreeWithAMultimapAndHandlesStay) {
  for (uint32_t seed = 1; seed <= 3; seed++) {
    for (const uint64_t keys : {uint64_t{6}, uint64_t{300}, kLast}) {
      for (const bool descending : {false, true}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed << " keys " << keys << " " << descending);
        Pair(descending, keys, seed).Run(8000);
        if (HasFatalFailure()) return;
      }
    }
  }
}

// "20b(10r 30r)"; a missing child is a dot.
std::string Shape(const Tree* tree, const Node* node) {
  if (node == tree->nil) return ".";
  std::string shape = std::to_string(node->key) + (node->color == QV_RB_RED ? "r" : "b");
  if (node->left == tree->nil && node->right == tree->nil) return shape;
  return shape + "(" + Shape(tree, node->left) + " " + Shape(tree, node->right) + ")";
}
std::string Shape(const Tree* tree) { return Shape(tree, tree->root); }

Tree* NewTree(std::initializer_list<uint64_t> keys) {
  Tree* const tree = __QvCreateRedBlackTree(kCategory, nullptr, nullptr, nullptr);
  for (const uint64_t key : keys) __QvInsertRedBlackEntry(tree, key, key);
  return tree;
}
void RemoveKey(Tree* tree, uint64_t key) {
  __QvRemoveRedBlackEntry(__QvGetRedBlackRangeStart(tree, key, key));
}

// A removal that moved the predecessor up, or a fix-up with other colours, is sound too, but not ours.
TEST_F(RedBlackTree, ShapesAreThoseOfTheDocumentedSteps) {
  Tree* tree = NewTree({10, 20, 30});
  EXPECT_EQ(Shape(tree), "20b(10r 30r)");  // an outer rotation
  __QvInsertRedBlackEntry(tree, 40, 0);
  EXPECT_EQ(Shape(tree), "20b(10b 30b(. 40r))");  // a red uncle
  __QvInsertRedBlackEntry(tree, 35, 0);
  EXPECT_EQ(Shape(tree), "20b(10b 35b(30r 40r))");  // an inner rotation
  RemoveKey(tree, 20);
  EXPECT_EQ(Shape(tree), "30b(10b 35b(. 40r))");  // the successor, deeper down, takes the place
  RemoveKey(tree, 30);
  EXPECT_EQ(Shape(tree), "35b(10b 40b)");  // the successor is the right child
  __QvInsertRedBlackEntry(tree, 37, 0);
  RemoveKey(tree, 10);
  EXPECT_EQ(Shape(tree), "37b(35b 40b)");  // the sibling's near child is red
  RemoveKey(tree, 40);
  EXPECT_EQ(Shape(tree), "37b(35r .)");  // a black sibling with black children
  __QvDestroyRedBlackTree(tree);
  tree = NewTree({1, 2, 3, 4, 5, 6});
  EXPECT_EQ(Shape(tree), "2b(1b 4r(3b 5b(. 6r)))");
  RemoveKey(tree, 1);
  EXPECT_EQ(Shape(tree), "4b(2b(. 3r) 5b(. 6r))");  // a red sibling
  __QvDestroyRedBlackTree(tree);
}

TEST_F(RedBlackTree, WhatIsNoEntryIsLeftAlone) {
  uint64_t out = 5;
  __QvInsertRedBlackEntry(nullptr, 1, 1);
  __QvRemoveRedBlackEntry(nullptr);
  __QvDestroyRedBlackRange(nullptr, 0, kLast);
  __QvDestroyRedBlackTree(nullptr);
  EXPECT_EQ(__QvValidateRedBlack(nullptr), 0u);
  EXPECT_EQ(__QvGetRedBlackRangeStart(nullptr, 0, kLast), nullptr);
  EXPECT_EQ(__QvGetRedBlackRangeEnd(nullptr, kLast), nullptr);
  Tree* const tree = NewTree({});
  EXPECT_EQ(__QvGetRedBlackRangeStart(tree, 0, kLast), nullptr);
  EXPECT_EQ(__QvGetRedBlackRangeEnd(tree, kLast), nullptr);
  __QvDestroyRedBlackRange(tree, 0, kLast);
  EXPECT_EQ(__QvValidateRedBlack(tree), 1u);
  for (const uint64_t key : {5ull, 7ull, 9ull}) __QvInsertRedBlackEntry(tree, key, key);
  Node* const removed = __QvGetRedBlackRangeStart(tree, 5, 5);
  __QvRemoveRedBlackEntry(removed);
  for (Node* const node : {static_cast<Node*>(nullptr), tree->nil, removed}) {
    __QvRemoveRedBlackEntry(node);
    EXPECT_EQ(__QvGetRedBlackRangeNext(node, kLast), nullptr);
    EXPECT_EQ(__QvGetRedBlackRangePrev(node, 0), nullptr);
    EXPECT_EQ(__QvGetRedBlackKey(node, &out) + __QvGetRedBlackItem(node, &out), 0u);
  }
  EXPECT_EQ(__QvGetRedBlackKey(tree->root, nullptr) + __QvGetRedBlackItem(tree->root, nullptr), 0u);
  EXPECT_EQ(out, 5u);
  EXPECT_EQ(tree->count, 2u);
  ASSERT_SOUND(qv::ValidateTree(*tree));
  __QvDestroyRedBlackTree(tree);
}

// Each kind of damage, done to a sound tree and undone.
TEST_F(RedBlackTree, ValidationFindsDamageAndOnlyThat) {
  Tree* const tree = NewTree({1, 2, 3, 4, 5, 6});  // 2b(1b 4r(3b 5b(. 6r)))
  Node* const two = tree->root;
  Node* const four = two->right;
  Node* const five = four->right;
  const auto expect = [&](uint32_t result, auto& field, auto damaged, const char* what) {
    const auto sound = field;
    field = damaged;
    EXPECT_EQ(__QvValidateRedBlack(tree), result) << what;
    EXPECT_NE(qv::ValidateTree(*tree), nullptr) << what;
    field = sound;
    ASSERT_SOUND(qv::ValidateTree(*tree));
  };
  expect(0, five->color, uint32_t{QV_RB_RED}, "a red pair");
  expect(0, four->color, uint32_t{QV_RB_BLACK}, "a long path on the right");
  expect(0, two->left->color, uint32_t{QV_RB_RED}, "a short path on the left");
  expect(0, four->key, uint64_t{9}, "keys out of order");
  expect(0, tree->count, 5u, "a count too small");
  expect(0, tree->count, 7u, "a count too large");
  expect(0, two->next, four, "a thread that skips");
  expect(0, five->next, two, "a thread that is a ring");
  expect(0, two->left->left, two, "left links that are a ring");
  expect(0, four->right, four, "right links that are a ring");
  expect(1, five->parent, two, "a parent link");
  expect(1, four->prev, two, "a prev link");
  RemoveKey(tree, 1);  // 4b(2b(. 3r) 5b(. 6r)): the root has no red child any more
  expect(1, four->color, uint32_t{QV_RB_RED}, "the colour of the root");
  __QvDestroyRedBlackTree(tree);

  // A list hanging down on the left, all black: deeper than the stack is.
  Tree* const list = NewTree({});
  for (uint64_t key = 0; key < 300000; key++) __QvInsertRedBlackEntry(list, key, key);
  Node* const last = __QvGetRedBlackRangeEnd(list, kLast);
  for (Node* node = last; node != list->nil; node = node->prev) {
    node->left = node->prev;
    node->right = list->nil;
    node->color = QV_RB_BLACK;
  }
  list->root = last;
  EXPECT_EQ(__QvValidateRedBlack(list), 0u);
  __QvDestroyRedBlackTree(list);
}

Tree* g_tree = nullptr;

// Destructors may insert and remove while a range goes, except the entry that is next.
TEST_F(RedBlackTree, DestructorsFindASoundTreeAndMayChangeIt) {
  g_tree = __QvCreateRedBlackTree(
      kCategory, nullptr,
      [](uint64_t item) {
        g_destroyed.emplace_back('i', item);
        ASSERT_SOUND(qv::ValidateTree(*g_tree));
        EXPECT_EQ(__QvGetRedBlackRangeStart(g_tree, item, item), nullptr);
        if (g_tree->count == 0) return;  // the whole tree goes
        if (item < 1000) __QvInsertRedBlackEntry(g_tree, item + 1000, item + 1000);
        RemoveKey(g_tree, item + 300);
      },
      nullptr);
  for (uint64_t key = 0; key < 400; key++) __QvInsertRedBlackEntry(g_tree, key, key);
  __QvDestroyRedBlackRange(g_tree, 50, 149);
  EXPECT_EQ(g_destroyed.size(), 100u);
  EXPECT_EQ(g_tree->count, 400u - 100 + 100 - 50);  // 350 to 399 went by removal
  g_destroyed.clear();
  __QvDestroyRedBlackTree(g_tree);
  EXPECT_EQ(g_destroyed.size(), 350u);
  g_destroyed.clear();
  EXPECT_EQ(qvtest::BytesInUse(kCategory), 0u);
}

TEST_F(RedBlackTree, SearchesAreLogarithmicHoweverManyKeysAreEqual) {
  Tree* const tree = __QvCreateRedBlackTree(kCategory, Descending, nullptr, nullptr);
  for (uint64_t i = 0; i < 100000; i++) __QvInsertRedBlackEntry(tree, 7 + i / 50000, i);
  uint64_t item = 0;
  g_compared = 0;
  __QvGetRedBlackItem(__QvGetRedBlackRangeStart(tree, 7, 7), &item);
  EXPECT_EQ(item, 0u);
  __QvGetRedBlackItem(__QvGetRedBlackRangeEnd(tree, 8), &item);
  EXPECT_EQ(item, 99999u);
  __QvInsertRedBlackEntry(tree, 7, 0);
  EXPECT_LT(g_compared, 3 * 36u);
  __QvDestroyRedBlackTree(tree);
  EXPECT_EQ(qvtest::BytesInUse(kCategory), 0u);
}

}  // namespace

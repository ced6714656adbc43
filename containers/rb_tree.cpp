// Red-black tree: searches, linking, the two fix-ups, validation, and the exported calls. Design:
// containers/rb_tree.h.
#include "containers/rb_tree.h"

#include "memory/allocate.h"

using Tree = QV_RED_BLACK_TREE;
using Node = QV_RED_BLACK_NODE;

static_assert(sizeof(Tree) == 48 && offsetof(Tree, nil) == 8 && offsetof(Tree, compare) == 16 &&
              offsetof(Tree, destroyItem) == 24 && offsetof(Tree, destroyKey) == 32 &&
              offsetof(Tree, category) == 40 && offsetof(Tree, count) == 44);
static_assert(sizeof(Node) == 72 && offsetof(Node, left) == 8 && offsetof(Node, right) == 16 &&
              offsetof(Node, parent) == 24 && offsetof(Node, prev) == 32 &&
              offsetof(Node, next) == 40 && offsetof(Node, key) == 48 && offsetof(Node, item) == 56 &&
              offsetof(Node, color) == 64);

namespace qv {
namespace {

// ---- Order ------------------------------------------------------------------------------------------

int32_t CompareKeys(uint64_t a, uint64_t b) { return (a > b) - (a < b); }

// The two orders that loops are compiled for. An operation asks once which one the tree has. How often
// a callback is asked about a pair is not counted on: it is a consistent order.
struct DefaultOrder {
  QV_INLINE bool Before(uint64_t a, uint64_t b) const { return a < b; }
  QV_INLINE bool NotAfter(uint64_t a, uint64_t b) const { return a <= b; }
  QV_INLINE bool Same(uint64_t a, uint64_t b) const { return a == b; }
};
struct CalledOrder {
  QV_RED_BLACK_COMPARE compare;
  bool Before(uint64_t a, uint64_t b) const { return compare(a, b) < 0; }
  bool NotAfter(uint64_t a, uint64_t b) const { return compare(a, b) <= 0; }
  bool Same(uint64_t a, uint64_t b) const { return compare(a, b) == 0; }
};

template <class Body>
QV_INLINE auto WithOrderOf(const Tree& tree, Body body) {
  if (QV_LIKELY(tree.compare == CompareKeys)) return body(DefaultOrder{});
  return body(CalledOrder{tree.compare});
}

// One of the two, without a branch: which one is as good as random.
QV_INLINE Node* Choose(bool first, Node* one, Node* other) {
  const uintptr_t mask = uintptr_t{0} - uintptr_t{first};
  const uintptr_t a = reinterpret_cast<uintptr_t>(one), b = reinterpret_cast<uintptr_t>(other);
  return reinterpret_cast<Node*>(b ^ ((a ^ b) & mask));
}

// ---- Searches ---------------------------------------------------------------------------------------

// The first entry that is not before `key`, or nil. Going down all the way finds the earliest of equal
// keys in logarithmic time, where stepping back from any of them would be linear.
template <class Order>
QV_INLINE Node* FirstNotBefore(const Tree& tree, uint64_t key, Order order) {
  Node* const nil = tree.nil;
  Node* found = nil;
  for (Node* node = tree.root; node != nil;) {
    const bool left = order.NotAfter(key, node->key);
    found = Choose(left, node, found);
    node = Choose(left, node->left, node->right);
  }
  return found;
}

// The last entry that is not after `key`, or nil.
template <class Order>
QV_INLINE Node* LastNotAfter(const Tree& tree, uint64_t key, Order order) {
  Node* const nil = tree.nil;
  Node* found = nil;
  for (Node* node = tree.root; node != nil;) {
    const bool left = order.Before(key, node->key);
    found = Choose(left, found, node);
    node = Choose(left, node->left, node->right);
  }
  return found;
}

// An exact match of `low` does not consult `high`; this shows only where high is below low.
template <class Order>
QV_INLINE Node* RangeStart(const Tree& tree, uint64_t low, uint64_t high, Order order) {
  Node* const node = FirstNotBefore(tree, low, order);
  if (node == tree.nil) return nullptr;
  return order.Same(low, node->key) || !order.Before(high, node->key) ? node : nullptr;
}

// False for null, the sentinel, and the handle of a removed entry whose memory is not in use again.
QV_INLINE bool IsEntry(const Node* node) {
  return QV_LIKELY(node != nullptr && node->tree != nullptr && node != node->tree->nil);
}

// A walk in key order jumps through memory, and the thread tells only one jump ahead. The tree tells
// more: what lies two steps on is often the right child or the parent of where we are.
QV_INLINE void PrefetchAround(const Node* node, const Node* child) {
  __builtin_prefetch(&child->next);
  __builtin_prefetch(&node->parent->next);
}

template <class Order>
QV_INLINE Node* RangeNext(const Tree& tree, const Node* node, uint64_t high, Order order) {
  PrefetchAround(node, node->right);
  Node* const next = node->next;
  return next != tree.nil && !order.Before(high, next->key) ? next : nullptr;
}

template <class Order>
QV_INLINE Node* RangePrev(const Tree& tree, const Node* node, uint64_t low, Order order) {
  PrefetchAround(node, node->left);
  Node* const prev = node->prev;
  return prev != tree.nil && order.NotAfter(low, prev->key) ? prev : nullptr;
}

// ---- Links ------------------------------------------------------------------------------------------

// A side of a node, so that what mirrors itself is written once.
enum Side { kLeft, kRight };

template <Side kSide>
QV_INLINE Node*& Child(Node* node) {
  return kSide == kLeft ? node->left : node->right;
}

template <Side kSide>
inline constexpr Side kOther = kSide == kLeft ? kRight : kLeft;

// Puts `node` where `old` hangs from its parent.
QV_INLINE void ReplaceInParent(Tree& tree, Node* old, Node* node) {
  Node* const parent = old->parent;
  if (parent == tree.nil) {
    tree.root = node;
  } else if (parent->left == old) {
    parent->left = node;
  } else {
    parent->right = node;
  }
}

// The node moves down to kSide; its other child takes its place.
template <Side kSide>
QV_INLINE void Rotate(Tree& tree, Node* node) {
  Node* const up = Child<kOther<kSide>>(node);
  Node* const moved = Child<kSide>(up);
  Child<kOther<kSide>>(node) = moved;
  if (moved != tree.nil) moved->parent = node;
  up->parent = node->parent;
  ReplaceInParent(tree, node, up);
  Child<kSide>(up) = node;
  node->parent = up;
}

// ---- Insertion --------------------------------------------------------------------------------------

// One step of the fix-up where the red parent is the grandparent's kSide child; the node to go on from.
template <Side kSide>
QV_INLINE Node* SettleRedPair(Tree& tree, Node* node) {
  Node* parent = node->parent;
  Node* const grandparent = parent->parent;
  Node* const uncle = Child<kOther<kSide>>(grandparent);
  if (uncle->color == QV_RB_RED) {
    parent->color = QV_RB_BLACK;
    uncle->color = QV_RB_BLACK;
    grandparent->color = QV_RB_RED;
    return grandparent;
  }
  if (node == Child<kOther<kSide>>(parent)) {
    Rotate<kSide>(tree, parent);
    Node* const lower = parent;
    parent = node;
    node = lower;
  }
  parent->color = QV_RB_BLACK;
  grandparent->color = QV_RB_RED;
  Rotate<kOther<kSide>>(tree, grandparent);
  return node;
}

// The root's parent is nil, which is black, so the loop ends there.
void SettleInsertion(Tree& tree, Node* node) {
  while (node->parent->color == QV_RB_RED) {
    const bool left = node->parent == node->parent->parent->left;
    node = left ? SettleRedPair<kLeft>(tree, node) : SettleRedPair<kRight>(tree, node);
  }
  tree.root->color = QV_RB_BLACK;
}

// Into the thread on the side where the node hangs below its parent: nothing lies in between.
QV_INLINE void LinkBelow(Node* parent, Node* node, bool left) {
  node->parent = parent;
  Node* const prev = left ? parent->prev : parent;
  Node* const next = left ? parent : parent->next;
  (left ? parent->left : parent->right) = node;
  node->prev = prev;
  node->next = next;
  prev->next = node;
  next->prev = node;
}

struct Place {
  Node* parent;  // nil in an empty tree
  bool left;
};

// Equal keys go right, hence behind all that are there.
template <class Order>
QV_INLINE Place FindPlace(const Tree& tree, uint64_t key, Order order) {
  Node* const nil = tree.nil;
  Place place = {nil, false};
  for (Node* node = tree.root; node != nil;) {
    place = {node, order.Before(key, node->key)};
    node = Choose(place.left, node->left, node->right);
  }
  return place;
}

Node* NewNode(Tree& tree, uint64_t key, uint64_t item) {
  Node* const node = static_cast<Node*>(Allocate(tree.category, sizeof(Node)));
  Node* const nil = tree.nil;
  *node = {&tree, nil, nil, nil, nil, nil, key, item, QV_RB_RED};
  return node;
}

void Insert(Tree& tree, uint64_t key, uint64_t item) {
  Node* const node = NewNode(tree, key, item);
  const Place place = WithOrderOf(tree, [&](auto order) { return FindPlace(tree, key, order); });
  if (place.parent == tree.nil) {
    tree.root = node;
  } else {
    LinkBelow(place.parent, node, place.left);
  }
  SettleInsertion(tree, node);
  tree.count++;
}

// ---- Removal ----------------------------------------------------------------------------------------

// One step where x, which is one black node short, is its parent's kSide child; the node to go on from.
template <Side kSide>
QV_INLINE Node* SettleShortSide(Tree& tree, Node* x) {
  constexpr Side kFar = kOther<kSide>;
  Node* const parent = x->parent;
  Node* sibling = Child<kFar>(parent);
  if (sibling->color == QV_RB_RED) {
    sibling->color = QV_RB_BLACK;
    parent->color = QV_RB_RED;
    Rotate<kSide>(tree, parent);
    sibling = Child<kFar>(parent);
  }
  if (sibling->left->color == QV_RB_BLACK && sibling->right->color == QV_RB_BLACK) {
    sibling->color = QV_RB_RED;
    return parent;
  }
  if (Child<kFar>(sibling)->color == QV_RB_BLACK) {
    Child<kSide>(sibling)->color = QV_RB_BLACK;
    sibling->color = QV_RB_RED;
    Rotate<kFar>(tree, sibling);
    sibling = Child<kFar>(parent);
  }
  sibling->color = parent->color;
  parent->color = QV_RB_BLACK;
  Child<kFar>(sibling)->color = QV_RB_BLACK;
  Rotate<kSide>(tree, parent);
  return tree.root;
}

void SettleRemoval(Tree& tree, Node* x) {
  while (x != tree.root && x->color == QV_RB_BLACK) {
    x = x == x->parent->left ? SettleShortSide<kLeft>(tree, x) : SettleShortSide<kRight>(tree, x);
  }
  x->color = QV_RB_BLACK;
}

// y, cut out of its own place, takes z's: links and colour, not the contents.
void TakePlace(Tree& tree, Node* z, Node* y) {
  ReplaceInParent(tree, z, y);
  y->parent = z->parent;
  y->left = z->left;
  y->right = z->right;
  y->color = z->color;
  if (y->left != tree.nil) y->left->parent = y;
  if (y->right != tree.nil) y->right->parent = y;
}

// Takes z out of tree and thread. y is the node that leaves its position: z, or its successor, which
// has no left child; x is what moves up into that position.
void Unlink(Tree& tree, Node* z) {
  Node* const nil = tree.nil;
  Node* const y = z->left == nil || z->right == nil ? z : z->next;
  Node* const x = y->left != nil ? y->left : y->right;
  z->next->prev = z->prev;
  z->prev->next = z->next;
  x->parent = y->parent;  // in nil too: the fix-up starts from there
  ReplaceInParent(tree, y, x);
  const uint32_t removedColor = y->color;
  if (y != z) {
    TakePlace(tree, z, y);
    if (x->parent == z) x->parent = y;
  }
  if (removedColor == QV_RB_BLACK) SettleRemoval(tree, x);
  tree.count--;
}

QV_INLINE void ReleaseNode(Node* node) {
  node->tree = nullptr;  // (5)
  Release(node);
}

QV_INLINE void DestroyContents(const Tree& tree, uint64_t key, uint64_t item) {
  if (tree.destroyItem != nullptr) tree.destroyItem(item);
  if (tree.destroyKey != nullptr) tree.destroyKey(key);
}

template <class Order>
void DestroyRange(Tree& tree, uint64_t low, uint64_t high, Order order) {
  Node* node = RangeStart(tree, low, high, order);
  while (node != nullptr) {
    Node* const next = RangeNext(tree, node, high, order);
    const uint64_t key = node->key, item = node->item;
    Unlink(tree, node);
    ReleaseNode(node);
    DestroyContents(tree, key, item);
    node = next;
  }
}

Node* FirstEntry(const Tree& tree) {
  Node* node = tree.root;
  while (node->left != tree.nil) node = node->left;
  return node;
}

void DestroyTree(Tree& tree) {
  Node* const nil = tree.nil;
  Node* node = FirstEntry(tree);
  tree.root = nil;  // a query from a destructor finds nothing, not nodes that are gone
  tree.count = 0;
  while (node != nil) {
    DestroyContents(tree, node->key, node->item);
    Node* const next = node->next;
    ReleaseNode(node);
    node = next;
  }
  Release(nil);
  Release(&tree);
}

// ---- Validation -------------------------------------------------------------------------------------

// Black nodes from the root along left links, nil counted. Links that form a ring end the walk when
// more nodes have passed than there are.
uint64_t LeftmostBlackHeight(const Tree& tree) {
  uint64_t height = 1;
  uint64_t steps = 0;
  for (const Node* node = tree.root; node != tree.nil && steps <= tree.count; node = node->left) {
    height += node->color == QV_RB_BLACK;
    steps++;
  }
  return height;
}

// Colours and black heights below a node that has `height` black nodes to go. As both are checked on
// the way down, no path is longer than twice the height, not even in a ring.
bool ColorsAreSound(const Tree& tree, const Node* node, uint64_t height) {
  if (node == tree.nil) return height == 1;
  const bool red = node->color == QV_RB_RED;
  if (red && (node->left->color == QV_RB_RED || node->right->color == QV_RB_RED)) return false;
  if (!red && height == 1) return false;
  const uint64_t below = height - !red;
  return ColorsAreSound(tree, node->left, below) && ColorsAreSound(tree, node->right, below);
}

// 2^32 - 1 entries cannot make a greater one, so a greater one is wrong wherever the fault lies, and
// not worth a deep recursion.
constexpr uint64_t kGreatestBlackHeight = 33;

bool ColorsAreSound(const Tree& tree) {
  const uint64_t height = LeftmostBlackHeight(tree);
  return height <= kGreatestBlackHeight && ColorsAreSound(tree, tree.root, height);
}

bool ThreadIsSound(const Tree& tree) {
  uint64_t count = 0;
  const Node* earlier = nullptr;
  for (const Node* node = FirstEntry(tree); node != tree.nil; node = node->next) {
    if (++count > tree.count) return false;
    if (earlier != nullptr && tree.compare(earlier->key, node->key) > 0) return false;
    earlier = node;
  }
  return count == tree.count;
}

const char* ValidateNode(const Tree& tree, const Node* node) {
  if (node->tree != &tree) return "a node names another tree";
  if (node->left != tree.nil && node->left->parent != node) return "a left child's parent is wrong";
  if (node->right != tree.nil && node->right->parent != node) return "a right child's parent is wrong";
  if (node->next != tree.nil && node->next->prev != node) return "a prev link is wrong";
  const Node* before = node->left;
  while (before != tree.nil && before->right != tree.nil) before = before->right;
  if (before != tree.nil && before != node->prev) return "the thread is not in-order";
  const Node* after = node->right;
  while (after != tree.nil && after->left != tree.nil) after = after->left;
  if (after != tree.nil && after != node->next) return "the thread is not in-order";
  return nullptr;
}

}  // namespace

const char* ValidateTree(const Tree& tree) {
  const Node* const nil = tree.nil;
  if (nil->tree != &tree || nil->left != nil || nil->right != nil) return "the sentinel is damaged";
  if (nil->color != QV_RB_BLACK) return "the sentinel is not black";
  if (tree.root == nil) return tree.count == 0 ? nullptr : "an empty tree has a count";
  if (tree.root->color != QV_RB_BLACK) return "the root is red";
  if (tree.root->parent != nil) return "the root has a parent";
  if (!ColorsAreSound(tree)) return "colours";
  if (!ThreadIsSound(tree)) return "order or count";
  if (FirstEntry(tree)->prev != nil) return "the first entry has a prev";
  for (const Node* node = FirstEntry(tree); node != nil; node = node->next) {
    const char* const reason = ValidateNode(tree, node);
    if (reason != nullptr) return reason;
  }
  return nullptr;
}

}  // namespace qv

Tree* __QvCreateRedBlackTree(uint32_t category, QV_RED_BLACK_COMPARE compare,
                             QV_RED_BLACK_DESTROY destroyItem, QV_RED_BLACK_DESTROY destroyKey) {
  Tree* const tree = static_cast<Tree*>(qv::Allocate(category, sizeof(Tree)));
  Node* const nil = static_cast<Node*>(qv::Allocate(category, sizeof(Node)));
  *nil = {tree, nil, nil, nil, nil, nil, 0, 0, QV_RB_BLACK};
  if (compare == nullptr) compare = qv::CompareKeys;
  *tree = {nil, nil, compare, destroyItem, destroyKey, category, 0};
  return tree;
}

void __QvInsertRedBlackEntry(Tree* tree, uint64_t key, uint64_t item) {
  if (tree != nullptr) qv::Insert(*tree, key, item);
}

void __QvRemoveRedBlackEntry(Node* node) {
  if (!qv::IsEntry(node)) return;
  qv::Unlink(*node->tree, node);
  qv::ReleaseNode(node);
}

Node* __QvGetRedBlackRangeStart(const Tree* tree, uint64_t low, uint64_t high) {
  if (tree == nullptr) return nullptr;
  return qv::WithOrderOf(*tree, [=](auto order) { return qv::RangeStart(*tree, low, high, order); });
}

Node* __QvGetRedBlackRangeEnd(const Tree* tree, uint64_t high) {
  if (tree == nullptr) return nullptr;
  Node* const node =
      qv::WithOrderOf(*tree, [=](auto order) { return qv::LastNotAfter(*tree, high, order); });
  return node != tree->nil ? node : nullptr;
}

Node* __QvGetRedBlackRangePrev(const Node* node, uint64_t low) {
  if (!qv::IsEntry(node)) return nullptr;
  const Tree& tree = *node->tree;
  return qv::WithOrderOf(tree, [&](auto order) { return qv::RangePrev(tree, node, low, order); });
}

Node* __QvGetRedBlackRangeNext(const Node* node, uint64_t high) {
  if (!qv::IsEntry(node)) return nullptr;
  const Tree& tree = *node->tree;
  return qv::WithOrderOf(tree, [&](auto order) { return qv::RangeNext(tree, node, high, order); });
}

uint32_t __QvGetRedBlackKey(const Node* node, uint64_t* out) {
  if (!qv::IsEntry(node) || out == nullptr) return 0;
  *out = node->key;
  return 1;
}

uint32_t __QvGetRedBlackItem(const Node* node, uint64_t* out) {
  if (!qv::IsEntry(node) || out == nullptr) return 0;
  *out = node->item;
  return 1;
}

void __QvDestroyRedBlackRange(Tree* tree, uint64_t low, uint64_t high) {
  if (tree == nullptr) return;
  qv::WithOrderOf(*tree, [=](auto order) { qv::DestroyRange(*tree, low, high, order); });
}

void __QvDestroyRedBlackTree(Tree* tree) {
  if (tree != nullptr) qv::DestroyTree(*tree);
}

uint32_t __QvValidateRedBlack(const Tree* tree) {
  return tree != nullptr && qv::ColorsAreSound(*tree) && qv::ThreadIsSound(*tree);
}

// Queue: both ends, the search, and the exported calls. Design: containers/queue.h.
#include "containers/queue.h"

#include "memory/allocate.h"
#include "runtime/spin_lock.h"

using Queue = QV_QUEUE;
using Node = QV_QUEUE_NODE;

static_assert(sizeof(Queue) == 88 && offsetof(Queue, tail) == 8 && offsetof(Queue, anchor) == 16 &&
              offsetof(Queue, headLock) == 32 && offsetof(Queue, tailLock) == 56 &&
              offsetof(Queue, flags) == 80 && offsetof(Queue, userFlag) == 84);
static_assert(sizeof(Node) == 16 && offsetof(Node, next) == 8);

namespace qv {
namespace {

QV_INLINE bool IsLocked(const Queue& queue) { return (queue.flags & QV_QUEUE_LOCKED) != 0; }
QV_INLINE uint32_t Category(const Queue& queue) {
  return (queue.flags & QV_QUEUE_CATEGORY_MASK) >> QV_QUEUE_CATEGORY_SHIFT;
}

Node* NewNode(const Queue& queue, uint64_t value) {
  Node* const node = static_cast<Node*>(Allocate(Category(queue), sizeof(Node)));
  *node = {value, nullptr};
  return node;
}

// Under the tail lock, and the head lock if the queue is empty. Pairs with the acquiring load of
// whoever walks to the node under the head lock alone.
QV_INLINE void Append(Queue& queue, Node* node) {
  StoreRelease(queue.tail->next, node);
  queue.tail = node;
}

// The queue was empty: the node's predecessor is the anchor, which belongs to the head lock. The caller
// holds the tail lock and may not wait for the head lock with it.
QV_COLD void AppendToEmptySlow(Queue& queue, Node* node, uint32_t me, Hold tailHold) {
  Hold headHold;
  if (!SpinTryKnowing(queue.headLock, me, headHold)) {
    SpinReleaseKnowing(queue.tailLock, tailHold);
    headHold = SpinAcquireKnowing(queue.headLock, me);
    tailHold = SpinAcquireKnowing(queue.tailLock, me);
  }
  Append(queue, node);
  SpinReleaseKnowing(queue.headLock, headHold);
  SpinReleaseKnowing(queue.tailLock, tailHold);
}

QV_INLINE void AppendLocking(Queue& queue, Node* node) {
  const uint32_t me = SelfId();
  const Hold hold = SpinAcquireKnowing(queue.tailLock, me);
  if (QV_UNLIKELY(queue.tail == &queue.anchor)) return AppendToEmptySlow(queue, node, me, hold);
  Append(queue, node);
  SpinReleaseKnowing(queue.tailLock, hold);
}

// Under the head lock, and the tail lock if the node may be the last one.
QV_INLINE void Bypass(Queue& queue, Node* previous, Node* node) {
  if (queue.tail == node) queue.tail = previous;
  StoreRelease(previous->next, node->next);
}

// Takes a node out, under the head lock. The predecessor's link is written before the tail lock is
// left: once it is the tail, the next enqueue writes that link too.
QV_INLINE void Unlink(Queue& queue, Node* previous, Node* node, uint32_t me) {
  Node* const next = LoadAcquire(node->next);
  if (QV_LIKELY(next != nullptr)) return StoreRelaxed(previous->next, next);  // by (4)
  if (!IsLocked(queue)) return Bypass(queue, previous, node);
  const Hold hold = SpinAcquireKnowing(queue.tailLock, me);
  Bypass(queue, previous, node);
  SpinReleaseKnowing(queue.tailLock, hold);
}

// The head lock for the length of a block, if the queue takes its locks.
class HeadGuard : NonCopyable {
 public:
  QV_INLINE explicit HeadGuard(Queue& queue) : queue_(queue), locked_(IsLocked(queue)) {
    if (QV_UNLIKELY(!locked_)) return;
    me_ = SelfId();
    hold_ = SpinAcquireKnowing(queue.headLock, me_);
  }
  QV_INLINE ~HeadGuard() {
    if (QV_LIKELY(locked_)) SpinReleaseKnowing(queue_.headLock, hold_);
  }
  QV_INLINE uint32_t Me() const { return me_; }

 private:
  Queue& queue_;
  const bool locked_;
  uint32_t me_ = 0;
  Hold hold_ = Hold::kPassed;
};

struct Search {
  QV_QUEUE_MATCH match;  // null takes any
  uint32_t a;
  uint64_t b;
  bool Takes(uint64_t value) const { return match == nullptr || match(a, b, value) == 1; }
};

uint64_t Find(Queue& queue, const Search& search, bool remove) {
  const HeadGuard guard(queue);
  Node* previous = &queue.anchor;
  Node* node = LoadAcquire(previous->next);
  while (node != nullptr && !search.Takes(node->value)) {
    previous = node;
    node = LoadAcquire(node->next);
  }
  if (node == nullptr) return 0;
  const uint64_t value = node->value;
  if (remove) {
    Unlink(queue, previous, node, guard.Me());
    Release(node);
  }
  return value;
}

bool IsFree(const QV_SPIN_LOCK& lock) {
  return lock.state == 0 && lock.owner == 0 && lock.recursionCount == 0;
}

}  // namespace

const char* ValidateQueue(const Queue& queue) {
  if (queue.head != &queue.anchor) return "head is not the anchor";
  if (queue.anchor.value != 0) return "the anchor has a value";
  const Node* last = &queue.anchor;
  while (last->next != nullptr) last = last->next;
  if (queue.tail != last) return "tail is not the last node";
  return IsFree(queue.headLock) && IsFree(queue.tailLock) ? nullptr : "a lock was left held";
}

}  // namespace qv

Queue* __QvCreateQueue(uint32_t flags, uint32_t category) {
  Queue* const queue = static_cast<Queue*>(qv::Allocate(category, sizeof(Queue)));
  const uint32_t categoryBits = category << QV_QUEUE_CATEGORY_SHIFT & QV_QUEUE_CATEGORY_MASK;
  *queue = {};
  queue->head = queue->tail = &queue->anchor;
  queue->flags = (flags & ~uint32_t{QV_QUEUE_CATEGORY_MASK}) | categoryBits;
  return queue;
}

void __QvEnqueue(Queue* queue, uint64_t value) {
  if (queue == nullptr) return;
  Node* const node = qv::NewNode(*queue, value);
  qv::IsLocked(*queue) ? qv::AppendLocking(*queue, node) : qv::Append(*queue, node);
}

uint64_t __QvDequeue(Queue* queue) {
  if (queue == nullptr) return 0;
  const qv::HeadGuard guard(*queue);
  Node* const node = qv::LoadAcquire(queue->anchor.next);
  if (node == nullptr) return 0;
  const uint64_t value = node->value;
  qv::Unlink(*queue, &queue->anchor, node, guard.Me());
  qv::Release(node);
  return value;
}

uint64_t __QvPeekQueue(Queue* queue, QV_QUEUE_MATCH match, uint32_t a, uint64_t b, uint32_t remove) {
  if (queue == nullptr) return 0;
  return qv::Find(*queue, {match, a, b}, remove != 0);
}

uint32_t __QvIsQueueEmpty(const Queue* queue) {
  return queue == nullptr || qv::LoadRelaxed(queue->anchor.next) == nullptr;
}

void __QvSetQueueFlag(Queue* queue, uint32_t value) {
  if (queue != nullptr) queue->userFlag = value;
}

void __QvDestroyQueue(Queue* queue) {
  if (queue == nullptr) return;
  for (Node* node = queue->anchor.next; node != nullptr; node = queue->anchor.next) {
    queue->anchor.next = node->next;
    qv::Release(node);
  }
}

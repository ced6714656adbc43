// Queue: a list with a lock at each end.
//
//     head -> anchor -> n1 -> n2 -> n3 <- tail        empty: tail is the anchor, anchor.next is null
//             `--- head lock ---'   '-- tail lock
//
// Invariants
//  (1) The elements are the nodes from anchor.next on, in order. tail is the last of them, or the anchor.
//  (2) The head lock guards anchor.next and the links of all nodes but the last; the tail lock guards
//      `tail` and the last node's link. Whoever removes the last node, or appends to the empty queue,
//      writes on both sides and holds both locks.
//  (3) Order: head lock, then tail lock. A holder of the tail lock only tries the head lock.
//  (4) A node's link goes from null to the next node once, by a releasing store under the tail lock,
//      before `tail` moves on. Who finds it set, under the head lock, knows that nobody will touch the
//      node from the tail side again, and need not ask `tail`: so the two sides read and write no word
//      of the record in common while there are two elements.
// Memory is taken outside both locks: it shortens what others wait for, and a memory collector that drains
// a queue cannot meet a thread that holds its lock. A node is given back under the head lock.
#pragma once

#include "runtime/base.h"

namespace qv {

// Walks the list; nobody else uses the queue. Null if all is well, else what is wrong.
const char* ValidateQueue(const QV_QUEUE& queue);

}  // namespace qv

// Red-black tree: an ordered map with repeated keys, threaded in key order.
//
//              [20 black]                    tree      parent, left, right; `nil` stands for every
//             /          \                             missing child and for the root's parent
//       [10 red]        [30 red]
//      10 <-> 20 <-> 30                      thread    prev, next; `nil` at both ends
//
// Invariants between operations
//  (1) In-order, keys do not descend; entries with equal keys stand in the order of insertion.
//  (2) The root is black, a red node has no red child, every path from the root to nil passes the same
//      number of black nodes.
//  (3) The thread lists exactly the entries, in-order; `count` is their number.
//  (4) nil is black and its left and right are nil. Its parent, prev and next are written as if it were
//      a node, which spares a test at each link, and mean nothing outside the call that wrote them.
//  (5) A node's key and item are never written after insertion: removal moves nodes, not contents, so
//      that handles keep naming their entries. `tree` is null in a node that has been removed, until
//      its memory is used again.
//
// A node is 72 bytes at 8 past a multiple of 16, so a search in a large tree waits for one or two cache
// lines at each level. What it must not do in addition is mispredict a branch at every second level:
// descents with the default order choose the child by arithmetic.
#pragma once

#include "runtime/base.h"

namespace qv {

// Walks tree and thread with all of the invariants, parent and prev links included: null if all is
// well, else what is wrong.
const char* ValidateTree(const QV_RED_BLACK_TREE& tree);

}  // namespace qv

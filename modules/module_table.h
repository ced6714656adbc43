// Module table: address ranges of loaded modules, found by any address inside.
//
//   list    a skip list ordered by start; the sentinel closes every level
//             level 1   S -----------> B -----------> S        a new record takes part in every level
//             level 0   S ---> A ----> B ---> C ----> S        up to the top level of its day
//   index   the starts in a sorted array, with end and handle of each beside it, and above it every
//           eighth start, every eighth of those, ... up to a level of at most sixteen
//
// Why both: callers hold pointers to the records and may walk their links, so the list is what it is.
// But a record takes part in all levels, so once the top level is reached (after about a hundred loads)
// every new record is on every level and a search of the list is linear. Look-ups answer the same
// whatever the list's shape, and by the index alone: on each of its few levels they compare the eight
// starts of one cache line at once, without a branch that could be mispredicted, where a binary search
// waits three times for a comparison; and they touch no record, thousands of which would not stay in
// the cache.
//
// Invariants
//  (1) The index holds exactly the modules of the list, in order; records do not change once loaded.
//  (2) A record has room for as many links as the levels it takes part in. Levels above
//      g_topLevel are empty.
// No lock: the tool serialises loads, unloads and look-ups.
#pragma once

#include "runtime/base.h"

namespace qv {

// Walks list and index: null if all is well, else what is wrong.
const char* ValidateModuleTable();

}  // namespace qv

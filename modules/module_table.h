// Module table: address ranges of loaded modules, found by any address inside.
//
//   list    a skip list ordered by start; the sentinel closes every level
//             level 1   S -----------> B -----------> S        a new record takes part in every level
//             level 0   S ---> A ----> B ---> C ----> S        up to the top level of its day
//   index   the same records in an array of starts and an array of records, sorted, for the look-ups
//
// Why both: callers hold pointers to the records and may walk their links, so the list is what it is.
// But a record takes part in all levels, so once the top level is reached (after about a hundred loads)
// every new record is on every level and a search of the list is linear. Look-ups answer the same
// whatever the list's shape; they search the array of starts without a branch that could be
// mispredicted.
//
// Invariants
//  (1) The index holds exactly the records of level 0, in order.
//  (2) A record has room for as many links as the levels it takes part in. Levels above
//      g_topLevel are empty.
// No lock: the tool serialises loads, unloads and look-ups.
#pragma once

#include "runtime/base.h"

namespace qv {

// Walks list and index: null if all is well, else what is wrong.
const char* ValidateModuleTable();

}  // namespace qv

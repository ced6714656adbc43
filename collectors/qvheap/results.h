// The results file: what was counted and looked at up to now. Its form: docs/results-format.md.
#pragma once

#include "collectors/qvheap/census.h"

namespace qvheap {

// Written beside the path as `.part`, then renamed: who finds the file finds all of it. False, with
// errno set and nothing left behind, if that could not be done. Number 0: at the end; else a
// snapshot's.
bool WriteResultsFileLocked(const Totals& totals, const char* path, uint32_t number);

}  // namespace qvheap

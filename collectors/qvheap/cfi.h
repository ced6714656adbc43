// The unwind tables of an image (.eh_frame, found through its sorted index), read for one address at a
// time.
//
// Everything is as the image's own linker and compiler wrote it, and mapped; still, nothing is
// followed that is not of the form expected: such an address has the rule kRuleEnd.
#pragma once

#include "collectors/qvheap/unwind.h"

namespace qvheap {

// `pc` lies in the instruction in question: for a return address, one less.
Rule ReadRule(uint64_t pc);

}  // namespace qvheap

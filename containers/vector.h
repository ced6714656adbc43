// Vector: a sparse array of 131,072 counters.
//
//   pages[0] -> firstPage, inside the record
//   pages[1] -> null                  nothing in 256 to 511 was ever written
//   pages[2] -> 256 counters          a block of its own
//   ...
//   sizeAndCategory | category 8 | length 24 |
//
// Invariants
//  (1) pages[0] is firstPage. The others are null or blocks of this vector.
//  (2) What lies at or beyond the length is 0, in every page there is: a page starts cleared, writes
//      raise the length, and what lowers it clears what it leaves behind.
//  (3) Pages stay until the vector ends.
#pragma once

#include "runtime/base.h"

namespace qv {

const char* ValidateVector(const QV_VECTOR& vector);  // null if all is well, else what is wrong

}  // namespace qv

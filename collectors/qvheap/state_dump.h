// What the dump channels SITES, MODULES and SAMPLING show: the collector's state, each time results are
// written. Not as it changes: that is noticed amid allocations, under locks that come behind the log's.
#pragma once

namespace qvheap {

void DumpStateLocked();  // census lock; nothing is done unless -dump was given

}  // namespace qvheap

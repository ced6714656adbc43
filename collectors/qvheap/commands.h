// The commands of qvheap's channel: the first argument of a record. Shared with the controller.
#pragma once

#include <stdint.h>

namespace qvheap {

enum Command : int32_t {
  kCommandNothing,    // a controller that sees it taken knows that all before it are done
  kCommandSnapshot,   // write qvheap.<pid>.<n>.xml with the next n
  kCommandPause,      // count no allocations
  kCommandResume,     // count them again
  kCommandResetPeak,  // the peak is what is live now
  kCommandStop        // quit the channel; counting goes on
};

}  // namespace qvheap

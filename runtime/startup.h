// Start-up, inside view: what other files must know of it.
#pragma once

#include "runtime/atomics.h"

namespace qv {

// The log opens its file only from then on. Pairs with the releasing store that ends start-up, so that
// who sees it also sees the registered messages.
QV_INLINE bool Started() { return LoadAcquire(__qvRtStarted) != 0; }

}  // namespace qv

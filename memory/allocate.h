// Port: how the rest of the library gets memory. Declarations only, so that any layer may include it;
// the memory manager stands behind it. Contract: __QvMalloc and __QvFree in qvrt.h.
#pragma once

#include "runtime/base.h"

namespace qv {

void* Allocate(uint32_t category, uint32_t sizeBytes, uint32_t slabSizeShift = 0);
void Release(void* address);

}  // namespace qv

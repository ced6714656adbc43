// What the processor can do beyond what every x86-64 can. The question to the processor is slow where a
// hypervisor answers it, so the answer is kept; no code runs at load time for it.
//
// Wide registers are no new burden on an engine that calls us: the system library uses them too, in
// memcpy for one.
#pragma once

#include "runtime/atomics.h"

namespace qv {

inline constexpr uint32_t kProcessorAsked = 1;
inline constexpr uint32_t kProcessorHasAvx2 = 2;  // the system saves its registers, too

extern uint32_t g_processorFeatures;  // 0 until somebody asks
QV_COLD uint32_t AskProcessorSlow();

// Threads that ask at once find and store the same.
QV_INLINE bool ProcessorHasAvx2() {
  uint32_t features = LoadRelaxed(g_processorFeatures);
  if (QV_UNLIKELY(features == 0)) features = AskProcessorSlow();
  return (features & kProcessorHasAvx2) != 0;
}

}  // namespace qv

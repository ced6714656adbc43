// The questions to the processor. Design: runtime/processor.h.
#include "runtime/processor.h"

#include <cpuid.h>

namespace qv {

constinit uint32_t g_processorFeatures = 0;

namespace {

constexpr uint32_t kSseAndAvxState = 6;  // of the system's mask of saved registers

bool SystemSavesWideRegisters() {
  uint32_t a, b, c, d;
  if (__get_cpuid(1, &a, &b, &c, &d) == 0 || (c & bit_OSXSAVE) == 0) return false;
  uint32_t low, high;
  __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return (low & kSseAndAvxState) == kSseAndAvxState;
}

bool HasAvx2() {
  uint32_t a, b, c, d;
  return SystemSavesWideRegisters() && __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 &&
         (b & bit_AVX2) != 0;
}

}  // namespace

uint32_t AskProcessorSlow() {
  const uint32_t features = kProcessorAsked | (HasAvx2() ? kProcessorHasAvx2 : 0);
  StoreRelaxed(g_processorFeatures, features);
  return features;
}

}  // namespace qv

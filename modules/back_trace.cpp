// Stack back traces and images, over the system's functions. The library calls `backtrace` by name, so
// a faster one that is loaded ahead of the C library is used.
#include <dlfcn.h>
#include <execinfo.h>
#include <string.h>

#include "runtime/base.h"

namespace {
constexpr int kFrames = 25;
}

uint16_t __QvCaptureStackBackTrace(uintptr_t, uintptr_t, uintptr_t, void* startFrame, uintptr_t,
                                   void** frames) {
  if (frames == nullptr) return 0;
  const int count = backtrace(frames, kFrames);
  if (count <= 0) return 0;
  for (int i = 0; i < count; i++) {
    if (frames[i] != startFrame) continue;
    if (i != 0) memmove(frames, frames + i, size_t(count - i) * sizeof(void*));
    return uint16_t(count - i);
  }
  return 0;
}

char** __QvGetStackBackTraceSymbols(void* const* frames, int count) {
  return backtrace_symbols(frames, count);
}

void* __QvRtLoadImage(const char* path) { return dlopen(path, RTLD_NOW); }

void* __QvRtGetSymbol(void* image, const char* name) {
  if (image == nullptr || name == nullptr) return nullptr;
  dlerror();
  void* const address = dlsym(image, name);
  return dlerror() == nullptr ? address : nullptr;
}

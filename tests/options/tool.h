// A tool's process for these tests: a host whose released blocks read as 0xDD, so that a use after free
// shows, and are counted, so that a leak does. Strings beyond the small sizes are blocks of their own.
#pragma once

#include <malloc.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "include/qvrt.h"

namespace qvtest {

inline std::atomic<int> g_blocks = 0;

inline void* AllocateBlock(uint64_t bytes) {
  g_blocks++;
  return malloc(bytes);
}

inline void FreeBlock(void* block) {
  g_blocks--;
  memset(block, 0xDD, malloc_usable_size(block));
  free(block);
}

inline void StartTool() {
  __QvSetGetNativeThreadIdProc([] { return uint64_t(gettid()); });
  __QvInitializeSubAllocator(AllocateBlock, FreeBlock);
  __QvRtStartup();
}

inline std::string BlockText(char fill) { return '-' + std::string(QV_LARGEST_SMALL_REQUEST, fill); }

}  // namespace qvtest

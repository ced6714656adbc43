// A tool's process for these tests. The host gives every block pages of its own and takes them away
// when the block is released, so that a use after free faults; it counts blocks, so that a leak shows.
// Strings beyond the small sizes are blocks of their own.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "include/qvrt.h"

namespace qvtest {

inline constexpr uint64_t kPageBytes = 4096;
inline std::atomic<int> g_blocks = 0;

// The block's size stands in a page before it.
inline void* AllocateBlock(uint64_t bytes) {
  g_blocks++;
  void* const pages =
      mmap(nullptr, bytes + kPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  *static_cast<uint64_t*>(pages) = bytes + kPageBytes;
  return static_cast<char*>(pages) + kPageBytes;
}

inline void FreeBlock(void* block) {
  g_blocks--;
  void* const pages = static_cast<char*>(block) - kPageBytes;
  munmap(pages, *static_cast<uint64_t*>(pages));
}

inline void StartTool() {
  __QvSetGetNativeThreadIdProc([] { return uint64_t(gettid()); });
  __QvInitializeSubAllocator(AllocateBlock, FreeBlock);
  __QvRtStartup();
}

inline std::string BlockText(char fill) { return '-' + std::string(QV_LARGEST_SMALL_REQUEST, fill); }

}  // namespace qvtest

// Early blocks. Design: memory/early_blocks.h.
#include "memory/early_blocks.h"

#include <sys/mman.h>

#include "runtime/waiter.h"

namespace qv {
namespace {

constexpr uint32_t kSmallestLog2 = 5;
constexpr uint32_t kMappedLog2 = 16;  // from here on a block is a mapping of its own
constexpr uint64_t kRegionBytes = 1 << 18;

struct FreeBlock {
  uint64_t header;
  FreeBlock* next;
};

constinit uint32_t g_guard = 0;
constinit FreeBlock* g_free[kMappedLog2] = {};
constinit char* g_region = nullptr;
constinit uint64_t g_regionLeft = 0;

uint32_t BlockLog2(uint64_t bytes) {
  return bytes <= (1u << kSmallestLog2) ? kSmallestLog2 : uint32_t(64 - __builtin_clzll(bytes - 1));
}

void* MapPages(uint64_t bytes) {
  void* pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return pages == MAP_FAILED ? nullptr : pages;
}

void* CutFromRegionLocked(uint64_t bytes) {
  if (g_regionLeft < bytes) {  // what is left of the former region is given up
    char* region = static_cast<char*>(MapPages(kRegionBytes));
    if (region == nullptr) return nullptr;
    g_region = region;
    g_regionLeft = kRegionBytes;
  }
  void* block = g_region;
  g_region += bytes;
  g_regionLeft -= bytes;
  return block;
}

void* TakeSmallBlock(uint32_t log2) {
  const GuardWord guard(g_guard);
  FreeBlock* block = g_free[log2];
  if (block == nullptr) return CutFromRegionLocked(uint64_t{1} << log2);
  g_free[log2] = block->next;
  return block;
}

}  // namespace

uint64_t* AllocateEarlyBlock(uint64_t bytes) {
  const uint32_t log2 = BlockLog2(bytes);
  void* block = log2 < kMappedLog2 ? TakeSmallBlock(log2) : MapPages(uint64_t{1} << log2);
  if (block == nullptr) return nullptr;
  uint64_t* header = static_cast<uint64_t*>(block);
  *header = kEarlyMark | log2 << 1 | 1;
  return header;
}

void ReleaseEarlyBlock(uint64_t* header) {
  const uint32_t log2 = uint32_t(*header & 0xFF) >> 1;
  if (log2 >= kMappedLog2) {
    munmap(header, size_t{1} << log2);
    return;
  }
  const GuardWord guard(g_guard);
  FreeBlock* block = reinterpret_cast<FreeBlock*>(header);
  block->header = 1;
  block->next = g_free[log2];
  g_free[log2] = block;
}

}  // namespace qv

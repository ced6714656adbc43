// The allocator underneath, and the arena. Design: collectors/qvheap/heap.h.
#include "collectors/qvheap/heap.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace qvheap {
namespace {

constexpr size_t kArenaBytes = 1 << 18;  // two streams take 10 KiB; untouched pages cost nothing
constexpr size_t kAlignment = 16;

//   arena:  | BlockHead | bytes | BlockHead | bytes | ... never used |
struct alignas(kAlignment) BlockHead {
  size_t bytes;  // without the head, a multiple of 16
  BlockHead* nextFree;
};

alignas(kAlignment) constinit char g_arena[kArenaBytes] = {};
constinit size_t g_arenaUsed = 0;  // the lock guards these
constinit BlockHead* g_freeBlocks = nullptr;

BlockHead* HeadOf(const void* block) {
  return const_cast<BlockHead*>(static_cast<const BlockHead*>(block)) - 1;
}

// First fit, without splitting: the same few sizes come again.
BlockHead* TakeFreeBlockLocked(size_t bytes) {
  for (BlockHead** link = &g_freeBlocks; *link != nullptr; link = &(*link)->nextFree) {
    BlockHead* const head = *link;
    if (head->bytes < bytes) continue;
    *link = head->nextFree;
    return head;
  }
  return nullptr;
}

BlockHead* CutBlockLocked(size_t bytes) {
  if (bytes > kArenaBytes - sizeof(BlockHead) - g_arenaUsed) return nullptr;
  BlockHead* const head = reinterpret_cast<BlockHead*>(g_arena + g_arenaUsed);
  g_arenaUsed += sizeof(BlockHead) + bytes;
  head->bytes = bytes;
  return head;
}

template <class Function>
void Find(Function& function, const char* name) {
  function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
  if (function != nullptr) return;
  constexpr char kText[] = "qvheap: a function of libc was not found behind the collector\n";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kText, sizeof kText - 1);
  abort();
}

}  // namespace

constinit RealFunctions g_real = {};
constinit QV_SPIN_LOCK g_arenaLock = {};

void FindRealFunctions() {
  RealFunctions found;
  Find(found.malloc, "malloc");
  Find(found.calloc, "calloc");
  Find(found.realloc, "realloc");
  Find(found.free, "free");
  Find(found.memalign, "memalign");
  Find(found.alignedAlloc, "aligned_alloc");
  Find(found.posixMemalign, "posix_memalign");
  Find(found.valloc, "valloc");
  Find(found.pvalloc, "pvalloc");
  Find(found.fclose, "fclose");
  Find(found.fopen, "fopen");
  Find(found.exit, "_exit");
  Find(found.quickExit, "quick_exit");
  Find(found.daemon, "daemon");
  Find(found.unshare, "unshare");
  Find(found.setns, "setns");
  Find(found.execve, "execve");
  Find(found.execvpe, "execvpe");
  Find(found.fexecve, "fexecve");
  Find(found.execveat, "execveat");
  Find(found.dlclose, "dlclose");
  g_real = found;
}

void* ArenaAllocate(size_t bytes) {
  if (bytes > kArenaBytes / 2) return nullptr;
  const size_t rounded = (bytes + kAlignment - 1) / kAlignment * kAlignment;
  const SpinGuard guard(g_arenaLock);
  BlockHead* head = TakeFreeBlockLocked(rounded);
  if (head == nullptr) head = CutBlockLocked(rounded);
  return head != nullptr ? memset(head + 1, 0, head->bytes) : nullptr;
}

void ArenaFree(void* block) {
  const SpinGuard guard(g_arenaLock);
  HeadOf(block)->nextFree = g_freeBlocks;
  g_freeBlocks = HeadOf(block);
}

size_t ArenaBytesOf(const void* block) { return HeadOf(block)->bytes; }

bool IsInArena(const void* block) {
  return reinterpret_cast<uintptr_t>(block) - reinterpret_cast<uintptr_t>(g_arena) < kArenaBytes;
}

}  // namespace qvheap

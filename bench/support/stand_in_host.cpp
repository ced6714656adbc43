// Just enough of a host to measure with: thread ids, the process id, and memory in large regions on
// huge pages. Freed slabs are kept for reuse; larger blocks go back to the system.
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "host/qvhost.h"
#include "include/qvrt.h"

namespace {

constexpr uint64_t kHugePageBytes = uint64_t{2} << 20;
constexpr uint64_t kRegionBytes = uint64_t{64} << 20;
constexpr uint64_t kSlabBytes = 65536;
constexpr uint64_t kHeaderBytes = 16;  // the block's size; keeps blocks aligned to 16 bytes

struct Block {
  uint64_t bytes;  // of the whole block
  Block* next;
};

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
Block* g_freeSlabs = nullptr;
char* g_region = nullptr;
uint64_t g_regionLeft = 0;
__attribute__((tls_model("initial-exec"))) thread_local uint64_t g_threadId = 0;

__attribute__((cold, noinline)) uint64_t ThreadIdSlow() {
  return g_threadId = uint64_t(syscall(SYS_gettid));
}

uint64_t ThreadId() {
  const uint64_t id = g_threadId;
  return __builtin_expect(id != 0, 1) ? id : ThreadIdSlow();
}

uint32_t Pid() { return uint32_t(getpid()); }

// Aligned to huge pages, so that the system can use them.
char* MapRegion(uint64_t bytes) {
  void* const pages = mmap(nullptr, bytes + kHugePageBytes, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (pages == MAP_FAILED) return nullptr;
  const uint64_t start =
      (reinterpret_cast<uint64_t>(pages) + kHugePageBytes - 1) & ~(kHugePageBytes - 1);
  char* const region = reinterpret_cast<char*>(start);
  madvise(region, bytes, MADV_HUGEPAGE);
  return region;
}

char* CutFromRegionLocked(uint64_t bytes) {
  if (g_regionLeft < bytes) {
    g_region = MapRegion(kRegionBytes);
    g_regionLeft = g_region == nullptr ? 0 : kRegionBytes;
    if (g_region == nullptr) return nullptr;
  }
  char* const block = g_region;
  g_region += bytes;
  g_regionLeft -= bytes;
  return block;
}

void* AllocateLocked(uint64_t bytes) {
  Block* block = g_freeSlabs;
  if (bytes == kSlabBytes && block != nullptr) {
    g_freeSlabs = block->next;
  } else {
    block =
        reinterpret_cast<Block*>(bytes > kRegionBytes ? MapRegion(bytes) : CutFromRegionLocked(bytes));
  }
  if (block == nullptr) return nullptr;
  block->bytes = bytes;
  return reinterpret_cast<char*>(block) + kHeaderBytes;
}

}  // namespace

void* QvHostAllocate(uint64_t sizeBytes) {
  pthread_mutex_lock(&g_lock);
  void* const block = AllocateLocked((sizeBytes + kHeaderBytes + 15) & ~uint64_t{15});
  pthread_mutex_unlock(&g_lock);
  return block;
}

void QvHostFree(void* address) {
  Block* const block = reinterpret_cast<Block*>(static_cast<char*>(address) - kHeaderBytes);
  if (block->bytes != kSlabBytes) {
    if (block->bytes > kRegionBytes) munmap(block, block->bytes);
    return;
  }
  pthread_mutex_lock(&g_lock);
  block->next = g_freeSlabs;
  g_freeSlabs = block;
  pthread_mutex_unlock(&g_lock);
}

void QvHostInstall() {
  __QvSetGetNativeThreadIdProc(ThreadId);
  __QvSetGetCurrentThreadIdProc(ThreadId);
  __QvSetGetPidProc(Pid);
  __QvInitializeSubAllocator(QvHostAllocate, QvHostFree);
}

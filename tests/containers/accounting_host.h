// A host whose blocks the tests of containers look into: every slab is asked how much of it is in use,
// so that memory is accounted to the byte and one node too many shows. New memory is filled with 0xA5.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <mutex>

#include "include/qvrt.h"

namespace qvtest {

struct AccountingHost {
  std::mutex lock;
  std::map<void*, uint64_t> blocks;
  void (*beforeAllocation)(uint64_t bytes) = nullptr;
  void (*beforeRelease)() = nullptr;

  static AccountingHost& Get() {
    static AccountingHost host;
    return host;
  }
  static void* Allocate(uint64_t bytes) {
    AccountingHost& host = Get();
    if (host.beforeAllocation != nullptr) host.beforeAllocation(bytes);
    const std::lock_guard guard(host.lock);
    void* const block = malloc(bytes);
    memset(block, 0xA5, bytes);
    host.blocks[block] = bytes;
    return block;
  }
  static void Free(void* block) {
    AccountingHost& host = Get();
    if (host.beforeRelease != nullptr) host.beforeRelease();
    const std::lock_guard guard(host.lock);
    if (host.blocks.erase(block) == 0) abort();
    free(block);
  }
  static uint64_t ThreadId() {
    static thread_local const uint64_t id = uint64_t(gettid());
    return id;
  }
};

inline void InstallAccountingHost() {
  __QvSetGetNativeThreadIdProc(AccountingHost::ThreadId);
  __QvInitializeSubAllocator(AccountingHost::Allocate, AccountingHost::Free);
  __QvRtStartup();
}

// What a request occupies: its chunk, header word included; a large one, the block.
inline uint64_t ChunkBytes(uint64_t requested) { return (requested + 23) / 16 * 16; }

// Bytes of the chunks that are in use in a category, whatever the size of their slabs.
inline uint64_t BytesInUse(uint32_t category) {
  AccountingHost& host = AccountingHost::Get();
  const std::lock_guard guard(host.lock);
  uint64_t bytes = 0;
  for (const auto& [block, size] : host.blocks) {
    const QV_SLAB* const slab = static_cast<const QV_SLAB*>(block);
    const uint64_t nominal = size + 16;
    if (nominal < 65536 || (nominal & (nominal - 1)) != 0 || slab->magic != QV_SLAB_MAGIC) continue;
    if (slab->category == category)
      bytes += uint64_t{slab->chunkCount - slab->freeCount} * slab->units * 16;
  }
  return bytes;
}

// Bytes of the blocks that hold one large request each; they know no category.
inline uint64_t LargeBytesInUse() {
  AccountingHost& host = AccountingHost::Get();
  const std::lock_guard guard(host.lock);
  uint64_t bytes = 0;
  for (const auto& [block, size] : host.blocks) {
    if (*static_cast<const uint64_t*>(block) == QV_LARGE_CHUNK_MARK) bytes += size;
  }
  return bytes;
}

}  // namespace qvtest

#define ASSERT_SOUND(validation)                              \
  do {                                                        \
    const char* const reason = (validation);                  \
    ASSERT_TRUE(reason == nullptr) << (reason ? reason : ""); \
  } while (0)

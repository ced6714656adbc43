// The scripted host. Design: tests/support/scripted_host.h.
#include "tests/support/scripted_host.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "include/qvrt.h"
#include "tests/support/child.h"

namespace qvtest {
namespace {

struct Account {
  std::mutex mutex;
  HostScript script;
  std::string events;
  std::map<void*, uint64_t> live;
};

Account& TheAccount() {
  static Account* const account = new Account;  // outlives every thread of the child
  return *account;
}

void* NewBlock(uint64_t bytes) {
  void* block = nullptr;
  CHECK_EQ(posix_memalign(&block, 16, bytes), 0);
  return block;
}

void* Allocate(uint64_t bytes) {
  Account& account = TheAccount();
  if (account.script.onAllocate) account.script.onAllocate(bytes);
  const bool refused = account.script.refuse && account.script.refuse(bytes);
  void* const block = refused ? nullptr : NewBlock(bytes);
  const std::lock_guard guard(account.mutex);
  account.events += (refused ? "!" : "+") + std::to_string(bytes) + " ";
  if (!refused) account.live[block] = bytes;
  return block;
}

void Free(void* block) {
  Account& account = TheAccount();
  uint64_t bytes = 0;
  {
    const std::lock_guard guard(account.mutex);
    const auto found = account.live.find(block);
    CHECK(found != account.live.end() && "the free hook got a block that the host did not give");
    bytes = found->second;
    account.live.erase(found);
    account.events += "-" + std::to_string(bytes) + " ";
  }
  if (account.script.onFree) account.script.onFree(block, bytes);
  memset(block, 0xDD, std::min<uint64_t>(bytes, 65536));
  free(block);
}

}  // namespace

void InstallScriptedHost(HostScript script, bool identifyThreads) {
  Script() = std::move(script);
  if (identifyThreads) __QvSetGetNativeThreadIdProc(ThreadId);
  __QvInitializeSubAllocator(Allocate, Free);
}

HostScript& Script() { return TheAccount().script; }

std::string TakeEvents() {
  const std::lock_guard guard(TheAccount().mutex);
  return std::exchange(TheAccount().events, {});
}

std::map<void*, uint64_t> LiveBlocks() {
  const std::lock_guard guard(TheAccount().mutex);
  return TheAccount().live;
}

uint64_t ThreadId() {
  static thread_local const uint64_t id = uint64_t(gettid());
  return id;
}

std::function<bool(uint64_t)> RefuseCalls(uint64_t first, uint64_t last) {
  return [=, calls = uint64_t{0}](uint64_t) mutable {
    return ++calls >= first && (last == 0 || calls <= last);
  };
}

bool IsFilled(const void* memory, size_t bytes, int value) {
  const unsigned char* const first = static_cast<const unsigned char*>(memory);
  return bytes == 0 || (*first == value && memcmp(first, first + 1, bytes - 1) == 0);
}

void OnThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; i++) threads.emplace_back(body, i);
  for (std::thread& thread : threads) thread.join();
}

}  // namespace qvtest

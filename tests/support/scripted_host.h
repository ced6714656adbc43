// A host for tests that look at what the library asks of its hooks, and that make them fail.
//
// Every call of the allocate and the free hook is an event: "+65520 " a block given, "!65520 " a refusal,
// "-65520 " a block taken back. A block that comes back twice, or was never given, fails the test.
// Blocks are the C library's, so that the address sanitizer watches their ends and their afterlife.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <string>

namespace qvtest {

// What the hooks do besides. Called without any lock of the host held.
struct HostScript {
  std::function<bool(uint64_t sizeBytes)> refuse;  // true: this call fails
  std::function<void(uint64_t sizeBytes)> onAllocate;
  std::function<void(void* block, uint64_t sizeBytes)> onFree;
};

// Installs the thread-id hook, unless told not to, and initialises the allocator. Not __QvRtStartup.
void InstallScriptedHost(HostScript script = {}, bool identifyThreads = true);
HostScript& Script();  // to be changed while no other thread is in the hooks

std::string TakeEvents();  // what happened since the last call
std::map<void*, uint64_t> LiveBlocks();

uint64_t ThreadId();  // what the thread-id hook answers

// True on the calls first, first + 1, … last of what it counts; `last` 0 means for ever.
std::function<bool(uint64_t)> RefuseCalls(uint64_t first, uint64_t last);

// True if every byte is `value`.
bool IsFilled(const void* memory, size_t bytes, int value);

// Runs body(0) … body(count - 1) on as many threads at once.
void OnThreads(int count, const std::function<void(int)>& body);

}  // namespace qvtest

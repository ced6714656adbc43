// Threads of tests, and who they are to the library.
#pragma once

#include <atomic>
#include <thread>
#include <vector>

#include "include/qvrt.h"

namespace qvtest {

// Runs body(0) to body(count - 1) on threads that begin together, and joins them.
template <class Body>
void RunThreads(int count, Body body) {
  std::atomic<int> absent{count};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; i++) {
    threads.emplace_back([&, i] {
      for (--absent; absent > 0;) std::this_thread::yield();
      body(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// The native thread id of the calling thread, which a test may set to play another thread. Its upper
// half is not 0, as a system's may not be; locks go by the lower half.
inline std::atomic<uint64_t> g_nextThreadId{0xB1660000'00000001};
inline thread_local uint64_t t_threadId = g_nextThreadId++;

inline void UseThreadIds() {
  __QvSetGetNativeThreadIdProc([] { return t_threadId; });
}

}  // namespace qvtest

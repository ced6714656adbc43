// Small words that every file of the collector uses.
//
// A counter is written by one thread and read by whoever reports, so it is stored and loaded whole
// (relaxed) but never with a locked instruction. Adding is one instruction: the compiler would make
// three of two relaxed accesses, and a signal handler that counts between them would be forgotten.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "include/qvrt.h"

#define QVHEAP_INLINE inline __attribute__((always_inline))
#define QVHEAP_COLD __attribute__((cold, noinline))
// Of a variable: without it, the compiler reckons with another library's being meant, and takes an
// instruction more for each access.
#define QVHEAP_OURS __attribute__((visibility("hidden")))
#define QVHEAP_LIKELY(x) __builtin_expect(!!(x), 1)
#define QVHEAP_UNLIKELY(x) __builtin_expect(!!(x), 0)

namespace qvheap {

template <class T>
QVHEAP_INLINE T Load(const T& word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
template <class T>
QVHEAP_INLINE void Store(T& word, T value) {
  __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}
QVHEAP_INLINE void Add(uint64_t& counter, uint64_t amount) {
  __asm__("addq %1, %0" : "+m"(counter) : "er"(amount) : "cc");
}

struct NonCopyable {
  NonCopyable() = default;
  NonCopyable(const NonCopyable&) = delete;
  NonCopyable& operator=(const NonCopyable&) = delete;
};

class SpinGuard : NonCopyable {
 public:
  explicit SpinGuard(QV_SPIN_LOCK& lock) : lock_(lock) { __QvAcquireSpinLock(&lock_); }
  ~SpinGuard() { __QvReleaseSpinLock(&lock_); }

 private:
  QV_SPIN_LOCK& lock_;
};

}  // namespace qvheap

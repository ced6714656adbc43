// Words that every file of the library uses: inlining, branch hints, annotations for clang's
// thread-safety analysis.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "include/qvrt.h"

#define QV_INLINE inline __attribute__((always_inline))
#define QV_COLD __attribute__((cold, noinline))
#define QV_LIKELY(x) __builtin_expect(!!(x), 1)
#define QV_UNLIKELY(x) __builtin_expect(!!(x), 0)

#if defined(__clang__)
#define QV_CAPABILITY(name) __attribute__((capability(name)))
#define QV_SCOPED_CAPABILITY __attribute__((scoped_lockable))
#define QV_ACQUIRES(...) __attribute__((acquire_capability(__VA_ARGS__)))
#define QV_RELEASES(...) __attribute__((release_capability(__VA_ARGS__)))
#define QV_NO_LOCK_ANALYSIS __attribute__((no_thread_safety_analysis))
#else
#define QV_CAPABILITY(name)
#define QV_SCOPED_CAPABILITY
#define QV_ACQUIRES(...)
#define QV_RELEASES(...)
#define QV_NO_LOCK_ANALYSIS
#endif

namespace qv {

inline constexpr uint32_t kNone = 0xFFFFFFFFu;  // no id, no index, no handle
inline constexpr uint32_t kMisc = 0;            // category of what has no category of its own

struct NonCopyable {
  NonCopyable() = default;
  NonCopyable(const NonCopyable&) = delete;
  NonCopyable& operator=(const NonCopyable&) = delete;
};

}  // namespace qv

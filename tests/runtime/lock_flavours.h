// The two locks that a thread can own, so that one body of a test serves both.
#pragma once

#include <string.h>

#include <type_traits>

#include "include/qvrt.h"

namespace qvtest {

struct Spin {
  using Lock = QV_SPIN_LOCK;
  static constexpr uint32_t kHeld = 1;
  static constexpr auto initialize = __QvInitializeSpinLockAndSpinCount;
  static constexpr auto acquire = __QvAcquireSpinLock;
  static constexpr auto tryToAcquire = __QvTryToAcquireSpinLock;
  static constexpr auto release = __QvReleaseSpinLock;
  static constexpr auto isMine = __QvIsSpinLockAcquiredByCallingThread;
};

struct Exclusive {
  using Lock = QV_SHARED_EXCLUSIVE_LOCK;
  static constexpr uint32_t kHeld = 2;
  static constexpr auto initialize = __QvInitializeSharedExclusiveLockAndSpinCount;
  static constexpr auto acquire = __QvAcquireExclusiveLock;
  static constexpr auto tryToAcquire = __QvTryToAcquireExclusiveLock;
  static constexpr auto release = __QvReleaseExclusiveLock;
  static constexpr auto isMine = __QvIsExclusiveLockAcquiredByCallingThread;
};

// Fields, without the padding behind the last one.
template <class Lock>
bool Same(const Lock& a, const Lock& b) {
  return memcmp(&a, &b, offsetof(Lock, spinCount) + sizeof a.spinCount) == 0;
}

}  // namespace qvtest

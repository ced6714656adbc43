// Lock pairs: an acquisition and its release, alone and with two threads.
//
// by_hand is the floor: the same locked instructions on the same word, inline, with no identity, no
// recursion and no waiting. by_hand_called is the floor of a library: the same, each behind a call.
// by_hand_owned is the floor of a lock that knows its holder: inline too, it asks the thread-id hook,
// looks at the owner before the exchange, keeps it, and clears it again. Where locked instructions are
// fast (5 ns a pair), these looks and stores show: each exchange waits for them.
#include <pthread.h>

#include "bench/support/bench.h"
#include "include/qvrt.h"

#ifdef QVBENCH_HAVE_TBB
#include <oneapi/tbb/mutex.h>
#include <oneapi/tbb/rw_mutex.h>
#include <oneapi/tbb/spin_mutex.h>
#include <oneapi/tbb/spin_rw_mutex.h>
#endif

namespace {

// ---- Sides: one record each, with Acquire and Release ------------------------------------------------

template <class Word, Word kFree, Word kHeld>
struct ByHand {
  Word word = kFree;
  void Acquire() { Exchange(kFree, kHeld); }
  void Release() { Exchange(kHeld, kFree); }
  void Exchange(Word from, Word to) {
    __atomic_compare_exchange_n(&word, &from, to, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  }
};
template <class Hand>
struct Called {
  Hand hand;
  void Acquire() { acquire(hand); }
  void Release() { release(hand); }
  static void AcquireBody(Hand& hand) { hand.Acquire(); }
  static void ReleaseBody(Hand& hand) { hand.Release(); }
  static inline void (*volatile acquire)(Hand&) = AcquireBody;
  static inline void (*volatile release)(Hand&) = ReleaseBody;
};
template <class Hand>
struct Owned {
  uint64_t owner = 0;
  Hand hand;
  void Acquire() {
    const uint64_t me = __qvGetNativeThreadIdProc();
    if (__atomic_load_n(&owner, __ATOMIC_RELAXED) == me) return;
    hand.Acquire();
    __atomic_store_n(&owner, me, __ATOMIC_RELAXED);
  }
  void Release() {
    if (__atomic_load_n(&hand.word, __ATOMIC_RELAXED) == 0) return;
    __atomic_store_n(&owner, 0, __ATOMIC_RELAXED);
    hand.Release();
  }
};
using SpinByHand = ByHand<uint32_t, 0, 1>;
using ExclusiveByHand = ByHand<uint32_t, 0, 2>;
using SharedByHand = ByHand<uint64_t, 0, (uint64_t{1} << 32 | 1)>;

struct QvSpin {
  QV_SPIN_LOCK lock;
  QvSpin() { __QvInitializeSpinLockAndSpinCount(&lock, 500); }
  void Acquire() { __QvAcquireSpinLock(&lock); }
  void Release() { __QvReleaseSpinLock(&lock); }
};

struct QvRw {
  QV_SHARED_EXCLUSIVE_LOCK lock;
  QvRw() { __QvInitializeSharedExclusiveLockAndSpinCount(&lock, 500); }
};
struct QvExclusive : QvRw {
  void Acquire() { __QvAcquireExclusiveLock(&lock); }
  void Release() { __QvReleaseExclusiveLock(&lock); }
};
struct QvShared : QvRw {
  void Acquire() { __QvAcquireSharedLock(&lock); }
  void Release() { __QvReleaseSharedLock(&lock); }
};

template <int kKind>
struct PthreadMutex {
  pthread_mutex_t lock;
  PthreadMutex() {
    pthread_mutexattr_t kind;
    pthread_mutexattr_init(&kind);
    pthread_mutexattr_settype(&kind, kKind);
    pthread_mutex_init(&lock, &kind);
  }
  void Acquire() { pthread_mutex_lock(&lock); }
  void Release() { pthread_mutex_unlock(&lock); }
};

struct PthreadSpin {
  pthread_spinlock_t lock;
  PthreadSpin() { pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE); }
  void Acquire() { pthread_spin_lock(&lock); }
  void Release() { pthread_spin_unlock(&lock); }
};

struct PthreadRwLock {
  pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
  void Release() { pthread_rwlock_unlock(&lock); }
};
struct PthreadRead : PthreadRwLock {
  void Acquire() { pthread_rwlock_rdlock(&lock); }
};
struct PthreadWrite : PthreadRwLock {
  void Acquire() { pthread_rwlock_wrlock(&lock); }
};

#ifdef QVBENCH_HAVE_TBB
template <class Mutex>
struct Tbb {
  Mutex lock;
  void Acquire() { lock.lock(); }
  void Release() { lock.unlock(); }
};
template <class Mutex>
struct TbbShared {
  Mutex lock;
  void Acquire() { lock.lock_shared(); }
  void Release() { lock.unlock_shared(); }
};
#endif

// ---- Bodies ------------------------------------------------------------------------------------------

template <class Lock>
void Pair(benchmark::State& state) {
  alignas(64) Lock lock;
  benchmark::DoNotOptimize(&lock);
  for (auto _ : state) {
    lock.Acquire();
    lock.Release();
  }
}

// A pair by a thread that is inside already.
template <class Lock>
void NestedPair(benchmark::State& state) {
  alignas(64) Lock lock;
  benchmark::DoNotOptimize(&lock);
  lock.Acquire();
  for (auto _ : state) {
    lock.Acquire();
    lock.Release();
  }
  lock.Release();
}

// Threads meet at one lock around a short piece of work.
template <class Lock>
void ContendedPair(benchmark::State& state) {
  static struct {
    alignas(64) Lock lock;
    alignas(64) uint64_t counters[2];
  } shared;
  for (auto _ : state) {
    shared.lock.Acquire();
    benchmark::DoNotOptimize(++shared.counters[0]);
    benchmark::DoNotOptimize(++shared.counters[1]);
    shared.lock.Release();
  }
}

template <class Lock>
void AddContended(const char* group, const char* who) {
  qvbench::Add(group, who, ContendedPair<Lock>)->Threads(2)->UseRealTime();
}

void AddSpin() {
  qvbench::Add("spin_pair", "qvrt", Pair<QvSpin>);
  qvbench::Add("spin_pair", "by_hand", Pair<SpinByHand>);
  qvbench::Add("spin_pair", "by_hand_called", Pair<Called<SpinByHand>>);
  qvbench::Add("spin_pair", "by_hand_owned", Pair<Owned<SpinByHand>>);
  qvbench::Add("spin_pair", "pthread_spin", Pair<PthreadSpin>);
  qvbench::Add("spin_pair", "pthread_mutex", Pair<PthreadMutex<PTHREAD_MUTEX_NORMAL>>);
  qvbench::Add("spin_pair", "pthread_recursive", Pair<PthreadMutex<PTHREAD_MUTEX_RECURSIVE>>);
  qvbench::Add("spin_nested_pair", "qvrt", NestedPair<QvSpin>);
  qvbench::Add("spin_nested_pair", "pthread_recursive",
               NestedPair<PthreadMutex<PTHREAD_MUTEX_RECURSIVE>>);
  AddContended<QvSpin>("spin_contended", "qvrt");
  AddContended<PthreadSpin>("spin_contended", "pthread_spin");
  AddContended<PthreadMutex<PTHREAD_MUTEX_NORMAL>>("spin_contended", "pthread_mutex");
#ifdef QVBENCH_HAVE_TBB
  qvbench::Add("spin_pair", "tbb_spin_mutex", Pair<Tbb<tbb::spin_mutex>>);
  qvbench::Add("spin_pair", "tbb_mutex", Pair<Tbb<tbb::mutex>>);
  AddContended<Tbb<tbb::spin_mutex>>("spin_contended", "tbb_spin_mutex");
#endif
}

void AddShared() {
  qvbench::Add("shared_pair", "qvrt", Pair<QvShared>);
  qvbench::Add("shared_pair", "by_hand", Pair<SharedByHand>);
  qvbench::Add("shared_pair", "by_hand_called", Pair<Called<SharedByHand>>);
  qvbench::Add("shared_pair", "pthread_rwlock", Pair<PthreadRead>);
  qvbench::Add("shared_nested_pair", "qvrt", NestedPair<QvShared>);
  qvbench::Add("shared_nested_pair", "pthread_rwlock", NestedPair<PthreadRead>);
  AddContended<QvShared>("shared_contended", "qvrt");
  AddContended<PthreadRead>("shared_contended", "pthread_rwlock");
#ifdef QVBENCH_HAVE_TBB
  qvbench::Add("shared_pair", "tbb_spin_rw_mutex", Pair<TbbShared<tbb::spin_rw_mutex>>);
  qvbench::Add("shared_pair", "tbb_rw_mutex", Pair<TbbShared<tbb::rw_mutex>>);
  AddContended<TbbShared<tbb::spin_rw_mutex>>("shared_contended", "tbb_spin_rw_mutex");
#endif
}

void AddExclusive() {
  qvbench::Add("exclusive_pair", "qvrt", Pair<QvExclusive>);
  qvbench::Add("exclusive_pair", "by_hand", Pair<ExclusiveByHand>);
  qvbench::Add("exclusive_pair", "by_hand_called", Pair<Called<ExclusiveByHand>>);
  qvbench::Add("exclusive_pair", "by_hand_owned", Pair<Owned<ExclusiveByHand>>);
  qvbench::Add("exclusive_pair", "pthread_rwlock", Pair<PthreadWrite>);
#ifdef QVBENCH_HAVE_TBB
  qvbench::Add("exclusive_pair", "tbb_spin_rw_mutex", Pair<Tbb<tbb::spin_rw_mutex>>);
  qvbench::Add("exclusive_pair", "tbb_rw_mutex", Pair<Tbb<tbb::rw_mutex>>);
#endif
}

}  // namespace

void qvbench::Setup() {
  StartHost();
  AddSpin();
  AddShared();
  AddExclusive();
  for (const char* group : {"spin_pair", "shared_pair", "exclusive_pair"}) {
    Aim(group, "by_hand", 1.05);
    Aim(group, "by_hand_called", 1.05);
  }
}

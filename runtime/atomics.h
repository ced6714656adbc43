// Atomic accesses, as inlines over the compiler's builtins.
//
// Read-modify-writes are sequentially consistent: on x86-64 each is one locked instruction and a full
// barrier in any case, so a weaker order would buy nothing and cost an argument. Plain loads and
// stores say their order in their names. Relaxed only keeps a word from tearing and the thread
// sanitizer informed; the comment at the use says what orders it.
#pragma once

#include <type_traits>

#include "runtime/base.h"

namespace qv {

template <class T>
using Same = std::type_identity_t<T>;  // lets the target alone decide T

template <class T>
QV_INLINE T LoadRelaxed(const T& target) {
  return __atomic_load_n(&target, __ATOMIC_RELAXED);
}
template <class T>
QV_INLINE T LoadAcquire(const T& target) {
  return __atomic_load_n(&target, __ATOMIC_ACQUIRE);
}
template <class T>
QV_INLINE void StoreRelaxed(T& target, Same<T> value) {
  __atomic_store_n(&target, value, __ATOMIC_RELAXED);
}
template <class T>
QV_INLINE void StoreRelease(T& target, Same<T> value) {
  __atomic_store_n(&target, value, __ATOMIC_RELEASE);
}

// The value found; the exchange happened if it equals `comparand`. Target, new value, expected value:
// the order of the exported primitives.
template <class T>
QV_INLINE T CompareExchange(T& target, Same<T> exchange, Same<T> comparand) {
  __atomic_compare_exchange_n(&target, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return comparand;
}
// True if the exchange happened. Spares the comparison where the value found does not matter.
template <class T>
QV_INLINE bool TryExchange(T& target, Same<T> exchange, Same<T> comparand) {
  return __atomic_compare_exchange_n(&target, &comparand, exchange, false, __ATOMIC_SEQ_CST,
                                     __ATOMIC_SEQ_CST);
}
template <class T>
QV_INLINE T Exchange(T& target, Same<T> value) {
  return __atomic_exchange_n(&target, value, __ATOMIC_SEQ_CST);
}
// The value before the addition.
template <class T>
QV_INLINE T FetchAdd(T& target, Same<T> addend) {
  return __atomic_fetch_add(&target, addend, __ATOMIC_SEQ_CST);
}
template <class T>
QV_INLINE T Increment(T& target) {  // the new value
  return __atomic_add_fetch(&target, T{1}, __ATOMIC_SEQ_CST);
}
template <class T>
QV_INLINE T Decrement(T& target) {  // the new value
  return __atomic_sub_fetch(&target, T{1}, __ATOMIC_SEQ_CST);
}

// The line of a word that is about to be changed, in the state for it. The compiler's own prefetch brings
// it in to be read, for processors without this instruction; to those it is a no-op.
QV_INLINE void PrefetchForWrite(const void* word) {
  __asm__ volatile("prefetchw %0" : : "m"(*static_cast<const char*>(word)));
}

}  // namespace qv

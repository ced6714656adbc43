// The exported atomic primitives and bit scans. The twins named ...Internal do the same work; having
// both bodies one instruction long costs less than a jump from one to the other.
#include "runtime/atomics.h"

#define QV_TWINS(result, name, parameters, expression) \
  result name parameters { return expression; }        \
  result name##Internal parameters { return expression; }

namespace {
// The exported signatures are volatile, as callers' words often are; the builtins do not mind.
uint32_t& Word(volatile uint32_t* target) { return *const_cast<uint32_t*>(target); }
uint64_t& Word(volatile uint64_t* target) { return *const_cast<uint64_t*>(target); }
}  // namespace

QV_TWINS(uint32_t, __QvInterlockedIncrement, (volatile uint32_t * target), qv::Increment(Word(target)))
QV_TWINS(uint32_t, __QvInterlockedDecrement, (volatile uint32_t * target), qv::Decrement(Word(target)))
QV_TWINS(uint32_t, __QvInterlockedExchangeAdd, (volatile uint32_t * target, uint32_t addend),
         qv::FetchAdd(Word(target), addend))
QV_TWINS(uint32_t, __QvInterlockedCompareExchange,
         (volatile uint32_t * target, uint32_t exchange, uint32_t comparand),
         qv::CompareExchange(Word(target), exchange, comparand))
QV_TWINS(uint64_t, __QvInterlockedCompareExchange64,
         (volatile uint64_t * target, uint64_t exchange, uint64_t comparand),
         qv::CompareExchange(Word(target), exchange, comparand))

// A scan of 0 answers 0 here, so that a caller's slip has at least the same result everywhere.
QV_TWINS(uint32_t, __QvGetLeastSignificantOneIndex, (uint32_t bits),
         bits == 0 ? 0 : uint32_t(__builtin_ctz(bits)))

uint32_t __QvGetMostSignificantOneIndexInternal(uint32_t bits) {
  return uint32_t(31 - __builtin_clz(bits | 1));
}

uint32_t __QvGetMostSignificantOneIndexLong(uint64_t bits) {
  return uint32_t(63 - __builtin_clzll(bits | 1));
}

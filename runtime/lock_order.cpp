// The lock-order check of debug builds. Design: runtime/lock_order.h.
//
// The library has no thread-local storage, so what a thread holds is kept in an open-addressed table by
// thread id. A slot, once claimed, stays with its id; threads beyond the table go unchecked.
#include "runtime/lock_order.h"

namespace qv {
namespace {

constexpr uint32_t kRanks = uint32_t(LockRank::kLog) + 1;
constexpr uint32_t kSlots = 1024;

struct HeldLocks {
  uint32_t threadId;  // 0 while the slot is free
  uint32_t count[kRanks];
};

constinit HeldLocks g_held[kSlots] = {};

HeldLocks* FindHeld(uint32_t me) {
  for (uint32_t probe = 0; probe < kSlots; probe++) {
    HeldLocks& slot = g_held[(me * 0x9E3779B1u + probe) % kSlots];
    const uint32_t id = LoadRelaxed(slot.threadId);
    if (id == me || (id == 0 && TryExchange(slot.threadId, me, 0u))) return &slot;
  }
  return nullptr;
}

}  // namespace

void LockOrderEnter(LockRank rank) {
  const uint32_t me = SelfId();
  HeldLocks* held = me == 0 ? nullptr : FindHeld(me);
  if (held == nullptr) return;
  for (uint32_t higher = uint32_t(rank) + 1; higher < kRanks; higher++) {
    QV_CHECK(held->count[higher] == 0 && "locks are taken out of order");
  }
  ++held->count[uint32_t(rank)];
}

void LockOrderLeave(LockRank rank) {
  const uint32_t me = SelfId();
  HeldLocks* held = me == 0 ? nullptr : FindHeld(me);
  if (held != nullptr && held->count[uint32_t(rank)] != 0) --held->count[uint32_t(rank)];
}

}  // namespace qv

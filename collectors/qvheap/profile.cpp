// Looking at blocks. Design: collectors/qvheap/profile.h.
#include "collectors/qvheap/profile.h"
#include "collectors/qvheap/looking.h"

#include <stdlib.h>
#include <string.h>

#include "collectors/qvheap/blocks.h"
#include "collectors/qvheap/life.h"
#include "collectors/qvheap/modules.h"
#include "collectors/qvheap/room.h"
#include "collectors/qvheap/sites.h"
#include "collectors/qvheap/tallies.h"
#include "collectors/qvheap/timeline.h"
#include "collectors/qvheap/trail.h"

namespace qvheap {
namespace {

constexpr char kSeedVariable[] = "QVHEAP_SEED";  // makes sampling repeatable; for tests

constinit bool g_looks = false;
constinit bool g_exact = false;
constinit uint32_t g_intervalBytes = 1;
constinit uint64_t g_seed = 0;
constinit uint64_t g_missed = 0;

void StartCountdown(ThreadRecord& me) {
  me.random = SeedFor(g_seed, me.ordinal);
  me.wayEnds = me.wayBegan = Load(me.counts.figures[kBytesAllocated]);
  me.untilLook = !g_looks ? kNeverLook : g_exact ? 0 : DrawCountdown(me.random, g_intervalBytes);
}

int64_t TotalSeenBy(const ThreadRecord& me) {
  return Load(g_settledLive) + BalanceOf(me.counts) - me.settled;
}

QVHEAP_COLD void MissLook() { __atomic_fetch_add(&g_missed, 1, __ATOMIC_RELAXED); }

// The thread is Looking.
QVHEAP_INLINE void Record(ThreadRecord& me, const void* block, uint64_t bytes, const Weight& weight,
                          void** call) {
  Stack stack;
  CaptureStack(stack, Load(g_epoch), call, me.trail);
  Site* const site = FindOrMakeSite(stack);
  if (QVHEAP_UNLIKELY(site == nullptr)) return MissLook();
  if (QVHEAP_UNLIKELY(!KeepSight(me, block, {site->number, NowUnits(), bytes, weight})))
    return MissLook();
  if (QVHEAP_UNLIKELY(CountAtSite(*site, me.ordinal, weight))) Tally(me, *site, weight);
  NoteTotal(TotalSeenBy(me));
}

// What the process had before the release may have been a peak that no look saw.
QVHEAP_INLINE void CountTakenLooking(ThreadRecord& me, const Sight& sight) {
  if (QVHEAP_UNLIKELY(sight.site == 0)) return;
  NoteTotal(TotalSeenBy(me));
  CountReleaseAtSite(sight.site, sight.weight, sight.born);
}

QVHEAP_COLD void LookSampled(ThreadRecord& me, const void* block, uint64_t bytes, void** call) {
  me.untilLook = DrawCountdown(me.random, g_intervalBytes);
  const SignalsBlocked blocked;
  const Looking looking(me);
  TimePasses(me);
  Record(me, block, bytes, SampledWeight(bytes, g_intervalBytes), call);
}

// Without memory the thread has none, and is slower.
QVHEAP_COLD void MakeTrailSlow(ThreadRecord& me) {
  me.wantsTrail = false;
  const SignalsBlocked blocked;
  void* const trail = Allocate(kRoomThreads, sizeof(Trail));
  if (trail != nullptr) me.trail = static_cast<Trail*>(memset(trail, 0, sizeof(Trail)));
}

void LookExactly(ThreadRecord& me, const void* block, uint64_t bytes, void** call) {
  me.untilLook = 0;
  const Looking looking(me);
  if (QVHEAP_UNLIKELY(me.wantsTrail)) MakeTrailSlow(me);
  TimePasses(me);
  Record(me, block, bytes, ExactWeight(bytes), call);
}

void Look(ThreadRecord& me, const void* block, uint64_t bytes, void** call) {
  if (g_exact) return LookExactly(me, block, bytes, call);
  LookSampled(me, block, bytes, call);
}

}  // namespace

void InstallProfile() {
  InstallBlocks();
  StartClock();
}

void StartProfileLocked() {
  const char* const seed = getenv(kSeedVariable);
  g_seed = seed != nullptr ? strtoull(seed, nullptr, 10) : 0;
  g_exact = g_process.options.exact;
  g_intervalBytes = g_process.options.intervalBytes;
  g_looks = true;
  KeepReserveLocked();
  StartTimeline();
  ForEachRunningLocked(StartCountdown);
}

void RestartProfileLocked(bool whole) {
  g_missed = 0;
  if (!whole) g_looks = false;
  StartClock();
  ForgetAllSights();
  ForgetAllSites();
  if (whole) ForgetRegions();
  StartTimeline();
}

void BeginLooks(ThreadRecord& me) {
  if (g_looks) DropTallies(me);
  StartCountdown(me);
}

void EndLooks(ThreadRecord& me) {
  const Looking looking(me);
  const SignalsBlocked blocked;
  GiveRecordsBack(me);
  __QvFree(me.trail);
  me.trail = nullptr;
}

// The way ends where either has to happen. Releases only lengthen it, so it may end a little early.
void* AllocatedSlow(ThreadRecord& me, void* block, uint64_t bytes, void** call) {
  const uint64_t allocated = Load(me.counts.figures[kBytesAllocated]);
  me.untilLook -= int64_t(allocated - me.wayBegan);
  if (BalanceOf(me.counts) - me.settled > me.mayOwe) Settle(me);
  if (me.untilLook <= 0) Look(me, block, bytes, call);
  const int64_t mayAllocate = me.mayOwe - (BalanceOf(me.counts) - me.settled) + 1;
  me.wayBegan = allocated;
  me.wayEnds = allocated + uint64_t(me.untilLook < mayAllocate ? me.untilLook : mayAllocate);
  return block;
}

uint64_t ReleaseLookedAt(ThreadRecord& me, const void* block) {
  const Looking looking(me);
  const Sight sight = TakeSight(me, block);
  CountTakenLooking(me, sight);
  return sight.bytes;
}

Sight TakeForReallocation(ThreadRecord& me, const void* block) {
  const Looking looking(me);
  return TakeSight(me, block);
}

void CountTaken(ThreadRecord& me, const Sight& sight) {
  const Looking looking(me);
  CountTakenLooking(me, sight);
}

void PutBack(ThreadRecord& me, const void* block, const Sight& sight) {
  const Looking looking(me);
  KeepSize(block, sight.bytes);
  if (sight.site != 0 && KeepSight(me, block, sight)) return;
  CountReleaseAtSite(sight.site, sight.weight, sight.born);
}

void ProgramClosedImage() {
  const Inside inside;
  if (t_record == nullptr) return;
  const Looking looking(*t_record);
  NoticeUnloads();
}

uint64_t MissedLooks() { return Load(g_missed); }

}  // namespace qvheap

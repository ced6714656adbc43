// Tallies of threads. Design: collectors/qvheap/tallies.h.
#include "collectors/qvheap/tallies.h"

#include "collectors/qvheap/room.h"

namespace qvheap {
namespace {

constexpr uint32_t kSlabsForTally = 2;  // a vector and a page of it

}  // namespace

// Of a site beyond the vector this is asked each time, and the set knows the thread already.
void FirstTallySlow(ThreadRecord& me, Site& site, const Weight& weight) {
  const SignalsBlocked blocked;
  AddThreadToSite(site, me.ordinal);
  if (site.number >= kTalliedSites) return;
  const Provision provision(kSlabsForTally);
  if (!provision.Granted()) return;
  if (me.tallies == nullptr) me.tallies = __QvCreateVector(LibraryCategory(kRoomThreads));
  __QvSetVectorElement(me.tallies, 2 * site.number, weight.blocks);
  __QvSetVectorElement(me.tallies, 2 * site.number + 1, weight.bytes);
}

void DropTallies(ThreadRecord& me) {
  __QvDestroyVector(me.tallies);
  me.tallies = nullptr;
}

}  // namespace qvheap

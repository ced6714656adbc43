// Sites: the places that allocate, each a call stack of one epoch, and what is known of each.
//
//   stack --- hash table of two levels, custom keys ---> Site         the way of an allocation
//   number --- array of chunks ------------------------> Site         the way of a release
//
// Site records are never freed nor moved: a live block names its site by number. What belongs to a
// site may go, though: a shortage of memory folds the smallest sites into one, which is number 1 and
// has no stack. Their figures go to it, their stacks, table entries and sets are freed, and their
// records say only that they were folded.
//
// Most sites are used by one thread. The first one is noted in the record and has no tally: what it
// allocated is what the others (tallies.h) did not.
//
// The share of a site in the process's peak is kept without touching all sites at each new peak: every
// new peak has a number. A site that changes looks whether there was one since it last changed; if so,
// what was live up to now was live then (it had not changed). Who reads a site looks in the same way.
//
// Invariants
//  (1) The figures of a site are under its lock, a recursive one; nothing is called under it. Threads
//      that allocate at different sites meet nowhere but for reading in the table.
//  (2) New sites, folding, chunks, counts of sites and their sets of threads are under g_sitesLock, with
//      signals blocked. Of ours, only the locks of sites are acquired under it.
//  (3) A site's stack and table entry go together, while (2) is held; a lookup holds the lock of the
//      bucket, which the removal of the entry waits for.
#pragma once

#include "collectors/qvheap/census.h"
#include "collectors/qvheap/clock.h"
#include "collectors/qvheap/sampling.h"
#include "collectors/qvheap/stacks.h"

namespace qvheap {

extern QV_SPIN_LOCK g_sitesLock;  // (2)

struct SiteFigures {
  uint64_t samples;
  uint64_t allocations, releases;          // weights of blocks (sampling.h)
  uint64_t bytesAllocated, bytesReleased;  // weights of bytes, as the next two
  uint64_t peakBytes;
  uint64_t liveAtPeakBytes;
  uint64_t lifetimes[kLonger];  // weights of blocks; the other releases are of those that lived longer
  Weight byOthers;              // allocated by other threads than the first

  uint64_t LiveBytes() const { return bytesAllocated - bytesReleased; }
  uint64_t LiveBlocks() const { return allocations - releases; }
};

struct Site {
  QV_SPIN_LOCK lock;
  SiteFigures figures;
  uint64_t peakNumber;  // of the process's last peak that liveAtPeakBytes knows
  PackedStack* stack;   // null: folded, or the site of folded ones
  uint32_t number;
  uint32_t firstThread : 31;  // ordinal of the first that allocated here; 0: nobody has
  uint32_t isFolded : 1;
  QV_SET otherThreads;  // ordinals of the others
};

// Looks the stack up; makes the site if there is none, in the present epoch. Null if there is no
// memory. The caller is Looking.
Site* FindOrMakeSite(Stack& stack);
Site& SiteOf(uint32_t number);

// True if the thread is not the site's first, so that it has to tally.
bool CountAtSite(Site& site, uint32_t threadOrdinal, const Weight& weight);
void CountReleaseAtSite(uint32_t number, const Weight& weight, uint32_t born);
// The process has so many live bytes; a new peak gets its number.
void NoteTotal(int64_t liveBytes);
// The peaks, of sites and process, start again from what is live.
void RestartSitePeaks(int64_t liveBytes);

void AddThreadToSite(Site& site, uint32_t ordinal);

// Takes a site's figures, with the share in the process's peak brought up to date.
SiteFigures ReadSite(Site& site);
uint32_t SiteCount();        // sites have the numbers 1 to this
uint64_t FoldedSiteCount();  // how many were folded into number 1

// While it lives, no site is folded: one thread at a time, which reads stacks or goes through all sites
// more than once.
class SitesStay : NonCopyable {
 public:
  SitesStay();
  ~SitesStay();
};

// False if there is nothing to be gained: what folding gives back are chunks here and there, not always
// what is asked for, and it is not done again before there are more sites than the last time left.
// Waits for who is making a site.
bool FoldSmallSites();
void FoldSmallSitesIfCan();  // a collector of memory: never waits
void ForgetAllSites();       // in a child process

}  // namespace qvheap

// Sites. Design: collectors/qvheap/sites.h.
#include "collectors/qvheap/sites.h"

#include <string.h>

#include "collectors/qvheap/modules.h"
#include "collectors/qvheap/room.h"

namespace qvheap {
namespace {

constexpr uint32_t kSitesPerChunk = 128;
constexpr uint32_t kChunks = 1 << 17;  // numbers have 24 bits (blocks.h)
constexpr uint32_t kFoldedSite = 1;
constexpr uint32_t kSlabsForSite = 5;  // stack, entry, a leaf with its buckets, a chunk
constexpr uint32_t kEpochs = 3;        // an image may go while a stack that leads through it is kept

// g_sitesLock.
constinit Site* g_chunks[kChunks] = {};
constinit uint32_t g_count = 0;
constinit uint64_t g_foldedCount = 0;
constinit uint64_t g_leftByFolding = 0;  // unfolded sites after the last time
constinit bool g_sitesStay = false;
constinit QV_HASH_TABLE* g_table = nullptr;
constinit QV_HASH_TABLE* g_staleTable = nullptr;  // of the parent process

// Atomic.
constinit int64_t g_peakTotal = 0;
constinit uint64_t g_peakNumber = 0;

// ---- The table -------------------------------------------------------------------------------------

const StackHead& HeadOf(uint64_t key) { return *reinterpret_cast<const StackHead*>(key); }
uint64_t KeyOf(const StackHead& stack) { return reinterpret_cast<uint64_t>(&stack); }

uint64_t HashForLeaf(const QV_HASH_TABLE*, uint64_t key) { return HeadOf(key).hash; }
// Of the 256 sub-tables that there could be, 64: each has 10 KiB from the start.
constexpr uint32_t kLeaves = 64;
uint64_t HashForUpper(const QV_HASH_TABLE*, uint64_t key) { return HeadOf(key).hash >> 58; }
static_assert(kLeaves == 1 << (64 - 58));

bool FramesAreEqual(const PackedStack& packed, const Stack& stack) {
  uint64_t difference = 0;
  for (uint32_t i = 0; i < packed.depth; i++) {
    difference |= packed.Frame(i) ^ reinterpret_cast<uint64_t>(stack.frames[i]);
  }
  return difference == 0;
}

// An entry's key is packed; the other one is, too, where the table makes sure that it has no such entry.
int32_t StacksAreEqual(uint64_t entryKey, uint64_t key) {
  const PackedStack& a = static_cast<const PackedStack&>(HeadOf(entryKey));
  const StackHead& b = HeadOf(key);
  if (a.hash != b.hash || a.epoch != b.epoch || a.depth != b.depth) return 0;
  if (QVHEAP_LIKELY(b.isPacked == 0)) return FramesAreEqual(a, static_cast<const Stack&>(b));
  return memcmp(a.frames, static_cast<const PackedStack&>(b).frames, a.depth * kPackedFrameBytes) == 0;
}

void FreeStack(uint64_t key) { __QvFree(reinterpret_cast<void*>(key)); }

QV_HASH_TABLE* TableLocked() {
  static const QV_HASH_FUNCTION kHash[QV_HASH_LEVELS] = {HashForLeaf, HashForUpper, nullptr};
  if (g_table != nullptr) return g_table;
  __QvDestroyHashTable(g_staleTable, nullptr);
  g_staleTable = nullptr;
  QV_HASH_TABLE* const table = __QvCreateHashTable(QV_HASH_TABLE_CUSTOM_KEYS, kHash, 2, StacksAreEqual,
                                                   FreeStack, LibraryCategory(kRoomSites), 0);
  __atomic_store_n(&g_table, table, __ATOMIC_RELEASE);
  return table;
}

PackedStack* PackStack(const Stack& stack) {
  const uint32_t bytes = uint32_t{sizeof(StackHead)} + stack.depth * kPackedFrameBytes + 2;
  PackedStack* const packed =
      static_cast<PackedStack*>(__QvMalloc(LibraryCategory(kRoomStacks), bytes, 0));
  static_cast<StackHead&>(*packed) = stack;
  packed->isPacked = 1;
  for (uint32_t i = 0; i < stack.depth; i++) {  // each but the last is written over by the next in part
    memcpy(packed->frames + kPackedFrameBytes * i, &stack.frames[i], sizeof stack.frames[i]);
  }
  return packed;
}

// ---- Records ---------------------------------------------------------------------------------------

// The chunk of the next site; the first site is the one of folded ones. Provided for by the caller:
// under the lock it is too late to fold.
bool MakeRoomForSiteLocked() {
  constexpr uint32_t kChunkBytes = kSitesPerChunk * sizeof(Site);
  const uint32_t number = g_count + 2;
  if (number / kSitesPerChunk >= kChunks) return false;
  Site*& chunk = g_chunks[number / kSitesPerChunk];
  if (chunk != nullptr) return true;
  void* const fresh = __QvMalloc(LibraryCategory(kRoomSites), kChunkBytes, 0);
  chunk = static_cast<Site*>(memset(fresh, 0, kChunkBytes));
  return true;
}

// A record of the parent's still has its set.
Site& BeginSiteLocked() {
  const uint32_t number = g_count + 1;
  Site& site = SiteOf(number);
  __QvEmptySet(&site.otherThreads);
  site = {};
  site.otherThreads.category = LibraryCategory(kRoomSites) & 0xFF;
  site.number = number;
  site.peakNumber = __atomic_load_n(&g_peakNumber, __ATOMIC_RELAXED);
  __atomic_store_n(&g_count, number, __ATOMIC_RELEASE);
  return site;
}

// Where there is no memory for a site of its own, the stack counts as folded from the start.
Site* SiteWithoutMemoryLocked() { return g_count != 0 ? &SiteOf(kFoldedSite) : nullptr; }

QVHEAP_COLD Site* MakeSiteSlow(Stack& stack) {
  const SignalsBlocked blocked;
  for (uint32_t i = 0; i < kEpochs && !NoticeModules(stack.frames, stack.depth, stack.epoch); i++) {
    SetEpoch(stack, Load(g_epoch));
  }
  const Provision provision(kSlabsForSite, LeafGrowthBytes(SiteCount(), kLeaves));
  const SpinGuard guard(g_sitesLock);
  if (!provision.Granted() || !MakeRoomForSiteLocked()) return SiteWithoutMemoryLocked();
  QV_HASH_TABLE* const table = TableLocked();
  void* const found = __QvLookupHashTable(table, KeyOf(stack));  // made meanwhile by another thread
  if (found != nullptr) return static_cast<Site*>(found);
  if (g_count == 0) BeginSiteLocked();
  Site& site = BeginSiteLocked();
  site.stack = PackStack(stack);
  __QvInsertHashTableEntry(table, KeyOf(*site.stack), &site);
  return &site;
}

// ---- Figures ---------------------------------------------------------------------------------------

QVHEAP_INLINE void BringPeakUpToDateLocked(Site& site) {
  const uint64_t number = __atomic_load_n(&g_peakNumber, __ATOMIC_ACQUIRE);
  if (site.peakNumber == number) return;
  site.peakNumber = number;
  site.figures.liveAtPeakBytes = site.figures.LiveBytes();
}

// The site itself, or the one that it was folded into; its lock is held.
QVHEAP_INLINE Site& LockUnfolded(Site& site) {
  __QvAcquireSpinLock(&site.lock);
  if (QVHEAP_LIKELY(site.isFolded == 0)) return site;
  __QvReleaseSpinLock(&site.lock);
  Site& folded = SiteOf(kFoldedSite);
  __QvAcquireSpinLock(&folded.lock);
  return folded;
}

// The site of folded ones has no first thread: nobody knows whose their blocks were.
QVHEAP_INLINE bool IsFirstThreadLocked(Site& site, uint32_t ordinal) {
  if (QVHEAP_UNLIKELY(site.firstThread == 0) && site.number != kFoldedSite) {
    site.firstThread = ordinal & 0x7FFFFFFF;
  }
  return site.firstThread == ordinal;
}

void Accumulate(SiteFigures& sum, const SiteFigures& figures) {
  sum.samples += figures.samples;
  sum.allocations += figures.allocations;
  sum.releases += figures.releases;
  sum.bytesAllocated += figures.bytesAllocated;
  sum.bytesReleased += figures.bytesReleased;
  sum.liveAtPeakBytes += figures.liveAtPeakBytes;
  if (sum.LiveBytes() > sum.peakBytes) sum.peakBytes = sum.LiveBytes();
  for (uint32_t i = 0; i < kLonger; i++) sum.lifetimes[i] += figures.lifetimes[i];
}

// ---- Folding ---------------------------------------------------------------------------------------

uint64_t SizeOf(const SiteFigures& figures) { return figures.bytesAllocated; }

// Half of the sites at most have less than this: the median of a sample of 63.
uint64_t SmallSizeLocked() {
  uint64_t sizes[63];
  uint32_t count = 0;
  const uint32_t step = g_count / 63 + 1;
  for (uint32_t number = kFoldedSite + 1; number <= g_count && count < 63; number += step) {
    const Site& site = SiteOf(number);
    if (site.isFolded != 0) continue;
    uint32_t at = count++;
    for (; at > 0 && sizes[at - 1] > SizeOf(site.figures); at--) sizes[at] = sizes[at - 1];
    sizes[at] = SizeOf(site.figures);
  }
  return count != 0 ? sizes[count / 2] : 0;
}

// A thread that has found the site goes on counting into the record, and is passed on to number 1.
void FoldLocked(Site& site) {
  SiteFigures figures;
  {
    const SpinGuard guard(site.lock);
    BringPeakUpToDateLocked(site);
    figures = site.figures;
    site.figures = {};
    site.isFolded = 1;
    site.stack = nullptr;
  }
  Site& folded = SiteOf(kFoldedSite);
  const SpinGuard guard(folded.lock);
  BringPeakUpToDateLocked(folded);
  Accumulate(folded.figures, figures);
  g_foldedCount++;
}

struct Folding {
  uint64_t smallSize;
  uint32_t mayFold;  // half of the sites at most, be they all of one size
};

int32_t FoldIfSmall(void* data, uint64_t context) {
  Folding& folding = *reinterpret_cast<Folding*>(context);
  Site& site = *static_cast<Site*>(data);
  if (SizeOf(site.figures) > folding.smallSize || folding.mayFold == 0) return 0;
  folding.mayFold--;
  FoldLocked(site);
  __QvEmptySet(&site.otherThreads);
  return 1;
}

uint64_t UnfoldedLocked() { return g_count > kFoldedSite ? g_count - kFoldedSite - g_foldedCount : 0; }

void FoldSmallSitesLocked() {
  if (UnfoldedLocked() == 0 || g_sitesStay) return;
  Folding folding = {SmallSizeLocked(), uint32_t(UnfoldedLocked() + 1) / 2};
  __QvScanHashTable(g_table, FoldIfSmall, reinterpret_cast<uint64_t>(&folding), 1, nullptr, nullptr);
  g_leftByFolding = UnfoldedLocked();
}

}  // namespace

constinit QV_SPIN_LOCK g_sitesLock = {};

Site& SiteOf(uint32_t number) {
  return __atomic_load_n(&g_chunks[number / kSitesPerChunk], __ATOMIC_ACQUIRE)[number % kSitesPerChunk];
}

Site* FindOrMakeSite(Stack& stack) {
  QV_HASH_TABLE* const table = __atomic_load_n(&g_table, __ATOMIC_ACQUIRE);
  void* const found = __QvLookupHashTable(table, KeyOf(stack));
  return QVHEAP_LIKELY(found != nullptr) ? static_cast<Site*>(found) : MakeSiteSlow(stack);
}

bool CountAtSite(Site& counted, uint32_t threadOrdinal, const Weight& weight) {
  Site& site = LockUnfolded(counted);
  BringPeakUpToDateLocked(site);
  SiteFigures& figures = site.figures;
  figures.samples++;
  figures.allocations += weight.blocks;
  figures.bytesAllocated += weight.bytes;
  if (figures.LiveBytes() > figures.peakBytes) figures.peakBytes = figures.LiveBytes();
  const bool isOther = !IsFirstThreadLocked(site, threadOrdinal);
  if (QVHEAP_UNLIKELY(isOther)) {
    figures.byOthers.blocks += weight.blocks;
    figures.byOthers.bytes += weight.bytes;
  }
  __QvReleaseSpinLock(&site.lock);
  return isOther && site.number != kFoldedSite;
}

void CountReleaseAtSite(uint32_t number, const Weight& weight, uint32_t born) {
  const Lifetime lifetime = LifetimeSince(born);
  Site& site = LockUnfolded(SiteOf(number));
  BringPeakUpToDateLocked(site);
  site.figures.releases += weight.blocks;
  site.figures.bytesReleased += weight.bytes;
  if (lifetime < kLonger) site.figures.lifetimes[lifetime] += weight.blocks;
  __QvReleaseSpinLock(&site.lock);
}

void NoteTotal(int64_t liveBytes) {
  int64_t highest = Load(g_peakTotal);
  while (liveBytes > highest) {
    if (!__atomic_compare_exchange_n(&g_peakTotal, &highest, liveBytes, true, __ATOMIC_RELAXED,
                                     __ATOMIC_RELAXED)) {
      continue;
    }
    __atomic_fetch_add(&g_peakNumber, 1, __ATOMIC_RELEASE);
    return;
  }
}

void RestartSitePeaks(int64_t liveBytes) {
  Store(g_peakTotal, liveBytes);
  __atomic_fetch_add(&g_peakNumber, 1, __ATOMIC_RELEASE);
  for (uint32_t number = 1; number <= SiteCount(); number++) {
    Site& site = SiteOf(number);
    const SpinGuard guard(site.lock);
    site.figures.peakBytes = site.figures.LiveBytes();
  }
}

void AddThreadToSite(Site& site, uint32_t ordinal) {
  const Provision provision(1);
  const SpinGuard guard(g_sitesLock);
  if (provision.Granted() && site.isFolded == 0) __QvAddAnElementToSet(&site.otherThreads, ordinal);
}

SiteFigures ReadSite(Site& site) {
  const SpinGuard guard(site.lock);
  BringPeakUpToDateLocked(site);
  return site.figures;
}

uint32_t SiteCount() { return __atomic_load_n(&g_count, __ATOMIC_ACQUIRE); }
uint64_t FoldedSiteCount() { return Load(g_foldedCount); }

SitesStay::SitesStay() {
  const SpinGuard guard(g_sitesLock);
  g_sitesStay = true;
}

SitesStay::~SitesStay() {
  const SpinGuard guard(g_sitesLock);
  g_sitesStay = false;
}

// Something under g_sitesLock may need memory; the sites are not in order then.
bool FoldSmallSites() {
  if (__QvIsSpinLockAcquiredByCallingThread(&g_sitesLock) != 0) return false;
  const SpinGuard guard(g_sitesLock);
  if (UnfoldedLocked() <= g_leftByFolding + g_leftByFolding / 4) return false;
  FoldSmallSitesLocked();
  return true;
}

void FoldSmallSitesIfCan() {
  if (__QvIsSpinLockAcquiredByCallingThread(&g_sitesLock) != 0) return;
  if (__QvTryToAcquireSpinLock(&g_sitesLock, 0) == 0) return;
  FoldSmallSitesLocked();
  __QvReleaseSpinLock(&g_sitesLock);
}

// The first look here frees the table; a child that is about to execute another program never does.
void ForgetAllSites() {
  __QvInitializeSpinLock(&g_sitesLock);
  g_count = 0;
  g_foldedCount = g_leftByFolding = 0;
  g_sitesStay = false;
  g_peakTotal = 0;
  if (g_table == nullptr) return;
  g_staleTable = g_table;
  g_table = nullptr;
}

}  // namespace qvheap

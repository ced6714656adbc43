// Memory of the stand-in host. Contract: host/qvhost.h.
//
//   region    | cell | cell | cell | ... not yet cut ... |   32 MiB (2 MiB in a process whose address space is
//                                                            limited), on a huge-page boundary
//   cell      | BlockHeader 16 | block: n * 16 KiB - 16 | gap 64 |
//   mapping   | BlockHeader 16 | block ... | to the end of the page |
//
// With its header a slab of 2^(16+s) - 16 bytes fills whole units. The gap of one cache line shifts
// each cell against the one before it: the heads of slabs, which every allocation touches, would
// otherwise all fall into the same few cache sets. Our header and the slab's own 48 bytes share one
// line.
//
// Invariants, under the host lock
//  (1) A byte of a region is not yet cut, or in a cell that is given out, or in a cell on the free
//      list of its size, or in a remainder too small for a slab.
//  (2) The header of a cell that is given out says kGivenOut; of a free one, kFree.
// The accounts and the ceiling are atomics outside the lock.
#include <errno.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include "host/parts.h"
#include "host/qvhost.h"

namespace qvhost {
namespace {

using qv::LoadRelaxed;

constexpr uint64_t kUnitBytes = 1 << 14;
constexpr uint64_t kGapBytes = 64;
constexpr uint64_t kPageBytes = 4096;
constexpr uint64_t kHugePageBytes = 1 << 21;
constexpr uint64_t kRegionBytes = 1 << 25;
constexpr uint32_t kSlabUnits = 4;
constexpr uint32_t kLargestKeptUnits = 64;  // 1 MiB
constexpr uint64_t kLargestRequest = uint64_t{1} << 46;

enum class Mark : uint32_t { kGivenOut = 0x5155B10C, kFree = 0x51F4EED0 };

struct BlockHeader {
  uint64_t bytes;  // as requested
  uint32_t units;  // of the cell; 0 for a mapping of its own
  Mark mark;
};
static_assert(sizeof(BlockHeader) == 16);

struct FreeCell {
  BlockHeader header;
  FreeCell* next;
};

// Under the host lock.
constinit FreeCell* g_freeCells[kLargestKeptUnits + 1] = {};  // by units
constinit char* g_uncut = nullptr;
constinit uint64_t g_uncutBytes = 0;

// Atomic.
constinit uint64_t g_bytesInUse = 0;
constinit uint64_t g_blocksInUse = 0;
constinit uint64_t g_bytesMapped = 0;
constinit uint64_t g_ceiling = 0;
constinit uint32_t g_smallPages = 0;

class KeepErrno : qv::NonCopyable {
 public:
  KeepErrno() : saved_(errno) {}
  ~KeepErrno() { errno = saved_; }

 private:
  const int saved_;
};

uint64_t RoundUp(uint64_t bytes, uint64_t step) { return (bytes + step - 1) / step * step; }

uint64_t CellBytes(uint64_t units) { return units * kUnitBytes + kGapBytes; }

char* Map(uint64_t bytes) {
  void* const pages =
      mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (pages == MAP_FAILED) return nullptr;
  qv::FetchAdd(g_bytesMapped, bytes);
  return static_cast<char*>(pages);
}

void Unmap(char* pages, uint64_t bytes) {
  if (bytes == 0) return;
  munmap(pages, bytes);
  qv::FetchAdd(g_bytesMapped, uint64_t{0} - bytes);
}

void WantHugePages(char* pages, uint64_t bytes) { madvise(pages, bytes, MADV_HUGEPAGE); }

// Maps a huge page more than needed and gives back what lies outside the boundaries.
char* MapAligned(uint64_t bytes) {
  char* const pages = Map(bytes + kHugePageBytes);
  if (pages == nullptr) return nullptr;
  const uint64_t address = reinterpret_cast<uint64_t>(pages);
  const uint64_t before = RoundUp(address, kHugePageBytes) - address;
  Unmap(pages, before);
  Unmap(pages + before + bytes, kHugePageBytes - before);
  return pages + before;
}

void PushCellLocked(char* place, uint32_t units) {
  FreeCell* const cell = reinterpret_cast<FreeCell*>(place);
  cell->header = {0, units, Mark::kFree};
  cell->next = g_freeCells[units];
  g_freeCells[units] = cell;
}

FreeCell* PopCellLocked(uint64_t units) {
  if (units > kLargestKeptUnits) return nullptr;
  FreeCell* const cell = g_freeCells[units];
  if (cell != nullptr) g_freeCells[units] = cell->next;
  return cell;
}

void CutIntoSlabsLocked(char* place, uint64_t bytes) {
  constexpr uint64_t kCell = kSlabUnits * kUnitBytes + kGapBytes;
  for (; bytes >= kCell; place += kCell, bytes -= kCell) PushCellLocked(place, kSlabUnits);
}

// A process that may have only so much address space is to have it for itself.
bool AddressSpaceIsLimited() {
  struct rlimit limit;
  return getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;
}

// How much of a new region is to be on huge pages, from its start. The process's first block is the
// size-class table, which the library writes from end to end as the process starts: in small pages
// those are 1,280 page faults, three milliseconds where huge pages take one.
uint64_t HugeBytesLocked(uint64_t regionBytes, uint64_t neededBytes) {
  if (LoadRelaxed(g_smallPages) == 0) return regionBytes;
  return g_uncut == nullptr ? RoundUp(neededBytes, kHugePageBytes) : 0;
}

// Where address space is short a smaller region may still be had.
bool OpenRegionLocked(uint64_t neededBytes) {
  const uint64_t wanted = AddressSpaceIsLimited() ? RoundUp(neededBytes, kHugePageBytes) : kRegionBytes;
  for (uint64_t bytes = wanted; bytes >= kHugePageBytes && bytes >= neededBytes; bytes /= 2) {
    char* const region = MapAligned(bytes);
    if (region == nullptr) continue;
    WantHugePages(region, HugeBytesLocked(bytes, neededBytes));
    CutIntoSlabsLocked(g_uncut, g_uncutBytes);
    g_uncut = region;
    g_uncutBytes = bytes;
    return true;
  }
  return false;
}

// A large block is cut from a region only if it is the first one: that is the size-class table.
bool MayOpenRegionLocked(uint64_t units) { return units <= kLargestKeptUnits || g_uncut == nullptr; }

BlockHeader* CutCellLocked(uint64_t units) {
  const uint64_t bytes = CellBytes(units);
  if (!MayOpenRegionLocked(units)) return nullptr;
  if (g_uncutBytes < bytes && !OpenRegionLocked(bytes)) return nullptr;
  char* const place = g_uncut;
  g_uncut += bytes;
  g_uncutBytes -= bytes;
  return reinterpret_cast<BlockHeader*>(place);
}

BlockHeader* TakeCell(uint64_t units, uint64_t requestedBytes) {
  const HostGuard guard;
  FreeCell* const kept = PopCellLocked(units);
  BlockHeader* const header = kept != nullptr ? &kept->header : CutCellLocked(units);
  if (header != nullptr) *header = {requestedBytes, uint32_t(units), Mark::kGivenOut};
  return header;
}

void GiveCellBack(BlockHeader* header) {
  const HostGuard guard;
  char* const place = reinterpret_cast<char*>(header);
  if (header->units <= kLargestKeptUnits) return PushCellLocked(place, header->units);
  header->mark = Mark::kFree;
  CutIntoSlabsLocked(place, CellBytes(header->units));
}

uint64_t MappingBytes(uint64_t requestedBytes) {
  return RoundUp(requestedBytes + sizeof(BlockHeader), kPageBytes);
}

BlockHeader* TakeMapping(uint64_t requestedBytes) {
  char* const pages = Map(MappingBytes(requestedBytes));
  if (pages == nullptr) return nullptr;
  // A reserve is held, not used: on a huge page its link word alone would make 2 MiB resident.
  if (requestedBytes != QV_RESERVE_BYTES && LoadRelaxed(g_smallPages) == 0) {
    WantHugePages(pages, MappingBytes(requestedBytes));
  }
  BlockHeader* const header = reinterpret_cast<BlockHeader*>(pages);
  *header = {requestedBytes, 0, Mark::kGivenOut};
  return header;
}

BlockHeader* TakeBlock(uint64_t requestedBytes) {
  const uint64_t units = RoundUp(requestedBytes + sizeof(BlockHeader), kUnitBytes) / kUnitBytes;
  const bool mayBeCell = CellBytes(units) <= kRegionBytes;
  BlockHeader* const cell = mayBeCell ? TakeCell(units, requestedBytes) : nullptr;
  return cell != nullptr ? cell : TakeMapping(requestedBytes);
}

void GiveBlockBack(BlockHeader* header) {
  if (header->units != 0) return GiveCellBack(header);
  Unmap(reinterpret_cast<char*>(header), MappingBytes(header->bytes));
}

// The bytes count from here on; false if the ceiling forbids them.
bool Charge(uint64_t bytes) {
  uint64_t found = LoadRelaxed(g_bytesInUse);
  for (;;) {
    const uint64_t ceiling = LoadRelaxed(g_ceiling);
    if (ceiling != 0 && (found > ceiling || bytes > ceiling - found)) return false;
    const uint64_t before = qv::CompareExchange(g_bytesInUse, found + bytes, found);
    if (before == found) break;
    found = before;
  }
  qv::FetchAdd(g_blocksInUse, uint64_t{1});
  return true;
}

void Discharge(uint64_t bytes) {
  qv::FetchAdd(g_bytesInUse, uint64_t{0} - bytes);
  qv::FetchAdd(g_blocksInUse, ~uint64_t{0});
}

BlockHeader* HeaderOf(void* block) {
  BlockHeader* const header = static_cast<BlockHeader*>(block) - 1;
  if (header->mark == Mark::kFree) HostFatal("a block was freed twice", block);
  if (header->mark != Mark::kGivenOut) HostFatal("a block was freed that is none of the host's", block);
  return header;
}

}  // namespace
}  // namespace qvhost

void* QvHostAllocate(uint64_t sizeBytes) {
  using namespace qvhost;
  const KeepErrno keep;
  if (sizeBytes > kLargestRequest || !Charge(sizeBytes)) return nullptr;
  BlockHeader* const header = TakeBlock(sizeBytes);
  if (header == nullptr) Discharge(sizeBytes);
  return header != nullptr ? header + 1 : nullptr;
}

void QvHostFree(void* block) {
  using namespace qvhost;
  if (block == nullptr) return;
  const KeepErrno keep;
  BlockHeader* const header = HeaderOf(block);
  Discharge(header->bytes);
  GiveBlockBack(header);
}

void QvHostUseSmallPages() { qv::StoreRelaxed(qvhost::g_smallPages, 1u); }
void QvHostSetCeiling(uint64_t bytes) { qv::StoreRelaxed(qvhost::g_ceiling, bytes); }
uint64_t QvHostBytesInUse() { return qv::LoadRelaxed(qvhost::g_bytesInUse); }
uint64_t QvHostBlocksInUse() { return qv::LoadRelaxed(qvhost::g_blocksInUse); }
uint64_t QvHostBytesMapped() { return qv::LoadRelaxed(qvhost::g_bytesMapped); }

// Memory of the collector itself: from the library, by category, and never at the program's expense.
//
// The library ends the process when its allocate hook cannot give, which no observer may do to the
// program. So whoever is about to allocate, or to have a container allocate, provides for it first: a
// Provision takes as many slabs from the host as the operation could ask the library's hook for, and
// the hook takes from what the calling thread has provided before it asks the host. An operation whose
// provision could not be had is not begun. What was not needed goes back.
//
//   Provision -> blocks of the host, on the thread --- hook ---> library ---> chunk
//
// A provision that fails has small sites folded (collectors/qvheap/sites.h), and is tried again.
#pragma once

#include "collectors/qvheap/words.h"

namespace qvheap {

enum Category : uint32_t {
  kRoomThreads,  // thread records and their tallies
  kRoomSizes,    // the codes of the program's blocks
  kRoomBlocks,   // what is known of live blocks beyond their codes
  kRoomSites,    // site records and the table of sites
  kRoomStacks,   // their stacks
  kRoomModules,  // images and regions
  kRoomReport,   // while something is written
  kRoomCategories
};

void InstallRoom();  // instead of the host's own hooks; before QvHostInstall

// The library's number for the category.
uint32_t LibraryCategory(Category category);

// For `slabs` slabs, at most kMostSlabs, one of which is a block of largestBytes if that is more than
// a slab. Provisions of one thread do not nest.
class Provision : NonCopyable {
 public:
  static constexpr uint32_t kMostSlabs = 5;
  explicit Provision(uint32_t slabs, uint64_t largestBytes = 0);
  ~Provision();
  bool Granted() const { return granted_; }

 private:
  bool granted_ = true;
};

// What a results file takes to be begun is kept from the start: where the memory has run out, there is
// all the more to tell. Giving it back makes the next provision of that size certain. The census lock.
void KeepReserveLocked();
void GiveReserveBackLocked();

// Null if there is no memory. It provides for itself. Above a mebibyte it is cleared, as the host's
// contract has it.
void* Allocate(Category category, uint64_t bytes);

// What one leaf of a hash table needs at most to grow: it doubles as it fills, and the leaves of a
// table whose hash is good fill about evenly.
uint64_t LeafGrowthBytes(uint64_t entries, uint32_t leaves);

// Bytes that the library's figures do not have: blocks that are larger than a chunk.
uint64_t LargeBytes(Category category);

}  // namespace qvheap

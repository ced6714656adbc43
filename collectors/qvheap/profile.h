// Looking at blocks: what happens to the allocations that sampling picks (all of them in exact mode),
// and to their releases. The wrappers count, then ask here.
//
//   allocation   stack -> site -> the block's sight is kept -> figures of the site, tally of the thread
//   release      sight -> figures of the site
//
// Before a process has read its options nothing is looked at, nor in a child for whose sake a fork
// could not wait for a looking thread.
#pragma once

#include "collectors/qvheap/census.h"

namespace qvheap {

void InstallProfile();                  // with the census, before anything is allocated for it
void StartProfileLocked();              // the options are known
void RestartProfileLocked(bool whole);  // in a child process, before the census's records start again

// Of a thread's record: as it begins, under the census lock, and as it ends.
void BeginLooks(ThreadRecord& me);
void EndLooks(ThreadRecord& me);

// The thread's way has ended in this block, which was counted: settles what it owes, looks if it is
// time, and gives it new way. `call` is where the wrapper's return address is on the stack. (Exact mode has no way to go.)
// Returns the block, so that a wrapper can end in it.
QVHEAP_COLD void* AllocatedSlow(ThreadRecord& me, void* block, uint64_t bytes, void** call);
// Takes a block that was looked at out of everything but the thread's counts, which are the caller's;
// its size. Before the block goes back to the allocator.
uint64_t ReleaseLookedAt(ThreadRecord& me, const void* block);
// A realloc may fail, and then the block is what it was.
struct Sight;
Sight TakeForReallocation(ThreadRecord& me, const void* block);
void CountTaken(ThreadRecord& me, const Sight& sight);
void PutBack(ThreadRecord& me, const void* block, const Sight& sight);

void ProgramClosedImage();  // it called dlclose

uint64_t MissedLooks();  // allocations that were to be looked at, but there was no memory

}  // namespace qvheap

// What is known of the live blocks that were looked at: the site, the time, the size, the weight.
//
// A block's code (collectors/qvheap/sizes.h) says where it is:
//
//   kInTable      in a hash table of two levels by address. Every block of sampled mode is there: there
//                 are few, and each has a weight of its own.
//   kInShortCode  exact mode, blocks with eight codes of the first 65,535 sites: the seven that follow
//                 are bytes:8 | site:16 | born:32
//   kInRecord     exact mode, other blocks with four codes: the three that follow are the number of a
//                 record of 8 bytes, site:24 | bytes:8 | born:32
//   kInCodes      exact mode, from 144 bytes on: the 16 codes that follow are site:32 | born:32 |
//                 bytes:64
//
// Why exact mode does not use the table: an entry with its lock, bucket and record takes some 170
// bytes, which for a program with half a million live blocks of some hundred bytes is more than what
// it uses itself. The codes are there already, so small blocks cost 8 bytes more and most cost
// nothing. (It is also the faster one: the codes are in the cache, since the size is looked up there.)
//
// A block has the codes of the address space that is its own, one for 8 bytes. libc's blocks are never
// nearer to one another than 32 bytes, and 64 from 41 bytes on: they take 8 bytes more than was asked
// for, in steps of 16. Of another allocator's, the block's own bytes are all that is known; below 25 of
// them, it goes into the table.
//
// Invariants
//  (1) What belongs to a block is written by the thread that was given it and taken by the thread that
//      gives it back, before the allocator has it again. Hence no lock in codes and records.
//  (2) Free records are in lists: one for each thread, used by it alone, and a common one under a lock.
#pragma once

#include "collectors/qvheap/census.h"
#include "collectors/qvheap/sampling.h"

namespace qvheap {

struct Sight {
  uint32_t site;
  uint32_t born;  // clock.h
  uint64_t bytes;
  Weight weight;
};

void InstallBlocks();  // the real functions are known

// The block, whose code holds its size, is now one that was looked at. False if there is no memory. The
// caller is Looking.
bool KeepSight(ThreadRecord& me, const void* block, const Sight& sight);
// Forgets a block whose size was kLookedAt.
Sight TakeSight(ThreadRecord& me, const void* block);

void GiveRecordsBack(ThreadRecord& me);  // the thread ends; it is Looking
void ForgetAllSights();                  // in a child process

}  // namespace qvheap

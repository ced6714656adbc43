// Memory for callers that come before the tool has installed its allocate hook, or in a process that
// installs none: start-up, the log and containers then still work.
//
// Blocks are powers of two. Below 64 KiB they are cut from anonymous regions and kept on a free list by
// size; from 64 KiB on each is a mapping of its own (its untouched tail costs nothing). They are never
// handed to the tool's free hook. The header word before the caller's memory tells what a block is:
//
//   allocated   kEarlyMark | log2(bytes) << 1 | 1   no address: bits 48 to 63 of a pointer are equal
//   free        1                                   so a second release is recognised
//
// One guard word protects all of it: thread identity is not there yet, so no recursive lock can.
#pragma once

#include "runtime/base.h"

namespace qv {

inline constexpr uint64_t kEarlyMark = 0x0EA51B10ull << 36;
static_assert((kEarlyMark >> 48) != 0 && (kEarlyMark >> 48) != 0xFFFF);

QV_INLINE bool IsEarlyHeader(uint64_t header) { return (header & ~uint64_t{0xFF}) == kEarlyMark; }

uint64_t* AllocateEarlyBlock(uint64_t bytes);  // header word and memory; null if the system has none
void ReleaseEarlyBlock(uint64_t* header);

}  // namespace qv

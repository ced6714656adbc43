// The collector's own unwinder: return addresses of the calling thread, some five nanoseconds each.
//
// Why not one that exists. libc's `backtrace` takes 180 nanoseconds for a frame. libunwind's takes 8,
// but it keeps a pipe open, on numbers that the program would have got, and goes on writing to and
// reading from those numbers after the program has closed them and put files of its own there; a child
// process can find its locks and the loader's held by threads that it does not have; every thread
// costs it 256 KiB; and what it defines would take the place of the unwinder that throws the program's
// exceptions. All of that comes from being able to do more than is needed here.
//
// What is needed is the way from frame to frame. For nearly all code that is one of a few rules, which
// follow from an address alone: where the caller's frame begins (the CFA), and where its rbp was
// saved; its return address is just below the CFA. The unwind tables of the image (cfi.h) give the
// rule, and a table shared by all threads keeps it (steps.h). In exact mode most of the way is known from
// the walk before (trail.h).
//
//   cache entry:  | check = pc ^ rule ^ epoch's pattern | rule |     16 bytes
//
// No lock and no order: a reader takes an entry only if both words fit together, so it never uses one
// half of another thread's. An image that is unloaded starts an epoch (modules.h), and no entry from
// before fits.
//
// A stack ends at a frame that no rule describes, one kept by another register than rsp and rbp.
#pragma once

#include "collectors/qvheap/words.h"

namespace qvheap {

enum RuleKind : uint32_t {
  kRuleEnd,      // nobody called this, or no image says who did
  kRuleFromRsp,  // CFA = rsp + offset
  kRuleFromRbp,  // CFA = rbp + offset
  kRuleAtRbp,    // CFA is what is stored at rbp + offset
  kRuleSignal,   // the kernel interrupted the caller: its registers are at rsp
  kRuleLinkage,  // a stub of the procedure linkage table: CFA = rsp + 8, or + 16 from its second instruction on
};

// A word: kind:3 | CFA offset:29 | rbpIsSaved:1 | rbp offset from the CFA:31, from the top, offsets signed.
struct Rule {
  uint64_t word;

  static constexpr int64_t kLargestOffset = (1 << 28) - 1;
  static Rule Make(RuleKind kind, int64_t cfaOffset, bool rbpIsSaved, int64_t rbpOffset) {
    return {uint64_t{kind} << 61 | (uint64_t(cfaOffset) & 0x1FFFFFFF) << 32 |
            uint64_t{rbpIsSaved} << 31 | (uint64_t(rbpOffset) & 0x7FFFFFFF)};
  }
  RuleKind Kind() const { return RuleKind(word >> 61); }
  int64_t CfaOffset() const { return int64_t(word << 3) >> 35; }
  bool RbpIsSaved() const { return (word >> 31 & 1) != 0; }
  int64_t RbpOffset() const { return int64_t(word << 33) >> 33; }
};

// Return addresses from the caller of the calling function on, innermost first; how many.
int Unwind(void** frames, int count, const uint64_t* frameAddress);
// The same from the one at `call` on, which is that of a call further out on the stack.
int UnwindFrom(void** frames, int count, const uint64_t* call, const uint64_t* frameAddress);

}  // namespace qvheap

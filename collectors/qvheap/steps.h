// Single steps of the unwinder: from a frame to its caller's, by the rule of the frame's address.
#pragma once

#include "collectors/qvheap/cfi.h"
#include "collectors/qvheap/modules.h"
#include "collectors/qvheap/unwind.h"

namespace qvheap {

struct Frame {
  uint64_t pc, rsp, rbp;
  bool isInterrupted;  // pc is the next instruction itself, not the one after a call
};

QVHEAP_INLINE uint64_t WordAt(uint64_t address) { return *reinterpret_cast<const uint64_t*>(address); }

// Whether it can be code's: what is read where a stack ends, or where its tables are wrong, may be any word.
QVHEAP_INLINE bool IsAddress(uint64_t pc) { return pc - 1 < (uint64_t{1} << 47) - 1; }

// The caller of the function whose frame address it is.
QVHEAP_INLINE Frame FrameAt(const uint64_t* frameAddress) {
  return {frameAddress[1], reinterpret_cast<uint64_t>(frameAddress + 2), frameAddress[0], false};
}

// ---- Rules by address ------------------------------------------------------------------------------

inline constexpr uint32_t kRuleEntries = 1 << 13;

struct RuleEntry {
  uint64_t check, rule;
};
extern QVHEAP_OURS RuleEntry g_rules[kRuleEntries];

QVHEAP_INLINE uint64_t CheckFor(uint64_t pc, uint64_t rule) {
  return pc ^ rule ^ uint64_t { Load(g_epoch) } << 48;
}

QVHEAP_INLINE RuleEntry& EntryFor(uint64_t pc) { return g_rules[(pc * 0x9E3779B97F4A7C15) >> 51]; }
static_assert(kRuleEntries == 1 << (64 - 51));

QVHEAP_COLD Rule LearnRuleSlow(uint64_t pc);

QVHEAP_INLINE Rule RuleFor(const Frame& frame) {
  const uint64_t pc = frame.pc - (frame.isInterrupted ? 0 : 1);
  const RuleEntry& entry = EntryFor(pc);
  const uint64_t rule = Load(entry.rule);
  if (QVHEAP_LIKELY(Load(entry.check) == CheckFor(pc, rule))) return {rule};
  return LearnRuleSlow(pc);
}

// ---- Steps -----------------------------------------------------------------------------------------

inline constexpr uint64_t kLargestFrame = 1 << 26;  // what is said to be larger is a mistake

// Where the kernel puts the registers of what it interrupted, counted from rsp in its return stub.
inline constexpr uint64_t kSignalRbp = 120, kSignalRsp = 160, kSignalRip = 168;

QVHEAP_INLINE uint64_t CfaOf(const Frame& frame, Rule rule) {
  switch (rule.Kind()) {
    case kRuleFromRsp: return frame.rsp + uint64_t(rule.CfaOffset());
    case kRuleFromRbp: return frame.rbp + uint64_t(rule.CfaOffset());
    case kRuleAtRbp: return WordAt(frame.rbp + uint64_t(rule.CfaOffset()));
    default:
      return frame.rsp + 8 + (int64_t(frame.pc & 15) >= rule.CfaOffset() ? 8 : 0);  // kRuleLinkage
  }
}

QVHEAP_INLINE void LeaveSignal(Frame& frame) {
  const uint64_t registers = frame.rsp;
  frame = {WordAt(registers + kSignalRip), WordAt(registers + kSignalRsp),
           WordAt(registers + kSignalRbp), true};
}

// The caller's frame; false if there is none.
QVHEAP_INLINE bool Leave(Frame& frame, Rule rule) {
  if (QVHEAP_UNLIKELY(rule.Kind() == kRuleEnd)) return false;
  if (QVHEAP_UNLIKELY(rule.Kind() == kRuleSignal)) {
    LeaveSignal(frame);
    return true;
  }
  const uint64_t cfa = CfaOf(frame, rule);
  if (QVHEAP_UNLIKELY(cfa - frame.rsp > kLargestFrame || cfa % 8 != 0 || cfa == frame.rsp))
    return false;
  if (rule.Kind() == kRuleAtRbp) {
    frame.rbp = WordAt(frame.rbp);
  } else if (rule.RbpIsSaved()) {
    frame.rbp = WordAt(cfa + uint64_t(rule.RbpOffset()));
  }
  frame.rsp = cfa;
  frame.pc = WordAt(cfa - 8);
  frame.isInterrupted = false;
  return true;
}

// From a frame to the one that made the call at `call`. False if the way does not lead there.
bool GoTo(Frame& frame, const uint64_t* call);

}  // namespace qvheap

// The unwinder. Design: collectors/qvheap/unwind.h.
#include "collectors/qvheap/unwind.h"

#include "collectors/qvheap/cfi.h"
#include "collectors/qvheap/modules.h"

namespace qvheap {
namespace {

constexpr uint32_t kEntries = 1 << 13;
constexpr uint64_t kLargestFrame = 1 << 26;  // what is said to be larger is a mistake

// Where the kernel puts the registers of what it interrupted, counted from rsp in its return stub.
constexpr uint64_t kSignalRbp = 120, kSignalRsp = 160, kSignalRip = 168;

struct CacheEntry {
  uint64_t check, rule;
};
constinit CacheEntry g_cache[kEntries] = {};

struct Frame {
  uint64_t pc, rsp, rbp;
  bool isInterrupted;  // pc is the next instruction itself, not the one after a call
};

uint64_t WordAt(uint64_t address) { return *reinterpret_cast<const uint64_t*>(address); }

QVHEAP_INLINE uint64_t CheckFor(uint64_t pc, uint64_t rule) {
  return pc ^ rule ^ uint64_t { Load(g_epoch) } << 48;
}

QVHEAP_INLINE CacheEntry& EntryFor(uint64_t pc) { return g_cache[(pc * 0x9E3779B97F4A7C15) >> 51]; }
static_assert(kEntries == 1 << (64 - 51));

QVHEAP_COLD Rule LearnRule(uint64_t pc) {
  const Rule rule = ReadRule(pc);
  CacheEntry& entry = EntryFor(pc);
  Store(entry.rule, rule.word);
  Store(entry.check, CheckFor(pc, rule.word));
  return rule;
}

QVHEAP_INLINE Rule RuleFor(uint64_t pc) {
  const CacheEntry& entry = EntryFor(pc);
  const uint64_t rule = Load(entry.rule);
  if (QVHEAP_LIKELY(Load(entry.check) == CheckFor(pc, rule))) return {rule};
  return LearnRule(pc);
}

uint64_t CfaOf(const Frame& frame, Rule rule) {
  switch (rule.Kind()) {
    case kRuleFromRsp: return frame.rsp + uint64_t(rule.CfaOffset());
    case kRuleFromRbp: return frame.rbp + uint64_t(rule.CfaOffset());
    case kRuleAtRbp: return WordAt(frame.rbp + uint64_t(rule.CfaOffset()));
    default:
      return frame.rsp + 8 + (int64_t(frame.pc & 15) >= rule.CfaOffset() ? 8 : 0);  // kRuleLinkage
  }
}

void LeaveSignal(Frame& frame) {
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

}  // namespace

int Unwind(void** frames, int count, const uint64_t* frameAddress) {
  Frame frame = {frameAddress[1], reinterpret_cast<uint64_t>(frameAddress + 2), frameAddress[0], false};
  int found = 0;
  while (found < count && frame.pc != 0) {
    frames[found++] = reinterpret_cast<void*>(frame.pc);
    const Rule rule = RuleFor(frame.pc - (frame.isInterrupted ? 0 : 1));
    if (!Leave(frame, rule)) break;
  }
  return found;
}

}  // namespace qvheap

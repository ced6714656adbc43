// The unwinder. Design: collectors/qvheap/unwind.h.
#include "collectors/qvheap/unwind.h"

#include "collectors/qvheap/steps.h"

namespace qvheap {

constinit RuleEntry g_rules[kRuleEntries] = {};

Rule LearnRuleSlow(uint64_t pc) {
  const Rule rule = ReadRule(pc);
  RuleEntry& entry = EntryFor(pc);
  Store(entry.rule, rule.word);
  Store(entry.check, CheckFor(pc, rule.word));
  return rule;
}

namespace {

int Walk(void** frames, int count, Frame frame) {
  int found = 0;
  while (found < count && IsAddress(frame.pc)) {
    frames[found++] = reinterpret_cast<void*>(frame.pc);
    if (!Leave(frame, RuleFor(frame))) break;
  }
  return found;
}

}  // namespace

bool GoTo(Frame& frame, const uint64_t* call) {
  const uint64_t rsp = reinterpret_cast<uint64_t>(call + 1);
  while (frame.rsp < rsp && Leave(frame, RuleFor(frame))) {
  }
  return frame.rsp == rsp;
}

int Unwind(void** frames, int count, const uint64_t* frameAddress) {
  return Walk(frames, count, FrameAt(frameAddress));
}

int UnwindFrom(void** frames, int count, const uint64_t* call, const uint64_t* frameAddress) {
  Frame frame = FrameAt(frameAddress);
  return GoTo(frame, call) ? Walk(frames, count, frame) : 0;
}

}  // namespace qvheap

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

int Unwind(void** frames, int count, const uint64_t* frameAddress) {
  Frame frame = FrameAt(frameAddress);
  int found = 0;
  while (found < count && frame.pc != 0) {
    frames[found++] = reinterpret_cast<void*>(frame.pc);
    if (!Leave(frame, RuleFor(frame))) break;
  }
  return found;
}

}  // namespace qvheap

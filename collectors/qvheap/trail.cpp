// Walking along the trail. Design: collectors/qvheap/trail.h.
#include "collectors/qvheap/trail.h"

#include <string.h>

#include "collectors/qvheap/steps.h"

namespace qvheap {
namespace {

constexpr uint32_t kSpare = 12;          // steps left free for what comes further in
constexpr uint64_t kInterruptedRsp = 1;  // stack pointers are multiples of 8
static_assert(kSpare + kMostAlongTrail <= kTrailSteps);

class Walk : NonCopyable {
 public:
  Walk(Trail& trail, void** frames, uint32_t count, const uint64_t* call, const uint64_t* frameAddress)
      : trail_(trail),
        frames_(frames),
        count_(count),
        call_(call),
        frameAddress_(frameAddress),
        frame_{*call, reinterpret_cast<uint64_t>(call + 1), 0, false},
        last_(trail.last) {}

  uint32_t Run(uint64_t& hash) {
    at_ = trail_.first;
    bool isOnTrail = GoToTrail();
    while (QVHEAP_LIKELY(isOnTrail) && GoAlong() && !IsEnough()) {
      LeaveTrail();
      isOnTrail = GoToTrail();
    }
    if (freshCount_ != 0) {
      PutFresh(isOnTrail);
    } else if (isOnTrail) {
      trail_.first = met_;
    }
    hash = Hash();
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    trail_.last = last_;
    return found_;
  }

 private:
  static Step StepOf(const Frame& frame, Rule rule) {
    return {frame.isInterrupted ? kInterruptedRsp : frame.rsp, frame.pc, rule, 0};
  }

  bool IsEnough() const { return found_ == count_ || !IsAddress(frame_.pc); }

  bool IsOnTrail(uint32_t at) const {
    const Step& step = trail_.steps[at];
    return at < last_ && step.rsp == frame_.rsp && !frame_.isInterrupted;
  }

  // True if it got there, to step at_. False if the stack ended before, or enough was found.
  bool GoToTrail() {
    while (!IsEnough()) {
      while (at_ < last_ && trail_.steps[at_].rsp < frame_.rsp) at_++;
      if (IsOnTrail(at_) && trail_.steps[at_].pc == frame_.pc) return true;
      frames_[found_++] = reinterpret_cast<void*>(frame_.pc);
      const Rule rule = RuleFor(frame_);
      trail_.fresh[freshCount_++] = StepOf(frame_, rule);
      if (!LeaveFrame(rule)) return false;
    }
    return false;
  }

  bool LeaveFrame(Rule rule) {
    if (rule.Kind() != kRuleFromRsp && !rbpIsKnown_) LearnRbpSlow();
    if (rule.RbpIsSaved()) rbpIsKnown_ = true;
    return Leave(frame_, rule);
  }

  // What rbp was at the call. It still is, in frame_: no frame since has saved another.
  QVHEAP_COLD void LearnRbpSlow() {
    Frame frame = FrameAt(frameAddress_);
    GoTo(frame, call_);
    frame_.rbp = frame.rbp;
    rbpIsKnown_ = true;
  }

  // From step at_, which is where frame_ is. True if the stack leads away from the trail, to frame_.
  bool GoAlong() {
    met_ = rbpAt_ = at_;
    for (;;) {
      FollowAddresses();
      if (found_ == count_ || !GoOneStep()) return false;
      if (QVHEAP_UNLIKELY(!IsOnTrail(at_)) && !Extend()) return true;
      if (trail_.steps[at_].pc != frame_.pc && !ChangeStep()) return true;
    }
  }

  // As far as frames are found by rsp and have the address of the trail, or enough were found.
  void FollowAddresses() {
    const Step* step = &trail_.steps[at_];
    const Step* const end = &trail_.steps[last_];
    uint32_t found = found_;
    while (step + 1 < end && step->rule.Kind() == kRuleFromRsp && found != count_ &&
           WordAt(step[1].rsp - 8) == step[1].pc) {
      frames_[found++] = reinterpret_cast<void*>(step->pc);
      step++;
    }
    at_ = uint32_t(step - trail_.steps);
    found_ = found;
  }

  // The value of rbp in the frame of step at_: what an inner frame saved, or what it was before.
  uint64_t Rbp() {
    const Step* const steps = trail_.steps;
    for (uint32_t i = at_; i > rbpAt_; i--) {
      const Rule rule = steps[i - 1].rule;
      if (!rule.RbpIsSaved()) continue;
      rbpIsKnown_ = true;
      return WordAt(steps[i].rsp + uint64_t(rule.RbpOffset()));
    }
    return frame_.rbp;
  }

  // Whatever the step is. False at the end.
  bool GoOneStep() {
    const Step& step = trail_.steps[at_];
    frame_ = {step.pc, step.rsp, Rbp(), false};
    frames_[found_++] = reinterpret_cast<void*>(step.pc);
    if (!LeaveFrame(step.rule) || !IsAddress(frame_.pc)) return false;
    rbpAt_ = ++at_;
    return true;
  }

  // Step at_ has another address now. False if that leads away from the next step.
  bool ChangeStep() {
    const Rule rule = RuleFor(frame_);
    const bool leadsOn = rule.Kind() != kRuleFromRsp || at_ + 1 == last_ ||
                         frame_.rsp + uint64_t(rule.CfaOffset()) == trail_.steps[at_ + 1].rsp;
    if (!leadsOn) return false;
    BeginChange();
    trail_.steps[at_] = StepOf(frame_, rule);
    unchanged_ = at_ + 1;
    return true;
  }

  // The trail has ended before the stack. False if it did not, or if there is no place for a step more.
  bool Extend() {
    if (at_ != last_ || at_ == kTrailSteps || frame_.isInterrupted) return false;
    const Rule rule = RuleFor(frame_);
    BeginChange();
    trail_.steps[last_++] = StepOf(frame_, rule);
    return true;
  }

  // What was walked along the trail is as if it had been walked without.
  QVHEAP_COLD void LeaveTrail() {
    const uint32_t count = at_ - met_;
    memcpy(trail_.fresh + freshCount_, trail_.steps + met_, count * sizeof(Step));
    freshCount_ += count;
  }

  void BeginChange() {  // (4)
    trail_.last = trail_.first;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
  }

  // Makes place for the fresh steps before the first of the trail that stays.
  void PutFresh(bool met) {
    BeginChange();
    Step* const steps = trail_.steps;
    uint32_t kept = met ? last_ - met_ : 0;
    if (!met || met_ < freshCount_) {
      const uint32_t place = kSpare + freshCount_;
      if (kept > kTrailSteps - place) kept = kTrailSteps - place;
      memmove(steps + place, steps + met_, kept * sizeof *steps);
      met_ = place;
      trail_.chainEnd = 0;
    }
    memcpy(steps + met_ - freshCount_, trail_.fresh, freshCount_ * sizeof *steps);
    trail_.first = met_ - freshCount_;
    last_ = met_ + kept;
  }

  // Of all that was found, which are now neighbours on the trail.
  uint64_t Hash() {
    Step* const steps = trail_.steps;
    const uint32_t begin = trail_.first;
    const uint32_t end = begin + found_;
    const uint32_t from = FirstChained(end);
    uint64_t chain = from < end ? steps[from].chain : 0;
    if (from == begin) return chain;
    BeginChange();
    for (uint32_t i = from; i > begin; i--) {
      chain = ChainHash(chain, steps[i - 1].pc);
      steps[i - 1].chain = chain;
    }
    trail_.chainEnd = end;
    return chain;
  }

  // The step from which on (3) holds for this walk, too; `end` if for none.
  uint32_t FirstChained(uint32_t end) const {
    if (trail_.chainEnd != end) return end;
    const uint32_t from = met_ > unchanged_ ? met_ : unchanged_;
    return from < end ? from : end;
  }

  Trail& trail_;
  void** const frames_;
  const uint32_t count_;
  const uint64_t* const call_;
  const uint64_t* const frameAddress_;
  uint32_t found_ = 0;
  Frame frame_;
  uint32_t at_ = 0;
  uint32_t last_;           // of the trail, which is as if empty while it changes
  uint32_t met_ = 0;        // the step where the walk came upon the trail
  uint32_t unchanged_ = 0;  // the first step that is as the walk before left it
  uint32_t rbpAt_ = 0;      // the step whose rbp is frame_.rbp
  bool rbpIsKnown_ = false;
  uint32_t freshCount_ = 0;  // walked before that
};

}  // namespace

int UnwindAlong(Trail& trail, void** frames, int count, const uint64_t* call,
                const uint64_t* frameAddress, uint64_t& hash) {
  const uint32_t epoch = Load(g_epoch);
  if (QVHEAP_UNLIKELY(trail.epoch != epoch)) {
    trail.first = trail.last = 0;
    trail.epoch = epoch;
  }
  Walk walk(trail, frames, uint32_t(count), call, frameAddress);
  return int(walk.Run(hash));
}

}  // namespace qvheap

// Unwind tables. Design: collectors/qvheap/cfi.h.
#include "collectors/qvheap/cfi.h"

#include <dlfcn.h>
#include <string.h>

namespace qvheap {
namespace {

constexpr uint32_t kRbp = 6, kRsp = 7, kReturnAddress = 16;  // DWARF's numbers
constexpr uint32_t kDeepestState = 8;
constexpr uint8_t kOmitted = 0xFF;

constexpr Rule kEnd = {uint64_t{kRuleEnd} << 61};

using Bytes = const unsigned char*;

template <class T>
T ReadAs(Bytes at) {
  T value;
  memcpy(&value, at, sizeof value);
  return value;
}

template <class T>
T Next(Bytes& at) {
  const T value = ReadAs<T>(at);
  at += sizeof value;
  return value;
}

uint64_t NextUnsigned(Bytes& at) {
  uint64_t value = 0;
  for (uint32_t shift = 0;; shift += 7) {
    const unsigned char byte = *at++;
    if (shift < 64) value |= uint64_t{byte & 0x7Fu} << shift;
    if ((byte & 0x80) == 0) return value;
  }
}

int64_t NextSigned(Bytes& at) {
  uint64_t value = 0;
  uint32_t shift = 0;
  unsigned char byte;
  do {
    byte = *at++;
    if (shift < 64) value |= uint64_t{byte & 0x7Fu} << shift;
    shift += 7;
  } while ((byte & 0x80) != 0);
  if (shift < 64 && (byte & 0x40) != 0) value |= ~uint64_t{0} << shift;
  return int64_t(value);
}

// A pointer as its encoding says; false if it is of a kind that no x86-64 linker writes here.
bool NextPointer(Bytes& at, uint8_t encoding, uint64_t& value) {
  const uint64_t place = reinterpret_cast<uint64_t>(at);
  switch (encoding & 0x0F) {
    case 0x00:
    case 0x04:
    case 0x0C: value = Next<uint64_t>(at); break;
    case 0x03: value = Next<uint32_t>(at); break;
    case 0x0B: value = uint64_t(int64_t{Next<int32_t>(at)}); break;
    default: return false;
  }
  if ((encoding & 0x70) == 0x10) value += place;
  return (encoding & 0x70) == 0x10 || (encoding & 0x70) == 0;
}

// ---- Entries ---------------------------------------------------------------------------------------

// An entry of the table with the common one that it refers to.
struct Entry {
  Bytes commonProgram, commonEnd;
  Bytes program, end;
  uint64_t start;  // of the code that it is about
  uint64_t codeFactor;
  int64_t dataFactor;
  bool isSignalFrame;
};

struct Augmentation {
  uint8_t pointerEncoding = 0;
  bool hasData = false;
};

// The letters and their data; what is not known is skipped by its length.
bool ReadAugmentation(const char* letters, Bytes& at, Entry& entry, Augmentation& augmentation) {
  if (*letters == 0) return true;
  if (*letters++ != 'z') return false;
  augmentation.hasData = true;
  const uint64_t bytes = NextUnsigned(at);
  const Bytes after = at + bytes;
  for (; *letters != 0; letters++) {
    uint64_t ignored;
    if (*letters == 'R') {
      augmentation.pointerEncoding = *at++;
    } else if (*letters == 'L') {
      at++;
    } else if (*letters == 'P') {
      const uint8_t encoding = *at++;
      if (!NextPointer(at, encoding, ignored)) return false;
    } else if (*letters == 'S') {
      entry.isSignalFrame = true;
    } else if (*letters != 'B') {
      break;
    }
  }
  at = after;
  return true;
}

bool ReadCommon(Bytes at, Entry& entry, Augmentation& augmentation) {
  const uint32_t bytes = Next<uint32_t>(at);
  if (bytes == 0 || bytes == 0xFFFFFFFF) return false;
  entry.commonEnd = at + bytes;
  if (Next<uint32_t>(at) != 0) return false;
  const uint8_t version = *at++;
  if (version != 1 && version != 3) return false;
  const char* const letters = reinterpret_cast<const char*>(at);
  at += strlen(letters) + 1;
  entry.codeFactor = NextUnsigned(at);
  entry.dataFactor = NextSigned(at);
  const uint64_t returnAddress = version == 1 ? *at++ : NextUnsigned(at);
  if (returnAddress != kReturnAddress || !ReadAugmentation(letters, at, entry, augmentation))
    return false;
  entry.commonProgram = at;
  return true;
}

// False if it is malformed or not about the address.
bool ReadEntry(Bytes at, uint64_t pc, Entry& entry) {
  const uint32_t bytes = Next<uint32_t>(at);
  if (bytes == 0 || bytes == 0xFFFFFFFF) return false;
  entry.end = at + bytes;
  const Bytes common = at - ReadAs<uint32_t>(at);
  at += 4;
  Augmentation augmentation;
  if (!ReadCommon(common, entry, augmentation)) return false;
  uint64_t length;
  if (!NextPointer(at, augmentation.pointerEncoding, entry.start)) return false;
  if (!NextPointer(at, augmentation.pointerEncoding & 0x0F, length)) return false;
  if (pc < entry.start || pc - entry.start >= length) return false;
  if (augmentation.hasData) {
    const uint64_t skipped = NextUnsigned(at);
    at += skipped;
  }
  entry.program = at;
  return true;
}

// The index: a head, then (code, entry) pairs relative to it, in the order of the code.
struct IndexHead {
  uint8_t version, frameEncoding, countEncoding, tableEncoding;
};

// The last one that begins at the address or before; null if there is none.
Bytes FindEntry(Bytes index, uint64_t pc) {
  const IndexHead head = ReadAs<IndexHead>(index);
  if (head.version != 1 || head.tableEncoding != 0x3B || head.countEncoding == kOmitted) return nullptr;
  Bytes at = index + sizeof head;
  uint64_t frames, count;
  if (!NextPointer(at, head.frameEncoding, frames)) return nullptr;
  if (!NextPointer(at, head.countEncoding, count)) return nullptr;
  const int64_t wanted = int64_t(pc - reinterpret_cast<uint64_t>(index));
  uint64_t low = 0, high = count;
  while (low < high) {
    const uint64_t middle = low + (high - low) / 2;
    if (ReadAs<int32_t>(at + 8 * middle) <= wanted) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low != 0 ? index + ReadAs<int32_t>(at + 8 * (low - 1) + 4) : nullptr;
}

// ---- Programs --------------------------------------------------------------------------------------

enum class Saved : uint8_t { kNot, kAtOffset, kAtRbp, kElsewhere };

// As far as it matters: the CFA, rbp and the return address.
struct State {
  RuleKind kind = kRuleEnd;
  int64_t cfaOffset = 0;
  Saved rbp = Saved::kNot;
  int64_t rbpOffset = 0;
  bool returnAddressIsUndefined = false;
  bool returnAddressMoved = false;
};

class Machine {
 public:
  Machine(const Entry& entry, uint64_t pc) : entry_(entry), pc_(pc), place_(entry.start) {}

  // False at an instruction that is not known.
  bool Run(Bytes at, Bytes end) {
    while (at < end && place_ <= pc_) {
      if (!Step(at)) return false;
    }
    return true;
  }
  void KeepInitial() { initial_ = state_; }
  const State& Result() const { return state_; }

 private:
  void SetCfa(uint64_t reg, int64_t offset) {
    state_.kind = reg == kRsp ? kRuleFromRsp : reg == kRbp ? kRuleFromRbp : kRuleEnd;
    state_.cfaOffset = offset;
  }

  void SetSaved(uint64_t reg, Saved saved, int64_t offset) {
    if (reg == kRbp) {
      state_.rbp = saved;
      state_.rbpOffset = offset;
    } else if (reg == kReturnAddress) {
      state_.returnAddressMoved = saved != Saved::kAtOffset || offset != -8;
    }
  }

  void Restore(uint64_t reg) {
    if (reg == kRbp) {
      state_.rbp = initial_.rbp;
      state_.rbpOffset = initial_.rbpOffset;
    } else if (reg == kReturnAddress) {
      state_.returnAddressMoved = initial_.returnAddressMoved;
    }
  }

  // rbp + n, where a function that aligns its stack keeps the CFA: breg6 n, deref. And a linkage
  // stub's: rsp + 8 + (rip & 15 >= n) * 8.
  void SetCfaExpression(Bytes at, Bytes end) {
    static constexpr unsigned char kStub[] = {0x77, 0x08, 0x80, 0x00, 0x3F, 0x1A};
    state_.kind = kRuleEnd;
    if (end - at >= 11 && memcmp(at, kStub, sizeof kStub) == 0 && at[6] >= 0x30 && at[6] <= 0x3F) {
      state_.kind = kRuleLinkage;
      state_.cfaOffset = at[6] - 0x30;
    } else if (at < end && *at == 0x76) {
      at++;
      state_.cfaOffset = NextSigned(at);
      if (end - at == 1 && *at == 0x06) state_.kind = kRuleAtRbp;
    }
  }

  // Saved at rbp + 0, as such a function has it.
  void SetSavedExpression(uint64_t reg, Bytes at, Bytes end) {
    const bool atRbp = end - at == 2 && at[0] == 0x76 && at[1] == 0;
    SetSaved(reg, atRbp ? Saved::kAtRbp : Saved::kElsewhere, 0);
  }

  bool Step(Bytes& at) {
    const unsigned char code = *at++;
    const uint64_t low = code & 0x3F;
    switch (code >> 6) {
      case 1: place_ += low * entry_.codeFactor; return true;
      case 2:
        SetSaved(low, Saved::kAtOffset, int64_t(NextUnsigned(at)) * entry_.dataFactor);
        return true;
      case 3: Restore(low); return true;
      default: return code < 0x10 ? StepRegisters(code, at) : StepOthers(code, at);
    }
  }

  bool StepRegisters(unsigned char code, Bytes& at) {
    uint64_t reg = 0;
    if (code >= 0x05 && code != 0x0A && code != 0x0B && code < 0x0E) reg = NextUnsigned(at);
    switch (code) {
      case 0x00: return true;
      case 0x01: place_ = Next<uint64_t>(at); return true;
      case 0x02: place_ += Next<uint8_t>(at) * entry_.codeFactor; return true;
      case 0x03: place_ += Next<uint16_t>(at) * entry_.codeFactor; return true;
      case 0x04: place_ += Next<uint32_t>(at) * entry_.codeFactor; return true;
      case 0x05:
        SetSaved(reg, Saved::kAtOffset, int64_t(NextUnsigned(at)) * entry_.dataFactor);
        return true;
      case 0x06: Restore(reg); return true;
      case 0x07:
        if (reg == kReturnAddress) state_.returnAddressIsUndefined = true;
        return true;
      case 0x08: SetSaved(reg, Saved::kNot, 0); return true;
      case 0x09: NextUnsigned(at), SetSaved(reg, Saved::kElsewhere, 0); return true;
      case 0x0A: return Push();
      case 0x0B: return Pop();
      case 0x0C: SetCfa(reg, int64_t(NextUnsigned(at))); return true;
      case 0x0D: SetCfa(reg, state_.cfaOffset); return true;
      case 0x0E: state_.cfaOffset = int64_t(NextUnsigned(at)); return true;
      default: return StepCfaExpression(at);
    }
  }

  bool StepCfaExpression(Bytes& at) {
    const uint64_t bytes = NextUnsigned(at);
    SetCfaExpression(at, at + bytes);
    at += bytes;
    return true;
  }

  bool StepOthers(unsigned char code, Bytes& at) {
    const uint64_t first = NextUnsigned(at);  // of all of them: a register, an offset or a size
    switch (code) {
      case 0x10:
      case 0x16: {
        const uint64_t bytes = NextUnsigned(at);
        if (code == 0x10) SetSavedExpression(first, at, at + bytes);
        if (code == 0x16) SetSaved(first, Saved::kElsewhere, 0);
        at += bytes;
        return true;
      }
      case 0x11: SetSaved(first, Saved::kAtOffset, NextSigned(at) * entry_.dataFactor); return true;
      case 0x12: SetCfa(first, NextSigned(at) * entry_.dataFactor); return true;
      case 0x14: NextUnsigned(at), SetSaved(first, Saved::kElsewhere, 0); return true;
      case 0x2E: return true;
      default: return false;
    }
  }

  bool Push() {
    if (depth_ == kDeepestState) return false;
    states_[depth_++] = state_;
    return true;
  }

  bool Pop() {
    if (depth_ == 0) return false;
    state_ = states_[--depth_];
    return true;
  }

  const Entry& entry_;
  const uint64_t pc_;
  uint64_t place_;
  State state_, initial_;
  State states_[kDeepestState];
  uint32_t depth_ = 0;
};

bool Fits(int64_t offset) { return offset <= Rule::kLargestOffset && offset >= -Rule::kLargestOffset; }

Rule RuleOf(const State& state) {
  if (state.returnAddressIsUndefined) return kEnd;
  if (state.kind == kRuleEnd || state.returnAddressMoved) return kEnd;
  if (!Fits(state.cfaOffset) || !Fits(state.rbpOffset) || state.rbp == Saved::kElsewhere) return kEnd;
  // A frame whose CFA is kept at rbp has rbp's own place there too, and no other does.
  if ((state.kind == kRuleAtRbp) != (state.rbp == Saved::kAtRbp)) return kEnd;
  return Rule::Make(state.kind, state.cfaOffset, state.rbp != Saved::kNot, state.rbpOffset);
}

}  // namespace

Rule ReadRule(uint64_t pc) {
  struct dl_find_object object;
  if (_dl_find_object(reinterpret_cast<void*>(pc), &object) != 0) return kEnd;
  const Bytes index = static_cast<Bytes>(object.dlfo_eh_frame);
  const Bytes found = index != nullptr ? FindEntry(index, pc) : nullptr;
  Entry entry = {};
  if (found == nullptr || !ReadEntry(found, pc, entry)) return kEnd;
  if (entry.isSignalFrame) return Rule::Make(kRuleSignal, 0, false, 0);
  Machine machine(entry, pc);
  if (!machine.Run(entry.commonProgram, entry.commonEnd)) return kEnd;
  machine.KeepInitial();
  if (!machine.Run(entry.program, entry.end)) return kEnd;
  return RuleOf(machine.Result());
}

}  // namespace qvheap

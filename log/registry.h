// The message table and the source table: what a registered message is, and whose it is.
//
// Invariants
//  (1) Slots are handed out by atomic counters and never reused. A refused call raises a counter above
//      the table's size for a moment, so readers go by the clamped counts.
//  (2) A message slot is visible only complete: its name is stored last, with release order, and a
//      reader that loads it (acquire) sees the rest. A slot without a name counts as not registered.
//  (3) Whoever reads a source's name counts itself in the slot's readers first. Who releases the source
//      takes the name out of the slot, waits until no reader is left, and frees it then: both steps are
//      full barriers, so either the reader finds null or the releaser finds the reader.
// No lock is shared with the log's writer.
#pragma once

#include "runtime/atomics.h"

namespace qv {

inline constexpr uint32_t kMessages = 128;
inline constexpr int32_t kSources = 16;

// The message of an id, or null: unknown, not yet complete, or of a source that was never handed out.
const QVLOG_MESSAGE* FindMessage(uint32_t id);

// True if the library's own messages could not be registered: their exported ids are then all 0.
bool InternalRegistrationFailed();

// The name of a source while this object lives; "" for a released or negative handle.
class SourceName : NonCopyable {
 public:
  explicit SourceName(int32_t handle);
  ~SourceName();
  const char* Text() const { return text_; }

 private:
  uint32_t* readers_ = nullptr;
  const char* text_ = "";
};

}  // namespace qv

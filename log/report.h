// Port: how the rest of the library reports. Declarations only, so that any layer may include it, the
// memory manager among them; the message log stands behind it. Contract: the calls of the same names in
// qvrt.h.
//
// A message without arguments passes its own name where a format would stand: should its registration
// have failed (its id is then 0, the comment's), the name is what gets written.
#pragma once

#include "runtime/base.h"

namespace qv {

void Log(uint32_t severity, uint32_t messageId, ...);                            // with noDisplay 0
void LogComment(const char* format, ...) __attribute__((format(printf, 1, 2)));  // INFO
void LogError(const char* format, ...) __attribute__((format(printf, 1, 2)));    // INTERNAL
[[noreturn]] QV_COLD void LogFatalToolDefect(const char* format, ...)
    __attribute__((format(printf, 1, 2)));

// While one lives, a log that has to be opened takes no memory from this library. The memory manager's
// own reports come under its locks, or when there is nothing left.
class ReportsWithoutMemory : NonCopyable {
 public:
  ReportsWithoutMemory();
  ~ReportsWithoutMemory();
};

[[noreturn]] QV_COLD void FatalExit(int32_t code);
[[noreturn]] QV_COLD void CallExitHandler(int32_t code);

}  // namespace qv

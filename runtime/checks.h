// Assertions of the library about its own state. A failure means a bug of ours: it writes one line on
// standard error by write(2), without a lock or an allocation, and aborts. What callers do wrong is
// never asserted; it is reported through the log or is a documented no-op.
//
//   QV_CHECK    always on, for what would corrupt the analysed program if it went on
//   QV_DCHECK   debug builds only; its argument compiles in every build
#pragma once

#include "runtime/base.h"

namespace qv {
[[noreturn]] QV_COLD void CheckFailed(const char* file, int line, const char* what);
}

#define QV_CHECK(condition) \
  (QV_LIKELY(condition) ? (void)0 : ::qv::CheckFailed(__FILE__, __LINE__, #condition))

#ifdef NDEBUG
#define QV_DCHECK(condition) ((void)sizeof(!(condition)))
inline constexpr bool kQvDebug = false;
#else
#define QV_DCHECK(condition) QV_CHECK(condition)
inline constexpr bool kQvDebug = true;
#endif

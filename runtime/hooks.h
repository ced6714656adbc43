// The engine's hooks, inside view: plain function pointers, read at the moment of each query. They have
// no ordering; the tool installs them before the threads that use them run.
#pragma once

#include "runtime/atomics.h"

namespace qv {

struct ThreadProcs {
  QV_CREATE_THREAD_PROC create;
  QV_EXIT_THREAD_PROC exit;
  QV_WAIT_FOR_THREAD_PROC wait;
  QV_ADD_FINI_FUNCTION_PROC addFini;
};
extern ThreadProcs g_threadProcs;  // set together by __QvSetThreadProcs; for the command channel

QV_INLINE uint64_t NativeThreadId() {
  const QV_THREAD_ID_PROC proc = LoadRelaxed(__qvGetNativeThreadIdProc);
  return QV_LIKELY(proc != nullptr) ? proc() : 0;
}

QV_INLINE bool HasThreadIds() { return LoadRelaxed(__qvGetNativeThreadIdProc) != nullptr; }

// Who the calling thread is to the locks: 32 bits of the native id; 0 without a hook.
QV_INLINE uint32_t SelfId() { return uint32_t(NativeThreadId()); }

}  // namespace qv

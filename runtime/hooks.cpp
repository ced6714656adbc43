// The engine's hooks: installers and queries. Design: runtime/hooks.h.
#include "runtime/hooks.h"

constinit QV_THREAD_ID_PROC __qvGetCurrentThreadIdProc = nullptr;
constinit QV_THREAD_ID_PROC __qvGetNativeThreadIdProc = nullptr;
constinit QV_THREAD_ID_PROC __qvGetNativeParentThreadIdProc = nullptr;
constinit QV_TLS_ALLOC_PROC __qvTlsAllocProc = nullptr;
constinit QV_TLS_FREE_PROC __qvTlsFreeProc = nullptr;
constinit QV_TLS_GET_VALUE_PROC __qvTlsGetValueProc = nullptr;
constinit QV_TLS_SET_VALUE_PROC __qvTlsSetValueProc = nullptr;
constinit qv::ThreadProcs qv::g_threadProcs = {};

namespace {

constinit QV_GET_PID_PROC g_getPidProc = nullptr;

// Calls the hook with the caller's own arguments, or answers `none`.
template <class Result, class... Arguments>
QV_INLINE Result Ask(Result (*const& hook)(Arguments...), Result none, Arguments... arguments) {
  Result (*const proc)(Arguments...) = qv::LoadRelaxed(hook);
  return proc != nullptr ? proc(arguments...) : none;
}

}  // namespace

uint64_t __QvGetCurrentThreadId() { return Ask(__qvGetCurrentThreadIdProc, uint64_t{0}); }
uint64_t __QvGetNativeThreadId() { return qv::NativeThreadId(); }
uint64_t __QvGetNativeParentThreadId() { return Ask(__qvGetNativeParentThreadIdProc, uint64_t{0}); }
uint32_t __QvTlsAlloc() { return Ask(__qvTlsAllocProc, qv::kNone); }
uint32_t __QvTlsFree(uint32_t slot) { return Ask(__qvTlsFreeProc, 0u, slot); }
void* __QvTlsGetValue(uint32_t slot) {
  return Ask(__qvTlsGetValueProc, static_cast<void*>(nullptr), slot);
}
uint32_t __QvTlsSetValue(uint32_t slot, void* value) {
  return Ask(__qvTlsSetValueProc, 0u, slot, value);
}
uint32_t __QvGetPid() { return Ask(g_getPidProc, qv::kNone); }

void __QvSetGetCurrentThreadIdProc(QV_THREAD_ID_PROC proc) {
  qv::StoreRelaxed(__qvGetCurrentThreadIdProc, proc);
}
void __QvSetGetNativeThreadIdProc(QV_THREAD_ID_PROC proc) {
  qv::StoreRelaxed(__qvGetNativeThreadIdProc, proc);
}
void __QvSetGetNativeParentThreadIdProc(QV_THREAD_ID_PROC proc) {
  qv::StoreRelaxed(__qvGetNativeParentThreadIdProc, proc);
}
void __QvSetTlsAllocProc(QV_TLS_ALLOC_PROC proc) { qv::StoreRelaxed(__qvTlsAllocProc, proc); }
void __QvSetTlsFreeProc(QV_TLS_FREE_PROC proc) { qv::StoreRelaxed(__qvTlsFreeProc, proc); }
void __QvSetTlsGetValueProc(QV_TLS_GET_VALUE_PROC proc) { qv::StoreRelaxed(__qvTlsGetValueProc, proc); }
void __QvSetTlsSetValueProc(QV_TLS_SET_VALUE_PROC proc) { qv::StoreRelaxed(__qvTlsSetValueProc, proc); }
void __QvSetGetPidProc(QV_GET_PID_PROC proc) { qv::StoreRelaxed(g_getPidProc, proc); }

uint32_t __QvSetThreadProcs(QV_CREATE_THREAD_PROC createThread, QV_EXIT_THREAD_PROC exitThread,
                            QV_WAIT_FOR_THREAD_PROC waitForThread,
                            QV_ADD_FINI_FUNCTION_PROC addFiniFunction) {
  qv::g_threadProcs = {createThread, exitThread, waitForThread, addFiniFunction};
  return 1;
}

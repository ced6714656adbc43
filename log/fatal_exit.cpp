// The end of the process by the library's own decision.
#include <unistd.h>

#include "log/report.h"
#include "runtime/atomics.h"

namespace {
constinit QV_EXIT_HANDLER g_exitHandler = nullptr;
}

// _exit runs no exit functions and flushes nothing: the program under analysis may be in any state.
void qv::CallExitHandler(int32_t code) {
  const QV_EXIT_HANDLER handler = LoadAcquire(g_exitHandler);
  if (handler != nullptr) handler(code);
  _exit(-1);
}

void qv::FatalExit(int32_t code) {
  const ReportsWithoutMemory reports;
  Log(QVLOG_SEVERITY_ERROR, QVLOG_MSG_ABNORMAL_TERMINATE, "ABNORMAL_TERMINATE");
  CallExitHandler(code);
}

void __QvSetExitHandler(QV_EXIT_HANDLER handler) { qv::StoreRelease(g_exitHandler, handler); }
void __QvExitHandler(int32_t code) { qv::CallExitHandler(code); }
void __QvFatalExit(int32_t code) { qv::FatalExit(code); }

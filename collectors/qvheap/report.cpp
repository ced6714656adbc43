// The collector's files and its table. Design: collectors/qvheap/report.h.
#include "collectors/qvheap/report.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "collectors/qvheap/census.h"
#include "collectors/qvheap/life.h"
#include "collectors/qvheap/log.h"
#include "collectors/qvheap/raised_signals.h"
#include "collectors/qvheap/results.h"
#include "collectors/qvheap/state_dump.h"
#include "collectors/qvheap/table.h"

namespace qvheap {
namespace {

// Census lock.
constinit bool g_reported = false;
constinit char g_path[PATH_MAX + 64] = {};
constinit uint32_t g_writtenMessage = 0;
constinit uint32_t g_notWrittenMessage = 0;

uint32_t RegisterMessage(const char* name, const char* const* argumentNames) {
  const QVLOG_MESSAGE message = {name, argumentNames, 0, 0};
  return __QvRegisterLogMessage2(&message);
}

void RegisterMessagesLocked() {
  static const char* const kWrittenNames[] = {"file", nullptr};
  static const char* const kFailedNames[] = {"file", "error", nullptr};
  if (g_writtenMessage != 0) return;
  g_writtenMessage = RegisterMessage("CENSUS_WRITTEN", kWrittenNames);
  g_notWrittenMessage = RegisterMessage("CENSUS_NOT_WRITTEN", kFailedNames);
}

void LogOutcomeLocked(const char* path, bool written, int error) {
  const LogSession session;
  if (!session.IsOpen()) return;
  RegisterMessagesLocked();
  if (written) {
    __QvLogInternal(QVLOG_SEVERITY_INFO, g_writtenMessage, 0, QVLOG_ARG_STRING, path);
  } else {
    __QvLogInternal(QVLOG_SEVERITY_ERROR, g_notWrittenMessage, 0, QVLOG_ARG_STRING, path,
                    QVLOG_ARG_INTEGER, error);
  }
}

}  // namespace

bool CloseXmlFile(QV_XML_FILE* file) {
  __QvXMLCloseFile(&file);
  if (file == nullptr) return true;
  if (file->stream != nullptr) __QvFclose(file->stream);
  __QvXMLCleanupAfterFork(&file);
  return false;
}

const char* ResultsPathLocked(uint32_t number) {
  char ending[16] = "";
  if (number != 0) snprintf(ending, sizeof ending, ".%u", number);
  snprintf(g_path, sizeof g_path, "%s/qvheap.%d%s.xml", g_process.options.directory, g_process.pid,
           ending);
  return g_path;
}

bool WriteResultsLocked(const Totals& totals, uint32_t number) {
  const char* const path = ResultsPathLocked(number);
  errno = 0;
  const bool written = WriteResultsFileLocked(totals, path, number);
  LogOutcomeLocked(path, written, errno);
  DumpStateLocked();
  return written;
}

void ReportOnce() {
  const RaisedSignals raised;
  const SpinGuard guard(g_censusLock);
  if (g_reported) return;
  g_reported = true;
  const Totals totals = SumLocked();
  const bool written = WriteResultsLocked(totals, 0);
  EndLogLocked();
  PrintTableLocked(totals, ResultsPathLocked(0), written);
}

}  // namespace qvheap

// The collector's files and its table. Design: collectors/qvheap/report.h.
#include "collectors/qvheap/report.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "collectors/qvheap/census.h"
#include "collectors/qvheap/life.h"
#include "collectors/qvheap/log.h"
#include "collectors/qvheap/pause.h"
#include "collectors/qvheap/raised_signals.h"
#include "collectors/qvheap/table.h"
#include "host/qvhost.h"

namespace qvheap {
namespace {

// Census lock.
constinit bool g_reported = false;
constinit char g_path[PATH_MAX + 64] = {};
constinit char g_partPath[sizeof g_path + 8] = {};
constinit uint32_t g_writtenMessage = 0;
constinit uint32_t g_notWrittenMessage = 0;

// ---- The census in XML -----------------------------------------------------------------------------

constexpr const char* kFigureNames[kFigures] = {"allocations",     "releases",      "reallocations",
                                                "bytesAllocated",  "bytesReleased", "failedRequests",
                                                "unknownReleases", "unrecorded"};

uint64_t LiveBlocks(const Counts& counts) {
  return counts.figures[kAllocations] - counts.figures[kReleases];
}

void WriteAttribute(QV_XML_FILE* file, const char* name, uint64_t value) {
  char text[24];
  snprintf(text, sizeof text, "%lu", value);
  __QvXMLWriteStringAttribute(file, name, text);
}

void WriteSizes(QV_XML_FILE* file, const Counts& counts) {
  __QvXMLWriteOpeningTag(file, "sizes");
  for (uint32_t bucket = 0; bucket < kSizeBuckets; bucket++) {
    if (Load(counts.sizes[bucket]) == 0) continue;
    const uint64_t from = bucket == 0 ? 0 : uint64_t{1} << (bucket - 1);
    char text[24];
    snprintf(text, sizeof text, "%lu", Load(counts.sizes[bucket]));
    __QvXMLStartWritingOpeningTag(file, "size");
    WriteAttribute(file, "from", from);
    WriteAttribute(file, "to", bucket == 0 ? 0 : 2 * from - 1);
    __QvXMLFinishWritingOpeningTag(file);
    __QvXMLWriteStringValue(file, text);
    __QvXMLAppendClosingTag(file, "size");
  }
  __QvXMLWriteClosingTag(file, "sizes");
}

void WriteCounts(QV_XML_FILE* file, const Counts& counts) {
  for (uint32_t i = 0; i < kFigures; i++) {
    __QvXMLWriteLongDecimalElement(file, kFigureNames[i], int64_t(Load(counts.figures[i])));
  }
  __QvXMLWriteLongDecimalElement(file, "peakBytes", int64_t(Load(counts.peakBytes)));
  WriteSizes(file, counts);
}

void WriteProcess(QV_XML_FILE* file, const Totals& totals) {
  __QvXMLWriteOpeningTag(file, "process");
  __QvXMLWriteLongDecimalElement(file, "liveBlocks", int64_t(LiveBlocks(totals.counts)));
  __QvXMLWriteLongDecimalElement(file, "liveBytes", BalanceOf(totals.counts));
  __QvXMLWriteLongDecimalElement(file, "peakToleranceBytes", int64_t(totals.peakToleranceBytes));
  WriteCounts(file, totals.counts);
  __QvXMLWriteClosingTag(file, "process");
}

void WriteThread(const ThreadRecord& record, bool ended, void* context) {
  QV_XML_FILE* const file = static_cast<QV_XML_FILE*>(context);
  __QvXMLStartWritingOpeningTag(file, "thread");
  WriteAttribute(file, "id", record.threadId);
  __QvXMLWriteStringAttribute(file, "state", ended ? "ended" : "running");
  __QvXMLFinishWritingOpeningTag(file);
  __QvXMLWriteLongDecimalElement(file, "balanceBytes", BalanceOf(record.counts));
  WriteCounts(file, record.counts);
  __QvXMLWriteClosingTag(file, "thread");
}

void WriteOlderThreads(QV_XML_FILE* file, const Totals& totals) {
  __QvXMLStartWritingOpeningTag(file, "olderThreads");
  WriteAttribute(file, "count", totals.foldedThreads);
  __QvXMLFinishWritingOpeningTag(file);
  WriteCounts(file, FoldedCountsLocked());
  __QvXMLWriteClosingTag(file, "olderThreads");
}

bool WriteFileLocked(const Totals& totals, uint32_t number) {
  QV_XML_FILE* file = __QvXMLCreateFile(g_partPath, 0);
  if (file == nullptr) return false;
  __QvXMLStartWritingOpeningTag(file, "heap");
  __QvXMLWriteStringAttribute(file, "version", "1.0");
  __QvXMLWriteIntegerAttribute(file, "pid", g_process.pid);
  __QvXMLWriteStringAttribute(file, "kind", number == 0 ? "end" : "snapshot");
  if (number != 0) WriteAttribute(file, "number", number);
  __QvXMLFinishWritingOpeningTag(file);
  __QvXMLWriteStringElement(file, "program", g_process.program);
  __QvXMLWriteLongDecimalElement(file, "paused", int64_t(PausedMillisecondsLocked()));
  WriteProcess(file, totals);
  VisitThreadsLocked(WriteThread, file);
  if (totals.foldedThreads != 0) WriteOlderThreads(file, totals);
  __QvXMLWriteLongDecimalElement(file, "collectorBytes", int64_t(QvHostBytesInUse()));
  __QvXMLWriteClosingTag(file, "heap");
  return CloseXmlFile(file);
}

// ---- The log ---------------------------------------------------------------------------------------

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
  snprintf(g_partPath, sizeof g_partPath, "%s.part", path);
  errno = 0;
  const bool written = WriteFileLocked(totals, number) && rename(g_partPath, path) == 0;
  const int error = errno;
  if (!written) unlink(g_partPath);
  LogOutcomeLocked(path, written, error);
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

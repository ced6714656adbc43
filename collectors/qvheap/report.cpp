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
#include "collectors/qvheap/table.h"
#include "host/qvhost.h"

namespace qvheap {
namespace {

// Census lock.
constinit bool g_reported = false;
constinit char g_path[PATH_MAX + 32] = {};

const char* PathLocked(const char* prefix) {
  snprintf(g_path, sizeof g_path, "%s/%s.%d.xml", g_process.options.directory, prefix, g_process.pid);
  return g_path;
}

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

bool WriteCensusLocked(const Totals& totals, const char* path) {
  QV_XML_FILE* file = __QvXMLCreateFile(path, 0);
  if (file == nullptr) return false;
  __QvXMLStartWritingOpeningTag(file, "heap");
  __QvXMLWriteStringAttribute(file, "version", "1.0");
  __QvXMLWriteIntegerAttribute(file, "pid", g_process.pid);
  __QvXMLFinishWritingOpeningTag(file);
  __QvXMLWriteStringElement(file, "program", g_process.program);
  WriteProcess(file, totals);
  VisitThreadsLocked(WriteThread, file);
  if (totals.foldedThreads != 0) WriteOlderThreads(file, totals);
  __QvXMLWriteLongDecimalElement(file, "collectorBytes", int64_t(QvHostBytesInUse()));
  __QvXMLWriteClosingTag(file, "heap");
  return CloseXmlFile(file);
}

// ---- The end -----------------------------------------------------------------------------------------

void LogOutcomeLocked(bool written, int error) {
  static const char* const kWrittenNames[] = {"file", nullptr};
  static const char* const kFailedNames[] = {"file", "error", nullptr};
  const QVLOG_MESSAGE writtenMessage = {"CENSUS_WRITTEN", kWrittenNames, 0, 0};
  const QVLOG_MESSAGE failedMessage = {"CENSUS_NOT_WRITTEN", kFailedNames, 0, 0};
  const char* const path = PathLocked("qvheap");
  const LogSession session;
  if (!session.IsOpen()) return;
  if (written) {
    __QvLogInternal(QVLOG_SEVERITY_INFO, __QvRegisterLogMessage2(&writtenMessage), 0, QVLOG_ARG_STRING,
                    path);
  } else {
    __QvLogInternal(QVLOG_SEVERITY_ERROR, __QvRegisterLogMessage2(&failedMessage), 0, QVLOG_ARG_STRING,
                    path, QVLOG_ARG_INTEGER, error);
  }
  EndLogLocked();
}

}  // namespace

bool CloseXmlFile(QV_XML_FILE* file) {
  __QvXMLCloseFile(&file);
  if (file == nullptr) return true;
  if (file->stream != nullptr) __QvFclose(file->stream);
  __QvXMLCleanupAfterFork(&file);
  return false;
}

void ReportOnce() {
  const RaisedSignals raised;
  const SpinGuard guard(g_censusLock);
  if (g_reported) return;
  g_reported = true;
  const Totals totals = SumLocked();
  errno = 0;
  const bool written = WriteCensusLocked(totals, PathLocked("qvheap"));
  const int error = errno;
  LogOutcomeLocked(written, error);
  PrintTableLocked(totals, PathLocked("qvheap"), written);
}

}  // namespace qvheap

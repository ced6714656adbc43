// The results file: its frame, and what is counted. Design: collectors/qvheap/results.h.
#include "collectors/qvheap/results.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "collectors/qvheap/clock.h"
#include "collectors/qvheap/life.h"
#include "collectors/qvheap/pause.h"
#include "collectors/qvheap/profile.h"
#include "collectors/qvheap/report.h"
#include "collectors/qvheap/results_parts.h"
#include "collectors/qvheap/room.h"
#include "collectors/qvheap/timeline.h"

namespace qvheap {
namespace {

constexpr uint32_t kTextBytes = 4096;
constexpr uint32_t kSlabsForFile = 3;  // its record is larger than a slab, its name

// Census lock.
constinit char g_text[kTextBytes] = {};
constinit char g_partPath[PATH_MAX + 64] = {};

// The bytes of the character that begins here; 0 if none does that XML takes. Overlong forms and
// surrogates are looked for by the bounds of the second byte.
uint32_t CharacterBytes(const unsigned char* text) {
  const unsigned char first = text[0];
  if (first < 0x80) return first >= 0x20 || first == '\t' || first == '\n' ? 1 : 0;
  if (first < 0xC2 || first > 0xF4) return 0;
  const uint32_t bytes = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  const unsigned char least = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
  const unsigned char most = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
  if (text[1] < least || text[1] > most) return 0;
  for (uint32_t i = 2; i < bytes; i++) {
    if (text[i] < 0x80 || text[i] > 0xBF) return 0;
  }
  if (first == 0xEF && text[1] == 0xBF && text[2] >= 0xBE) return 0;  // U+FFFE and U+FFFF
  return bytes;
}

constexpr const char* kFigureNames[kFigures] = {"releases",      "reallocations",  "bytesAllocated",
                                                "bytesReleased", "failedRequests", "unknownReleases",
                                                "unrecorded"};

uint64_t LiveBlocks(const Counts& counts) { return AllocationsOf(counts) - counts.figures[kReleases]; }

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

void WriteCounts(QV_XML_FILE* file, const Counts& counts, uint64_t peakBytes) {
  WriteNumber(file, "allocations", AllocationsOf(counts));
  for (uint32_t i = 0; i < kFigures; i++) {
    __QvXMLWriteLongDecimalElement(file, kFigureNames[i], int64_t(Load(counts.figures[i])));
  }
  __QvXMLWriteLongDecimalElement(file, "peakBytes", int64_t(peakBytes));
  WriteSizes(file, counts);
}

void WriteProcess(QV_XML_FILE* file, const Totals& totals) {
  __QvXMLWriteOpeningTag(file, "process");
  __QvXMLWriteLongDecimalElement(file, "liveBlocks", int64_t(LiveBlocks(totals.counts)));
  __QvXMLWriteLongDecimalElement(file, "liveBytes", BalanceOf(totals.counts));
  __QvXMLWriteLongDecimalElement(file, "peakToleranceBytes", int64_t(totals.peakToleranceBytes));
  WriteCounts(file, totals.counts, totals.counts.peakBytes);
  __QvXMLWriteClosingTag(file, "process");
}

void WriteThread(const ThreadRecord& record, bool ended, void* context) {
  QV_XML_FILE* const file = static_cast<QV_XML_FILE*>(context);
  __QvXMLStartWritingOpeningTag(file, "thread");
  WriteAttribute(file, "id", record.threadId);
  __QvXMLWriteStringAttribute(file, "state", ended ? "ended" : "running");
  __QvXMLFinishWritingOpeningTag(file);
  __QvXMLWriteLongDecimalElement(file, "balanceBytes", BalanceOf(record.counts));
  WriteCounts(file, record.counts, PeakOf(record.counts));
  __QvXMLWriteClosingTag(file, "thread");
}

void WriteOlderThreads(QV_XML_FILE* file, const Totals& totals) {
  __QvXMLStartWritingOpeningTag(file, "olderThreads");
  WriteAttribute(file, "count", totals.foldedThreads);
  __QvXMLFinishWritingOpeningTag(file);
  WriteCounts(file, FoldedCountsLocked(), FoldedCountsLocked().peakBytes);
  __QvXMLWriteClosingTag(file, "olderThreads");
}

void WriteArguments(QV_XML_FILE* file) {
  __QvXMLWriteOpeningTag(file, "arguments");
  for (uint32_t at = 0; at < g_process.argumentBytes;) {
    WriteText(file, "argument", g_process.arguments + at);
    at += uint32_t(strlen(g_process.arguments + at)) + 1;
  }
  __QvXMLWriteClosingTag(file, "arguments");
}

void WriteRunLocked(QV_XML_FILE* file) {
  const Options& options = g_process.options;
  WriteText(file, "program", g_process.program);
  WriteArguments(file);
  WriteNumber(file, "started", g_clock.startedMilliseconds);
  WriteNumber(file, "elapsed", ElapsedMilliseconds());
  __QvXMLWriteStringElement(file, "mode", options.exact ? "exact" : "sampled");
  WriteNumber(file, "intervalBytes", options.exact ? 1 : options.intervalBytes);
  WriteNumber(file, "paused", PausedMillisecondsLocked());
}

void WriteAllLocked(QV_XML_FILE* file, const Totals& totals, uint32_t number) {
  __QvXMLStartWritingOpeningTag(file, "heap");
  __QvXMLWriteStringAttribute(file, "version", "2.0");
  __QvXMLWriteIntegerAttribute(file, "pid", g_process.pid);
  __QvXMLWriteStringAttribute(file, "kind", number == 0 ? "end" : "snapshot");
  if (number != 0) WriteAttribute(file, "number", number);
  __QvXMLFinishWritingOpeningTag(file);
  WriteRunLocked(file);
  WriteProcess(file, totals);
  VisitThreadsLocked(WriteThread, file);
  if (totals.foldedThreads != 0) WriteOlderThreads(file, totals);
  WriteModulesLocked(file);
  WriteTimelineLocked(file);
  WriteSitesLocked(file);
  WriteMemoryLocked(file);
  __QvXMLWriteClosingTag(file, "heap");
}

QV_XML_FILE* CreateFileLocked(const char* path) {
  errno = ENOMEM;
  GiveReserveBackLocked();
  const Provision provision(kSlabsForFile);
  void* const probe = provision.Granted() ? Allocate(kRoomReport, sizeof(QV_XML_FILE)) : nullptr;
  if (probe == nullptr) return nullptr;
  __QvFree(probe);
  return __QvXMLCreateFile(path, 0);
}

}  // namespace

void WriteAttribute(QV_XML_FILE* file, const char* name, uint64_t value) {
  char text[24];
  snprintf(text, sizeof text, "%lu", value);
  __QvXMLWriteStringAttribute(file, name, text);
}

void WriteNumber(QV_XML_FILE* file, const char* name, uint64_t value) {
  __QvXMLWriteLongDecimalElement(file, name, int64_t(value));
}

const char* CleanText(const char* text) {
  uint32_t used = 0;
  while (*text != 0 && used + 4 < kTextBytes) {
    const uint32_t bytes = CharacterBytes(reinterpret_cast<const unsigned char*>(text));
    memcpy(g_text + used, bytes != 0 ? text : "?", bytes != 0 ? bytes : 1);
    used += bytes != 0 ? bytes : 1;
    text += bytes != 0 ? bytes : 1;
  }
  g_text[used] = 0;
  return g_text;
}

void WriteText(QV_XML_FILE* file, const char* name, const char* text) {
  __QvXMLWriteStringElement(file, name, CleanText(text));
}

bool WriteResultsFileLocked(const Totals& totals, const char* path, uint32_t number) {
  snprintf(g_partPath, sizeof g_partPath, "%s.part", path);
  QV_XML_FILE* const file = CreateFileLocked(g_partPath);
  if (file == nullptr) {
    KeepReserveLocked();
    return false;
  }
  AddPointLocked();
  WriteAllLocked(file, totals, number);
  errno = 0;
  const bool closed = CloseXmlFile(file);
  KeepReserveLocked();
  if (closed && rename(g_partPath, path) == 0) return true;
  const int error = errno != 0 ? errno : EIO;
  unlink(g_partPath);
  errno = error;
  return false;
}

}  // namespace qvheap

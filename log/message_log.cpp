// The message log: opening, entries, and the exported calls. Design: log/message_log.h.
#include "log/message_log.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <string.h>
#include <time.h>

#include "log/registry.h"
#include "log/report.h"
#include "memory/allocate.h"
#include "runtime/lock_order.h"
#include "runtime/startup.h"
#include "xml/xml_file.h"

namespace qv {
namespace {

constexpr char kDefaultSource[] = "qvrt";
constexpr char kRootTag[] = "log";
constexpr size_t kNumberBytes = 256;

// The memory of a log before it has a stream.
struct LogParts {
  QV_XML_FILE* record;
  char* fileName;
};

// Process-wide state.
constinit QV_XML_FILE* g_logger = nullptr;
constinit uint32_t g_creationGuard = 0;
constinit uint32_t g_creator = 0;          // identity of who holds the creation guard
constinit uint32_t g_opener = 0;           // who takes memory for a log that opens itself: identity + 1
constinit uint32_t g_withoutMemory = 0;    // ReportsWithoutMemory that live
constinit QV_XML_FILE g_spareRecord = {};  // where a log may take no memory
constinit char g_spareFileName[] = "qvlog.log";
constinit uint32_t g_nextEntryId = 1;
constinit uint32_t g_depthBetweenEntries = 1;  // of the present logger
constinit time_t g_timeSecond = INT64_MIN;     // the second that g_timeText names
constinit TimeText g_timeText = "";
constinit bool g_timeIsFixed = false;  // in a child after fork

LogParts NewLogParts(const char* fileName) {
  return {static_cast<QV_XML_FILE*>(Allocate(kMisc, sizeof(QV_XML_FILE))), NewXmlFileName(fileName)};
}

class CreationGuard : NonCopyable {
 public:
  CreationGuard() : guard_(g_creationGuard) { StoreRelaxed(g_creator, SelfId()); }
  ~CreationGuard() { StoreRelaxed(g_creator, 0u); }

 private:
  const GuardWord guard_;
};

bool CallerIsCreatingLog() {
  const uint32_t me = SelfId();
  return me != 0 && LoadRelaxed(g_creator) == me;
}

// Creation guard held. Entries of a former logger end before the new one is visible, by (4).
void PublishLogger(QV_XML_FILE& log) {
  QV_XML_FILE* const former = g_logger;
  if (former == nullptr) return StoreRelease(g_logger, &log);
  const SpinGuard<LockRank::kLog> guard(former->lock);
  g_depthBetweenEntries = log.depth;
  StoreRelease(g_logger, &log);
}

// Creation guard held. Makes the parts the logger; false if the file cannot be opened.
bool OpenLogGuarded(const LogParts& parts, const char* source, bool append) {
  FILE* const stream = OpenXmlStream(parts.fileName, append);
  if (stream == nullptr) return false;
  QV_XML_FILE& log = *parts.record;
  InitializeXmlFile(log, stream, parts.fileName, append);
  if (!append) {
    const StreamLock lock(stream);
    PutStartOfTag(log, kRootTag);
    PutAttribute(log, "version", "2.0");
    PutAttribute(log, "source", source);
    PutLiteral(stream, ">");
    log.depth++;
    fflush_unlocked(stream);
  }
  PublishLogger(log);
  return true;
}

void ReleaseLogParts(const LogParts& parts) {
  if (parts.record == &g_spareRecord) return;
  Release(parts.fileName);
  Release(parts.record);
}

// Before the guard, by (2). A hook of the tool's that gives the memory may have something to log, and
// would come here again.
LogParts PartsOfFirstLog() {
  const uint32_t me = SelfId() + 1;
  if (LoadRelaxed(g_withoutMemory) != 0 || LoadRelaxed(g_opener) == me) {
    return {&g_spareRecord, g_spareFileName};
  }
  StoreRelaxed(g_opener, me);
  const LogParts parts = NewLogParts(g_spareFileName);
  StoreRelaxed(g_opener, 0u);
  return parts;
}

QV_COLD QV_XML_FILE* OpenFirstLogSlow() {
  const LogParts parts = PartsOfFirstLog();
  bool opened = false;
  {
    const CreationGuard guard;  // another thread, or the hook, may have opened it meanwhile
    if (LoadAcquire(g_logger) == nullptr) opened = OpenLogGuarded(parts, kDefaultSource, false);
  }
  if (!opened) ReleaseLogParts(parts);
  return LoadAcquire(g_logger);
}

// The logger, opened first if need be; null if it cannot be.
QV_XML_FILE* EnsureLogger() {
  QV_XML_FILE* const log = LoadAcquire(g_logger);
  if (QV_LIKELY(log != nullptr) || !Started() || CallerIsCreatingLog()) return log;
  return OpenFirstLogSlow();
}

// Calls use(log) with the logger's lock held. Without a logger, or inside an entry of the same thread
// (5), it does nothing. A logger that was replaced while we waited for its lock is left alone.
template <class Use>
void UseLogger(QV_XML_FILE* log, Use use) {
  for (; log != nullptr; log = LoadAcquire(g_logger)) {
    const SpinGuard<LockRank::kLog> guard(log->lock);
    if (QV_UNLIKELY(LoadRelaxed(g_logger) != log)) continue;
    if (LoadRelaxed(log->lock.recursionCount) <= 1) use(*log);
    return;
  }
}

// The scope of one entry, under the logger's lock: its stream, until the entry is flushed.
class LogEntry : NonCopyable {
 public:
  explicit LogEntry(QV_XML_FILE& log) : stream_(log.stream), log_(log) {}
  ~LogEntry() {
    fflush_unlocked(log_.stream);
    g_depthBetweenEntries = log_.depth;
  }

 private:
  const StreamLock stream_;
  QV_XML_FILE& log_;
};

// Kept for the second it names, under the log's lock.
const char* TimeTextOf(time_t now) {
  if (g_timeSecond == now || g_timeIsFixed) return g_timeText;
  g_timeSecond = now;
  FormatTime(now, g_timeText);
  return g_timeText;
}

const char* SeverityName(uint32_t severity) {
  switch (severity) {
    case QVLOG_SEVERITY_ERROR: return "ERROR";
    case QVLOG_SEVERITY_WARNING: return "WARNING";
    default: return "INFO";
  }
}

void PutEscaped(QV_XML_FILE& log, const char* text) {
  PutBytes(log.stream, log.scratch, EscapeIntoScratch(log, text));
}

void PutEscapedElement(QV_XML_FILE& log, const char* name, const char* text) {
  PutElement(log, name, log.scratch, EscapeIntoScratch(log, text));
}

// The variable arguments of an entry, behind the fourth one. A record, so that callees advance it.
struct ArgumentList {
  va_list values;
};

void PutFormattedComment(QV_XML_FILE& log, uint64_t format, ArgumentList& rest) {
  // Null, which no printf takes, is an empty text.
  PutComment(log, format == 0 ? "" : reinterpret_cast<const char*>(format), rest.values);
}

const char* DecimalText(char (&buffer)[kNumberBytes], int value) {
  char* const end = buffer + sizeof buffer - 1;
  *end = 0;
  return FormatDecimal(end, value);
}

// One value of the list, as text; null if the marker is none of ours.
const char* NextValue(uint32_t marker, char (&buffer)[kNumberBytes], ArgumentList& rest) {
  switch (marker) {
    case QVLOG_ARG_STRING: {
      const char* const text = va_arg(rest.values, const char*);
      return text == nullptr ? "" : text;
    }
    case QVLOG_ARG_INTEGER: return DecimalText(buffer, va_arg(rest.values, int));
    case QVLOG_ARG_POINTER:
      snprintf(buffer, sizeof buffer, "%p", va_arg(rest.values, void*));
      return buffer;
    default: return nullptr;
  }
}

// One (marker, value) pair per name. From an unknown marker on, values are empty and nothing more is
// taken from the list.
void PutArguments(QV_XML_FILE& log, const char* const* names, uint64_t fourth, ArgumentList& rest) {
  uint32_t marker = uint32_t(fourth);
  bool readable = true;
  for (; names != nullptr && *names != nullptr; names++) {
    char buffer[kNumberBytes];
    const char* const value = readable ? NextValue(marker, buffer, rest) : nullptr;
    readable = value != nullptr;
    PutStartOfTag(log, "arg");
    PutAttribute(log, "name", *names);
    PutLiteral(log.stream, ">");
    PutEscaped(log, readable ? value : "");
    PutEndOfElement(log, "arg");
    if (readable && names[1] != nullptr) marker = va_arg(rest.values, uint32_t);
  }
}

void PutOpeningOfMessage(QV_XML_FILE& log, const QVLOG_MESSAGE& message, bool noDisplay) {
  char id[kNumberBytes];
  PutStartOfTag(log, "msg");
  PutAttribute(log, "id", DecimalText(id, int(g_nextEntryId++)));
  if (noDisplay) PutAttribute(log, "display", "false");
  const SourceName source(message.sourceHandle);
  PutAttribute(log, "source", source.Text());
  PutLiteral(log.stream, ">");
  log.depth++;
}

__attribute__((format(printf, 2, 3))) void PutCommentOf(QV_XML_FILE& log, const char* format, ...) {
  va_list values;
  va_start(values, format);
  PutComment(log, format, values);
  va_end(values);
}

// When the library's own messages could not be registered, their ids are the comment's, and what then
// looks like a format may be a marker. Writes the value if so; false if it is a format after all.
bool PutUnregistered(QV_XML_FILE& log, uint64_t fourth, ArgumentList& rest) {
  char buffer[kNumberBytes];
  const char* const value = fourth <= UINT32_MAX ? NextValue(uint32_t(fourth), buffer, rest) : nullptr;
  if (value == nullptr) return false;
  PutCommentOf(log, "A message that could not be registered: %s", value);
  return true;
}

// What an entry is called with.
struct EntryCall {
  uint32_t severity;
  uint32_t messageId;
  bool noDisplay;
  uint64_t fourth;  // a format, or the first marker in its low half
};

void PutMessage(QV_XML_FILE& log, const QVLOG_MESSAGE& message, const EntryCall& call, time_t now,
                ArgumentList& rest) {
  const bool noDisplay = call.noDisplay || (message.flags & QVLOG_FLAG_NO_DISPLAY) != 0;
  PutOpeningOfMessage(log, message, noDisplay);
  PutEscapedElement(log, "type", message.name);
  PutEscapedElement(log, "severity", SeverityName(call.severity));
  PutEscapedElement(log, "timestamp", TimeTextOf(now));
  if ((message.flags & QVLOG_FLAG_FREE_TEXT) != 0) {
    PutFormattedComment(log, call.fourth, rest);
  } else {
    PutArguments(log, message.argumentNames, call.fourth, rest);
  }
  PutClosingTag(log, "msg");
}

void WriteEntry(QV_XML_FILE& log, const EntryCall& call, time_t now, ArgumentList& rest) {
  const LogEntry entry(log);
  const QVLOG_MESSAGE* const message = FindMessage(call.messageId);
  if (message != nullptr && (message->flags & QVLOG_FLAG_COMMENT) == 0) {
    PutMessage(log, *message, call, now, rest);
  } else if (!(InternalRegistrationFailed() && PutUnregistered(log, call.fourth, rest))) {
    PutFormattedComment(log, call.fourth, rest);
  }
}

void WriteLogMessage(const EntryCall& call, ArgumentList& rest) {
  const int savedErrno = errno;  // the caller may be about to look at it
  const time_t now = time(nullptr);
  UseLogger(EnsureLogger(), [&](QV_XML_FILE& log) { WriteEntry(log, call, now, rest); });
  errno = savedErrno;
}

uint64_t Word(const char* format) { return reinterpret_cast<uint64_t>(format); }

}  // namespace

ReportsWithoutMemory::ReportsWithoutMemory() { Increment(g_withoutMemory); }
ReportsWithoutMemory::~ReportsWithoutMemory() { FetchAdd(g_withoutMemory, ~0u); }

bool LoggerExists() { return LoadAcquire(g_logger) != nullptr; }

void FormatTime(time_t now, TimeText& text) {
  struct tm local;
  if (localtime_r(&now, &local) == nullptr || asctime_r(&local, text) == nullptr) text[0] = 0;
  for (size_t last = strlen(text); last-- > 1 && isspace(static_cast<unsigned char>(text[last]));) {
    text[last] = 0;
  }
}

void ResetLogAfterFork(const TimeText& timeOfFork) {
  g_creationGuard = 0;
  memcpy(g_timeText, timeOfFork, sizeof g_timeText);
  g_timeIsFixed = true;
  if (g_logger == nullptr) return;
  __fpurge(g_logger->stream);
  g_logger->depth = g_depthBetweenEntries;
  SpinInitialize(g_logger->lock, kXmlSpinCount);
}

// A message without arguments needs nothing behind noDisplay; what is read there is then not used.
void Log(uint32_t severity, uint32_t messageId, ...) {
  ArgumentList rest;
  va_start(rest.values, messageId);
  const uint64_t fourth = va_arg(rest.values, uint64_t);
  WriteLogMessage({severity, messageId, false, fourth}, rest);
  va_end(rest.values);
}

void LogComment(const char* format, ...) {
  ArgumentList rest;
  va_start(rest.values, format);
  WriteLogMessage({QVLOG_SEVERITY_INFO, QVLOG_MSG_COMMENT, false, Word(format)}, rest);
  va_end(rest.values);
}

void LogError(const char* format, ...) {
  ArgumentList rest;
  va_start(rest.values, format);
  WriteLogMessage({QVLOG_SEVERITY_ERROR, QVLOG_MSG_INTERNAL, false, Word(format)}, rest);
  va_end(rest.values);
}

void LogFatalToolDefect(const char* format, ...) {
  const ReportsWithoutMemory reports;  // there may be none, and this is to be said all the same
  ArgumentList rest;
  va_start(rest.values, format);
  WriteLogMessage({QVLOG_SEVERITY_ERROR, QVLOG_MSG_INTERNAL, false, Word(format)}, rest);
  va_end(rest.values);
  FatalExit(-1);
}

}  // namespace qv

void __QvLogInternal(uint32_t severity, uint32_t messageId, uint32_t noDisplay, ...) {
  qv::ArgumentList rest;
  va_start(rest.values, noDisplay);
  const uint64_t fourth = va_arg(rest.values, uint64_t);
  qv::WriteLogMessage({severity, messageId, noDisplay != 0, fourth}, rest);
  va_end(rest.values);
}

void __QvLogFatalToolDefect(const char* format, ...) {
  const qv::ReportsWithoutMemory reports;
  qv::ArgumentList rest;
  va_start(rest.values, format);
  qv::WriteLogMessage({QVLOG_SEVERITY_ERROR, QVLOG_MSG_INTERNAL, false, qv::Word(format)}, rest);
  va_end(rest.values);
  qv::FatalExit(-1);
}

uint32_t __QvCreateLogger(const char* source, const char* fileName, uint32_t append) {
  if (source == nullptr || fileName == nullptr || !qv::Started()) return 0;
  const qv::LogParts parts = qv::NewLogParts(fileName);  // before the guard, by (2)
  {
    const qv::CreationGuard guard;
    if (qv::OpenLogGuarded(parts, source, append != 0)) return 1;
  }
  qv::ReleaseLogParts(parts);
  return 0;
}

void __QvCloseLogger() {
  qv::UseLogger(qv::LoadAcquire(qv::g_logger), [](QV_XML_FILE& log) {
    const qv::LogEntry entry(log);
    qv::PutClosingTag(log, qv::kRootTag);
  });
}

uint32_t __QvReopenLogger() {
  if (!qv::Started()) return 0;
  uint32_t usable = 0;
  qv::UseLogger(qv::LoadAcquire(qv::g_logger), [&](QV_XML_FILE& log) {
    usable = qv::ReopenXmlFile(log) ? 1 : 0;
    fflush(log.stream);
  });
  return usable;
}

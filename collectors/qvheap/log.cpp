// The collector's log. Design: collectors/qvheap/log.h.
//
// The message log opens its file by name and keeps the stream to itself. The library's fopen comes to
// the collector first, as the program's does, so the stream is seen when it is made; from then on its
// descriptor is put in and taken out.
#include "collectors/qvheap/log.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include "collectors/qvheap/census.h"
#include "collectors/qvheap/heap.h"
#include "collectors/qvheap/life.h"
#include "collectors/qvheap/raised_signals.h"
#include "collectors/qvheap/report.h"

namespace qvheap {
namespace {

constexpr int kNoDescriptor = -1;

// Census lock.
constinit FILE* g_stream = nullptr;  // the message log's
constinit bool g_awaitingStream = false;
constinit char g_logPath[PATH_MAX + 32] = {};

// As the message log itself would begin it, and then closed.
bool WriteHeadLocked() {
  QV_XML_FILE* file = __QvXMLCreateFile(g_logPath, 0);
  if (file == nullptr) return false;
  __QvXMLStartWritingOpeningTag(file, "log");
  __QvXMLWriteStringAttribute(file, "version", "2.0");
  __QvXMLWriteStringAttribute(file, "source", "qvheap");
  __QvXMLFinishWritingOpeningTag(file);
  __QvXMLWriteComment(file, "qvheap counts process %d: %s", g_process.pid, g_process.program);
  return CloseXmlFile(file);
}

int OpenLogLocked() { return safeOpen(g_logPath, O_WRONLY | O_APPEND | O_CLOEXEC, 0); }

}  // namespace

constinit bool g_dumping = false;

// On nothing: the file of each process is put in by sessions.
void SetUpLogLocked() {
  g_awaitingStream = true;
  __QvCreateLogger("qvheap", "/dev/null", 1);
  g_awaitingStream = false;
  if (g_stream == nullptr) return;
  close(g_stream->_fileno);
  g_stream->_fileno = kNoDescriptor;
}

void BeginLogLocked() {
  const RaisedSignals raised;
  snprintf(g_logPath, sizeof g_logPath, "%s/qvlog.%d.xml", g_process.options.directory, g_process.pid);
  if (!WriteHeadLocked()) return;
  const LogSession session;
  if (session.IsOpen()) __QvLogToolOptionValues(g_process.parser.parser);
}

void EndLogLocked() {
  const LogSession session;
  if (session.IsOpen()) __QvCloseLogger();
}

LogSession::LogSession() : nested_(IsOpen()) {
  if (nested_ || g_stream == nullptr) return;
  g_stream->_fileno = OpenLogLocked();
  // Somebody removed the file: what follows shall not be lost.
  if (!IsOpen() && errno == ENOENT && WriteHeadLocked()) g_stream->_fileno = OpenLogLocked();
}

LogSession::~LogSession() {
  if (nested_ || !IsOpen()) return;
  fflush(g_stream);
  close(g_stream->_fileno);
  g_stream->_fileno = kNoDescriptor;
}

bool LogSession::IsOpen() const { return g_stream != nullptr && g_stream->_fileno != kNoDescriptor; }

}  // namespace qvheap

__attribute__((visibility("default"))) FILE* fopen(const char* path, const char* mode) {
  using namespace qvheap;
  if (QVHEAP_UNLIKELY(g_real.fopen == nullptr)) EnterSlow();
  FILE* const stream = g_real.fopen(path, mode);
  if (QVHEAP_UNLIKELY(t_inside && g_awaitingStream)) g_stream = stream;
  return stream;
}

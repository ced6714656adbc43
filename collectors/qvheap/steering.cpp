// Commands and heartbeats. Design: collectors/qvheap/steering.h.
#include "collectors/qvheap/steering.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <unistd.h>

#include "collectors/qvheap/channel.h"
#include "collectors/qvheap/commands.h"
#include "collectors/qvheap/life.h"
#include "collectors/qvheap/log.h"
#include "collectors/qvheap/pause.h"
#include "collectors/qvheap/raised_signals.h"
#include "collectors/qvheap/report.h"
#include "collectors/qvheap/sites.h"

namespace qvheap {
namespace {

constexpr uint32_t kMostSnapshots = 999999;

// Census lock.
constinit uint32_t g_lastSnapshot = 0;
constinit char g_seriesPath[PATH_MAX + 64] = {};

// An earlier image of this process may have written some.
uint32_t NextSnapshotLocked() {
  uint32_t number = g_lastSnapshot + 1;
  while (number < kMostSnapshots && access(ResultsPathLocked(number), F_OK) == 0) number++;
  g_lastSnapshot = number;
  return number;
}

void SnapshotLocked() {
  const uint32_t number = NextSnapshotLocked();
  const bool written = WriteResultsLocked(SumLocked(), number);
  if (!written) g_lastSnapshot = number - 1;
  QVHEAP_DUMP_LOCKED(kDumpSnapshot, "%s %s", written ? "wrote" : "could not write",
                     ResultsPathLocked(number));
}

// In one call, so that lines stay whole.
void AppendToSeriesLocked(const char* headings, const char* line) {
  snprintf(g_seriesPath, sizeof g_seriesPath, "%s/qvheap.%d.series", g_process.options.directory,
           g_process.pid);
  const int file = safeOpen(g_seriesPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  if (file == -1) return;
  char text[512];
  const bool isNew = lseek(file, 0, SEEK_END) == 0;
  const int length = snprintf(text, sizeof text, "%s%s", isNew ? headings : "", line);
  [[maybe_unused]] const ssize_t written = write(file, text, uint32_t(length));
  close(file);
}

constexpr char kHeadings[] =
    "elapsed\tliveBytes\tliveBlocks\tallocations\treleases\tbytesAllocated\tpeakBytes\n";

void HeartbeatLocked() {
  const Totals totals = SumLocked();
  const Counts& counts = totals.counts;
  const uint64_t* const figures = counts.figures;
  const uint64_t allocations = AllocationsOf(counts);
  char line[200];
  snprintf(line, sizeof line, "%lu\t%ld\t%ld\t%lu\t%lu\t%lu\t%lu\n",
           MillisecondsNow() - g_process.started, BalanceOf(counts),
           int64_t(allocations - figures[kReleases]), allocations, figures[kReleases],
           figures[kBytesAllocated], counts.peakBytes);
  AppendToSeriesLocked(kHeadings, line);
}

void RestartPeaksLocked() {
  ResetPeakLocked();
  RestartSitePeaks(BalanceOf(SumLocked().counts));
}

void ObeyLocked(int code) {
  QVHEAP_DUMP_LOCKED(kDumpChannel, "command %d", code);
  switch (code) {
    case kCommandSnapshot: return SnapshotLocked();
    case kCommandPause: return PauseLocked();
    case kCommandResume: return ResumeLocked();
    case kCommandResetPeak: return RestartPeaksLocked();
    case kCommandStop: return CloseChannelLocked(ChannelState::kOff);
    default: return;
  }
}

}  // namespace

// A command that was taken when the channel had just been closed comes too late: the process is at its
// end. A heartbeat has no payload; that tells it from a command of the same code.
void OnCommand(int code, int, int, int, int, unsigned char* payload, void*) {
  const RaisedSignals raised;
  const SpinGuard guard(g_censusLock);
  if (g_channelState != ChannelState::kOpen) return;
  if (payload == nullptr) return HeartbeatLocked();
  ObeyLocked(code);
}

void BeginSeriesLocked() {
  if (g_process.options.everySeconds != 0) AppendToSeriesLocked(kHeadings, "");
}

}  // namespace qvheap

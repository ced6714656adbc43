// The table. Design: collectors/qvheap/table.h.
#include "collectors/qvheap/table.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "collectors/qvheap/life.h"

namespace qvheap {
namespace {

constexpr uint32_t kTableBytes = 4096;
constexpr uint32_t kThreadsInTable = 8;
constexpr int kHighDescriptor = 64;  // above those that programs usually have

constinit int g_keptError = -1;
constinit char g_table[kTableBytes] = {};  // census lock
constinit uint32_t g_tableLength = 0;

__attribute__((format(printf, 1, 2))) void Print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const uint32_t room = kTableBytes - g_tableLength;
  const int length = vsnprintf(g_table + g_tableLength, room, format, arguments);
  va_end(arguments);
  if (length > 0) g_tableLength += uint32_t(length) < room ? uint32_t(length) : room - 1;
}

void PrintRow(const char* name, uint32_t id, const Counts& counts, uint64_t peakBytes) {
  char label[32];
  snprintf(label, sizeof label, id != 0 ? "%s %u" : "%s", name, id);
  Print("  %-16s %13lu %13lu %16lu %14ld %16lu\n", label, AllocationsOf(counts),
        Load(counts.figures[kReleases]), Load(counts.figures[kBytesAllocated]), BalanceOf(counts),
        peakBytes);
}

struct Rows {
  uint32_t count;
};

void PrintThread(const ThreadRecord& record, bool, void* context) {
  if (static_cast<Rows*>(context)->count++ < kThreadsInTable) {
    PrintRow("thread", record.threadId, record.counts, PeakOf(record.counts));
  }
}

const char* BaseName(const char* path) {
  const char* const slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

void MakeTableLocked(const Totals& totals, const char* path, bool written) {
  g_tableLength = 0;
  Print("qvheap: %s, process %d\n", BaseName(g_process.program), g_process.pid);
  Print("  %-16s %13s %13s %16s %14s %16s\n", "", "allocations", "releases", "bytes", "live bytes",
        "peak bytes");
  PrintRow("process", 0, totals.counts, totals.counts.peakBytes);
  if (totals.threads > 1) {
    Rows rows = {};
    VisitThreadsLocked(PrintThread, &rows);
    if (totals.threads > kThreadsInTable) Print("  ... %lu threads in all\n", totals.threads);
  }
  Print("qvheap: %s%s\n", written ? "" : "could not write ", path);
}

bool IsLaunchersError(int descriptor) {
  struct stat status;
  return descriptor >= 0 && fstat(descriptor, &status) == 0 &&
         status.st_dev == g_process.options.stderrDevice &&
         status.st_ino == g_process.options.stderrInode;
}

bool TableIsWanted() {
  return !g_process.options.quiet && g_process.pid == g_process.options.launchedPid;
}

}  // namespace

void PrintTableLocked(const Totals& totals, const char* path, bool written) {
  if (!TableIsWanted()) return;
  const int descriptor = IsLaunchersError(STDERR_FILENO) ? STDERR_FILENO : g_keptError;
  if (!IsLaunchersError(descriptor)) return;
  MakeTableLocked(totals, path, written);
  [[maybe_unused]] const ssize_t sent = write(descriptor, g_table, g_tableLength);
}

void KeepStandardError() {
  if (!TableIsWanted() || g_keptError != -1 || !IsLaunchersError(STDERR_FILENO)) return;
  g_keptError = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, kHighDescriptor);
}

void DropStandardError() {
  if (IsLaunchersError(g_keptError)) close(g_keptError);
  g_keptError = -1;
}

}  // namespace qvheap

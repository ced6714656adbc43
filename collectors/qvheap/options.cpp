// Options between launcher and collector. Design: collectors/qvheap/options.h.
#include "collectors/qvheap/options.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace qvheap {
namespace {

constexpr char kFormat[] = "quiet=%d,pid=%d,stderr=%lx:%lx,out=%s";
constexpr char kScan[] = "quiet=%d,pid=%d,stderr=%lx:%lx,out=%n";

}  // namespace

bool FormatOptions(const Options& options, char* text, uint32_t sizeBytes) {
  const int length = snprintf(text, sizeBytes, kFormat, int(options.quiet), options.launchedPid,
                              options.stderrDevice, options.stderrInode, options.directory);
  return length > 0 && uint32_t(length) < sizeBytes;
}

bool ParseOptions(const char* text, Options& options) {
  if (getcwd(options.directory, sizeof options.directory) == nullptr) strcpy(options.directory, "/");
  if (text == nullptr) return true;
  int quiet = 0, pid = 0, end = 0;
  unsigned long device = 0, inode = 0;
  const int fields = sscanf(text, kScan, &quiet, &pid, &device, &inode, &end);
  if (fields != 4 || end == 0 || text[end] != '/') return false;
  if (strlen(text + end) >= sizeof options.directory) return false;
  options.quiet = quiet != 0;
  options.launchedPid = pid;
  options.stderrDevice = device;
  options.stderrInode = inode;
  strcpy(options.directory, text + end);
  return true;
}

}  // namespace qvheap

// The collector's life in a process, as its files need to know it.
//
//   first allocation    real functions, host, allocator, census      (EnterSlow)
//   constructor         the library starts, options, exit handler, the log is begun
//   fork                the child: all figures 0, a log of its own
//   exit                the report
//
// A process that ends otherwise (_exit, a signal, exec) leaves the log that was begun, and no report.
#pragma once

#include "collectors/qvheap/options.h"
#include "collectors/qvheap/words.h"

namespace qvheap {

struct Process {
  int32_t pid;
  OptionParser parser;
  Options options;
  char program[PATH_MAX];  // what runs here
  uint64_t started;        // milliseconds, on the clock of pause.h
  char arguments[4096];    // as it was started, each ended by NUL; cut if they are longer
  uint32_t argumentBytes;
};
extern QVHEAP_OURS Process g_process;

}  // namespace qvheap

// What the launcher tells the collector: one environment variable, inherited by every process that the
// program starts. Shared by both.
//
//   QVHEAP_OPTIONS=quiet=0,pid=1234,stderr=fd00:5678,out=/home/me/results
//
// `out` is last and runs to the end, so that the directory's name may hold anything. Without the
// variable the collector writes its files into the directory it was started in and prints nothing.
#pragma once

#include <limits.h>
#include <stdint.h>

namespace qvheap {

inline constexpr char kOptionsVariable[] = "QVHEAP_OPTIONS";

struct Options {
  bool quiet = true;
  int32_t launchedPid = 0;  // the process that prints its table: the program itself, no descendant
  uint64_t stderrDevice =
      0;  // where the launcher's standard error led; the table goes there or nowhere
  uint64_t stderrInode = 0;
  char directory[PATH_MAX] = {};  // absolute
};

// The text of the variable; false if it does not fit.
bool FormatOptions(const Options& options, char* text, uint32_t sizeBytes);
// Into options as they were made. Null text leaves the defaults, with the current directory; so does text
// that is not of the form above, with the result false.
bool ParseOptions(const char* text, Options& options);

}  // namespace qvheap

// A results file of qvheap in memory, and reading one (docs/results-format.md).
//
// A reader of files that other processes wrote, perhaps while they were dying, believes nothing: a file
// is well-formed, is a results file of a version that we know, has its figures, and every number is one;
// or it is refused with a message that says what is wrong and where. Elements and attributes that are
// unknown are passed over.
#pragma once

#include <stdint.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace qvheap {

inline constexpr uint64_t kNoEpoch = UINT64_MAX;

struct Module {
  std::string path;
  uint64_t start = 0, end = 0;       // the mapped range
  uint64_t bias = 0;                 // added to an address of the file
  uint64_t from = 0, to = kNoEpoch;  // first and last epoch in which it was mapped
  int64_t bytes = -1,
          modified = -1;  // of the file then, -1 if not told; modified: nanoseconds since 1970
  std::string buildId;    // hexadecimal digits in lower case, "" if not told
};

// Memory that frames were in and no image: code made at run time.
struct Region {
  uint64_t start = 0, end = 0;
};

struct TimePoint {
  int64_t milliseconds = 0, bytesAllocated = 0, liveBytes = 0, liveBlocks = 0;
};

struct SiteThread {
  int64_t id = 0, allocations = 0, bytes = 0;
};

// What a site has done; also the sum of several.
struct SiteFigures {
  int64_t samples = 0, allocations = 0, releases = 0, bytesAllocated = 0, bytesReleased = 0;
  int64_t liveBlocks = 0, liveBytes = 0, peakBytes = 0, liveAtPeakBytes = 0;
  int64_t within1ms = 0, within1s = 0, longer = 0, never = 0;  // blocks by lifetime

  void Add(const SiteFigures& other);
};

struct Site {
  uint64_t id = 0, epoch = 0;
  std::vector<uint64_t> stack;  // return addresses, innermost first
  SiteFigures figures;
  int64_t threadCount = 0;
  std::vector<SiteThread> threads;
};

struct SizeClass {
  int64_t from = 0, to = 0, count = 0;
};

// The figures of a process, of a thread, or of the older threads, by the names of the form.
struct Account {
  std::map<std::string, int64_t> figures;
  std::vector<SizeClass> sizes;

  int64_t Figure(const char* name) const;  // 0 if it was not told
};

struct ThreadAccount {
  int64_t id = 0;  // 0: several older threads, `count` of them
  int64_t count = 1;
  std::string state;
  Account account;
};

struct Results {
  std::string file;  // where it was read
  std::string version, kind, program, mode;
  int64_t pid = 0;
  int64_t number = 0;  // of a snapshot
  std::vector<std::string> arguments;
  int64_t startedMilliseconds = 0, elapsedMilliseconds = 0, pausedMilliseconds = 0;
  int64_t intervalBytes = 0;
  Account process;
  std::vector<ThreadAccount> threads;
  std::vector<Module> modules;
  std::vector<Region> regions;
  std::vector<TimePoint> timeline;
  std::vector<Site> sites;
  int64_t foldedSites = 0;
  int64_t missedAllocations = 0;
  std::vector<std::pair<std::string, int64_t>> memory;  // the collector's own, bytes by category
  int64_t collectorBytes = 0;

  bool IsSampled() const { return mode != "exact"; }
  std::string CommandLine() const;  // on one line
};

// What a person is told: it names the file.
struct BadInput : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throws BadInput.
Results ReadResults(const std::string& path);

}  // namespace qvheap

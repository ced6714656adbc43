// Results files made by tests: a few figures and sites, the rest of the form filled in.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "tests/support/child.h"

namespace qvtest {

struct MadeSite {
  std::vector<uint64_t> stack;  // return addresses, innermost first
  long allocations, bytesAllocated, liveBlocks, liveBytes, liveAtPeakBytes;
};

struct MadeResults {
  int pid = 77;
  int snapshot = 0;  // its number; 0: the end
  std::string program = "/usr/bin/subject";
  std::string arguments = "<argument>subject</argument><argument>-x</argument>";
  std::string mode = "exact";
  std::vector<MadeSite> sites;
  std::vector<std::pair<long, long>> timeline;  // time and live bytes
  std::string modules, regions;
  long foldedSites = 0, missedAllocations = 0;
  // -1: what the sites add up to
  long peakBytes = -1, liveBytes = -1;
  std::string Text() const;
};

// Three sites whose figures put them in another order each: by peak 1 2 3, live 3 1 2, allocated 2 3 1,
// count 3 2 1.
MadeResults ThreeSites();

struct NamedFile {
  std::string name, text;
};

// Writes the files into a new folder and runs a line of shell there, with $REPORT and $DIFF for the two
// commands.
ChildResult ShellWith(const std::vector<NamedFile>& files, const std::string& line);

size_t CountOf(const std::string& text, const std::string& part);

}  // namespace qvtest

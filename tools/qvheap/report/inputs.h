// The results files that the paths of a command line stand for, and why there are none.
#pragma once

#include <string>
#include <vector>

namespace qvheap {

struct Inputs {
  std::vector<std::string> files;
  std::vector<std::string> notes;     // worth a line, such as a process that is still running
  std::vector<std::string> problems;  // a path that leads to nothing
};

// A directory stands for all qvheap.<pid>[.<n>].xml in it, by process, in the order of time.
Inputs FindInputs(const std::vector<std::string>& paths);

}  // namespace qvheap

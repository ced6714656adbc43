// A results file as tests look at it.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace qvtest {

using Figures = std::map<std::string, uint64_t>;

struct ResultsSite {
  Figures figures;  // elements, and the attributes of lifetimes
  uint64_t epoch = 0;
  std::vector<uint64_t> stack;
  uint64_t threadCount = 0;
  std::map<int, Figures> threads;  // by id
};

struct ResultsModule {
  uint64_t start = 0, end = 0, from = 0;
  uint64_t to = 0;  // as `from` if it is still there
  bool isThere = false;
  std::string path, buildId;
};

struct Results {
  std::string text;
  Figures process;
  std::vector<ResultsSite> sites;
  std::vector<ResultsModule> modules;
  std::vector<Figures> timeline;
  Figures memory;  // by category
  uint64_t folded = 0, missed = 0;

  uint64_t SumOverSites(const std::string& figure) const;
};

Results ReadResults(const std::string& text);

}  // namespace qvtest

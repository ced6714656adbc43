// The sites of one results file with names in place of addresses, and what all the written forms need of
// them: the figure to sort by, sums, equal stacks made one.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/qvheap/report/results.h"
#include "tools/qvheap/report/symbols.h"

namespace qvheap {

// The figure that sites are sorted by, and that forms with a single number show.
enum class Order { kPeak, kLive, kAllocated, kCount };

bool ParseOrder(const std::string& name, Order& order);
const char* DescribeOrder(Order order);  // "bytes live at the peak"
int64_t FigureOf(const SiteFigures& figures, Order order);

struct NamedSite {
  uint64_t id = 0;
  std::vector<uint32_t> frames;  // innermost first, inlined ones included; empty: unknown
  SiteFigures figures;
  int64_t threadCount = 0;
  std::vector<SiteThread> threads;
};

struct Profile {
  Results results;  // its sites have moved into `sites`
  std::vector<NamedSite> sites;
};

// Called with the number of sites done and of all.
using Progress = std::function<void(size_t, size_t)>;

Profile NameSites(Results results, Symbols& symbols, const Progress& progress);

// Sites of equal stacks made one (a call is another site after an image was unloaded), sorted by a
// figure, largest first. A sum of the sites' own peaks is an upper bound.
void MergeAndSort(std::vector<NamedSite>& sites, Order order);

SiteFigures SumOf(const std::vector<NamedSite>& sites);

// What the stack of a site without one shows.
inline constexpr char kUnknownStack[] = "(unknown)";

}  // namespace qvheap

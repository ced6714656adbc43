// Named sites. Design: tools/qvheap/report/profile.h.
#include "tools/qvheap/report/profile.h"

#include <algorithm>
#include <unordered_map>

#include "tools/qvheap/report/numbers.h"

namespace qvheap {
namespace {

constexpr size_t kSitesBetweenProgress = 64;

const struct {
  const char* name;
  Order order;
  const char* description;
  int64_t SiteFigures::*figure;
} kOrders[] = {
    {"peak", Order::kPeak, "bytes live at the peak", &SiteFigures::liveAtPeakBytes},
    {"live", Order::kLive, "live bytes", &SiteFigures::liveBytes},
    {"allocated", Order::kAllocated, "bytes allocated", &SiteFigures::bytesAllocated},
    {"count", Order::kCount, "number of allocations", &SiteFigures::allocations},
};

struct FramesHash {
  size_t operator()(const std::vector<uint32_t>* frames) const {
    size_t hash = frames->size();
    for (const uint32_t frame : *frames) hash = (hash ^ frame) * 0x9E3779B97F4A7C15u;
    return hash ^ hash >> 32;
  }
};

struct FramesEqual {
  bool operator()(const std::vector<uint32_t>* a, const std::vector<uint32_t>* b) const {
    return *a == *b;
  }
};

void MergeThreads(NamedSite& into, const NamedSite& other) {
  for (const SiteThread& thread : other.threads) {
    const auto known = std::find_if(into.threads.begin(), into.threads.end(),
                                    [&](const SiteThread& one) { return one.id == thread.id; });
    if (known == into.threads.end()) {
      into.threads.push_back(thread);
    } else {
      known->allocations = Sum(known->allocations, thread.allocations);
      known->bytes = Sum(known->bytes, thread.bytes);
    }
  }
  into.threadCount = std::max({into.threadCount, other.threadCount, int64_t(into.threads.size())});
}

}  // namespace

bool ParseOrder(const std::string& name, Order& order) {
  for (const auto& known : kOrders) {
    if (name != known.name) continue;
    order = known.order;
    return true;
  }
  return false;
}

const char* DescribeOrder(Order order) { return kOrders[size_t(order)].description; }

int64_t FigureOf(const SiteFigures& figures, Order order) {
  return figures.*kOrders[size_t(order)].figure;
}

Profile NameSites(Results results, Symbols& symbols, const Progress& progress) {
  symbols.Use(results);
  Profile profile;
  profile.sites.reserve(results.sites.size());
  for (Site& site : results.sites) {
    if (profile.sites.size() % kSitesBetweenProgress == 0) {
      progress(profile.sites.size(), results.sites.size());
    }
    NamedSite named{site.id, {}, site.figures, site.threadCount, std::move(site.threads)};
    for (const uint64_t address : site.stack) {
      const std::vector<uint32_t>& frames = symbols.Resolve(site.epoch, address);
      named.frames.insert(named.frames.end(), frames.begin(), frames.end());
    }
    profile.sites.push_back(std::move(named));
  }
  progress(results.sites.size(), results.sites.size());
  for (const Module& module : results.modules) symbols.StateOf(module);
  profile.results = std::move(results);
  profile.results.sites.clear();
  return profile;
}

void MergeAndSort(std::vector<NamedSite>& sites, Order order) {
  std::vector<NamedSite> merged;
  merged.reserve(sites.size());  // the keys below point into it
  std::unordered_map<const std::vector<uint32_t>*, size_t, FramesHash, FramesEqual> known;
  for (NamedSite& site : sites) {
    const auto at = known.find(&site.frames);
    if (at == known.end()) {
      merged.push_back(std::move(site));
      known.emplace(&merged.back().frames, merged.size() - 1);
    } else {
      merged[at->second].figures.Add(site.figures);
      MergeThreads(merged[at->second], site);
    }
  }
  std::stable_sort(merged.begin(), merged.end(), [order](const NamedSite& a, const NamedSite& b) {
    return FigureOf(a.figures, order) > FigureOf(b.figures, order);
  });
  sites = std::move(merged);
}

SiteFigures SumOf(const std::vector<NamedSite>& sites) {
  SiteFigures sum;
  for (const NamedSite& site : sites) sum.Add(site.figures);
  return sum;
}

}  // namespace qvheap

// The report for people. Design: tools/qvheap/report/formats.h.
#include <time.h>

#include <algorithm>

#include "tools/qvheap/report/formats.h"
#include "tools/qvheap/report/numbers.h"

namespace qvheap {
namespace {

constexpr size_t kColumns = 100;
constexpr size_t kPlotColumns = 84, kPlotRows = 8;

std::string LocalTime(int64_t milliseconds) {
  const time_t seconds = milliseconds / 1000;
  struct tm parts;
  char text[64];
  if (localtime_r(&seconds, &parts) == nullptr) return "at an unknown time";
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

int64_t CountThreads(const Results& results) {
  int64_t count = 0;
  for (const ThreadAccount& thread : results.threads) count = Sum(count, thread.count);
  return count;
}

void WriteHead(const Profile& profile, Writer& out) {
  const Results& results = profile.results;
  const std::string kind =
      results.kind == "snapshot" ? "snapshot " + std::to_string(results.number) : "to its end";
  const std::string tail = ", process " + std::to_string(results.pid) + ", " + kind;
  out.Put(CutMiddle(results.program, kColumns - tail.size()) + tail + "\n");
  out.Print("  %s\n", Cut(results.CommandLine(), kColumns - 2).c_str());
  out.Print("  started %s, counted for %s", LocalTime(results.startedMilliseconds).c_str(),
            HumanTime(results.elapsedMilliseconds).c_str());
  if (results.pausedMilliseconds != 0) {
    out.Print(" (paused for %s of it)", HumanTime(results.pausedMilliseconds).c_str());
  }
  const int64_t threads = CountThreads(results);
  out.Print(", %s thread%s\n", WithCommas(threads).c_str(), threads == 1 ? "" : "s");
}

void WriteTotal(const char* name, const std::string& blocks, int64_t bytes, Writer& out) {
  out.Print("  %-12s %18s %22s  %12s\n", name, blocks.c_str(), WithCommas(bytes).c_str(),
            HumanBytes(bytes).c_str());
}

void WriteTotals(const Results& results, Writer& out) {
  const Account& process = results.process;
  const auto blocks = [&](const char* name) { return WithCommas(process.Figure(name)); };
  out.Print("\n  %-12s %18s %22s\n", "", "blocks", "bytes");
  WriteTotal("allocated", blocks("allocations"), process.Figure("bytesAllocated"), out);
  WriteTotal("released", blocks("releases"), process.Figure("bytesReleased"), out);
  WriteTotal("live", blocks("liveBlocks"), process.Figure("liveBytes"), out);
  WriteTotal("peak", "", process.Figure("peakBytes"), out);
  if (results.collectorBytes != 0) WriteTotal("qvheap's own", "", results.collectorBytes, out);
}

// ---- The plot --------------------------------------------------------------------------------------

// The most that was live in each column's time; a column without a point goes on with the last one.
std::vector<int64_t> MakeColumns(const std::vector<TimePoint>& timeline, int64_t end) {
  std::vector<int64_t> columns(kPlotColumns, -1);
  for (const TimePoint& point : timeline) {
    const double place = double(point.milliseconds) / double(std::max<int64_t>(end, 1));
    const double column = std::clamp(place * kPlotColumns, 0.0, double(kPlotColumns - 1));
    int64_t& bytes = columns[size_t(column)];
    bytes = std::max(bytes, point.liveBytes);
  }
  int64_t last = 0;
  for (int64_t& bytes : columns) last = bytes = bytes < 0 ? last : bytes;
  return columns;
}

void WritePlot(const Results& results, Writer& out) {
  if (results.timeline.size() < 2) return;
  const int64_t end = std::max(results.elapsedMilliseconds, results.timeline.back().milliseconds);
  const std::vector<int64_t> columns = MakeColumns(results.timeline, end);
  const int64_t top = *std::max_element(columns.begin(), columns.end());
  if (top <= 0) return;
  out.Put("\nLive bytes over time\n");
  for (size_t row = kPlotRows; row-- > 0;) {
    const double floor = double(top) * double(row) / kPlotRows;
    std::string line;
    for (const int64_t bytes : columns) line += double(bytes) > floor ? '#' : ' ';
    line.resize(line.find_last_not_of(' ') + 1);
    out.Print("  %10s |%s\n", row == kPlotRows - 1 ? HumanBytes(top).c_str() : "", line.c_str());
  }
  out.Print("  %10s +%s\n", "0 B", std::string(kPlotColumns, '-').c_str());
  const std::string last = HumanTime(end);
  out.Print("  %10s  0%*s\n", "", int(kPlotColumns - 1), last.c_str());
}

// ---- Sites -----------------------------------------------------------------------------------------

void WriteNotes(const Profile& profile, Symbols& symbols, Writer& out) {
  const Results& results = profile.results;
  if (results.IsSampled() && !profile.sites.empty()) {
    out.Print("\n  The sites' figures are estimates from %s samples, one for %s on average.\n",
              WithCommas(SumOf(profile.sites).samples).c_str(),
              HumanBytes(results.intervalBytes).c_str());
  }
  if (results.foldedSites != 0) {
    out.Print("  %s small sites were made one in a shortage of memory.\n",
              WithCommas(results.foldedSites).c_str());
  }
  if (results.missedAllocations != 0) {
    out.Print("  ! %s allocations are at no site: there was no memory to note them.\n",
              WithCommas(results.missedAllocations).c_str());
  }
  std::vector<std::string> named;
  for (const Module& module : results.modules) {
    const FileState state = symbols.StateOf(module);
    if (state == FileState::kSame) continue;
    const std::string text =
        module.path + " " + (state == FileState::kUnreadable ? "is " : "has ") + DescribeState(state);
    if (std::find(named.begin(), named.end(), text) != named.end()) continue;
    named.push_back(text);
    out.Print("  ! %s: calls in it have no names.\n", text.c_str());
  }
}

void WriteLifetimes(const SiteFigures& figures, int64_t threads, Writer& out) {
  const int64_t all = Sum(Sum(figures.within1ms, figures.within1s), Sum(figures.longer, figures.never));
  if (all != 0) {
    out.Print("      released within 1 ms %.0f%%, within 1 s %.0f%%, later %.0f%%, never %.0f%%",
              Share(figures.within1ms, all), Share(figures.within1s, all), Share(figures.longer, all),
              Share(figures.never, all));
    out.Print(threads > 0 ? "; %s thread%s\n" : "\n", WithCommas(threads).c_str(),
              threads == 1 ? "" : "s");
  }
}

void WriteSite(size_t number, const NamedSite& site, int64_t peak, int64_t live, Writer& out) {
  const SiteFigures& figures = site.figures;
  out.Print("%-5s %10s %6.1f%% %10s %6.1f%% %11s %11s %13s %10s\n",
            ("#" + std::to_string(number)).c_str(), HumanBytes(figures.liveAtPeakBytes).c_str(),
            Share(figures.liveAtPeakBytes, peak), HumanBytes(figures.liveBytes).c_str(),
            Share(figures.liveBytes, live), WithCommas(figures.liveBlocks).c_str(),
            HumanBytes(figures.bytesAllocated).c_str(), WithCommas(figures.allocations).c_str(),
            HumanBytes(figures.peakBytes).c_str());
}

void WriteSites(const Profile& profile, const Symbols& symbols, const View& view, Writer& out) {
  std::vector<NamedSite> sites = profile.sites;
  MergeAndSort(sites, view.order);
  const SiteFigures sum = SumOf(sites);
  const int64_t peak = std::max(profile.results.process.Figure("peakBytes"), sum.liveAtPeakBytes);
  const int64_t live = std::max(profile.results.process.Figure("liveBytes"), sum.liveBytes);
  const size_t shown = view.top == 0 ? sites.size() : std::min(view.top, sites.size());
  int64_t shownFigure = 0;
  for (size_t i = 0; i < shown; i++) {
    shownFigure = Sum(shownFigure, FigureOf(sites[i].figures, view.order));
  }
  out.Print("\n%s of %s call stacks, by %s (%.1f%% of those of all stacks)\n",
            WithCommas(int64_t(shown)).c_str(), WithCommas(int64_t(sites.size())).c_str(),
            DescribeOrder(view.order), Share(shownFigure, FigureOf(sum, view.order)));
  out.Print("%-5s %10s %7s %10s %7s %11s %11s %13s %10s\n", "", "at peak", "", "live", "", "blocks",
            "allocated", "allocations", "own peak");
  for (size_t i = 0; i < shown; i++) {
    out.Put("\n");
    WriteSite(i + 1, sites[i], peak, live, out);
    WriteLifetimes(sites[i].figures, sites[i].threadCount, out);
    WriteStack(sites[i].frames, symbols, out);
  }
}

}  // namespace

void WriteText(const Profile& profile, Symbols& symbols, const View& view, Writer& out) {
  WriteHead(profile, out);
  WriteTotals(profile.results, out);
  WriteNotes(profile, symbols, out);
  WritePlot(profile.results, out);
  if (!profile.sites.empty()) {
    WriteSites(profile, symbols, view, out);
  } else {
    out.Put("\nNo call stacks are recorded.\n");
  }
}

void TextSummary::Add(const Results& results) {
  const Account& process = results.process;
  std::string name = std::to_string(results.pid);
  if (results.kind == "snapshot") name += "." + std::to_string(results.number);
  rows_.push_back({name, process.Figure("peakBytes"), process.Figure("liveBytes"),
                   process.Figure("bytesAllocated"), process.Figure("allocations"),
                   results.CommandLine()});
}

void TextSummary::Write(Writer& out) {
  std::stable_sort(rows_.begin(), rows_.end(),
                   [](const Row& a, const Row& b) { return a.peak > b.peak; });
  out.Print("%s results files\n", WithCommas(int64_t(rows_.size())).c_str());
  out.Print("  %-12s %10s %10s %10s %14s  command\n", "process", "peak", "live", "allocated",
            "allocations");
  for (const Row& row : rows_) {
    out.Print("  %-12s %10s %10s %10s %14s  %s\n", row.process.c_str(), HumanBytes(row.peak).c_str(),
              HumanBytes(row.live).c_str(), HumanBytes(row.allocated).c_str(),
              WithCommas(row.allocations).c_str(), Cut(row.command, kColumns - 64).c_str());
  }
}

}  // namespace qvheap

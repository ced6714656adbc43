// Two profiles by site. Design: tools/qvheap/report/formats.h.
#include <stdlib.h>

#include <algorithm>
#include <unordered_map>

#include "tools/qvheap/report/formats.h"
#include "tools/qvheap/report/numbers.h"

namespace qvheap {
namespace {

struct Pair {
  const NamedSite* shown = nullptr;  // whose stack is shown: a site after, or one before
  SiteFigures before, after;

  int64_t Change(Order order) const {
    return Difference(FigureOf(after, order), FigureOf(before, order));
  }
};

uint64_t Magnitude(int64_t value) { return value < 0 ? -uint64_t(value) : uint64_t(value); }

std::string KeyOf(const NamedSite& site, const Symbols& symbols, bool byLine) {
  std::string key;
  for (const uint32_t id : site.frames) {
    const Frame& frame = symbols[id];
    (key += symbols.Text(frame.function)) += '\n';
    (key += BaseName(symbols.Text(frame.module))) += '\n';
    if (byLine) (key += symbols.LineOf(id)) += '\n';
  }
  return key;
}

// Sorted by the size of the change.
std::vector<Pair> MakePairs(const Profile& before, const Profile& after, const Symbols& symbols,
                            const View& view) {
  std::vector<Pair> pairs;
  std::unordered_map<std::string, size_t> known;
  const auto pairOf = [&](const NamedSite& site) -> Pair& {
    const auto [at, isNew] = known.try_emplace(KeyOf(site, symbols, view.byLine), pairs.size());
    if (isNew) pairs.emplace_back().shown = &site;
    return pairs[at->second];
  };
  for (const NamedSite& site : after.sites) pairOf(site).after.Add(site.figures);
  for (const NamedSite& site : before.sites) pairOf(site).before.Add(site.figures);
  std::stable_sort(pairs.begin(), pairs.end(), [&](const Pair& a, const Pair& b) {
    return Magnitude(a.Change(view.order)) > Magnitude(b.Change(view.order));
  });
  return pairs;
}

std::string SignedBytes(int64_t bytes) { return (bytes > 0 ? "+" : "") + HumanBytes(bytes); }
std::string SignedCount(int64_t count) { return (count > 0 ? "+" : "") + WithCommas(count); }

void WriteSide(const char* name, const Results& results, Writer& out) {
  const std::string kind =
      results.kind == "snapshot" ? "snapshot " + std::to_string(results.number) : "to its end";
  out.Print("  %-7s %s: %s, process %ld, %s after %s\n", name, results.file.c_str(),
            Cut(results.CommandLine(), 40).c_str(), results.pid, kind.c_str(),
            HumanTime(results.elapsedMilliseconds).c_str());
}

void WriteTotals(const Results& before, const Results& after, Writer& out) {
  const struct {
    const char *text, *figure;
  } kRows[] = {{"live bytes", "liveBytes"},
               {"live blocks", "liveBlocks"},
               {"peak bytes", "peakBytes"},
               {"bytes allocated", "bytesAllocated"},
               {"allocations", "allocations"}};
  out.Print("\n  %-16s %20s %20s %20s\n", "", "before", "after", "change");
  for (const auto& row : kRows) {
    const int64_t a = before.process.Figure(row.figure), b = after.process.Figure(row.figure);
    out.Print("  %-16s %20s %20s %20s\n", row.text, WithCommas(a).c_str(), WithCommas(b).c_str(),
              SignedCount(Difference(b, a)).c_str());
  }
}

void WritePair(size_t number, const Pair& pair, const View& view, const Symbols& symbols, Writer& out) {
  const bool counts = view.order == Order::kCount;
  const auto text = [&](int64_t value) { return counts ? WithCommas(value) : HumanBytes(value); };
  const int64_t change = pair.Change(view.order);
  out.Print("\n%-5s %14s   %s before, %s after; %s allocations, %s live blocks\n",
            ("#" + std::to_string(number)).c_str(),
            (counts ? SignedCount(change) : SignedBytes(change)).c_str(),
            text(FigureOf(pair.before, view.order)).c_str(),
            text(FigureOf(pair.after, view.order)).c_str(),
            SignedCount(Difference(pair.after.allocations, pair.before.allocations)).c_str(),
            SignedCount(Difference(pair.after.liveBlocks, pair.before.liveBlocks)).c_str());
  WriteStack(pair.shown->frames, symbols, out);
}

}  // namespace

void WriteDiffText(const Profile& before, const Profile& after, const Symbols& symbols,
                   const View& view, Writer& out) {
  const std::vector<Pair> pairs = MakePairs(before, after, symbols, view);
  out.Put("Difference\n");
  WriteSide("before", before.results, out);
  WriteSide("after", after.results, out);
  WriteTotals(before.results, after.results, out);
  const size_t changed = size_t(std::count_if(
      pairs.begin(), pairs.end(), [&](const Pair& pair) { return pair.Change(view.order) != 0; }));
  const size_t shown = view.top == 0 ? changed : std::min(view.top, changed);
  out.Print("\n%s of %s call stacks with a change, by %s\n", WithCommas(int64_t(shown)).c_str(),
            WithCommas(int64_t(changed)).c_str(), DescribeOrder(view.order));
  for (size_t i = 0; i < shown; i++) WritePair(i + 1, pairs[i], view, symbols, out);
}

// ---- JSON ------------------------------------------------------------------------------------------

namespace {

std::string FiguresText(const SiteFigures& figures) {
  char text[320];
  snprintf(text, sizeof text,
           "{\"allocations\":%ld,\"releases\":%ld,\"bytesAllocated\":%ld,\"bytesReleased\":%ld,"
           "\"liveBlocks\":%ld,\"liveBytes\":%ld,\"peakBytes\":%ld,\"liveAtPeakBytes\":%ld}",
           figures.allocations, figures.releases, figures.bytesAllocated, figures.bytesReleased,
           figures.liveBlocks, figures.liveBytes, figures.peakBytes, figures.liveAtPeakBytes);
  return text;
}

void WriteJsonSide(const char* name, const Results& results, Writer& out) {
  out.Print("\"%s\":{\"file\":%s,\"pid\":%ld,\"program\":%s", name, Quoted(results.file).c_str(),
            results.pid, Quoted(results.program).c_str());
  for (const auto& [figure, value] : results.process.figures) {
    out.Print(",\"%s\":%ld", figure.c_str(), value);
  }
  out.Put("},\n");
}

void WriteJsonStack(const std::vector<uint32_t>& frames, const Symbols& symbols, Writer& out) {
  out.Put("\"stack\":[");
  const char* comma = "";
  for (const uint32_t id : frames) {
    out.Print("%s{\"function\":%s", comma, Quoted(symbols.FunctionOf(id)).c_str());
    const std::string line = symbols.LineOf(id);
    if (!line.empty()) out.Print(",\"line\":%s", Quoted(line).c_str());
    if (symbols[id].module != 0) {
      out.Print(",\"module\":%s", Quoted(symbols.Text(symbols[id].module)).c_str());
    }
    out.Put("}");
    comma = ",";
  }
  out.Put("]");
}

}  // namespace

void WriteDiffJson(const Profile& before, const Profile& after, const Symbols& symbols,
                   const View& view, Writer& out) {
  out.Put("{");
  WriteJsonSide("before", before.results, out);
  WriteJsonSide("after", after.results, out);
  out.Put("\"sites\":[");
  const char* comma = "";
  for (const Pair& pair : MakePairs(before, after, symbols, view)) {
    out.Print("%s\n{\"change\":%ld,\"before\":%s,\"after\":%s,", comma, pair.Change(view.order),
              FiguresText(pair.before).c_str(), FiguresText(pair.after).c_str());
    WriteJsonStack(pair.shown->frames, symbols, out);
    out.Put("}");
    comma = ",";
  }
  out.Put("]}\n");
}

}  // namespace qvheap

// The written forms of a report. Each takes a profile as read and named, and the file to write to.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/qvheap/report/profile.h"
#include "tools/qvheap/report/writer.h"

namespace qvheap {

struct View {
  Order order = Order::kPeak;
  size_t top = 10;      // sites that the text shows; 0: all
  bool byLine = false;  // diff: the same function called from another line is another site
};

// For people, on 100 columns.
void WriteText(const Profile& profile, Symbols& symbols, const View& view, Writer& out);

// At the end of a text of several: a line for each, by peak.
class TextSummary {
 public:
  void Add(const Results& results);
  void Write(Writer& out);

 private:
  struct Row {
    std::string process;
    int64_t peak, live, allocated, allocations;
    std::string command;
  };
  std::vector<Row> rows_;
};

// Snapshots as massif writes them (ms_print, massif-visualizer).
void WriteMassif(const Profile& profile, const Symbols& symbols, Writer& out);

// A call graph as callgrind writes it (callgrind_annotate, KCachegrind).
void WriteCallgrind(const Profile& profile, const Symbols& symbols, Writer& out);

// One line for each stack, "outermost;...;innermost figure" (flame graphs, speedscope). Several
// processes go into one file, each under a frame of its own.
class Folded {
 public:
  void Add(const Profile& profile, const Symbols& symbols, Order order, bool underProcess);
  void Write(Writer& out) const;

 private:
  std::map<std::string, int64_t> lines_;
};

// Everything, for programs: one object for each file in an array.
class JsonReports {
 public:
  explicit JsonReports(Writer& out);
  void Add(const Profile& profile, Symbols& symbols);
  void Finish();

 private:
  Writer& out_;
  bool some_ = false;
};

// Two profiles by site. Stacks are the same if their functions and images' names are: addresses differ
// from run to run, and lines from version to version.
void WriteDiffText(const Profile& before, const Profile& after, const Symbols& symbols,
                   const View& view, Writer& out);
void WriteDiffJson(const Profile& before, const Profile& after, const Symbols& symbols,
                   const View& view, Writer& out);

// Pieces that several forms share.

// An image's path, with a mark if its file has changed since.
std::string MarkedModule(const Symbols& symbols, uint32_t module);
// A stack, one frame on a line of 100 columns, indented.
void WriteStack(const std::vector<uint32_t>& frames, const Symbols& symbols, Writer& out);
// A JSON string.
std::string Quoted(std::string_view text);

}  // namespace qvheap

// Massif's form of snapshots. Design: tools/qvheap/report/formats.h.
//
// The snapshots are the points of the timeline, the peak and the end. Those two carry a tree of call
// stacks. A tree's root is exact: what the sites, estimates in sampled mode, do not account for is a leaf
// of its own; should they add up to more, their sum is the root.
#include <algorithm>

#include "tools/qvheap/report/formats.h"
#include "tools/qvheap/report/numbers.h"

namespace qvheap {
namespace {

constexpr double kThresholdPercent = 0.1;  // of the root; smaller nodes are summed up, as massif does
// The indentation makes the file grow with the square of the depth, and perl warns of 100 calls within each
// other, which ms_print makes.
constexpr size_t kDeepestNode = 90;

struct Snapshot {
  int64_t milliseconds = 0, bytes = 0;
  enum { kPlain, kPeak, kEnd } kind = kPlain;
};

int64_t Positive(int64_t value) { return std::max<int64_t>(value, 0); }

// The peak takes the place of the timeline's highest point, which was taken near it.
std::vector<Snapshot> MakeSnapshots(const Results& results, int64_t peakBytes, int64_t endBytes) {
  std::vector<Snapshot> snapshots = {Snapshot{}};
  for (const TimePoint& point : results.timeline) {
    const int64_t earliest = snapshots.back().milliseconds;
    snapshots.push_back({std::max(earliest, point.milliseconds), Positive(point.liveBytes)});
  }
  auto highest =
      std::max_element(snapshots.begin() + 1, snapshots.end(),
                       [](const Snapshot& a, const Snapshot& b) { return a.bytes < b.bytes; });
  const int64_t end = std::max(snapshots.back().milliseconds, results.elapsedMilliseconds);
  if (highest == snapshots.end()) highest = snapshots.insert(highest, Snapshot{end});
  *highest = {highest->milliseconds, peakBytes, Snapshot::kPeak};
  snapshots.push_back({end, endBytes, Snapshot::kEnd});
  return snapshots;
}

class Tree {
 public:
  Tree(const std::vector<NamedSite>& sites, Order order, const Symbols& symbols, Writer& out)
      : symbols_(symbols), out_(out) {
    for (const NamedSite& site : sites) {
      const int64_t bytes = Positive(FigureOf(site.figures, order));
      sum_ = qvheap::Sum(sum_, bytes);
      if (bytes == 0 || site.frames.empty()) continue;
      stacks_.push_back({&site.frames, bytes});
      attributed_ = qvheap::Sum(attributed_, bytes);
    }
    // Stacks that begin alike stand together, so a node is a range of them.
    std::sort(stacks_.begin(), stacks_.end(),
              [](const Stack& a, const Stack& b) { return *a.frames < *b.frames; });
  }

  int64_t Sum() const { return sum_; }

  void Write(int64_t total) {
    threshold_ = double(total) * kThresholdPercent / 100;
    const int64_t unattributed = Difference(total, attributed_);
    Node root{0, stacks_.size(), 0, total};
    pending_ = {root};
    while (!pending_.empty()) {
      const Node node = pending_.back();
      pending_.pop_back();
      WriteNode(node, node.depth == 0 ? unattributed : 0);
    }
  }

 private:
  struct Stack {
    const std::vector<uint32_t>* frames;
    int64_t bytes;
  };
  // Stacks [from, to) agree in their first `depth` frames.
  struct Node {
    size_t from, to, depth;
    int64_t bytes;
    int64_t merged = 0;  // not 0: a leaf that sums up so many small nodes; -1: of what has no site
  };

  std::vector<Node> ChildrenOf(const Node& node) const {
    std::vector<Node> children;
    for (size_t at = node.from; at < node.to;) {
      if (stacks_[at].frames->size() == node.depth) {  // it ends here
        at++;
        continue;
      }
      const uint32_t frame = (*stacks_[at].frames)[node.depth];
      Node child{at, at, node.depth + 1, 0};
      while (child.to < node.to && (*stacks_[child.to].frames)[node.depth] == frame) {
        child.bytes = qvheap::Sum(child.bytes, stacks_[child.to++].bytes);
      }
      at = child.to;
      children.push_back(child);
    }
    return children;
  }

  std::vector<Node> SignificantChildrenOf(const Node& node, int64_t unattributed) const {
    std::vector<Node> children;
    if (node.merged != 0 || node.depth >= kDeepestNode) return children;
    Node small{0, 0, node.depth + 1, 0};
    for (const Node& child : ChildrenOf(node)) {
      if (double(child.bytes) >= threshold_) {
        children.push_back(child);
      } else {
        small.bytes = qvheap::Sum(small.bytes, child.bytes);
        small.merged++;
      }
    }
    if (unattributed > 0) children.push_back({0, 0, node.depth + 1, unattributed, -1});
    std::sort(children.begin(), children.end(),
              [](const Node& a, const Node& b) { return a.bytes > b.bytes; });
    if (small.merged > 0) children.push_back(small);
    return children;
  }

  void WriteNode(const Node& node, int64_t unattributed) {
    const std::vector<Node> children = SignificantChildrenOf(node, unattributed);
    out_.Print("%*sn%zu: %ld %s\n", int(node.depth), "", children.size(), node.bytes,
               TextOf(node).c_str());
    pending_.insert(pending_.end(), children.rbegin(), children.rend());
  }

  std::string TextOf(const Node& node) const {
    if (node.depth == 0) return "(heap allocation functions) malloc/new/new[], --alloc-fns, etc.";
    if (node.merged < 0) return "(not attributed to a call stack)";
    if (node.merged > 0) {
      return "in " + std::to_string(node.merged) + (node.merged == 1 ? " place" : " places") +
             ", all below massif's threshold (00.10%)";
    }
    const uint32_t frame = (*stacks_[node.from].frames)[node.depth - 1];
    char address[24];
    snprintf(address, sizeof address, "0x%lX: ", symbols_[frame].address);
    const std::string line = symbols_.LineOf(frame);
    const std::string module = symbols_.Text(symbols_[frame].module);
    const std::string place = !line.empty()    ? std::string(BaseName(line))
                              : module.empty() ? ""
                                               : "in " + module;
    return address + symbols_.FunctionOf(frame) + (place.empty() ? "" : " (" + place + ")");
  }

  const Symbols& symbols_;
  Writer& out_;
  std::vector<Stack> stacks_;
  std::vector<Node> pending_;
  int64_t sum_ = 0, attributed_ = 0;  // of all sites; of those with a stack
  double threshold_ = 0;
};

void WriteSnapshot(const Snapshot& snapshot, size_t number, const char* tree, Writer& out) {
  out.Print(
      "#-----------\nsnapshot=%zu\n#-----------\ntime=%ld\nmem_heap_B=%ld\nmem_heap_extra_B=0\n"
      "mem_stacks_B=0\nheap_tree=%s\n",
      number, snapshot.milliseconds, snapshot.bytes, tree);
}

}  // namespace

void WriteMassif(const Profile& profile, const Symbols& symbols, Writer& out) {
  const Results& results = profile.results;
  Tree peak(profile.sites, Order::kPeak, symbols, out);
  Tree end(profile.sites, Order::kLive, symbols, out);
  const int64_t peakBytes = std::max(results.process.Figure("peakBytes"), peak.Sum());
  const int64_t endBytes = std::max(results.process.Figure("liveBytes"), end.Sum());
  out.Print("desc: qvheap %s\ncmd: %s\ntime_unit: ms\n", results.IsSampled() ? "sampled" : "-exact",
            results.CommandLine().c_str());
  size_t number = 0;
  for (const Snapshot& snapshot : MakeSnapshots(results, peakBytes, endBytes)) {
    switch (snapshot.kind) {
      case Snapshot::kPlain: WriteSnapshot(snapshot, number, "empty", out); break;
      case Snapshot::kPeak:
        WriteSnapshot(snapshot, number, "peak", out);
        peak.Write(peakBytes);
        break;
      case Snapshot::kEnd:
        WriteSnapshot(snapshot, number, "detailed", out);
        end.Write(endBytes);
        break;
    }
    number++;
  }
}

}  // namespace qvheap

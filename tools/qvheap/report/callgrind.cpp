// Callgrind's form of a call graph. Design: tools/qvheap/report/formats.h.
//
// A site's figures are the own cost of its innermost function, at the line of the allocation, and the cost
// of each call on its stack. A function that calls itself, at once or through others, would be charged for
// the same bytes at each level; so, as callgrind's own --separate-recs does it, its second appearance on
// a stack is another function, "name'2". Then no function is twice on a stack, and the inclusive cost of
// `name`, its outermost appearance, is exact. A call straight from a function to itself is left out.
#include <algorithm>
#include <array>
#include <map>
#include <unordered_map>

#include "tools/qvheap/report/formats.h"
#include "tools/qvheap/report/numbers.h"

namespace qvheap {
namespace {

constexpr size_t kEvents = 4;
using Cost = std::array<int64_t, kEvents>;

Cost CostOf(const SiteFigures& figures) {
  Cost cost = {figures.liveAtPeakBytes, figures.liveBytes, figures.bytesAllocated, figures.allocations};
  for (int64_t& figure : cost) figure = std::max<int64_t>(figure, 0);  // viewers know no others
  return cost;
}

void Add(Cost& to, const Cost& cost) {
  for (size_t i = 0; i < kEvents; i++) to[i] = Sum(to[i], cost[i]);
}

// What makes a function of the graph; the level counts its appearances on a stack, from outside.
struct Key {
  uint32_t function, module, level;
  bool operator==(const Key&) const = default;
};

struct Node {
  Key key;
  uint32_t source = 0;
  int line = 0;  // the first one seen: where a callee is said to be
  std::map<int, Cost> own;
};

struct Call {
  uint32_t caller, callee;
  int line;  // of the call, in the caller
  auto operator<=>(const Call&) const = default;
};

struct Hash {
  size_t operator()(const Key& key) const {
    return Mix(uint64_t{key.function} << 32 | key.module, key.level);
  }
  size_t operator()(const Call& call) const {
    return Mix(uint64_t{call.caller} << 32 | call.callee, uint64_t(call.line));
  }
  static size_t Mix(uint64_t a, uint64_t b) {
    const uint64_t mixed = (a ^ b * 0xD6E8FEB86659FD93u) * 0x9E3779B97F4A7C15u;
    return mixed ^ mixed >> 32;
  }
};

class Graph {
 public:
  explicit Graph(const Symbols& symbols) : symbols_(symbols) {}

  void Add(const NamedSite& site) {
    const Cost cost = CostOf(site.figures);
    qvheap::Add(total_, cost);
    levels_.clear();
    uint32_t caller = 0;
    int line = 0;
    bool some = false;
    for (size_t i = site.frames.size(); i-- > 0;) {
      const Frame& frame = symbols_[site.frames[i]];
      const bool recurses = some && nodes_[caller].key.function == frame.function &&
                            nodes_[caller].key.module == frame.module;
      if (!recurses) {
        const uint32_t callee = NodeOf(frame, ++levels_[{frame.function, frame.module, 0}]);
        if (some) qvheap::Add(calls_[{caller, callee, line}], cost);
        caller = callee;
      }
      line = frame.line;
      some = true;
    }
    if (!some) caller = NodeOf(Frame(), 1);
    qvheap::Add(nodes_[caller].own[line], cost);
  }

  void Write(Writer& out) {
    out.Print("summary: %s\n", Text(total_).c_str());
    std::vector<std::pair<Call, Cost>> calls(calls_.begin(), calls_.end());
    std::sort(calls.begin(), calls.end());
    auto call = calls.begin();
    for (uint32_t id = 0; id < nodes_.size(); id++) {
      WriteNode(nodes_[id], out);
      for (; call != calls.end() && call->first.caller == id; ++call) {
        WriteCall(call->first, call->second, out);
      }
    }
    out.Print("\ntotals: %s\n", Text(total_).c_str());
  }

 private:
  uint32_t NodeOf(const Frame& frame, uint32_t level) {
    const Key key{frame.function, frame.module, level};
    const auto [at, isNew] = ids_.try_emplace(key, uint32_t(nodes_.size()));
    if (isNew) nodes_.push_back({key, frame.source, frame.line, {}});
    return at->second;
  }

  static std::string Text(const Cost& cost) {
    std::string text;
    for (const int64_t figure : cost) text += (text.empty() ? "" : " ") + std::to_string(figure);
    return text;
  }

  // "(3) name" when it is written first, "(3)" from then on.
  std::string Compressed(std::unordered_map<std::string, size_t>& known, const std::string& name) {
    const auto [at, isNew] = known.try_emplace(name, known.size() + 1);
    const std::string id = "(" + std::to_string(at->second) + ")";
    return isNew ? id + " " + name : id;
  }

  std::string FunctionText(const Key& key) {
    std::string name = key.function == 0 ? kUnknownStack : symbols_.Text(key.function);
    std::replace_if(
        name.begin(), name.end(), [](char byte) { return static_cast<unsigned char>(byte) < ' '; },
        ' ');
    if (key.level > 1) name += "'" + std::to_string(key.level);
    return Compressed(functions_, name);
  }
  std::string SourceText(uint32_t source) {
    return Compressed(sources_, source == 0 ? "???" : symbols_.Text(source));
  }
  std::string ModuleText(uint32_t module) {
    return Compressed(modules_, module == 0 ? "???" : MarkedModule(symbols_, module));
  }

  void WriteNode(const Node& node, Writer& out) {
    out.Print("\nob=%s\n", ModuleText(node.key.module).c_str());
    out.Print("fl=%s\n", SourceText(node.source).c_str());
    out.Print("fn=%s\n", FunctionText(node.key).c_str());
    for (const auto& [line, cost] : node.own) out.Print("%d %s\n", line, Text(cost).c_str());
  }

  void WriteCall(const Call& call, const Cost& cost, Writer& out) {
    const Node& callee = nodes_[call.callee];
    out.Print("cob=%s\n", ModuleText(callee.key.module).c_str());
    out.Print("cfi=%s\n", SourceText(callee.source).c_str());
    out.Print("cfn=%s\n", FunctionText(callee.key).c_str());
    // A reader takes the costs after no calls for the function's own.
    out.Print("calls=%ld %d\n", std::max<int64_t>(cost[kEvents - 1], 1), callee.line);
    out.Print("%d %s\n", call.line, Text(cost).c_str());
  }

  const Symbols& symbols_;
  std::vector<Node> nodes_;
  std::unordered_map<Key, uint32_t, Hash> ids_;
  std::unordered_map<Call, Cost, Hash> calls_;
  std::unordered_map<Key, uint32_t, Hash>
      levels_;  // appearances on the present stack; level 0 in the key
  Cost total_ = {};
  std::unordered_map<std::string, size_t> functions_, sources_, modules_;
};

}  // namespace

void WriteCallgrind(const Profile& profile, const Symbols& symbols, Writer& out) {
  const Results& results = profile.results;
  Graph graph(symbols);
  for (const NamedSite& site : profile.sites) graph.Add(site);
  out.Print(
      "# callgrind format\nversion: 1\ncreator: qvheap\npid: %ld\ncmd: %s\npart: 1\n"
      "desc: Trigger: %s\npositions: line\n"
      "event: PeakBytes : Bytes live at the peak\nevent: LiveBytes : Bytes live\n"
      "event: AllocatedBytes : Bytes allocated\nevent: Allocations : Allocations\n"
      "events: PeakBytes LiveBytes AllocatedBytes Allocations\n",
      results.pid, results.CommandLine().c_str(),
      results.kind == "snapshot" ? "snapshot" : "Program termination");
  graph.Write(out);
}

}  // namespace qvheap

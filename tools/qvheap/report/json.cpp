// The JSON form. Design: tools/qvheap/report/formats.h.
//
// Stacks are lists of indices into a table of frames: spelt out at each site the names would make up most
// of the file, many times over.
#include "tools/qvheap/report/formats.h"
#include "tools/qvheap/report/numbers.h"
#include "tools/qvheap/report/text_cleaner.h"

namespace qvheap {
namespace {

// Writes objects and arrays with the commas in their places.
class Json {
 public:
  explicit Json(Writer& out) : out_(out) {}

  void Open(char bracket) { Item(), out_.Put(std::string(1, bracket)), first_ = true; }
  void Close(char bracket) { out_.Put(std::string(1, bracket)), first_ = false; }
  void Open(const char* key, char bracket) { Key(key), Open(bracket); }
  void Number(const char* key, int64_t value) { Key(key), Number(value); }
  void Text(const char* key, std::string_view text) { Key(key), Text(text); }
  void Flag(const char* key, bool value) { Key(key), Item(), out_.Put(value ? "true" : "false"); }
  void Number(int64_t value) { Item(), out_.Print("%ld", value); }
  void Text(std::string_view text) { Item(), out_.Put(Quoted(text)); }
  void Line() { out_.Put("\n"); }

 private:
  void Item() {
    if (!first_) out_.Put(",");
    first_ = false;
  }
  void Key(const char* key) {
    Item();
    out_.Print("\"%s\":", key);
    first_ = true;  // no comma between the key and its value
  }

  Writer& out_;
  bool first_ = true;
};

void WriteAccount(Json& json, const Account& account) {
  for (const auto& [name, figure] : account.figures) json.Number(name.c_str(), figure);
  json.Open("sizes", '[');
  for (const SizeClass& size : account.sizes) {
    json.Open('{');
    json.Number("from", size.from);
    json.Number("to", size.to);
    json.Number("count", size.count);
    json.Close('}');
  }
  json.Close(']');
}

void WriteHead(Json& json, const Results& results) {
  json.Text("file", results.file);
  json.Text("version", results.version);
  json.Number("pid", results.pid);
  json.Text("kind", results.kind);
  if (results.number != 0) json.Number("number", results.number);
  json.Text("program", results.program);
  json.Open("arguments", '[');
  for (const std::string& argument : results.arguments) json.Text(argument);
  json.Close(']');
  json.Number("started", results.startedMilliseconds);
  json.Number("elapsed", results.elapsedMilliseconds);
  json.Number("paused", results.pausedMilliseconds);
  json.Text("mode", results.mode);
  json.Number("intervalBytes", results.intervalBytes);
}

void WriteAccounts(Json& json, const Results& results) {
  json.Open("process", '{');
  WriteAccount(json, results.process);
  json.Close('}');
  json.Line();
  json.Open("threads", '[');
  for (const ThreadAccount& thread : results.threads) {
    json.Open('{');
    if (thread.id != 0) json.Number("id", thread.id);
    if (!thread.state.empty()) json.Text("state", thread.state);
    if (thread.id == 0) json.Number("older", thread.count);
    WriteAccount(json, thread.account);
    json.Close('}');
    json.Line();
  }
  json.Close(']');
}

std::string Hexadecimal(uint64_t value) {
  char text[24];
  snprintf(text, sizeof text, "%lx", value);
  return text;
}

void WriteModules(Json& json, const Results& results, Symbols& symbols) {
  json.Open("modules", '[');
  for (const Module& module : results.modules) {
    json.Open('{');
    json.Text("path", module.path);
    json.Text("start", Hexadecimal(module.start));
    json.Text("end", Hexadecimal(module.end));
    json.Text("bias", Hexadecimal(module.bias));
    json.Number("from", int64_t(module.from));
    if (module.to != kNoEpoch) json.Number("to", int64_t(module.to));
    if (!module.buildId.empty()) json.Text("buildId", module.buildId);
    const FileState state = symbols.StateOf(module);
    json.Text("file", state == FileState::kSame ? "same" : DescribeState(state));
    json.Close('}');
    json.Line();
  }
  json.Close(']');
}

void WriteRegions(Json& json, const Results& results) {
  json.Open("regions", '[');
  for (const Region& region : results.regions) {
    json.Open('{');
    json.Text("start", Hexadecimal(region.start));
    json.Text("end", Hexadecimal(region.end));
    json.Close('}');
  }
  json.Close(']');
}

void WriteTimeline(Json& json, const Results& results) {
  json.Open("timeline", '[');
  for (const TimePoint& point : results.timeline) {
    json.Open('{');
    json.Number("time", point.milliseconds);
    json.Number("bytesAllocated", point.bytesAllocated);
    json.Number("liveBytes", point.liveBytes);
    json.Number("liveBlocks", point.liveBlocks);
    json.Close('}');
  }
  json.Close(']');
}

void WriteFigures(Json& json, const SiteFigures& figures) {
  json.Number("samples", figures.samples);
  json.Number("allocations", figures.allocations);
  json.Number("releases", figures.releases);
  json.Number("bytesAllocated", figures.bytesAllocated);
  json.Number("bytesReleased", figures.bytesReleased);
  json.Number("liveBlocks", figures.liveBlocks);
  json.Number("liveBytes", figures.liveBytes);
  json.Number("peakBytes", figures.peakBytes);
  json.Number("liveAtPeakBytes", figures.liveAtPeakBytes);
  json.Open("lifetimes", '{');
  json.Number("within1ms", figures.within1ms);
  json.Number("within1s", figures.within1s);
  json.Number("longer", figures.longer);
  json.Number("never", figures.never);
  json.Close('}');
}

// The frames of one report, numbered in the order in which its sites name them.
class FrameTable {
 public:
  int64_t IndexOf(uint32_t frame) {
    const auto [at, isNew] = indices_.try_emplace(frame, int64_t(order_.size()));
    if (isNew) order_.push_back(frame);
    return at->second;
  }

  void Write(Json& json, const Symbols& symbols) const {
    json.Open("frames", '[');
    for (const uint32_t id : order_) {
      const Frame& frame = symbols[id];
      json.Open('{');
      json.Text("function", symbols.Text(frame.function));
      if (frame.source != 0) json.Text("source", symbols.Text(frame.source));
      if (frame.line > 0) json.Number("line", frame.line);
      if (frame.module != 0) json.Text("module", symbols.Text(frame.module));
      json.Text("address", Hexadecimal(frame.address));
      json.Flag("inlined", frame.inlined);
      json.Close('}');
      json.Line();
    }
    json.Close(']');
  }

 private:
  std::unordered_map<uint32_t, int64_t> indices_;
  std::vector<uint32_t> order_;
};

void WriteStackIndices(Json& json, const std::vector<uint32_t>& frames, FrameTable& table) {
  json.Open("stack", '[');
  for (const uint32_t frame : frames) json.Number(table.IndexOf(frame));
  json.Close(']');
}

void WriteSites(Json& json, const Profile& profile, FrameTable& table) {
  json.Number("foldedSites", profile.results.foldedSites);
  json.Number("missedAllocations", profile.results.missedAllocations);
  json.Open("sites", '[');
  for (const NamedSite& site : profile.sites) {
    json.Open('{');
    json.Number("id", int64_t(site.id));
    WriteStackIndices(json, site.frames, table);
    WriteFigures(json, site.figures);
    json.Number("threadCount", site.threadCount);
    json.Open("threads", '[');
    for (const SiteThread& thread : site.threads) {
      json.Open('{');
      json.Number("id", thread.id);
      json.Number("allocations", thread.allocations);
      json.Number("bytes", thread.bytes);
      json.Close('}');
    }
    json.Close(']');
    json.Close('}');
    json.Line();
  }
  json.Close(']');
}

void WriteMemory(Json& json, const Results& results) {
  json.Open("memory", '[');
  for (const auto& [name, bytes] : results.memory) {
    json.Open('{');
    json.Text("name", name);
    json.Number("bytes", bytes);
    json.Close('}');
  }
  json.Close(']');
  json.Number("collectorBytes", results.collectorBytes);
}

}  // namespace

std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char byte : CleanText(text)) {
    char escape[8];
    if (byte == '"' || byte == '\\') {
      (quoted += '\\') += byte;
    } else if (static_cast<unsigned char>(byte) < ' ') {
      snprintf(escape, sizeof escape, "\\u%04x", unsigned(byte));
      quoted += escape;
    } else {
      quoted += byte;
    }
  }
  return quoted + '"';
}

JsonReports::JsonReports(Writer& out) : out_(out) { out_.Put("["); }

void JsonReports::Add(const Profile& profile, Symbols& symbols) {
  if (some_) out_.Put(",\n");
  some_ = true;
  Json json(out_);
  json.Open('{');
  WriteHead(json, profile.results);
  json.Line();
  WriteAccounts(json, profile.results);
  WriteModules(json, profile.results, symbols);
  WriteRegions(json, profile.results);
  WriteTimeline(json, profile.results);
  FrameTable table;
  WriteSites(json, profile, table);
  table.Write(json, symbols);
  WriteMemory(json, profile.results);
  json.Close('}');
}

void JsonReports::Finish() { out_.Put("]\n"); }

}  // namespace qvheap

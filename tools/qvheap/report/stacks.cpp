// Stacks for people. Design: tools/qvheap/report/formats.h.
#include "tools/qvheap/report/formats.h"

namespace qvheap {
namespace {

// 6 + 50 + 1 + 22 + 1 + 20 columns: 100.
constexpr size_t kFunctionColumns = 50, kLineColumns = 22, kModuleColumns = 20;
// Of a deep stack the ends are shown.
constexpr size_t kInnermostShown = 24, kOutermostShown = 8;

std::string Padded(const std::string& text, size_t columns) {
  const std::string cut = CutMiddle(text, columns);
  return cut + std::string(columns - ColumnsOf(cut), ' ');
}

// What stands where the line of the source would.
std::string PlaceOf(uint32_t id, const Symbols& symbols) {
  const Frame& frame = symbols[id];
  const FileState state = symbols.StateOfPath(frame.module);
  if (!frame.named && state != FileState::kSame) return std::string("(") + DescribeState(state) + ")";
  const std::string line = symbols.LineOf(id);
  return line.empty() && frame.inlined ? "inlined" : std::string(BaseName(line));
}

void WriteFrame(uint32_t id, const Symbols& symbols, Writer& out) {
  const std::string module(BaseName(symbols.Text(symbols[id].module)));
  std::string text = "      " + Padded(symbols.FunctionOf(id), kFunctionColumns) + " " +
                     Padded(PlaceOf(id, symbols), kLineColumns) + " " +
                     CutMiddle(module, kModuleColumns);
  text.resize(text.find_last_not_of(' ') + 1);
  out.Put(text + "\n");
}

}  // namespace

std::string MarkedModule(const Symbols& symbols, uint32_t module) {
  const FileState state = symbols.StateOfPath(module);
  const std::string path = symbols.Text(module);
  return state == FileState::kSame ? path : path + " (" + DescribeState(state) + ")";
}

void WriteStack(const std::vector<uint32_t>& frames, const Symbols& symbols, Writer& out) {
  if (frames.empty()) out.Print("      %s\n", kUnknownStack);
  const bool deep = frames.size() > kInnermostShown + kOutermostShown + 1;
  for (size_t i = 0; i < frames.size(); i++) {
    if (deep && i == kInnermostShown) {
      const size_t hidden = frames.size() - kInnermostShown - kOutermostShown;
      out.Print("      ... %zu frames ...\n", hidden);
      i += hidden;
    }
    WriteFrame(frames[i], symbols, out);
  }
}

}  // namespace qvheap

// Folded stacks. Design: tools/qvheap/report/formats.h.
#include <algorithm>

#include "tools/qvheap/report/formats.h"
#include "tools/qvheap/report/numbers.h"

namespace qvheap {
namespace {

// A semicolon ends a frame, and the last blank of a line its stack.
std::string FrameText(std::string text) {
  std::replace(text.begin(), text.end(), ';', ':');
  std::replace_if(
      text.begin(), text.end(), [](char byte) { return static_cast<unsigned char>(byte) < ' '; }, ' ');
  return text;
}

}  // namespace

void Folded::Add(const Profile& profile, const Symbols& symbols, Order order, bool underProcess) {
  const Results& results = profile.results;
  std::string root;
  if (underProcess) {
    root = FrameText(std::string(BaseName(results.program)) + " (" + std::to_string(results.pid) +
                     (results.kind == "snapshot" ? " snapshot " + std::to_string(results.number) : "") +
                     ")");
  }
  for (const NamedSite& site : profile.sites) {
    const int64_t figure = FigureOf(site.figures, order);
    if (figure <= 0) continue;  // scripts that draw areas know no others
    std::string line = root;
    for (size_t i = site.frames.size(); i-- > 0;) {
      line += (line.empty() ? "" : ";") + FrameText(symbols.FunctionOf(site.frames[i]));
    }
    if (site.frames.empty()) line += (line.empty() ? "" : ";") + std::string(kUnknownStack);
    int64_t& sum = lines_[line];
    sum = Sum(sum, figure);
  }
}

void Folded::Write(Writer& out) const {
  for (const auto& [stack, figure] : lines_) out.Print("%s %ld\n", stack.c_str(), figure);
}

}  // namespace qvheap

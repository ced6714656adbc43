// Frames of addresses. Design: tools/qvheap/report/symbols.h.
#include "tools/qvheap/report/symbols.h"

#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>

#include "tools/qvheap/report/text_cleaner.h"

namespace qvheap {
namespace {

std::string Hexadecimal(uint64_t value) {
  char text[24];
  snprintf(text, sizeof text, "0x%lx", value);
  return text;
}

// The image that held the address at that time.
const Module* FindModule(const Results& results, uint64_t epoch, uint64_t address) {
  for (const Module& module : results.modules) {
    const bool wasThere = module.from <= epoch && epoch <= module.to;
    if (wasThere && module.start <= address && address < module.end) return &module;
  }
  return nullptr;
}

std::string LowerCase(std::string text) {
  for (char& byte : text) {
    if (byte >= 'A' && byte <= 'Z') byte = char(byte - 'A' + 'a');
  }
  return text;
}

// A build id names the code itself, so a file that was only touched, or stripped, is the same. Without
// one, size and time have to do; a record that tells neither cannot contradict.
FileState CompareFile(const Module& module, const Image& image, const struct stat& status) {
  if (!image.IsReadable()) return FileState::kUnreadable;
  const std::string found = image.BuildId();
  if (!module.buildId.empty()) {
    return found == LowerCase(module.buildId) ? FileState::kSame : FileState::kChanged;
  }
  const int64_t modified = int64_t(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec;
  const bool sameSize = module.bytes < 0 || module.bytes == status.st_size;
  const bool sameTime = module.modified < 0 || module.modified == modified;
  return sameSize && sameTime ? FileState::kSame : FileState::kChanged;
}

}  // namespace

uint32_t Names::Add(const std::string& name) {
  const auto [at, isNew] = ids_.try_emplace(name, uint32_t(names_.size()));
  if (isNew) names_.push_back(&at->first);
  return at->second;
}

std::string_view BaseName(std::string_view path) { return path.substr(path.rfind('/') + 1); }

const char* DescribeState(FileState state) {
  switch (state) {
    case FileState::kSame: return "";
    case FileState::kChanged: return "changed since";
    case FileState::kGone: return "gone";
    case FileState::kUnreadable: return "unreadable";
  }
  return "";
}

std::string Symbols::LineOf(uint32_t frame) const {
  const Frame& found = frames_[frame];
  if (found.source == 0) return "";
  return found.line > 0 ? names_[found.source] + ":" + std::to_string(found.line)
                        : names_[found.source];
}

FileState Symbols::StateOfPath(uint32_t module) const {
  const auto state = states_.find(module);
  return state == states_.end() ? FileState::kSame : state->second;
}

void Symbols::Use(const Results& results) {
  current_ = &results;
  resolved_.clear();
}

const std::vector<uint32_t>& Symbols::Resolve(uint64_t epoch, uint64_t address) {
  const std::vector<uint32_t>*& known = resolved_[{epoch, address}];
  if (known != nullptr) return *known;
  // A return address may be the first of the next function: the call is before it.
  const uint64_t call = address == 0 ? 0 : address - 1;
  const Module* const module = FindModule(*current_, epoch, call);
  known = module != nullptr ? &ResolveInImage(OpenImage(*module), *module, call - module->bias)
                            : &ResolveOutside(call);
  return *known;
}

Symbols::OpenedImage& Symbols::OpenImage(const Module& module) {
  const std::string key = module.path + '\n' + module.buildId + '\n' + std::to_string(module.bytes) +
                          '\n' + std::to_string(module.modified);
  const auto [at, isNew] = images_.try_emplace(key);
  OpenedImage& opened = at->second;
  if (!isNew) return opened;
  struct stat status;
  if (module.path.compare(0, 1, "/") != 0) {
    opened.state = FileState::kSame;  // the kernel's own, such as [vdso]: no file
  } else if (stat(module.path.c_str(), &status) == 0) {
    opened.state = FileState::kUnreadable;
    // Whatever a path names, only ordinary files are opened: a device or a FIFO would block.
    if (S_ISREG(status.st_mode)) {
      opened.image = std::make_unique<Image>(module.path);
      opened.state = CompareFile(module, *opened.image, status);
    }
  }
  FileState& state = states_.try_emplace(names_.Add(module.path), FileState::kSame).first->second;
  if (state == FileState::kSame) state = opened.state;
  return opened;
}

const std::vector<uint32_t>& Symbols::ResolveInImage(OpenedImage& image, const Module& module,
                                                     uint64_t address) {
  std::vector<uint32_t>& frames = image.frames[address];
  if (!frames.empty()) return frames;
  std::vector<Place> places;
  if (image.state == FileState::kSame && image.image) places = image.image->Find(address);
  if (places.empty()) places.emplace_back();
  for (size_t i = 0; i < places.size(); i++) {
    Frame frame;
    frame.named = !places[i].function.empty();
    frame.function =
        names_.Add(frame.named ? CleanText(places[i].function)
                               : CleanText(BaseName(module.path)) + "+" + Hexadecimal(address));
    frame.source = names_.Add(CleanText(places[i].source));
    frame.line = places[i].line;
    frame.module = names_.Add(module.path);
    frame.address = address;
    frame.inlined = i + 1 < places.size();
    frames.push_back(uint32_t(frames_.size()));
    frames_.push_back(frame);
  }
  return frames;
}

// Code made at run time has one name for all of it: where it lies says nothing, and differs from run to run.
const std::vector<uint32_t>& Symbols::ResolveOutside(uint64_t address) {
  const std::vector<Region>& regions = current_->regions;
  const bool isMade = std::any_of(regions.begin(), regions.end(), [address](const Region& region) {
    return region.start <= address && address < region.end;
  });
  std::vector<uint32_t>& frames = outside_[{address, isMade}];
  if (!frames.empty()) return frames;
  Frame frame;
  frame.function = names_.Add(isMade ? "(code made at run time)" : Hexadecimal(address));
  frame.address = address;
  frames.push_back(uint32_t(frames_.size()));
  frames_.push_back(frame);
  return frames;
}

}  // namespace qvheap

// From addresses of a run to frames with names: which image an address was in at its time, whether that
// image's file is still the one that ran, and what it says about the address. Each address is looked up
// once, however many stacks, snapshots and processes it is in.
//
// A file that has changed since is not asked: its names would be somebody else's. Its addresses stay
// numbers, relative to the image, and its name carries a mark.
#pragma once

#include <stdint.h>

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/qvheap/report/image.h"
#include "tools/qvheap/report/results.h"

namespace qvheap {

// Strings by number, each kept once; 0 is "".
class Names {
 public:
  uint32_t Add(const std::string& name);
  const std::string& operator[](uint32_t id) const { return *names_[id]; }
  Names() { Add(""); }

 private:
  std::unordered_map<std::string, uint32_t> ids_;
  std::vector<const std::string*> names_;  // the keys of ids_
};

struct Frame {
  uint32_t function = 0;  // its name; of code without one "image+0x1234", or an address, or what it is
  uint32_t source = 0;    // "" if unknown
  uint32_t module = 0;    // the image's path, "" if there was none
  int line = 0;
  uint64_t address = 0;  // of the call, in the image's file
  bool named = false;    // the function has a name
  bool inlined = false;  // into the next frame
};

enum class FileState { kSame, kChanged, kGone, kUnreadable };

class Symbols {
 public:
  // Whose addresses are asked for from now on. It must stay until the next call.
  void Use(const Results& results);
  // Numbers of the frames of a return address, innermost first; at least one.
  const std::vector<uint32_t>& Resolve(uint64_t epoch, uint64_t address);

  const Frame& operator[](uint32_t frame) const { return frames_[frame]; }
  const std::string& Text(uint32_t name) const { return names_[name]; }
  const std::string& FunctionOf(uint32_t frame) const { return names_[frames_[frame].function]; }
  // "file.c:12", the whole path; "" if unknown.
  std::string LineOf(uint32_t frame) const;
  size_t FrameCount() const { return frames_.size(); }

  // Of a module of some results; looks at the file when it is asked first.
  FileState StateOf(const Module& module) { return OpenImage(module).state; }
  // By the path: the worst of those seen under it.
  FileState StateOfPath(uint32_t module) const;

 private:
  struct OpenedImage {
    FileState state = FileState::kGone;
    std::unique_ptr<Image> image;
    std::unordered_map<uint64_t, std::vector<uint32_t>> frames;  // by address of the call in the file
  };
  struct AddressKey {
    uint64_t epoch, address;
    bool operator==(const AddressKey&) const = default;
  };
  struct AddressHash {
    size_t operator()(const AddressKey& key) const {
      return size_t((key.address ^ (key.epoch << 48)) * 0x9E3779B97F4A7C15u >> 7);
    }
  };

  OpenedImage& OpenImage(const Module& module);
  const std::vector<uint32_t>& ResolveInImage(OpenedImage& image, const Module& module,
                                              uint64_t address);
  const std::vector<uint32_t>& ResolveOutside(uint64_t address);

  Names names_;
  std::vector<Frame> frames_;
  std::map<std::string, OpenedImage> images_;  // by path and what the file was
  std::map<uint32_t, FileState> states_;       // by path
  std::map<std::pair<uint64_t, bool>, std::vector<uint32_t>>
      outside_;  // by address and whether in a region
  const Results* current_ = nullptr;
  std::unordered_map<AddressKey, const std::vector<uint32_t>*, AddressHash> resolved_;  // of current_
};

// "libc.so.6" of its path.
std::string_view BaseName(std::string_view path);

// "changed since", "gone", … for people; "" if it is the same.
const char* DescribeState(FileState state);

}  // namespace qvheap

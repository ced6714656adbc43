// qvnotes: lists the annotations of ELF images.
//
// libelf finds the section; its bytes go through the library's parser. What the parser has to say goes
// to the library's log, which is kept in memory here: it names the version of each table as it begins,
// and what is wrong with a section.
#include <inttypes.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "include/qvrt.h"
#include "tools/qvnotes/image.h"

namespace qvnotes {
namespace {

constexpr char kUsageText[] =
    "usage: qvnotes [--definitions FILE]... IMAGE...\n"
    "\n"
    "Lists the annotations of ELF images: address, place of the value, probe size, name. Addresses "
    "are\n"
    "those of the image's link. --definitions adds the annotations of a text file to the images whose\n"
    "path it names; such an image needs no annotations of its own.\n"
    "\n"
    "exit status: 0 all listed, 1 usage, 2 an image or a definitions file could not be read or is "
    "damaged\n";

// The library's log as a file in memory.
class Messages {
 public:
  Messages() : descriptor_(memfd_create("qvnotes", MFD_CLOEXEC)) {
    __QvRtStartup();
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor_);
    if (__QvCreateLogger("qvnotes", path.c_str(), 0) == 0) {
      throw std::runtime_error("cannot keep the library's messages");
    }
    TakeNew();
  }

  // The texts that have come since the last call.
  std::vector<std::string> TakeNew() {
    std::string fresh;
    char buffer[4096];
    for (ssize_t got; (got = pread(descriptor_, buffer, sizeof buffer, offset_)) > 0;) {
      fresh.append(buffer, size_t(got));
      offset_ += got;
    }
    std::vector<std::string> texts;
    for (size_t at = 0; (at = fresh.find("<!-- ", at)) != std::string::npos;) {
      const size_t end = fresh.find(" -->", at);
      texts.push_back(fresh.substr(at + 5, end - at - 5));
      at = end;
    }
    return texts;
  }

 private:
  const int descriptor_;
  off_t offset_ = 0;
};

std::string PlaceOf(const AnnotationRecord& record) {
  static const char* const kRegisters[] = {"rax", "rdx", "rcx", "rbx", "rsi", "rdi", "rbp", "rsp", "r8",
                                           "r9",  "r10", "r11", "r12", "r13", "r14", "r15", "rip"};
  if (record.hasLocation == 0) return "-";
  if (record.isRegister == 0) return std::to_string(record.locationValue);
  if (record.locationValue == 0xFFFFFFFF) return "?";
  std::string place = record.locationValue < std::size(kRegisters)
                          ? kRegisters[record.locationValue]
                          : "reg" + std::to_string(record.locationValue);
  if (record.registerOffset > 0) place += "+";
  if (record.registerOffset != 0) place += std::to_string(record.registerOffset);
  return place;
}

class Listing {
 public:
  Listing(const std::string& path, Messages& messages) : path_(path), messages_(messages) {}

  void ListSection(const Image& image) {
    image_ = &image;
    __QvZCAParseAndProcessRecords(image.base, image.section.data(), image.section.size(),
                                  OnSectionEntry, this);
    TakeMessages();
  }

  // True if there are any.
  bool ListDefinitions(uint64_t base) {
    bool headed = false;
    heading_ = &headed;
    __QvZCAProcessExternalRecords(path_.c_str(), base, OnDefinition, this);
    return headed;
  }

  bool Damaged() const { return damaged_; }

 private:
  static void OnSectionEntry(const AnnotationRecord* record, void* self) {
    static_cast<Listing*>(self)->ListEntry(*record);
  }
  static void OnDefinition(const AnnotationRecord* record, void* self) {
    Listing& listing = *static_cast<Listing*>(self);
    if (!*listing.heading_) puts("  definitions");
    *listing.heading_ = true;
    listing.Print(*record, record->address);
  }

  // Relative addresses came out relative to our copy of the section; the image has it elsewhere.
  void ListEntry(const AnnotationRecord& record) {
    TakeMessages();
    const uint64_t copy = reinterpret_cast<uint64_t>(image_->section.data());
    Print(record, relative_ ? record.address - copy + image_->sectionAddress : record.address);
  }

  void Print(const AnnotationRecord& record, uint64_t address) {
    const std::string place = unsupported_ ? "?" : PlaceOf(record);
    unsupported_ = false;
    printf("  %016" PRIx64 "  %-12s %6u  %s\n", address, place.c_str(), record.probeSize,
           record.name == nullptr ? "" : record.name);
  }

  void TakeMessages() {
    for (const std::string& text : messages_.TakeNew()) {
      const std::string found = "Found ZCA section with version ";
      if (text.rfind(found, 0) == 0) {
        printf("  table of version %s\n", text.c_str() + found.size());
        relative_ = NextTableIsRelative(text.substr(found.size()));
      } else if (text == "QVRT: Unsupported Dwarf Expression in ZCA") {
        unsupported_ = true;  // said just before its entry is delivered
      } else {
        fflush(stdout);
        fprintf(stderr, "qvnotes: %s: %s\n", path_.c_str(), text.c_str());
        damaged_ = true;
      }
    }
  }

  // The parser announces tables in order, so the n-th announcement is the n-th header.
  bool NextTableIsRelative(const std::string& version) {
    const std::vector<unsigned char>& bytes = image_->section;
    while (header_ < bytes.size() && bytes[header_] == 0) header_++;
    if (header_ >= bytes.size()) return false;
    ZcaTableHeader12 header = {};
    memcpy(&header, bytes.data() + header_, std::min(sizeof header, bytes.size() - header_));
    if (version == "1.1") {
      ZcaTableHeader11 old;
      memcpy(&old, &header, sizeof old);
      Advance(old.stringOffset, old.stringBytes, old.expressionOffset, old.expressionBytes);
      return false;
    }
    Advance(header.stringOffset, header.stringBytes, header.expressionOffset, header.expressionBytes);
    return (header.flags & QV_ZCA_FLAG_PCREL) != 0;
  }

  void Advance(uint64_t strings, uint64_t stringBytes, uint64_t expressions, uint64_t expressionBytes) {
    header_ += strings < expressions ? expressions + expressionBytes : strings + stringBytes;
  }

  const std::string path_;
  Messages& messages_;
  const Image* image_ = nullptr;
  size_t header_ = 0;
  bool relative_ = false;
  bool damaged_ = false;
  bool unsupported_ = false;
  bool* heading_ = nullptr;
};

// True if the image was read and all of it made sense.
bool ListImage(const std::string& path, bool hasDefinitions, Messages& messages) {
  printf("%s\n", path.c_str());
  Listing listing(path, messages);
  try {
    const Image image = ReadImage(path);
    if (image.hasSection) listing.ListSection(image);
    const bool defined = hasDefinitions && listing.ListDefinitions(image.base);
    if (!image.hasSection && !defined) throw std::runtime_error("has no section .ubq_notify_tab");
  } catch (const std::runtime_error& error) {
    fflush(stdout);
    fprintf(stderr, "qvnotes: %s: %s\n", path.c_str(), error.what());
    return false;
  }
  return !listing.Damaged();
}

bool LoadDefinitions(const std::string& path, Messages& messages) {
  const bool loaded = __QvZCALoadExternalDefinitions(path.c_str()) != 0;
  if (!loaded) fprintf(stderr, "qvnotes: %s cannot be opened\n", path.c_str());
  for (const std::string& text : messages.TakeNew()) {
    fprintf(stderr, "qvnotes: %s: %s\n", path.c_str(), text.c_str());
  }
  return loaded;
}

int Run(int argc, char** argv) {
  std::vector<std::string> images, definitions;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--help") == 0) return fputs(kUsageText, stdout), 0;
    if (strcmp(argv[i], "--definitions") == 0 && i + 1 < argc) {
      definitions.emplace_back(argv[++i]);
    } else if (argv[i][0] == '-') {
      fprintf(stderr, "qvnotes: '%s' is no option, or lacks its file\n%s", argv[i], kUsageText);
      return 1;
    } else {
      images.emplace_back(argv[i]);
    }
  }
  if (images.empty()) return fputs(kUsageText, stderr), 1;
  Messages messages;
  bool ok = true;
  for (const std::string& path : definitions) ok &= LoadDefinitions(path, messages);
  for (const std::string& path : images) ok &= ListImage(path, !definitions.empty(), messages);
  return ok ? 0 : 2;
}

}  // namespace
}  // namespace qvnotes

int main(int argc, char** argv) {
  try {
    return qvnotes::Run(argc, argv);
  } catch (const std::exception& error) {
    fprintf(stderr, "qvnotes: %s\n", error.what());
    return 2;
  }
}

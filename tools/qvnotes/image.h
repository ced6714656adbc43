// An ELF image, as far as annotations need it: the bytes of ".ubq_notify_tab", the address at which
// that section is linked, and the address at which the image begins.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace qvnotes {

struct Image {
  bool hasSection = false;
  std::vector<unsigned char> section;
  uint64_t sectionAddress = 0;
  uint64_t base = 0;  // lowest address of a loaded segment
};

// Reads an image. Throws std::runtime_error with a message for people: not there, no ELF image,
// damaged.
Image ReadImage(const std::string& path);

}  // namespace qvnotes

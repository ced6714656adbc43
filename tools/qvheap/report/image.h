// Names and lines of one ELF file by elfutils' libdwfl: the file's own tables, and those of a separate
// debug file where its link or its build id leads to one.
//
// libdw's own searches walk all symbols of a file, and all entries of a compilation unit, for each
// address. A report has up to a million addresses, so they are walked once here: symbols and units are
// sorted by address when the file is opened, a unit's functions when its first address is asked for.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

namespace qvheap {

// A function that an address belongs to. What is unknown is "" or 0.
struct Place {
  std::string function;  // demangled
  std::string source;
  int line = 0;
};

class Image {
 public:
  explicit Image(const std::string& path);
  ~Image();

  bool IsReadable() const;      // an ELF file is there
  std::string BuildId() const;  // hexadecimal digits in lower case; "" if it has none
  // The functions inlined at an address of the file, innermost first, and at last the one that they are
  // inlined into. Empty: no symbol covers it.
  std::vector<Place> Find(uint64_t address) const;

 private:
  class Tables;
  std::unique_ptr<Tables> tables_;
};

}  // namespace qvheap

// ELF symbols and DWARF entries by address. Design: tools/qvheap/report/image.h.
#include "tools/qvheap/report/image.h"

#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>

namespace qvheap {
namespace {

constexpr int kDeepestEntry = 200;  // namespaces, classes and blocks within each other

std::string Demangle(const char* name) {
  if (strncmp(name, "_Z", 2) != 0) return name;
  int status = 0;
  char* const text = abi::__cxa_demangle(name, nullptr, nullptr, &status);
  const std::string demangled = text != nullptr && status == 0 ? text : name;
  free(text);
  return demangled;
}

struct Symbol {
  uint64_t start, end;  // end == start: up to the next one
  const char* name;
  int rank;  // of several names for one address the lowest is taken
};

int UnderscoresOf(const char* name) { return int(strspn(name, "_")); }

// Global names first, then those that look least like an implementation's own.
bool operator<(const Symbol& a, const Symbol& b) {
  if (a.start != b.start) return a.start < b.start;
  if (a.rank != b.rank) return a.rank < b.rank;
  if (UnderscoresOf(a.name) != UnderscoresOf(b.name)) {
    return UnderscoresOf(a.name) < UnderscoresOf(b.name);
  }
  return strcmp(a.name, b.name) < 0;
}

struct Function {
  uint64_t start, end;
  Dwarf_Die entry;
};

struct Unit {
  Dwarf_Die lines;      // the unit's entry, with its line table
  Dwarf_Die functions;  // the same, or the one of its split file
  bool walked = false;
  std::vector<Function> table;  // sorted by start
};

struct UnitRange {
  uint64_t start, end;
  size_t unit;
};

template <class Range>
void SortByStart(std::vector<Range>& ranges) {
  // Of two that begin together the shorter comes last, where a search finds it first.
  std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) {
    return a.start != b.start ? a.start < b.start : a.end > b.end;
  });
}

// The last range that begins at or before the address and covers it. Functions within functions and
// units that overlap are rare, so a few steps back are enough.
template <class Range>
const Range* FindRange(const std::vector<Range>& ranges, uint64_t address) {
  auto at = std::upper_bound(ranges.begin(), ranges.end(), address,
                             [](uint64_t value, const Range& range) { return value < range.start; });
  for (int steps = 0; at != ranges.begin() && steps < 16; steps++) {
    --at;
    if (address < at->end) return &*at;
  }
  return nullptr;
}

template <class Visit>
void VisitRanges(Dwarf_Die* entry, const Visit& visit) {
  Dwarf_Addr base = 0, start = 0, end = 0;
  for (ptrdiff_t at = 0; (at = dwarf_ranges(entry, at, &base, &start, &end)) > 0;) {
    if (start < end) visit(start, end);
  }
}

bool HoldsFunctions(int tag) {
  switch (tag) {
    case DW_TAG_subprogram:
    case DW_TAG_namespace:
    case DW_TAG_module:
    case DW_TAG_class_type:
    case DW_TAG_structure_type:
    case DW_TAG_union_type:
    case DW_TAG_lexical_block:
    case DW_TAG_inlined_subroutine: return true;
    default: return false;
  }
}

void CollectFunctions(Dwarf_Die* parent, int depth, std::vector<Function>& functions) {
  Dwarf_Die entry;
  if (depth > kDeepestEntry || dwarf_child(parent, &entry) != 0) return;
  do {
    const int tag = dwarf_tag(&entry);
    if (!HoldsFunctions(tag)) continue;
    if (tag == DW_TAG_subprogram) {
      VisitRanges(&entry, [&](uint64_t start, uint64_t end) {
        functions.push_back({start, end, entry});
      });
    }
    CollectFunctions(&entry, depth + 1, functions);
  } while (dwarf_siblingof(&entry, &entry) == 0);
}

// The function's entry and the calls inlined in it that cover the address, outermost first.
std::vector<Dwarf_Die> CollectInlined(const Dwarf_Die& function, uint64_t address) {
  std::vector<Dwarf_Die> chain = {function};
  Dwarf_Die parent = function, entry;
  for (int depth = 0; depth < kDeepestEntry && dwarf_child(&parent, &entry) == 0; depth++) {
    bool found = false;
    do {
      const int tag = dwarf_tag(&entry);
      found = (tag == DW_TAG_inlined_subroutine || tag == DW_TAG_lexical_block) &&
              dwarf_haspc(&entry, address) > 0;
    } while (!found && dwarf_siblingof(&entry, &entry) == 0);
    if (!found) break;
    if (dwarf_tag(&entry) == DW_TAG_inlined_subroutine) chain.push_back(entry);
    parent = entry;
  }
  return chain;
}

// "" if it has none.
std::string LinkageNameOf(Dwarf_Die* entry) {
  Dwarf_Attribute attribute;
  Dwarf_Attribute* found = dwarf_attr_integrate(entry, DW_AT_linkage_name, &attribute);
  if (found == nullptr) found = dwarf_attr_integrate(entry, DW_AT_MIPS_linkage_name, &attribute);
  const char* const name = found == nullptr ? nullptr : dwarf_formstring(found);
  return name == nullptr ? "" : name;
}

std::string NameOf(Dwarf_Die* entry) {
  const std::string linkage = LinkageNameOf(entry);
  if (!linkage.empty()) return Demangle(linkage.c_str());
  const char* const name = dwarf_diename(entry);
  return name == nullptr ? "" : name;
}

void SetLine(Dwarf_Die* unit, uint64_t address, Place& place) {
  Dwarf_Line* const line = dwarf_getsrc_die(unit, address);
  if (line == nullptr) return;
  const char* const source = dwarf_linesrc(line, nullptr, nullptr);
  if (source == nullptr) return;
  place.source = source;
  dwarf_lineno(line, &place.line);
}

// Where the entry, an inlined function, is called.
void SetCallLine(Dwarf_Die* unit, Dwarf_Die* entry, Place& place) {
  const auto number = [&](unsigned name) {
    Dwarf_Attribute attribute;
    Dwarf_Word value = 0;
    return dwarf_formudata(dwarf_attr(entry, name, &attribute), &value) == 0 ? value : 0;
  };
  Dwarf_Files* files = nullptr;
  size_t count = 0;
  if (dwarf_getsrcfiles(unit, &files, &count) != 0) return;
  const char* const source = dwarf_filesrc(files, number(DW_AT_call_file), nullptr, nullptr);
  if (source == nullptr) return;
  place.source = source;
  place.line = int(number(DW_AT_call_line));
}

const Dwfl_Callbacks kCallbacks = {
    .find_elf = dwfl_build_id_find_elf,
    .find_debuginfo = dwfl_standard_find_debuginfo,
    .section_address = dwfl_offline_section_address,
    .debuginfo_path = nullptr,
};

}  // namespace

class Image::Tables {
 public:
  explicit Tables(const std::string& path) : dwfl_(dwfl_begin(&kCallbacks)) {
    if (dwfl_ == nullptr) return;
    Dwfl_Module* const module = dwfl_report_offline(dwfl_, path.c_str(), path.c_str(), -1);
    dwfl_report_end(dwfl_, nullptr, nullptr);
    if (module == nullptr || dwfl_module_getelf(module, &bias_) == nullptr) return;
    module_ = module;
    ReadBuildId();
  }
  ~Tables() {
    if (dwfl_ != nullptr) dwfl_end(dwfl_);
  }
  Tables(const Tables&) = delete;
  Tables& operator=(const Tables&) = delete;

  bool IsReadable() const { return module_ != nullptr; }
  const std::string& BuildId() const { return buildId_; }

  std::vector<Place> Find(uint64_t fileAddress) {
    if (module_ == nullptr) return {};
    if (!loaded_) Load();
    const uint64_t address = fileAddress + bias_;
    const Symbol* const symbol = FindRange(symbols_, address);
    std::vector<Place> places = FindInDwarf(address - dwarfBias_);
    if (symbol == nullptr) return places;
    // C++ functions without a linkage name have their scope in their symbol alone.
    if (places.empty()) places.emplace_back();
    std::string& outermost = places.back().function;
    if (outermost.empty() || strncmp(symbol->name, "_Z", 2) == 0) outermost = Demangle(symbol->name);
    return places;
  }

 private:
  void ReadBuildId() {
    const unsigned char* bytes = nullptr;
    GElf_Addr place = 0;
    const int count = dwfl_module_build_id(module_, &bytes, &place);
    for (int i = 0; i < count; i++) {
      static const char kDigits[] = "0123456789abcdef";
      (buildId_ += kDigits[bytes[i] >> 4]) += kDigits[bytes[i] & 15];
    }
  }

  void Load() {
    loaded_ = true;
    LoadSymbols();
    Dwarf* const dwarf = dwfl_module_getdwarf(module_, &dwarfBias_);
    if (dwarf == nullptr) return;
    Dwarf_CU* cu = nullptr;
    Dwarf_Die entry, split;
    uint8_t kind = 0;
    while (dwarf_get_units(dwarf, cu, &cu, nullptr, &kind, &entry, &split) == 0) {
      const bool isSplit = kind == DW_UT_skeleton && split.cu != nullptr;
      units_.push_back({entry, isSplit ? split : entry, false, {}});
      VisitRanges(&entry, [&](uint64_t start, uint64_t end) {
        unitRanges_.push_back({start, end, units_.size() - 1});
      });
    }
    SortByStart(unitRanges_);
  }

  void LoadSymbols() {
    const int count = dwfl_module_getsymtab(module_);
    for (int i = 1; i < count; i++) {
      GElf_Sym symbol;
      GElf_Addr address = 0;
      GElf_Word section = 0;
      const char* const name =
          dwfl_module_getsym_info(module_, i, &symbol, &address, &section, nullptr, nullptr);
      const int type = GELF_ST_TYPE(symbol.st_info), binding = GELF_ST_BIND(symbol.st_info);
      if (name == nullptr || *name == 0 || section == SHN_UNDEF) continue;
      if (type != STT_FUNC && type != STT_GNU_IFUNC) continue;
      const int rank = binding == STB_GLOBAL ? 0 : binding == STB_WEAK ? 1 : 2;
      symbols_.push_back({address, address + symbol.st_size, name, rank});
    }
    SortSymbols();
  }

  // One symbol for each address; those without a size reach to the next.
  void SortSymbols() {
    std::sort(symbols_.begin(), symbols_.end());
    symbols_.erase(std::unique(symbols_.begin(), symbols_.end(),
                               [](const Symbol& a, const Symbol& b) { return a.start == b.start; }),
                   symbols_.end());
    for (size_t i = 0; i + 1 < symbols_.size(); i++) {
      if (symbols_[i].end == symbols_[i].start) symbols_[i].end = symbols_[i + 1].start;
    }
  }

  std::vector<Place> FindInDwarf(uint64_t address) {
    const UnitRange* const range = FindRange(unitRanges_, address);
    if (range == nullptr) return {};
    Unit& unit = units_[range->unit];
    if (!unit.walked) {
      unit.walked = true;
      CollectFunctions(&unit.functions, 0, unit.table);
      SortByStart(unit.table);
    }
    const Function* const function = FindRange(unit.table, address);
    if (function == nullptr) {
      Place place;
      SetLine(&unit.lines, address, place);
      return place.source.empty() ? std::vector<Place>() : std::vector<Place>{place};
    }
    return PlacesOf(unit, CollectInlined(function->entry, address), address);
  }

  // A function inlined into another stands at the line of the code; the other at the line of the call.
  static std::vector<Place> PlacesOf(Unit& unit, std::vector<Dwarf_Die> chain, uint64_t address) {
    std::vector<Place> places;
    for (size_t i = chain.size(); i-- > 0;) {
      Place place;
      place.function = NameOf(&chain[i]);
      if (i + 1 == chain.size()) {
        SetLine(&unit.lines, address, place);
      } else {
        SetCallLine(&unit.lines, &chain[i + 1], place);
      }
      places.push_back(place);
    }
    return places;
  }

  Dwfl* const dwfl_;
  Dwfl_Module* module_ = nullptr;  // null: not readable
  GElf_Addr bias_ = 0;             // libdwfl's addresses less the file's
  Dwarf_Addr dwarfBias_ = 0;       // libdwfl's less those of the debug entries
  std::string buildId_;
  bool loaded_ = false;
  std::vector<Symbol> symbols_;
  std::vector<Unit> units_;
  std::vector<UnitRange> unitRanges_;
};

Image::Image(const std::string& path) : tables_(std::make_unique<Tables>(path)) {}
Image::~Image() = default;
bool Image::IsReadable() const { return tables_->IsReadable(); }
std::string Image::BuildId() const { return tables_->BuildId(); }
std::vector<Place> Image::Find(uint64_t address) const { return tables_->Find(address); }

}  // namespace qvheap

// A reader of x86-64 ELF files, as much as the tests of the built library need.
#pragma once

#include <elf.h>
#include <string.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace qvtest {

struct ElfSymbol {
  std::string name;
  bool defined;  // here, as opposed to imported
};

class ElfFile {
 public:
  explicit ElfFile(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(stream), {});
    if (bytes_.size() < sizeof(Elf64_Ehdr) || memcmp(bytes_.data(), ELFMAG, SELFMAG) != 0) {
      throw std::runtime_error(path + " is not an ELF file");
    }
    const Elf64_Ehdr& head = *At<Elf64_Ehdr>(0);
    segments_ = Copy<Elf64_Phdr>(head.e_phoff, head.e_phnum);
    sections_ = Copy<Elf64_Shdr>(head.e_shoff, head.e_shnum);
  }

  const std::vector<Elf64_Phdr>& Segments() const { return segments_; }

  // The content of the one section of a type, as records.
  template <class T>
  std::vector<T> Records(uint32_t sectionType) const {
    const Elf64_Shdr* const section = Section(sectionType);
    return section == nullptr ? std::vector<T>()
                              : Copy<T>(section->sh_offset, section->sh_size / sizeof(T));
  }

  // The values of a dynamic tag, in order.
  std::vector<uint64_t> Dynamic(int64_t tag) const {
    std::vector<uint64_t> values;
    for (const Elf64_Dyn& entry : Records<Elf64_Dyn>(SHT_DYNAMIC)) {
      if (entry.d_tag == tag) values.push_back(entry.d_un.d_val);
    }
    return values;
  }

  std::vector<std::string> DynamicStrings(int64_t tag) const {
    std::vector<std::string> strings;
    for (const uint64_t offset : Dynamic(tag)) strings.push_back(String(offset));
    return strings;
  }

  std::vector<ElfSymbol> DynamicSymbols() const {
    std::vector<ElfSymbol> symbols;
    for (const Elf64_Sym& symbol : Records<Elf64_Sym>(SHT_DYNSYM)) {
      if (symbol.st_name != 0)
        symbols.push_back({String(symbol.st_name), symbol.st_shndx != SHN_UNDEF});
    }
    return symbols;
  }

  // The symbols whose storage the dynamic linker copies into this executable.
  std::vector<std::string> CopiedSymbols() const {
    const std::vector<Elf64_Sym> symbols = Records<Elf64_Sym>(SHT_DYNSYM);
    std::vector<std::string> names;
    for (const Elf64_Rela& relocation : Records<Elf64_Rela>(SHT_RELA)) {
      if (ELF64_R_TYPE(relocation.r_info) != R_X86_64_COPY) continue;
      names.push_back(String(symbols[ELF64_R_SYM(relocation.r_info)].st_name));
    }
    return names;
  }

 private:
  template <class T>
  const T* At(uint64_t offset) const {
    return reinterpret_cast<const T*>(bytes_.data() + offset);
  }
  template <class T>
  std::vector<T> Copy(uint64_t offset, uint64_t count) const {
    if (offset + count * sizeof(T) > bytes_.size()) throw std::runtime_error("the file is cut short");
    return std::vector<T>(At<T>(offset), At<T>(offset) + count);
  }

  const Elf64_Shdr* Section(uint32_t type) const {
    for (const Elf64_Shdr& section : sections_) {
      if (section.sh_type == type) return &section;
    }
    return nullptr;
  }

  // In the dynamic string table, which is the one that the dynamic section names.
  std::string String(uint64_t offset) const {
    return At<char>(sections_[Section(SHT_DYNAMIC)->sh_link].sh_offset + offset);
  }

  std::string bytes_;
  std::vector<Elf64_Phdr> segments_;
  std::vector<Elf64_Shdr> sections_;
};

}  // namespace qvtest

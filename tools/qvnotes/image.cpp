// Reading images with libelf. Design: tools/qvnotes/image.h.
#include "tools/qvnotes/image.h"

#include <errno.h>
#include <fcntl.h>
#include <gelf.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace qvnotes {
namespace {

constexpr char kSectionName[] = ".ubq_notify_tab";

[[noreturn]] void Fail(const std::string& message) { throw std::runtime_error(message); }

class File {
 public:
  explicit File(const std::string& path) : descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (descriptor_ == -1) Fail(strerror(errno));
  }
  ~File() { close(descriptor_); }
  int Descriptor() const { return descriptor_; }

 private:
  const int descriptor_;
};

uint64_t LowestLoadedAddress(Elf* elf) {
  size_t count = 0;
  if (elf_getphdrnum(elf, &count) != 0) Fail("damaged: its program headers cannot be read");
  uint64_t lowest = UINT64_MAX;
  for (size_t i = 0; i < count; i++) {
    GElf_Phdr header;
    if (gelf_getphdr(elf, int(i), &header) == nullptr) Fail("damaged: a program header is outside");
    if (header.p_type == PT_LOAD) lowest = std::min<uint64_t>(lowest, header.p_vaddr);
  }
  return lowest == UINT64_MAX ? 0 : lowest;
}

// Null if there is none.
Elf_Scn* FindSection(Elf* elf, GElf_Shdr& header) {
  size_t names = 0;
  if (elf_getshdrstrndx(elf, &names) != 0) Fail("damaged: it has no table of section names");
  for (Elf_Scn* s = elf_nextscn(elf, nullptr); s != nullptr; s = elf_nextscn(elf, s)) {
    if (gelf_getshdr(s, &header) == nullptr) Fail("damaged: a section header is outside");
    const char* const name = elf_strptr(elf, names, header.sh_name);
    if (name != nullptr && strcmp(name, kSectionName) == 0) return s;
  }
  return nullptr;
}

void ReadSection(Elf* elf, Image& image) {
  GElf_Shdr header;
  Elf_Scn* const section = FindSection(elf, header);
  if (section == nullptr) return;
  if (header.sh_type == SHT_NOBITS) Fail("damaged: its section .ubq_notify_tab has no contents");
  const Elf_Data* const data = elf_rawdata(section, nullptr);
  if (data == nullptr || data->d_size != header.sh_size || (data->d_size != 0 && !data->d_buf)) {
    Fail("damaged: its section .ubq_notify_tab reaches beyond the file");
  }
  const unsigned char* const bytes = static_cast<const unsigned char*>(data->d_buf);
  image.section.assign(bytes, bytes + data->d_size);
  image.sectionAddress = header.sh_addr;
  image.hasSection = true;
}

}  // namespace

Image ReadImage(const std::string& path) {
  const File file(path);
  elf_version(EV_CURRENT);
  const std::unique_ptr<Elf, int (*)(Elf*)> elf(elf_begin(file.Descriptor(), ELF_C_READ, nullptr),
                                                elf_end);
  if (elf == nullptr || elf_kind(elf.get()) != ELF_K_ELF) Fail("is no ELF image");
  if (gelf_getclass(elf.get()) != ELFCLASS64) Fail("is no 64-bit ELF image");
  Image image;
  ReadSection(elf.get(), image);
  image.base = LowestLoadedAddress(elf.get());
  return image;
}

}  // namespace qvnotes

// Images and regions. Design: collectors/qvheap/modules.h.
#include "collectors/qvheap/modules.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <string.h>
#include <sys/stat.h>

#include "collectors/qvheap/census.h"
#include "collectors/qvheap/heap.h"
#include "collectors/qvheap/life.h"
#include "collectors/qvheap/profile.h"
#include "collectors/qvheap/room.h"

namespace qvheap {
namespace {

constexpr uint64_t kLargestRegion = uint64_t{1} << 27;
constexpr uint64_t kLongestRegion = uint64_t{1} << 32;  // longer ones would take very many blocks
constexpr uint32_t kSlabsForRegion = 4;

constinit QV_SPIN_LOCK g_modulesLock = {};  // around the library's module table, and all that follows
constinit Module* g_modules = nullptr;
constinit Region* g_regionList = nullptr;
constinit QV_RANGE_TABLE* g_regions = nullptr;

uint64_t AddressOf(const void* pointer) { return reinterpret_cast<uint64_t>(pointer); }

const unsigned char* IdentityOf(const struct dl_find_object& object) {
  return reinterpret_cast<const unsigned char*>(object.dlfo_link_map);
}

// ---- What is known of an image ---------------------------------------------------------------------

const char* PathOf(const struct dl_find_object& object) {
  const char* const name = object.dlfo_link_map->l_name;
  return name != nullptr && *name != 0 ? name : g_process.program;
}

// The note in [note, end), or null.
const unsigned char* FindBuildId(const unsigned char* note, const unsigned char* end, uint32_t& bytes) {
  while (end - note >= ptrdiff_t(sizeof(Elf64_Nhdr))) {
    Elf64_Nhdr head;
    memcpy(&head, note, sizeof head);
    const uint64_t nameBytes = (uint64_t{head.n_namesz} + 3) & ~uint64_t{3};
    const uint64_t textBytes = (uint64_t{head.n_descsz} + 3) & ~uint64_t{3};
    if (uint64_t(end - note) < sizeof head + nameBytes + textBytes) return nullptr;
    const unsigned char* const text = note + sizeof head + nameBytes;
    if (head.n_type == NT_GNU_BUILD_ID && head.n_namesz == 4 &&
        memcmp(text - nameBytes, "GNU", 4) == 0) {
      bytes = head.n_descsz;
      return text;
    }
    note = text + textBytes;
  }
  return nullptr;
}

// From the program headers in memory: the first page of an image holds them, as linkers lay it out.
void ReadBuildId(Module& module) {
  const unsigned char* const image = reinterpret_cast<const unsigned char*>(module.start);
  Elf64_Ehdr head;
  if (module.end - module.start < 4096) return;
  memcpy(&head, image, sizeof head);
  if (memcmp(head.e_ident, ELFMAG, SELFMAG) != 0 || head.e_phentsize != sizeof(Elf64_Phdr)) return;
  if (head.e_phoff + head.e_phnum * sizeof(Elf64_Phdr) > 4096) return;
  for (uint32_t i = 0; i < head.e_phnum; i++) {
    Elf64_Phdr part;
    memcpy(&part, image + head.e_phoff + i * sizeof part, sizeof part);
    const uint64_t start = module.bias + part.p_vaddr;
    if (part.p_type != PT_NOTE || start < module.start || start + part.p_memsz > module.end) continue;
    const unsigned char* const note = reinterpret_cast<const unsigned char*>(start);
    uint32_t bytes = 0;
    const unsigned char* const id = FindBuildId(note, note + part.p_memsz, bytes);
    if (id == nullptr) continue;
    module.buildIdBytes = bytes < sizeof module.buildId ? bytes : uint32_t(sizeof module.buildId);
    memcpy(module.buildId, id, module.buildIdBytes);
    return;
  }
}

void ReadFile(Module& module) {
  struct stat status;
  if (stat(module.path, &status) != 0) return;
  module.fileBytes = uint64_t(status.st_size);
  module.modifiedNanoseconds =
      uint64_t(status.st_mtim.tv_sec) * 1000000000 + uint64_t(status.st_mtim.tv_nsec);
}

// ---- Loads and unloads -----------------------------------------------------------------------------

void AddModuleLocked(const struct dl_find_object& object) {
  const char* const path = PathOf(object);
  Module* const module = static_cast<Module*>(Allocate(kRoomModules, sizeof(Module) + strlen(path)));
  const Provision provision(1);
  if (module == nullptr || !provision.Granted()) return __QvFree(module);
  memset(static_cast<void*>(module), 0, sizeof *module);
  module->next = g_modules;
  module->start = AddressOf(object.dlfo_map_start);
  module->end = AddressOf(object.dlfo_map_end);
  module->bias = object.dlfo_link_map->l_addr;
  module->from = g_epoch;
  module->isThere = true;
  module->identity = IdentityOf(object);
  strcpy(module->path, path);
  ReadFile(*module);
  ReadBuildId(*module);
  __QvLoadModule(AddressOf(module), module->start, module->end);
  __atomic_store_n(&g_modules, module, __ATOMIC_RELEASE);
}

// Is what was there then, there now?
bool IsStillThere(const Module& module) {
  struct dl_find_object object;
  return _dl_find_object(reinterpret_cast<void*>(module.start + 1), &object) == 0 &&
         IdentityOf(object) == module.identity && AddressOf(object.dlfo_map_start) == module.start &&
         strcmp(PathOf(object), module.path) == 0;
}

void DropUnloadedLocked() {
  bool dropped = false;
  for (Module* module = g_modules; module != nullptr; module = module->next) {
    if (!module->isThere || IsStillThere(*module)) continue;
    __QvUnloadModule(AddressOf(module), module->start);
    module->to = g_epoch;
    module->isThere = false;
    dropped = true;
  }
  if (dropped) Store(g_epoch, g_epoch + 1);
}

// ---- Regions ---------------------------------------------------------------------------------------

void AddRegionLocked(uint64_t address) {
  const Provision provision(kSlabsForRegion);
  if (!provision.Granted()) return;
  uint64_t end = 0;
  const uint64_t start = __QvGetModuleAddressRange(address, &end);
  if (start == 0 || end - start > kLongestRegion) return;
  if (g_regions == nullptr) {
    g_regions = __QvCreateRangeTable(kLargestRegion, LibraryCategory(kRoomModules), 0,
                                     QV_RANGE_TABLE_UNSHARED_BLOCKS, nullptr);
  }
  // The map has changed since an older region was looked up: what is there now goes before.
  __QvDestroyRangeTableSpan(g_regions, start, end - start, nullptr, nullptr);
  Region* const region =
      static_cast<Region*>(__QvMalloc(LibraryCategory(kRoomModules), sizeof *region, 0));
  *region = {g_regionList, start, end};
  __QvInsertRangeTableEntry(g_regions, start, end, AddressOf(region));
  __atomic_store_n(&g_regionList, region, __ATOMIC_RELEASE);
}

// ---- Frames ----------------------------------------------------------------------------------------

bool IsKnownLocked(uint64_t address, const struct dl_find_object& object) {
  uint64_t handle = 0;
  __QvGetModuleForVariable(address, &handle);
  const Module* const module = reinterpret_cast<const Module*>(handle);
  return module != nullptr && module->identity == IdentityOf(object) &&
         module->start == AddressOf(object.dlfo_map_start);
}

void NoticeFrameLocked(uint64_t address) {
  struct dl_find_object object;
  if (_dl_find_object(reinterpret_cast<void*>(address), &object) != 0) {
    uint64_t start = 0, end = 0;
    __QvLookupRangeTable(g_regions, address, &start, &end);
    if (end == 0) AddRegionLocked(address);
    return;
  }
  if (IsKnownLocked(address, object)) return;
  DropUnloadedLocked();
  AddModuleLocked(object);
}

}  // namespace

constinit uint32_t g_epoch = 0;

bool NoticeModules(void* const* frames, uint32_t depth, uint32_t epoch) {
  const SpinGuard guard(g_modulesLock);
  for (uint32_t i = 0; i < depth; i++) NoticeFrameLocked(AddressOf(frames[i]));
  return g_epoch == epoch;
}

void NoticeUnloads() {
  const SpinGuard guard(g_modulesLock);
  DropUnloadedLocked();
}

// Its map is another one from now on; images are where they were.
void ForgetRegions() {
  __QvInitializeSpinLock(&g_modulesLock);
  g_regionList = nullptr;
  __QvScanAndEmptyRangeTable(g_regions);
}

const Module* FirstModule() { return __atomic_load_n(&g_modules, __ATOMIC_ACQUIRE); }
const Region* FirstRegion() { return __atomic_load_n(&g_regionList, __ATOMIC_ACQUIRE); }

}  // namespace qvheap

// The destructors of what is closed run inside the call, as the program's.
__attribute__((visibility("default"))) int dlclose(void* handle) noexcept {
  using namespace qvheap;
  if (QVHEAP_UNLIKELY(g_real.dlclose == nullptr)) EnterSlow();
  const int result = g_real.dlclose(handle);
  if (!t_inside) ProgramClosedImage();
  return result;
}

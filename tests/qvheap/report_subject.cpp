// A program that is its own collector: it takes stacks at known places and writes them as a results file,
// qvheap.<pid>.xml in the current directory, with the images that are really mapped. So a report of it has
// to find names and lines that the compiler chose, under whatever options it was built with. On standard
// output it tells the lines at which its functions make their calls.
#include <elf.h>
#include <execinfo.h>
#include <link.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

struct TakenSite {
  std::vector<void*> stack;
  long blocks, bytes;
};
std::vector<TakenSite> g_sites;
volatile int g_kept;  // keeps calls from being in the place of a return

}  // namespace

namespace shop {

void Allocate(long blocks, long bytes);
void Descend(int levels);

// What an allocation's wrapper would do.
[[gnu::noinline]] void Allocate(long blocks, long bytes) {
  void* stack[64];
  const int depth = backtrace(stack, 64);
  g_sites.push_back({std::vector<void*>(stack + 1, stack + depth), blocks, bytes});
  g_kept = g_kept + 1;
}

[[gnu::always_inline]] inline void Stock(long bytes) {
  printf("Stock %d\n", __LINE__ + 1);
  Allocate(1, bytes);
  g_kept = g_kept + 1;
}

template <class T>
[[gnu::noinline]] void Fill(const T& times) {
  printf("Fill %d\n", __LINE__ + 1);
  Stock(1000 * times);
  g_kept = g_kept + 1;
}

[[gnu::noinline]] void Descend(int levels) {
  if (levels == 0) Allocate(7, 50);
  if (levels != 0) Descend(levels - 1);
  g_kept = g_kept + 1;
}

}  // namespace shop

namespace {

[[gnu::noinline]] void Hidden() {
  shop::Allocate(2, 300);
  g_kept = g_kept + 1;
}

std::string BuildIdOf(const dl_phdr_info* image) {
  std::string id;
  for (int i = 0; i < image->dlpi_phnum; i++) {
    const ElfW(Phdr)& header = image->dlpi_phdr[i];
    if (header.p_type != PT_NOTE) continue;
    const char* at = reinterpret_cast<const char*>(image->dlpi_addr + header.p_vaddr);
    const char* const end = at + header.p_memsz;
    while (at + sizeof(ElfW(Nhdr)) <= end) {
      ElfW(Nhdr) note;
      memcpy(&note, at, sizeof note);
      const char* const name = at + sizeof note;
      const char* const bytes = name + ((note.n_namesz + 3) & ~3u);
      at = bytes + ((note.n_descsz + 3) & ~3u);
      if (note.n_type != NT_GNU_BUILD_ID || strcmp(name, "GNU") != 0) continue;
      for (unsigned k = 0; k < note.n_descsz; k++) {
        char digits[4];
        snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(bytes[k]));
        id += digits;
      }
    }
  }
  return id;
}

int WriteModule(dl_phdr_info* image, size_t, void* context) {
  FILE* const file = static_cast<FILE*>(context);
  uint64_t start = UINT64_MAX, end = 0;
  for (int i = 0; i < image->dlpi_phnum; i++) {
    const ElfW(Phdr)& header = image->dlpi_phdr[i];
    if (header.p_type != PT_LOAD) continue;
    start = std::min<uint64_t>(start, image->dlpi_addr + header.p_vaddr);
    end = std::max<uint64_t>(end, image->dlpi_addr + header.p_vaddr + header.p_memsz);
  }
  char own[4096] = {};
  if (image->dlpi_name[0] == 0 && readlink("/proc/self/exe", own, sizeof own - 1) < 0) abort();
  const char* const path = image->dlpi_name[0] == 0 ? own : image->dlpi_name;
  struct stat status = {};
  stat(path, &status);
  const int64_t modified = status.st_mtim.tv_sec * 1'000'000'000L + status.st_mtim.tv_nsec;
  fprintf(file, "<module start='%lx' end='%lx' bias='%lx' from='0' bytes='%ld' modified='%ld'", start,
          end, uint64_t{image->dlpi_addr}, status.st_size, modified);
  const std::string id = BuildIdOf(image);
  if (!id.empty()) fprintf(file, " buildId='%s'", id.c_str());
  fprintf(file, ">%s</module>\n", path);
  return 0;
}

void WriteSite(FILE* file, size_t id, const TakenSite& site) {
  fprintf(file, "<site id='%zu' epoch='0'><stack>", id);
  for (void* const address : site.stack) fprintf(file, "%lx ", reinterpret_cast<uint64_t>(address));
  fprintf(file,
          "</stack><samples>%ld</samples><allocations>%ld</allocations><releases>0</releases>"
          "<bytesAllocated>%ld</bytesAllocated><bytesReleased>0</bytesReleased>"
          "<liveBlocks>%ld</liveBlocks><liveBytes>%ld</liveBytes><peakBytes>%ld</peakBytes>"
          "<liveAtPeakBytes>%ld</liveAtPeakBytes>"
          "<lifetimes within1ms='0' within1s='0' longer='0' never='%ld'/><threads count='1'/></site>\n",
          site.blocks, site.blocks, site.bytes, site.blocks, site.bytes, site.bytes, site.bytes,
          site.blocks);
}

void WriteResults() {
  char own[4096] = {};
  if (readlink("/proc/self/exe", own, sizeof own - 1) < 0) abort();
  FILE* const file = fopen(("qvheap." + std::to_string(getpid()) + ".xml").c_str(), "w");
  long blocks = 0, bytes = 0;
  for (const TakenSite& site : g_sites) blocks += site.blocks, bytes += site.bytes;
  fprintf(file,
          "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<heap version='2.0' pid='%d' kind='end'>\n",
          int(getpid()));
  fprintf(file, "<program>%s</program><mode>exact</mode><intervalBytes>1</intervalBytes>\n", own);
  fprintf(
      file,
      "<process><liveBlocks>%ld</liveBlocks><liveBytes>%ld</liveBytes><allocations>%ld</allocations>"
      "<releases>0</releases><bytesAllocated>%ld</bytesAllocated><peakBytes>%ld</peakBytes>"
      "</process>\n<modules>\n",
      blocks, bytes, blocks, bytes, bytes);
  dl_iterate_phdr(WriteModule, file);
  fprintf(file, "</modules>\n<sites count='%zu' folded='0'>\n", g_sites.size());
  for (size_t i = 0; i < g_sites.size(); i++) WriteSite(file, i + 1, g_sites[i]);
  fprintf(file, "</sites></heap>\n");
  fclose(file);
}

}  // namespace

int main(int count, char**) {
  shop::Fill<int>(count);  // 1000 bytes for each word of the command line
  shop::Descend(5);
  Hidden();
  WriteResults();
  return 0;
}

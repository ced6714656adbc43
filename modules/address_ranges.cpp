// Memory mappings around an address, read from the process's maps file.
//
// Meant for rare calls: each reads the file from its start. The lines are taken apart in a buffer of
// the library's, under the maps lock, so that nothing is allocated and little of a borrowed stack is
// used.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "runtime/waiter.h"

namespace {

// Process-wide state.
constinit uint32_t g_mapsLock = 0;
constinit char g_mapsBuffer[4096];  // under g_mapsLock

// Bytes of a file, one after the other.
class ByteReader {
 public:
  explicit ByteReader(int descriptor) : descriptor_(descriptor) {}
  int Next() {  // -1 at the end
    if (at_ == count_ && !Fill()) return -1;
    return static_cast<unsigned char>(g_mapsBuffer[at_++]);
  }

 private:
  bool Fill() {
    at_ = 0;
    count_ = read(descriptor_, g_mapsBuffer, sizeof g_mapsBuffer);
    return count_ > 0;
  }

  const int descriptor_;
  ssize_t at_ = 0, count_ = 0;
};

struct Mapping {
  uint64_t first, last;
};

int HexDigit(int c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// A hexadecimal number and the byte behind it. False if there is no digit.
bool ReadHex(ByteReader& bytes, uint64_t& value, int& behind) {
  value = 0;
  bool any = false;
  for (;;) {
    behind = bytes.Next();
    const int digit = HexDigit(behind);
    if (digit < 0) return any;
    value = value << 4 | uint64_t(digit);
    any = true;
  }
}

// The next line that begins with two addresses; others are skipped. False at the end of the file.
bool ReadMapping(ByteReader& bytes, Mapping& mapping) {
  for (;;) {
    int behind;
    const bool parsed =
        ReadHex(bytes, mapping.first, behind) && behind == '-' && ReadHex(bytes, mapping.last, behind);
    while (behind != '\n' && behind != -1) behind = bytes.Next();
    if (parsed) return true;
    if (behind == -1) return false;
  }
}

// Stores the mapping that contains the address (its last address included); else leaves the outputs.
void FindMappingContaining(uint64_t address, uint64_t* startOut, uint64_t* endOut) {
  if (startOut == nullptr || endOut == nullptr) return;
  char path[32];
  snprintf(path, sizeof path, "/proc/%d/maps", int(__QvGetPid()));
  const qv::GuardWord guard(g_mapsLock);
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return;
  ByteReader bytes(descriptor);
  for (Mapping mapping; ReadMapping(bytes, mapping);) {
    if (address < mapping.first || address > mapping.last) continue;
    *startOut = mapping.first;
    *endOut = mapping.last;
    break;
  }
  close(descriptor);
}

}  // namespace

uint64_t __QvGetModuleAddressRange(uint64_t address, uint64_t* endOut) {
  uint64_t start = 0;
  FindMappingContaining(address, &start, endOut);
  return start;
}

uint64_t __QvGetThreadStackBaseAndSize(uint64_t address, uint64_t* baseOut) {
  if (baseOut == nullptr) return 0;
  uint64_t start = 0;
  *baseOut = 0;
  FindMappingContaining(address, &start, baseOut);
  return *baseOut - start;
}

uint64_t __QvGetImageOffsetFromPreferredAddress(void) { return 0; }

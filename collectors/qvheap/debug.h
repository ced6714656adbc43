// The debug dump channels of qvheap, for the library's dump calls: what -dump selects by name.
#pragma once

#include <stdint.h>

namespace qvheap {

// Places in the map.
enum DumpChannel : uint32_t {
  kDumpNone,
  kDumpFork,
  kDumpSites,
  kDumpModules,
  kDumpChannel,
  kDumpSnapshot,
  kDumpSampling,
  kDumpAll
};

// Registers the map and selects the channels of the list; false if it names one that is none, and then
// nothing is selected.
bool SelectDumpChannels(const char* list);
// The names, with commas between them.
extern const char kDumpChannelNames[];

}  // namespace qvheap

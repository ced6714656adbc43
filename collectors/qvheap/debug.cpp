// The map of debug dump channels. Design: collectors/qvheap/debug.h.
#include "collectors/qvheap/debug.h"

#include "include/qvrt.h"

namespace qvheap {
namespace {

constexpr QV_DEBUG_CHANNEL kMap[] = {
    {0x00, "NONE"},     {0x01, "FORK"},     {0x02, "SITES"}, {0x04, "MODULES"}, {0x08, "CHANNEL"},
    {0x10, "SNAPSHOT"}, {0x20, "SAMPLING"}, {0x3F, "ALL"},   {0, nullptr},
};

}  // namespace

const char kDumpChannelNames[] = "FORK, SITES, MODULES, CHANNEL, SNAPSHOT, SAMPLING, ALL, NONE";

bool SelectDumpChannels(const char* list) {
  __QvDbgRegisterDbgMap(kMap);
  if (__QvParseDbgDumpOption(list) != 0) return true;
  __QvParseDbgDumpOption("0x0");
  return false;
}

}  // namespace qvheap

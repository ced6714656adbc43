// Debug dump channels, inside view: which topics are on, and how a dump call finds out at once.
//
//   g_dump.map -> | mask, name | mask, name | ... `count` entries, the tool's or ours
//   g_dump.mask     bits of the topics that are on
//
// The exported call is variadic, and a compiler stores all argument registers of a variadic function
// before its first statement runs: seventeen stores for a channel that is off. So the call is a gate of
// eight instructions that touches no argument register. It returns, or jumps to DumpMessage, which then
// finds everything as the caller left it.
//
// Plain words without order: a tool registers its map and parses its option before threads dump.
#pragma once

#include "runtime/base.h"

namespace qv {

struct DumpState {
  const QV_DEBUG_CHANNEL* map;
  uint32_t count;
  uint32_t mask;
};
extern DumpState g_dump __asm__("qv_g_dump");  // named for the gate

// Writes the message; the channel is on.
QV_COLD void DumpMessage(uint32_t channel, const char* format, ...) __asm__("qv_DumpMessage")
    __attribute__((format(printf, 2, 3)));

}  // namespace qv

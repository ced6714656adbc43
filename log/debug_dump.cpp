// Debug dump channels: the built-in map, the option's grammar, the gate. Design: log/debug_dump.h.
#include "log/debug_dump.h"

#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "log/report.h"
#include "runtime/hooks.h"

static_assert(sizeof(QV_DEBUG_CHANNEL) == 16 && offsetof(QV_DEBUG_CHANNEL, name) == 8);

namespace qv {
namespace {

// Bits of groups are the unions of their members'.
constexpr QV_DEBUG_CHANNEL kBuiltInMap[] = {
    {0x0, "NONE"},
    {0x1, "API"},
    {0x2, "CAL"},
    {0x4, "MEM"},
    {0x8, "BUF"},
    {0x10, "MOD"},
    {0x20, "CFG"},
    {0x40, "MIC"},
    {0x80, "ZCA"},
    {0x100, "SCR"},
    {0x1FF, "QVCORE"},
    {0x200, "TRC"},
    {0x400, "IMG"},
    {0x800, "RTN"},
    {0x1000, "BBL"},
    {0x2000, "INS"},
    {0x4000, "THR"},
    {0x8000, "RTL"},
    {0x10000, "TRA"},
    {0x1FE00, "QVET"},
    {0x20000, "DOTNET_GC"},
    {0x40000, "DOTNET_API"},
    {0x80000, "DOTNET_MEM"},
    {0x100000, "DOTNET_JIT"},
    {0x200000, "DOTNET_GEN"},
    {0x3E0000, "DOTNET"},
    {0x3FFFFF, "ALL"},
};
constexpr uint32_t kBuiltInCount = sizeof kBuiltInMap / sizeof kBuiltInMap[0];

constexpr char kNegation[] = "no-";
constexpr size_t kNegationLength = sizeof kNegation - 1;
constexpr size_t kLineBytes = 1024;

}  // namespace

// Process-wide state.
constinit DumpState g_dump = {kBuiltInMap, kBuiltInCount, 0};

namespace {

// A piece of the option's text, not ended by NUL.
struct Word {
  const char* text;
  size_t length;
};

// What an item names: an entry to add, or with `negated` to take away; null if there is none.
struct Selection {
  const QV_DEBUG_CHANNEL* channel;
  bool negated;
};

bool Begins(const char* name, Word word) { return strncasecmp(name, word.text, word.length) == 0; }

// The entry itself, or a later one of exactly that name: else a name that begins another, earlier one
// could never be selected. An empty word is no name: it means the first entry on any map.
const QV_DEBUG_CHANNEL* PreferWholeName(const QV_DEBUG_CHANNEL* first, Word word) {
  if (word.length == 0) return first;
  const QV_DEBUG_CHANNEL* const end = g_dump.map + g_dump.count;
  for (const QV_DEBUG_CHANNEL* channel = first; channel != end; channel++) {
    if (Begins(channel->name, word) && channel->name[word.length] == 0) return channel;
  }
  return first;
}

// What the item takes away if it is a negation; else an empty word. "no-" alone is a name.
Word NegatedWord(Word item) {
  if (item.length <= kNegationLength || !Begins(item.text, {kNegation, kNegationLength}))
    return {"", 0};
  return {item.text + kNegationLength, item.length - kNegationLength};
}

// Each entry is tried for the item as it stands, then for what it negates, before the next one.
Selection Select(Word item) {
  const Word negated = NegatedWord(item);
  for (uint32_t i = 0; i < g_dump.count; i++) {
    const QV_DEBUG_CHANNEL* const channel = &g_dump.map[i];
    if (Begins(channel->name, item)) return {PreferWholeName(channel, item), false};
    if (negated.length != 0 && Begins(channel->name, negated)) {
      return {PreferWholeName(channel, negated), true};
    }
  }
  return {nullptr, false};
}

bool ApplyItem(Word item) {
  const Selection selection = Select(item);
  if (selection.channel == nullptr) return false;
  const uint64_t mask = selection.channel->mask;
  if (selection.negated) {
    g_dump.mask &= ~uint32_t(mask);
  } else {
    g_dump.mask = mask == 0 ? 0 : g_dump.mask | uint32_t(mask);
  }
  return true;
}

bool ParseItems(const char* text) {
  while (*text != 0) {
    const Word item = {text, strcspn(text, ",")};
    if (!ApplyItem(item)) return false;
    text += item.length;
    if (*text == ',') text++;
  }
  return true;
}

// Behind the '0'.
bool ParseHexadecimal(const char* text) {
  unsigned mask = 0;
  if ((*text != 'x' && *text != 'X') || sscanf(text + 1, "%x", &mask) != 1) return false;
  g_dump.mask = mask == 0 ? 0 : g_dump.mask | mask;
  return true;
}

}  // namespace

void DumpMessage(uint32_t channel, const char* format, ...) {
  if (format == nullptr) return;
  char line[kLineBytes];
  va_list arguments;
  va_start(arguments, format);
  if (vsnprintf(line, kLineBytes - 1, format, arguments) < 0) line[0] = 0;
  va_end(arguments);
  LogComment("[%-4s] [%-5d] %s", g_dump.map[channel].name, int(NativeThreadId()), line);
}

// The gate, under the exported name. Without parameters, so that no compiler stores any; r10 and r11
// are the registers that no call passes anything in. 8 and 12 are offsets in DumpState, 4 is log2 of an
// entry's size, the entry's mask is its first field.
static_assert(offsetof(DumpState, count) == 8 && offsetof(DumpState, mask) == 12);
QV_API void DumpGate() __asm__("__QvDbgMessageDumpInternal");
__attribute__((naked)) void DumpGate() {
  __asm__(
      "cmp qv_g_dump+8(%rip), %edi\n\t"
      "jae 1f\n\t"
      "mov %edi, %r10d\n\t"
      "shl $4, %r10\n\t"
      "add qv_g_dump(%rip), %r10\n\t"
      "mov qv_g_dump+12(%rip), %r11d\n\t"
      "test %r11d, (%r10)\n\t"
      "jnz qv_DumpMessage\n"
      "1:\tret");
}

}  // namespace qv

uint32_t __QvDbgRegisterDbgMap(const QV_DEBUG_CHANNEL* map) {
  if (map == nullptr) return 0;
  uint32_t count = 0;
  while (count < QV_DEBUG_CHANNELS && map[count].name != nullptr) count++;
  qv::g_dump.map = map;
  qv::g_dump.count = count;
  return 1;
}

uint32_t __QvParseDbgDumpOption(const char* text) {
  if (text == nullptr) return 0;
  return (*text == '0' ? qv::ParseHexadecimal(text + 1) : qv::ParseItems(text)) ? 1 : 0;
}

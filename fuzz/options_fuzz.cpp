// Fuzz target: command lines and debug dump options.
//
//   dTEXT        TEXT is a debug dump option; then every channel dumps TEXT
//   any other    a command line, one element a line, for a parser that exists, one that was released and
//                one that never was; then everything that reads options reads them all
//
// Each text is a block of its own, so that the address sanitizer sees a byte too many. A value that an
// option does not accept is fatal by contract: the exit handler jumps back here. Every run starts from
// empty tables and must have given all memory of the registry back when it ends.
#include <setjmp.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "log/debug_dump.h"
#include "options/registry.h"
#include "runtime/checks.h"

namespace {

// With everything given back, a slab for each size class up to 4 KB, and what the log and start-up
// hold.
constexpr uint64_t kMostBlocks = 300;

jmp_buf g_afterFatal;
uint64_t g_blocks = 0;
FILE* g_nowhere = nullptr;

void* AllocateBlock(uint64_t bytes) {
  g_blocks++;
  return malloc(bytes);
}

void FreeBlock(void* block) {
  g_blocks--;
  free(block);
}

void StartOnce() {
  static bool started = false;
  if (started) return;
  started = true;
  __QvInitializeSubAllocator(AllocateBlock, FreeBlock);
  __QvRtStartup();
  QV_CHECK(__QvCreateLogger("fuzz", "/dev/null", 0) == 1);
  g_nowhere = fopen("/dev/null", "w");
  QV_CHECK(g_nowhere != nullptr);
  __QvSetExitHandler([](int32_t) { longjmp(g_afterFatal, 1); });
}

constexpr uint32_t kParser = 0, kReleased = 1, kNeverHandedOut = 2;

void RegisterOptions() {
  __QvGetOptionParser("tool");
  __QvGetOptionParser("gone");
  __QvRegisterBooleanOption(kParser, "-verbose", "about", 0, 1, 1);
  __QvRegisterBooleanOption(kParser, "-no-cache", "about", 1, 2, 0);
  __QvRegisterIntegerOption(kParser, "-depth", "about", 5, 3, 1);
  __QvRegisterStringOption(kParser, "-name", "about", nullptr, 4, 0, 1);
  __QvRegisterStringOption(kParser, "-list", "about", "default", 5, 1, 1);
  __QvRegisterPathOption(kParser, "-dir", "about", "//a//b", 6, 0, 1);
  __QvRegisterPathOption(kParser, "-I", "about", nullptr, 7, 1, 1);
  const uint32_t level = __QvRegisterIntegerOption(kParser, "-level", "about", 1, 8, 1);
  for (int i = 0; i < 4; i++) __QvSetValidIntegerOptionArgument(kParser, level, i);
  const uint32_t mode = __QvRegisterStringEnumOption(kParser, "-mode", "about", "sum", 9, 1);
  __QvSetValidStringOptionArgumentWithEnum(kParser, mode, "summary", 1);
  __QvSetValidStringOptionArgumentWithEnum(kParser, mode, "detailed", 2);
  __QvRegisterPathOption(kReleased, "-verbose", "about", nullptr, 10, 1, 1);
  QV_CHECK(__QvReleaseOptionParserHandle(kReleased, "gone") == 1);
}

void CountCharacters(const char* value, void* total) {
  *static_cast<size_t*>(total) += std::string(value).size();
}

// The values of one option through every getter that its type allows.
void ReadOption(uint32_t id) {
  const qv::OptionRecord* const record = qv::FindOption(kParser, id);
  if (record == nullptr) return;
  const std::string text = qv::Printable(__QvGetStringOptionValue(kParser, id));
  switch (record->type) {
    case qv::OPTION_BOOLEAN: QV_CHECK(__QvGetBooleanOptionValue(kParser, id) <= 1); break;
    case qv::OPTION_INTEGER: QV_CHECK(__QvGetIntegerOptionValue(kParser, id) <= INT32_MAX); break;
    case qv::OPTION_STRING_ENUM: QV_CHECK(__QvGetStringOptionEnumValue(kParser, id) - 1 < 2); break;
    case qv::OPTION_PATH: QV_CHECK(text.find("//") == std::string::npos); break;
    default: break;
  }
  const uint32_t values = __QvGetOptionNumberOfArguments(kParser, id);
  size_t byIndex = 0, byWalk = 0;
  for (uint32_t index = 0; index <= values + 1; index++) {
    const char* const value = __QvGetStringOptionArgumentValue(kParser, id, index);
    if (value != nullptr && __QvIsOptionSet(kParser, id)) CountCharacters(value, &byIndex);
  }
  if (record->isAppend == 0) return;
  __QvProcessAppendOptionValues(kParser, id, CountCharacters, &byWalk);
  QV_CHECK(byIndex == byWalk);
}

void ParseAndRead(const std::vector<char*>& elements) {
  const uint32_t count = uint32_t(elements.size());
  for (const uint32_t parser : {kReleased, kNeverHandedOut, qv::kNone}) {
    QV_CHECK(__QvParseOptions2(parser, count, elements.data()) == (count == 0));
  }
  __QvParseOptions2(kParser, count, elements.data());
}

void RunOptions(const char* text, size_t size) {
  std::vector<char*> elements;
  for (const char* const end = text + size; text < end;) {
    const size_t length = size_t(std::find(text, end, '\n') - text);
    elements.push_back(strndup(text, length));
    text += length + 1;
  }
  RegisterOptions();
  if (setjmp(g_afterFatal) == 0) ParseAndRead(elements);
  const char* const broken = qv::ValidateOptions();
  if (broken != nullptr) fprintf(stderr, "%s\n", broken);
  QV_CHECK(broken == nullptr);
  for (uint32_t id = 0; id <= qv::OptionCount(); id++) ReadOption(id);
  __QvLogToolOptionValues(kParser);
  FILE* const standardOutput = stdout;
  stdout = g_nowhere;
  __QvPrintHelpAll(int32_t(elements.size() % 2));
  stdout = standardOutput;
  QV_CHECK(__QvReleaseOptionParserHandle(kParser, "tool of a longer name") == 1);
  QV_CHECK(qv::ValidateOptions() == nullptr);
  qv::g_optionTables = {};
  for (char* const element : elements) free(element);
  QV_CHECK(g_blocks <= kMostBlocks);
}

void RunDump(const char* text, size_t size) {
  char* const copy = strndup(text, size);
  const uint32_t former = qv::g_dump.mask;
  const uint32_t accepted = __QvParseDbgDumpOption(copy);
  const uint32_t mask = qv::g_dump.mask;
  for (uint32_t channel = 0; channel < 64; channel++) __QvDbgMessageDumpInternal(channel, "%s", copy);
  qv::g_dump.mask = former;
  QV_CHECK(__QvParseDbgDumpOption(copy) == accepted && qv::g_dump.mask == mask);
  free(copy);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  StartOnce();
  const char* const text = reinterpret_cast<const char*>(data);
  if (size != 0 && *text == 'd') {
    RunDump(text + 1, size - 1);
  } else {
    RunOptions(text, size);
  }
  return 0;
}

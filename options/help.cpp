// Help on standard output and the values in force in the message log. Both list a parser's options in
// the order of registration; a parser that is not there, or no more, has neither header nor options.
#include <stdio.h>
#include <string.h>

#include "log/report.h"
#include "memory/allocate.h"
#include "options/registry.h"

namespace qv {
namespace {

constexpr size_t kJoinedLimit = 2047;  // characters of an append option's values in the log
constexpr char kSeparator[] = ", ";    // follows every value, the last one too

const char* TruthText(int32_t value) { return value != 0 ? "true" : "false"; }

void PrintDefault(const OptionRecord& record) {
  const char* const text = record.defaultValue.stringValue;
  switch (record.type) {
    case OPTION_BOOLEAN: printf("%s\n", TruthText(record.defaultValue.intValue)); break;
    case OPTION_INTEGER: printf("%i\n", record.defaultValue.intValue); break;
    default: printf("%s\n", text == nullptr ? "none" : text); break;
  }
}

void PrintHelp(uint32_t parser, bool showAll) {
  const char* const toolName = ToolName(parser);
  if (toolName != nullptr) printf("\n%s tool options are the following:\n", toolName);
  for (uint32_t id = 0; id < OptionCount(); id++) {
    const OptionRecord* const record = FindOption(parser, id);
    if (record == nullptr || (record->showInHelp == 0 && !showAll)) continue;
    printf("   %-33s  %s default: ", record->name, record->description);
    PrintDefault(*record);
  }
  fflush(stdout);
}

// As much of the text as fits before `end`; where the next one goes.
char* PutCut(char* out, const char* end, const char* text) {
  const size_t length = strnlen(text, size_t(end - out));
  memcpy(out, text, length);
  return out + length;
}

size_t JoinedLength(const OptionRecord& record) {
  size_t length = 0;
  for (const OptionValueNode* node = record.currentValue; node != nullptr; node = node->next) {
    length += strlen(Printable(node->stringValue)) + sizeof kSeparator - 1;
    if (length >= kJoinedLimit) return kJoinedLimit;
  }
  return length;
}

// Each value and a separator, end to end, cut at the limit. A new string: in a frame, a buffer of that
// size is more than we take of a borrowed stack, and most texts are short.
char* NewJoinedValues(const OptionRecord& record) {
  const size_t length = JoinedLength(record);
  char* const text = static_cast<char*>(Allocate(kMisc, uint32_t(length + 1)));
  const char* const end = text + length;
  char* out = text;
  for (const OptionValueNode* node = record.currentValue; out < end; node = node->next) {
    out = PutCut(out, end, Printable(node->stringValue));
    out = PutCut(out, end, kSeparator);
  }
  *out = 0;
  return text;
}

void LogAppendValues(const OptionRecord& record) {
  char* const text = NewJoinedValues(record);
  LogComment("%-33s  %s", record.name, text);
  Release(text);
}

void LogValue(const OptionRecord& record) {
  const OptionValueNode& value = *record.currentValue;
  switch (record.type) {
    case OPTION_BOOLEAN: LogComment("%-33s  %s", record.name, TruthText(value.intValue)); break;
    case OPTION_INTEGER: LogComment("%-33s  %i", record.name, value.intValue); break;
    default: LogComment("%-33s  %s", record.name, Printable(value.stringValue)); break;
  }
}

void LogValues(uint32_t parser) {
  const char* const toolName = ToolName(parser);
  if (toolName != nullptr) LogComment("%s's options are the following: ", toolName);
  for (uint32_t id = 0; id < OptionCount(); id++) {
    const OptionRecord* const record = FindOption(parser, id);
    if (record == nullptr) continue;
    if (record->isAppend != 0) {
      LogAppendValues(*record);
    } else {
      LogValue(*record);
    }
  }
  fflush(stdout);
}

}  // namespace
}  // namespace qv

void __QvPrintHelp(uint32_t parser, int32_t showAll) { qv::PrintHelp(parser, showAll != 0); }

void __QvPrintHelpAll(int32_t showAll) {
  for (uint32_t parser = 0; parser < qv::ParserCount(); parser++) qv::PrintHelp(parser, showAll != 0);
}

void __QvLogToolOptionValues(uint32_t parser) { qv::LogValues(parser); }

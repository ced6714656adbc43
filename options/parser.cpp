// The command-line parser: elements in, values set, or two log entries and 0 at the first failure. What
// was set before a failure stays set.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "log/report.h"
#include "options/registry.h"

namespace qv {
namespace {

constexpr char kNegation[] = "-no-";
constexpr size_t kNegationLength = sizeof kNegation - 1;

// The part of the list that is still to be read; `left` is never 0.
struct Elements {
  uint32_t parser;
  uint32_t left;
  char* const* next;
};

// Each failure returns 0: no element was used. An unknown parser has no name, and its id no slot.
uint32_t FailOption(const char* format, const char* element, uint32_t parser) {
  const char* const toolName = ToolName(parser);
  Log(QVLOG_SEVERITY_ERROR, QVLOG_MSG_BAD_OPTION, QVLOG_ARG_STRING, Printable(element));
  LogComment(format, Printable(element), toolName == nullptr ? "(unknown)" : toolName);
  return 0;
}

uint32_t FailMissingArgument(const char* element) {
  Log(QVLOG_SEVERITY_ERROR, QVLOG_MSG_BAD_ARGUMENT, QVLOG_ARG_STRING, element);
  LogComment("No arguments for command line option: %s", element);
  return 0;
}

uint32_t FailInteger(const char* argument, const char* element) {
  Log(QVLOG_SEVERITY_ERROR, QVLOG_MSG_BAD_ARGUMENT, QVLOG_ARG_STRING, element);
  LogComment("Bad integer value: %s for command line option: %s", argument, element);
  return 0;
}

// The option of that name with the lowest id, or null.
OptionRecord* FindOptionByName(uint32_t parser, const char* name) {
  for (uint32_t id = 0; id < OptionCount(); id++) {
    OptionRecord* const record = FindOption(parser, id);
    if (record != nullptr && strcmp(record->name, name) == 0) return record;
  }
  return nullptr;
}

// A whole number from 0 to 2,147,483,647 in C's notation. One that a long cannot hold comes back as the
// largest long, which is refused too, so errno tells nothing; it is the analysed program's and is kept.
bool ParseInteger(const char* text, int32_t& value) {
  const int savedErrno = errno;
  char* end = nullptr;
  const long parsed = strtol(text, &end, 0);
  errno = savedErrno;
  if (end == text || *end != 0 || parsed < 0 || parsed > INT32_MAX) return false;
  value = int32_t(parsed);
  return true;
}

// Elements used: both, or 0 after a failure.
uint32_t ApplyArgument(OptionRecord& option, const Elements& elements) {
  const char* const element = elements.next[0];
  const char* const argument = elements.left > 1 ? elements.next[1] : nullptr;
  if (argument == nullptr || *argument == '-') return FailMissingArgument(element);
  int32_t integer = -1;
  if (option.type == OPTION_INTEGER && !ParseInteger(argument, integer)) {
    return FailInteger(argument, element);
  }
  SetOptionValue(option, option.type == OPTION_INTEGER ? nullptr : argument, integer);
  return 2;
}

// Elements used, or 0 after a failure. The minus of "no-" begins the name that a negation looks up.
uint32_t ApplyElement(const Elements& elements) {
  const char* const element = elements.next == nullptr ? nullptr : elements.next[0];
  if (element == nullptr || *element != '-') {
    return FailOption("Bad command line option: %s used with tool: %s", element, elements.parser);
  }
  const bool negated = strncmp(element, kNegation, kNegationLength) == 0;
  OptionRecord* const option =
      FindOptionByName(elements.parser, negated ? element + kNegationLength - 1 : element);
  if (option == nullptr) {
    return FailOption("Invalid command line option: %s used with tool: %s", element, elements.parser);
  }
  if (negated && option->type != OPTION_BOOLEAN) {
    return FailOption("Invalid negation for command line option: %s used with tool: %s", element,
                      elements.parser);
  }
  if (option->type != OPTION_BOOLEAN) return ApplyArgument(*option, elements);
  SetOptionValue(*option, nullptr, negated ? 0 : 1);
  return 1;
}

int32_t ParseOptions(Elements elements) {
  while (elements.left != 0) {
    const uint32_t used = ApplyElement(elements);
    if (used == 0) return 0;
    elements.next += used;
    elements.left -= used;
  }
  return 1;
}

}  // namespace
}  // namespace qv

int32_t __QvParseOptions2(uint32_t parser, uint32_t count, char* const* elements) {
  return qv::ParseOptions({parser, count, elements});
}

int32_t __QvParseOptions(uint32_t parser, uint32_t count, char* const* elements) {
  return qv::ParseOptions({parser, count, elements});
}

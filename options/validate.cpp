// The registry's invariants, walked. Design: options/registry.h.
#include "options/registry.h"

namespace qv {
namespace {

bool OwnsNothing(const OptionRecord& record) {
  return record.name == nullptr && record.description == nullptr && record.lastValue == nullptr &&
         record.validArguments == nullptr && record.defaultValue.stringValue == nullptr &&
         record.setValue.stringValue == nullptr && record.setValue.next == nullptr;
}

const char* ValidateAppendValues(const OptionRecord& record) {
  uint32_t values = 0;
  const OptionValueNode* last = nullptr;
  const OptionValueNode* node = IsSet(record) ? &record.setValue : nullptr;
  for (; node != nullptr; node = node->next) {
    if (node->intValue != -1 || node->stringValue == nullptr) return "a value that is no string";
    last = node;
    values++;
  }
  if (last != record.lastValue) return "lastValue is not the last value";
  return values == record.argumentCount ? nullptr : "argumentCount is not the number of values";
}

const char* ValidateSingleValue(const OptionRecord& record) {
  if (record.setValue.next != nullptr) return "several values, but no append option";
  if (record.argumentCount != uint32_t{IsSet(record)}) return "argumentCount of a single value";
  const bool string = record.type >= OPTION_STRING;
  if ((record.setValue.stringValue != nullptr) != (string && IsSet(record)))
    return "set value's string";
  return (record.lastValue == &record.setValue) == (string && IsSet(record)) ? nullptr : "lastValue";
}

const char* ValidateLiveOption(const OptionRecord& record) {
  if (record.name == nullptr || *record.name != '-') return "a name without '-'";
  if (record.description == nullptr) return "no description";
  if (ToolName(record.parserId) == nullptr) return "the parser is gone";
  if (record.currentValue != &record.defaultValue && !IsSet(record)) return "currentValue, by (3)";
  if (record.isAppend != 0 && record.type != OPTION_STRING && record.type != OPTION_PATH) {
    return "an append option of another type";
  }
  const bool restricted = record.validArguments != nullptr;
  if (restricted &&
      (record.isAppend != 0 || record.type == OPTION_BOOLEAN || record.type == OPTION_PATH)) {
    return "valid arguments, against (5)";
  }
  return record.isAppend != 0 ? ValidateAppendValues(record) : ValidateSingleValue(record);
}

}  // namespace

const char* ValidateOptions() {
  if (ParserCount() > kOptionParsers || OptionCount() > kOptions) return "a count beyond its table";
  for (uint32_t id = 0; id < kOptions; id++) {
    const OptionRecord& record = g_optionTables.options[id];
    const char* reason = nullptr;
    if (record.currentValue == nullptr) {
      reason = OwnsNothing(record) ? nullptr : "a free slot that owns something";
    } else {
      reason = id < OptionCount() ? ValidateLiveOption(record) : "a record beyond the count";
    }
    if (reason != nullptr) return reason;
  }
  return nullptr;
}

}  // namespace qv

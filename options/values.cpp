// What tools read back: values, their number, names, flags. Strings are handed out as they are stored.
#include "log/report.h"
#include "options/registry.h"

namespace qv {
namespace {

// The index-th value, counted from 1, or null. An option that is not set has its default as the first.
const char* IndexedString(const OptionRecord& record, uint32_t index) {
  if (index == 0 || (IsSet(record) && index > record.argumentCount)) {
    LogError("Option %s does not have an argument #%d", record.name, int(index));
    return nullptr;
  }
  const OptionValueNode* node = record.currentValue;
  while (--index != 0 && node != nullptr) node = node->next;
  return node == nullptr ? nullptr : node->stringValue;
}

// All is looked at again for each value: a callback that adds one has it visited too, and one that
// releases the parser has left no values to go on with, which is a defect of the tool.
void ProcessAppendValues(uint32_t parser, uint32_t option, QV_OPTION_VALUE_CALLBACK callback,
                         void* context) {
  const OptionValueNode* node = nullptr;
  for (uint32_t visited = 0; visited < g_optionTables.options[option].argumentCount; visited++) {
    const OptionRecord& record = RequireOption(parser, option);
    node = node == nullptr ? &record.setValue : node->next;
    callback(node->stringValue, context);
  }
}

void RequireAppendOption(uint32_t parser, uint32_t option) {
  const OptionRecord* const record = FindOption(parser, option);
  if (record == nullptr) {
    LogFatalToolDefect(
        "A valid option id and parser id must be specified to check if an option is sets");
  }
  if (record->isAppend == 0) {
    LogFatalToolDefect("A iterator can be applied only to string and path append options.");
  }
}

}  // namespace
}  // namespace qv

uint32_t __QvGetBooleanOptionValue(uint32_t parser, uint32_t option) {
  return uint32_t(qv::RequireOption(parser, option, qv::OPTION_BOOLEAN).currentValue->intValue);
}

uint32_t __QvGetIntegerOptionValue(uint32_t parser, uint32_t option) {
  return uint32_t(qv::RequireOption(parser, option, qv::OPTION_INTEGER).currentValue->intValue);
}

const char* __QvGetStringOptionValue(uint32_t parser, uint32_t option) {
  return qv::RequireOption(parser, option).currentValue->stringValue;
}

const char* __QvGetPathOptionValue(uint32_t parser, uint32_t option) {
  return qv::RequireOption(parser, option, qv::OPTION_PATH).currentValue->stringValue;
}

uint32_t __QvGetStringOptionEnumValue(uint32_t parser, uint32_t option) {
  const qv::OptionRecord& record = qv::RequireOption(parser, option, qv::OPTION_STRING_ENUM);
  const char* const text = record.currentValue->stringValue;
  const qv::OptionValueNode* const node =
      text == nullptr ? nullptr : qv::FindValidArgument(record, text);
  return node == nullptr ? qv::kNone : uint32_t(node->intValue);
}

const char* __QvGetStringOptionArgumentValue(uint32_t parser, uint32_t option, uint32_t index) {
  return qv::IndexedString(qv::RequireOption(parser, option), index);
}

const char* __QvGetPathOptionArgumentValue(uint32_t parser, uint32_t option, uint32_t index) {
  return qv::IndexedString(qv::RequireOption(parser, option, qv::OPTION_PATH), index);
}

void __QvProcessAppendOptionValues(uint32_t parser, uint32_t option, QV_OPTION_VALUE_CALLBACK callback,
                                   void* context) {
  qv::RequireAppendOption(parser, option);
  if (callback != nullptr) qv::ProcessAppendValues(parser, option, callback, context);
}

int32_t __QvIsOptionSet(uint32_t parser, uint32_t option) {
  const qv::OptionRecord* const record = qv::FindOption(parser, option);
  if (record == nullptr) {
    qv::LogFatalToolDefect(
        "A valid option id and parser id must be specified to check if an option is set");
  }
  return qv::IsSet(*record) ? 1 : 0;
}

const char* __QvGetOptionName(uint32_t parser, uint32_t option) {
  const qv::OptionRecord* const record = qv::FindOption(parser, option);
  return record == nullptr ? nullptr : record->name;
}

uint32_t __QvGetOptionFlags(uint32_t parser, uint32_t option) {
  const qv::OptionRecord* const record = qv::FindOption(parser, option);
  if (record == nullptr) {
    qv::LogError("Invalid option parser id or option id used to get option flags");
    return qv::kNone;
  }
  return record->flags;
}

uint32_t __QvGetOptionNumberOfArguments(uint32_t, uint32_t option) {
  return option < qv::OptionCount() ? qv::g_optionTables.options[option].argumentCount : 0;
}

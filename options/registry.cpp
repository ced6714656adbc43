// The option registry: parsers, registration, valid arguments, setting, release. Design:
// options/registry.h.
#include "options/registry.h"

#include <string.h>

#include "log/report.h"
#include "memory/allocate.h"

namespace qv {

static_assert(sizeof(OptionValueNode) == 24 && offsetof(OptionValueNode, next) == 16);
static_assert(offsetof(OptionRecord, defaultValue) == 24 && offsetof(OptionRecord, setValue) == 48 &&
              offsetof(OptionRecord, argumentCount) == 72 && offsetof(OptionRecord, lastValue) == 80 &&
              offsetof(OptionRecord, flags) == 96 && offsetof(OptionRecord, validArguments) == 104 &&
              offsetof(OptionRecord, showInHelp) == 112 && sizeof(OptionRecord) == 120);

// Process-wide state.
constinit OptionTables g_optionTables = {};

namespace {

// What a registration asks for.
struct OptionRequest {
  uint32_t parser;
  const char* name;
  const char* description;
  OptionType type;
  bool isAppend;
  const char* defaultString;
  int32_t defaultInteger;
  uint32_t flags;
  uint32_t showInHelp;
};

// The next slot of a table, or kNone if all are taken, by (1).
uint32_t TakeSlot(uint32_t& count, uint32_t slots) {
  uint32_t taken = LoadRelaxed(count);
  while (taken < slots) {
    const uint32_t found = CompareExchange(count, taken + 1, taken);
    if (found == taken) return taken;
    taken = found;
  }
  return kNone;
}

OptionValueNode* NewNode(int32_t integer, char* ownedString) {
  OptionValueNode* const node = static_cast<OptionValueNode*>(Allocate(kMisc, sizeof(OptionValueNode)));
  *node = {integer, ownedString, nullptr};
  return node;
}

char* NewValueString(OptionType type, const char* string) {
  char* const copy = __QvStrdup(string);
  if (type == OPTION_PATH) __QvSanitizePath(copy);
  return copy;
}

uint32_t RegisterOption(const OptionRequest& request) {
  if (request.name == nullptr || request.description == nullptr ||
      ToolName(request.parser) == nullptr) {
    LogFatalToolDefect(
        "A valid option name, description and parser handle must be specified to register an option "
        "with QVRT");
  }
  const uint32_t slot = TakeSlot(g_optionTables.optionCount, kOptions);
  if (slot == kNone) return kNone;
  if (*request.name != '-') {
    LogFatalToolDefect(
        "A valid option name starting with '-' must be specified to register the option with QVRT");
  }
  OptionRecord& record = g_optionTables.options[slot];  // all 0 so far
  record.name = __QvStrdup(request.name);
  record.description = __QvStrdup(request.description);
  record.type = request.type;
  record.isAppend = request.isAppend;
  record.defaultValue.intValue = request.defaultInteger;
  record.defaultValue.stringValue = NewValueString(request.type, request.defaultString);
  record.flags = request.flags;
  record.showInHelp = request.showInHelp;
  StoreRelaxed(record.parserId, request.parser);
  StoreRelease(record.currentValue, &record.defaultValue);  // publishes the rest, by (2)
  return slot;
}

void AddValidArgument(uint32_t parser, uint32_t option, const char* string, int32_t integer) {
  OptionRecord* const record = FindOption(parser, option);
  if (record == nullptr) {
    LogFatalToolDefect(
        "A valid option id and parser id must be specified to register an option argument for an "
        "option in QVRT");
  }
  if (record->isAppend != 0) {
    LogFatalToolDefect("Registering valid arguments for append options is not currenctly supported");
  }
  if (record->type == OPTION_BOOLEAN || record->type == OPTION_PATH) {
    LogFatalToolDefect("Only string and integer option types can register valid arguments");
  }
  OptionValueNode** link = &record->validArguments;
  while (*link != nullptr) link = &(*link)->next;
  *link = NewNode(integer, __QvStrdup(string));
}

bool HoldsString(const OptionRecord& record) { return record.type >= OPTION_STRING; }

bool AcceptsInteger(const OptionRecord& record, int32_t integer) {
  for (const OptionValueNode* node = record.validArguments; node != nullptr; node = node->next) {
    if (node->intValue == integer) return true;
  }
  return false;
}

bool Accepts(const OptionRecord& record, const char* string, int32_t integer) {
  if (record.validArguments == nullptr) return true;
  if (!HoldsString(record)) return AcceptsInteger(record, integer);
  return string != nullptr && FindValidArgument(record, string) != nullptr;
}

void SetString(OptionRecord& record, const char* string) {
  if (string == nullptr) LogFatalToolDefect("Null string used to set string option");
  // Copied before the former value goes: the string may be that value, as a getter returned it.
  char* const copy = NewValueString(record.type, string);
  if (record.isAppend != 0 && record.lastValue != nullptr) {
    record.lastValue->next = NewNode(-1, copy);
    record.lastValue = record.lastValue->next;
  } else {
    Release(record.setValue.stringValue);
    record.setValue = {-1, copy, nullptr};
    record.lastValue = &record.setValue;
  }
  record.argumentCount = record.isAppend != 0 ? record.argumentCount + 1 : 1;
}

void ReleaseNodes(OptionValueNode* node) {
  while (node != nullptr) {
    OptionValueNode* const next = node->next;
    Release(node->stringValue);
    Release(node);
    node = next;
  }
}

void ReleaseOption(OptionRecord& record) {
  StoreRelease(record.currentValue, nullptr);  // first, by (2)
  StoreRelaxed(record.parserId, kNone);
  Release(record.name);
  Release(record.description);
  Release(record.defaultValue.stringValue);
  Release(record.setValue.stringValue);
  ReleaseNodes(record.setValue.next);
  ReleaseNodes(record.validArguments);
  record.name = nullptr;
  record.description = nullptr;
  record.type = OPTION_INTEGER;
  record.isAppend = 0;
  record.defaultValue = {};
  record.setValue = {};
  record.lastValue = nullptr;
  record.flags = 0;
  record.validArguments = nullptr;
}

bool ReleaseParser(uint32_t parser, const char* toolName) {
  const char* const stored = ToolName(parser);
  if (stored == nullptr || toolName == nullptr) return false;
  if (strncmp(stored, toolName, strlen(stored)) != 0) return false;
  Release(Exchange(g_optionTables.toolNames[parser], nullptr));
  for (uint32_t id = 0; id < OptionCount(); id++) {
    OptionRecord* const record = FindOption(parser, id);
    if (record != nullptr) ReleaseOption(*record);
  }
  return true;
}

}  // namespace

OptionRecord& RequireOption(uint32_t parser, uint32_t option) {
  OptionRecord* const record = FindOption(parser, option);
  if (QV_UNLIKELY(record == nullptr)) {
    LogFatalToolDefect(
        "A valid option id and parser id must be specified to get the value of the option");
  }
  return *record;
}

OptionRecord& RequireOption(uint32_t parser, uint32_t option, OptionType type) {
  OptionRecord& record = RequireOption(parser, option);
  if (QV_UNLIKELY(record.type != type)) {
    LogFatalToolDefect(
        "A valid option id and parser id must be specified to get the value of the option");
  }
  return record;
}

const OptionValueNode* FindValidArgument(const OptionRecord& record, const char* text) {
  const size_t length = strlen(text);
  for (const OptionValueNode* node = record.validArguments; node != nullptr; node = node->next) {
    if (node->stringValue != nullptr && strncmp(node->stringValue, text, length) == 0) return node;
  }
  return nullptr;
}

void SetOptionValue(OptionRecord& record, const char* string, int32_t integer) {
  if (!Accepts(record, string, integer)) {
    LogFatalToolDefect("Invalid argument [%s, %d] used to set Option %s",
                       string == nullptr ? "\"\"" : string, integer, record.name);
  }
  if (HoldsString(record)) {
    SetString(record, string);
  } else {
    record.setValue = {integer, nullptr, nullptr};
    record.argumentCount = 1;
  }
  StoreRelease(record.currentValue, &record.setValue);
}

}  // namespace qv

uint32_t __QvGetOptionParser(const char* toolName) {
  if (toolName == nullptr) return qv::kNone;
  const uint32_t parser = qv::TakeSlot(qv::g_optionTables.parserCount, qv::kOptionParsers);
  if (parser != qv::kNone) qv::StoreRelease(qv::g_optionTables.toolNames[parser], __QvStrdup(toolName));
  return parser;
}

int32_t __QvReleaseOptionParserHandle(uint32_t parser, const char* toolName) {
  return qv::ReleaseParser(parser, toolName) ? 1 : 0;
}

uint32_t __QvRegisterBooleanOption(uint32_t parser, const char* name, const char* description,
                                   int32_t defaultValue, uint32_t flags, uint32_t showInHelp) {
  return qv::RegisterOption({parser, name, description, qv::OPTION_BOOLEAN, false, nullptr,
                             defaultValue != 0 ? 1 : 0, flags, showInHelp});
}

uint32_t __QvRegisterIntegerOption(uint32_t parser, const char* name, const char* description,
                                   int32_t defaultValue, uint32_t flags, uint32_t showInHelp) {
  return qv::RegisterOption(
      {parser, name, description, qv::OPTION_INTEGER, false, nullptr, defaultValue, flags, showInHelp});
}

uint32_t __QvRegisterStringOption(uint32_t parser, const char* name, const char* description,
                                  const char* defaultValue, uint32_t flags, int32_t isAppend,
                                  uint32_t showInHelp) {
  return qv::RegisterOption({parser, name, description, qv::OPTION_STRING, isAppend != 0, defaultValue,
                             -1, flags, showInHelp});
}

uint32_t __QvRegisterStringEnumOption(uint32_t parser, const char* name, const char* description,
                                      const char* defaultValue, uint32_t flags, uint32_t showInHelp) {
  return qv::RegisterOption(
      {parser, name, description, qv::OPTION_STRING_ENUM, false, defaultValue, -1, flags, showInHelp});
}

uint32_t __QvRegisterPathOption(uint32_t parser, const char* name, const char* description,
                                const char* defaultValue, uint32_t flags, int32_t isAppend,
                                uint32_t showInHelp) {
  return qv::RegisterOption(
      {parser, name, description, qv::OPTION_PATH, isAppend != 0, defaultValue, -1, flags, showInHelp});
}

uint8_t __QvSetValidStringOptionArgumentWithEnum(uint32_t parser, uint32_t option, const char* value,
                                                 int32_t enumValue) {
  qv::AddValidArgument(parser, option, value, enumValue);
  return 1;
}

uint8_t __QvSetValidStringOptionArgument(uint32_t parser, uint32_t option, const char* value) {
  qv::AddValidArgument(parser, option, value, -1);
  return 1;
}

uint8_t __QvSetValidIntegerOptionArgument(uint32_t parser, uint32_t option, int32_t value) {
  qv::AddValidArgument(parser, option, nullptr, value);
  return 1;
}

int32_t __QvSetBooleanOption(uint32_t parser, uint32_t option, uint32_t value) {
  qv::SetOptionValue(qv::RequireOption(parser, option, qv::OPTION_BOOLEAN), nullptr, int32_t(value));
  return 1;
}

int32_t __QvSetIntegerOption(uint32_t parser, uint32_t option, int32_t value) {
  qv::SetOptionValue(qv::RequireOption(parser, option, qv::OPTION_INTEGER), nullptr, value);
  return 1;
}

int32_t __QvSetStringOption(uint32_t parser, uint32_t option, const char* value) {
  qv::SetOptionValue(qv::RequireOption(parser, option), value, -1);
  return 1;
}

int32_t __QvSetPathOption(uint32_t parser, uint32_t option, const char* value) {
  qv::SetOptionValue(qv::RequireOption(parser, option, qv::OPTION_PATH), value, -1);
  return 1;
}

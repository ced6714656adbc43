// The option registry, inside view: two tables in static storage, shared by all tools of the process.
//
//   parsers  | 0 "qvheap" | 1 "qvtrace" | ... 16 names; null: not handed out, or released
//                  ^
//                  | parserId
//   options  | 0 -depth   | 1 -I              | 2 -mode                  | ... 256 records
//                           |                   |
//                           | defaultValue      | validArguments -> node -> node
//                           | setValue.next -> node -> node            in the order they were added
//                           |     ^                       ^
//                           currentValue (once set)       lastValue
//
// The first value of an option lies in its record, so that an option that is no append option needs no
// node. All strings and nodes are the registry's own, from category 0.
//
// Invariants
//  (1) Slots are handed out by compare-exchange on the counts and never reused. A count never passes its
//      table, not even for a moment, so a reader may go by it.
//  (2) A record takes part in anything only while its currentValue is not null. Registration stores that
//      last, with release order; releasing the parser clears it first. So an unfinished slot belongs to
//      nobody, and a released one to nobody either, not even to the parser id 0xFFFFFFFF it then holds.
//  (3) currentValue is &defaultValue, or &setValue once the option was set.
//  (4) The values of a set append option are setValue, setValue.next, ... up to lastValue, and
//      argumentCount is their number, which a released record goes on telling. Any other option has at
//      most the one value.
//  (5) Only string and path options are append options. An append, boolean or path option has no valid
//      arguments.
// No lock is taken. Threads that each keep to a parser of their own do not disturb one another: what
// they read of other threads' slots before (2) turns them away is read atomically.
#pragma once

#include "runtime/atomics.h"

namespace qv {

inline constexpr uint32_t kOptionParsers = 16;
inline constexpr uint32_t kOptions = 256;

enum OptionType : uint32_t {
  OPTION_BOOLEAN = 0,
  OPTION_INTEGER = 1,
  OPTION_STRING = 2,
  OPTION_STRING_ENUM = 3,  // a string that stands for a number, through validArguments
  OPTION_PATH = 4          // a string in which every run of '/' became one
};

struct OptionValueNode {
  int32_t intValue;  // -1 beside a string value
  char* stringValue;
  OptionValueNode* next;
};

struct OptionRecord {
  char* name;
  char* description;
  OptionType type;
  uint32_t isAppend;
  OptionValueNode defaultValue;
  OptionValueNode setValue;
  uint32_t argumentCount;
  OptionValueNode* lastValue;  // null until a string was set
  OptionValueNode* currentValue;
  uint32_t flags;  // the tool's own
  uint32_t parserId;
  OptionValueNode* validArguments;  // null: every value is accepted
  uint32_t showInHelp;
};

struct OptionTables {
  uint32_t parserCount;
  uint32_t optionCount;
  char* toolNames[kOptionParsers];
  OptionRecord options[kOptions];
};
extern OptionTables g_optionTables;

QV_INLINE uint32_t ParserCount() { return LoadAcquire(g_optionTables.parserCount); }
QV_INLINE uint32_t OptionCount() { return LoadAcquire(g_optionTables.optionCount); }

// The name of a parser that was handed out and not released; else null.
QV_INLINE const char* ToolName(uint32_t parser) {
  return parser < ParserCount() ? LoadAcquire(g_optionTables.toolNames[parser]) : nullptr;
}

// The option if it is that parser's; else null. Every id from outside comes through here.
QV_INLINE OptionRecord* FindOption(uint32_t parser, uint32_t option) {
  if (option >= OptionCount()) return nullptr;
  OptionRecord& record = g_optionTables.options[option];
  if (LoadAcquire(record.currentValue) == nullptr) return nullptr;
  return LoadRelaxed(record.parserId) == parser ? &record : nullptr;
}

QV_INLINE bool IsSet(const OptionRecord& record) { return record.currentValue == &record.setValue; }

// What messages show for a text that is not there, whatever the C library would.
QV_INLINE const char* Printable(const char* text) { return text == nullptr ? "(null)" : text; }

// The option, or the end of the process: ids that do not belong together, or another type.
OptionRecord& RequireOption(uint32_t parser, uint32_t option);
OptionRecord& RequireOption(uint32_t parser, uint32_t option, OptionType type);

// The first valid argument that begins with the text, in the order they were added, or null.
const OptionValueNode* FindValidArgument(const OptionRecord& record, const char* text);

// Stores the value that fits the option's type. A value that the option does not accept, and a null
// string for a string, end the process.
void SetOptionValue(OptionRecord& record, const char* string, int32_t integer);

// Null if the invariants hold, else which does not.
const char* ValidateOptions();

}  // namespace qv

// The options of qvheap: one table for the launcher, which reads the command line, and the collector,
// which reads what the launcher hands on. Both go through the library's option registry.
//
// The handover is one environment variable, inherited by every process that the program starts: what
// only the launcher knows, and then the elements of a command line.
//
//   QVHEAP_OPTIONS=pid=1234,stderr=fd00:5678 -interval 4096 -out /home/me/my\ results
//
// A backslash stands before a blank or a backslash that belongs to an element. Only options that were
// given are handed on, and the directory, which is always there and absolute. Without the variable the
// collector has the defaults, but writes nothing on standard error.
#pragma once

#include <limits.h>
#include <stdint.h>

#include "include/qvrt.h"

namespace qvheap {

inline constexpr char kOptionsVariable[] = "QVHEAP_OPTIONS";
inline constexpr uint32_t kHandoverBytes = 2 * PATH_MAX + 512;

// In the order of registration, which is that of the help. The collector has no use for the last ones.
enum OptionName : uint32_t {
  kOptionOut,
  kOptionQuiet,
  kOptionExact,
  kOptionInterval,
  kOptionEvery,
  kOptionDump,
  kOptionNoChannel,
  kCollectorOptions,
  kOptionHelp = kCollectorOptions,
  kOptionHelpToo,  // the spelling that people try first
  kOptionNames
};

struct OptionInfo {
  const char* name;
  const char* argument;  // what it takes, for messages; null for a boolean option
  const char* description;
  bool isNumber;
  const char* defaultText;  // of a string
  int32_t defaultNumber;
  bool inHelp;
};
extern const OptionInfo kOptionInfos[kOptionNames];

// The options as registered under one parser.
struct OptionParser {
  uint32_t parser;
  uint32_t ids[kOptionNames];

  bool IsSet(OptionName name) const { return __QvIsOptionSet(parser, ids[name]) != 0; }
  bool Truth(OptionName name) const { return __QvGetBooleanOptionValue(parser, ids[name]) != 0; }
  uint32_t Number(OptionName name) const { return __QvGetIntegerOptionValue(parser, ids[name]); }
  const char* Text(OptionName name) const { return __QvGetStringOptionValue(parser, ids[name]); }
};

OptionParser RegisterOptions(uint32_t howMany);
// The option of that name as a command line gives it, negated or not; null if there is none.
const OptionInfo* FindOptionInfo(const char* element);

// What the collector goes by.
struct Options {
  bool quiet = true;
  bool exact = false;
  bool noChannel = false;
  uint32_t intervalBytes = 65536;
  uint32_t everySeconds = 0;
  int32_t launchedPid = 0;  // the process that prints its table: the program itself, no descendant
  uint64_t stderrDevice =
      0;  // where the launcher's standard error led; the table goes there or nowhere
  uint64_t stderrInode = 0;
  char directory[PATH_MAX] = {};  // absolute
};

// The value of the variable, from what is set in the parser and the rest of `options`; false if it does
// not fit.
bool FormatHandover(const OptionParser& parser, const Options& options, char* text, uint32_t sizeBytes);
// Sets the parser and fills `options`. Null text leaves the defaults, with the current directory; so
// does text that is not of the form above, or that the parser refuses, with the result false.
bool ReadHandover(const char* text, const OptionParser& parser, Options& options);

}  // namespace qvheap

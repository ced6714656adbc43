// The launcher's command line. Design: tools/qvheap/command_line.h.
#include "tools/qvheap/command_line.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "collectors/qvheap/debug.h"
#include "tools/qvheap/program.h"

namespace qvheap {
namespace {

// One option of the line with its argument, if it takes one and has one.
struct Item {
  char** elements;
  uint32_t count;
};

Item ItemAt(char** element) {
  const OptionInfo* const info = FindOptionInfo(*element);
  const bool takesNext = info != nullptr && info->argument != nullptr && element[1] != nullptr &&
                         strncmp(*element, "-no-", 4) != 0;
  return {element, takesNext ? 2u : 1u};
}

bool Parse(const OptionParser& parser, const Item& item) {
  return __QvParseOptions2(parser.parser, item.count, item.elements) != 0;
}

// The parser has refused the item.
std::string WhatIsWrong(const Item& item) {
  const std::string option = item.elements[0];
  const OptionInfo* const info = FindOptionInfo(option.c_str());
  if (info == nullptr) return "unknown option " + option + " (qvheap -help lists them)";
  if (option != info->name) return option + ": only options without an argument can be negated";
  if (item.count == 1 || *item.elements[1] == '-') return option + " needs " + info->argument;
  return option + " needs " + info->argument + ", and " + item.elements[1] + " is none";
}

// The parser's own entries, into a log beside the files of the collector: the item is parsed once more
// with the log in place.
void LogRefusal(const OptionParser& parser, const Item& item) {
  const std::string directory = parser.Text(kOptionOut);
  const std::string path = directory + "/qvlog." + std::to_string(getpid()) + ".xml";
  if (__QvCreateLogger("qvheap", path.c_str(), 0) == 0) return;
  Parse(parser, item);
  __QvCloseLogger();
}

[[noreturn]] void Fail(const std::string& message) { throw Failure{kOwnFailure, message}; }

void CheckValues(const OptionParser& parser) {
  if (parser.Number(kOptionInterval) == 0) Fail("-interval needs a number of bytes, at least 1");
  if (parser.Number(kOptionEvery) != 0 && parser.Truth(kOptionNoChannel)) {
    Fail("-every writes on the command channel, which -nochannel turns off");
  }
  const char* const dump = parser.Text(kOptionDump);
  if (dump != nullptr && !SelectDumpChannels(dump)) {
    Fail(std::string("-dump needs a list of channels, and ") + dump + " is none; there are " +
         kDumpChannelNames);
  }
}

}  // namespace

// No host is installed: the little that one thread needs comes from the library's own pages, while the
// allocator's table would be the largest part of what qvheap adds to a short program.
CommandLine ReadCommandLine(char** arguments) {
  __QvRtStartup();
  __QvCreateLogger("qvheap", "/dev/null", 1);  // else the log would open itself, in any case
  CommandLine line = {RegisterOptions(kOptionNames), arguments + 1};
  while (*line.program != nullptr && **line.program == '-' && strcmp(*line.program, "--") != 0) {
    const Item item = ItemAt(line.program);
    if (!Parse(line.parser, item)) {
      LogRefusal(line.parser, item);
      Fail(WhatIsWrong(item));
    }
    line.program += item.count;
  }
  if (*line.program != nullptr && strcmp(*line.program, "--") == 0) line.program++;
  CheckValues(line.parser);
  return line;
}

void PrintHelp(const CommandLine& line) {
  fputs(
      "usage: qvheap [OPTION...] [--] PROGRAM [ARGUMENT...]\n"
      "       qvheap report [OPTION...] PATH...    qvheap diff [OPTION...] BEFORE AFTER\n"
      "\n"
      "Runs the program and counts what it and every process that comes of it allocates: the results\n"
      "are in DIR/qvheap.<pid>.xml, a log in DIR/qvlog.<pid>.xml.\n",
      stdout);
  __QvPrintHelp(line.parser.parser, 0);
  printf(
      "\n"
      "The channels of -dump are %s.\n"
      "A directory or list that begins with '-' cannot be given; write ./-like-this.\n"
      "\n"
      "The exit status is the program's, but 125 if qvheap cannot do its part, 126 if the program\n"
      "cannot be run or counted, 127 if it is not found.\n",
      kDumpChannelNames);
}

}  // namespace qvheap

// The launcher's command line, read by the option registry: options up to the program, or up to "--".
#pragma once

#include "collectors/qvheap/options.h"

namespace qvheap {

struct CommandLine {
  OptionParser parser;
  char** program;  // its arguments, ended by null
};

// Takes main's arguments. For a wrong option it writes what the parser says into a log in the directory
// that was given up to there, if it can, and throws Failure with a line for people.
CommandLine ReadCommandLine(char** arguments);
void PrintHelp(const CommandLine& line);

}  // namespace qvheap

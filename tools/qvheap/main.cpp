// qvheap: starts a program with the heap census preloaded, in its own place: after the checks this
// process becomes the program, so its process id, its signals, its status and its parent are what they
// would be.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "collectors/qvheap/options.h"
#include "tools/qvheap/program.h"

namespace qvheap {
namespace {

constexpr char kUsageText[] =
    "usage: qvheap [-out DIR] [-quiet] -- PROGRAM [ARGUMENT...]\n"
    "\n"
    "Runs the program and counts what it allocates: a heap census of every process that comes of it,\n"
    "in DIR/qvheap.<pid>.xml, with a log in DIR/qvlog.<pid>.xml.\n"
    "  -out DIR  where the files go (default: the current directory)\n"
    "  -quiet    no table on standard error when the program ends\n"
    "  -help     this text\n"
    "\n"
    "The exit status is the program's, but 125 if qvheap cannot do its part, 126 if the program "
    "cannot\n"
    "be run or counted, 127 if it is not found.\n";

[[noreturn]] void Fail(const std::string& message) { throw Failure{kOwnFailure, message}; }

struct CommandLine {
  bool help = false;
  bool quiet = false;
  std::string directory = ".";
  char** program = nullptr;  // its arguments, ended by null
};

CommandLine ReadCommandLine(char** argument) {
  CommandLine line;
  for (argument++; *argument != nullptr && **argument == '-'; argument++) {
    const std::string option = *argument;
    if (option == "--") {
      argument++;
      break;
    }
    if (option == "-help" || option == "--help") {
      line.help = true;
    } else if (option == "-quiet") {
      line.quiet = true;
    } else if (option == "-out") {
      if (*++argument == nullptr) Fail("-out needs a directory");
      line.directory = *argument;
    } else {
      Fail("unknown option " + option + " (qvheap -help lists them)");
    }
  }
  line.program = argument;
  return line;
}

// Rights, read-only file systems and quotas all show in one attempt.
void CheckWritable(const std::string& directory) {
  const std::string path = directory + "/qvheap." + std::to_string(getpid()) + ".try";
  const int file = open(path.c_str(), O_CREAT | O_WRONLY | O_EXCL | O_CLOEXEC, 0600);
  if (file == -1) Fail(directory + ": cannot write there: " + strerror(errno));
  close(file);
  unlink(path.c_str());
}

Options MakeOptions(const CommandLine& line) {
  Options options;
  if (realpath(line.directory.c_str(), options.directory) == nullptr) {
    Fail(line.directory + ": cannot write there: " + strerror(errno));
  }
  CheckWritable(options.directory);
  options.quiet = line.quiet;
  options.launchedPid = getpid();
  struct stat status = {};
  if (fstat(STDERR_FILENO, &status) == 0) {
    options.stderrDevice = status.st_dev;
    options.stderrInode = status.st_ino;
  }
  return options;
}

std::string OwnDirectory() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0) Fail("cannot tell where qvheap itself is");
  const std::string own(path, size_t(length));
  return own.substr(0, own.rfind('/'));
}

std::string FindCollector() {
  const std::string own = OwnDirectory();
  for (const char* place : {"/", "/../lib/", "/../" QVHEAP_LIBDIR "/"}) {
    char path[PATH_MAX];
    if (realpath((own + place + "libqvheap.so").c_str(), path) == nullptr) continue;
    if (strpbrk(path, ": ") != nullptr) {
      Fail(std::string(path) + ": the loader can preload nothing from a path with a blank or a colon");
    }
    return path;
  }
  Fail("libqvheap.so is neither beside qvheap nor in ../lib");
}

void SetEnvironment(const Options& options, const std::string& collector) {
  std::vector<char> text(PATH_MAX + 200);
  if (!FormatOptions(options, text.data(), uint32_t(text.size())))
    Fail("the directory's name is too long");
  const char* const others = getenv("LD_PRELOAD");
  const std::string preload = others != nullptr && *others != 0 ? collector + ":" + others : collector;
  if (setenv(kOptionsVariable, text.data(), 1) != 0 || setenv("LD_PRELOAD", preload.c_str(), 1) != 0) {
    Fail(std::string("cannot set the environment: ") + strerror(errno));
  }
}

int Run(char** arguments) {
  const CommandLine line = ReadCommandLine(arguments);
  if (line.help) {
    fputs(kUsageText, stdout);
    return 0;
  }
  if (*line.program == nullptr) Fail("no program is given (qvheap -help tells how)");
  const std::string path = FindProgram(*line.program);
  CheckProgram(path);
  const Options options = MakeOptions(line);
  SetEnvironment(options, FindCollector());
  execvp(path.c_str(), line.program);  // with a slash in it: no search, but the shell for plain scripts
  throw Failure{kCannotRun, path + ": " + strerror(errno)};
}

}  // namespace
}  // namespace qvheap

int main(int, char** arguments) {
  try {
    return qvheap::Run(arguments);
  } catch (const qvheap::Failure& failure) {
    fprintf(stderr, "qvheap: %s\n", failure.message.c_str());
    return failure.status;
  }
}

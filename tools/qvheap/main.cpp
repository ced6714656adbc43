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

#include "tools/qvheap/command_line.h"
#include "tools/qvheap/program.h"

namespace qvheap {
namespace {

[[noreturn]] void Fail(const std::string& message) { throw Failure{kOwnFailure, message}; }

// Rights, read-only file systems and quotas all show in one attempt.
void CheckWritable(const std::string& directory) {
  const std::string path = directory + "/qvheap." + std::to_string(getpid()) + ".try";
  const int file = open(path.c_str(), O_CREAT | O_WRONLY | O_EXCL | O_CLOEXEC, 0600);
  if (file == -1) Fail(directory + ": cannot write there: " + strerror(errno));
  close(file);
  unlink(path.c_str());
}

// The names of all files must fit too, the one of the command channel's lock among them.
constexpr size_t kLongestFileName = 64;

Options MakeOptions(const CommandLine& line) {
  Options options;
  const char* const directory = line.parser.Text(kOptionOut);
  if (realpath(directory, options.directory) == nullptr) {
    Fail(std::string(directory) + ": cannot write there: " + strerror(errno));
  }
  if (strlen(options.directory) + kLongestFileName > sizeof options.directory) {
    Fail(std::string(directory) + ": the directory's name is too long");
  }
  CheckWritable(options.directory);
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

void SetEnvironment(const OptionParser& parser, const Options& options, const std::string& collector) {
  std::vector<char> text(kHandoverBytes);
  if (!FormatHandover(parser, options, text.data(), uint32_t(text.size()))) {
    Fail("the directory's name or the list of -dump is too long");
  }
  const char* const others = getenv("LD_PRELOAD");
  const std::string preload = others != nullptr && *others != 0 ? collector + ":" + others : collector;
  if (setenv(kOptionsVariable, text.data(), 1) != 0 || setenv("LD_PRELOAD", preload.c_str(), 1) != 0) {
    Fail(std::string("cannot set the environment: ") + strerror(errno));
  }
}

// `qvheap report` and `qvheap diff` are a program of their own (tools/qvheap/report).
[[noreturn]] void RunReport(char** arguments) {
  const std::string own = OwnDirectory();
  for (const char* place : {"/qvheap-report", "/../" QVHEAP_LIBEXECDIR "/qvheap/qvheap-report"}) {
    execv((own + place).c_str(), arguments);
    if (errno != ENOENT) Fail(own + place + ": " + strerror(errno));
  }
  Fail("qvheap-report is missing: this qvheap was built without libxml2 or libdw");
}

bool IsReport(const char* word) {
  return word != nullptr && (strcmp(word, "report") == 0 || strcmp(word, "diff") == 0);
}

int Launch(const CommandLine& line) {
  if (*line.program == nullptr) Fail("no program is given (qvheap -help tells how)");
  const std::string path = FindProgram(*line.program);
  CheckProgram(path);
  const Options options = MakeOptions(line);
  SetEnvironment(line.parser, options, FindCollector());
  execvp(path.c_str(), line.program);  // with a slash in it: no search, but the shell for plain scripts
  const char* const also = errno == E2BIG ? " (with what qvheap adds to the environment)" : "";
  throw Failure{kCannotRun, path + ": " + strerror(errno) + also};
}

int Run(char** arguments) {
  if (IsReport(arguments[1])) RunReport(arguments);
  const CommandLine line = ReadCommandLine(arguments);
  if (!line.parser.Truth(kOptionHelp) && !line.parser.Truth(kOptionHelpToo)) return Launch(line);
  PrintHelp(line);
  return 0;
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

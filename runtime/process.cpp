// The process launcher.
#include <unistd.h>

#include "log/message_log.h"
#include "log/report.h"

namespace {
constexpr int kNotExecuted = 127;  // what shells use for the same
}

int32_t __QvCreateProcess(char* const argv[]) {
  if (argv == nullptr) return -1;
  qv::TimeText now;
  qv::FormatTime(time(nullptr), now);
  const pid_t child = fork();
  if (child != 0) return child;
  execve(argv[0], argv, nullptr);
  qv::ResetLogAfterFork(now);
  qv::LogError("failed to launch process %s ", argv[0]);
  _exit(kNotExecuted);  // a second copy of the tool must not go on
}

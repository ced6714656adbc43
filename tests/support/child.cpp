// Child processes of tests. Design: tests/support/child.h.
#include "tests/support/child.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <vector>

namespace qvtest {
namespace {

// Removes the children's folders when the test program ends, not when a child calls exit.
struct Folders {
  std::vector<std::string> paths;
  const pid_t owner = getpid();
  ~Folders() {
    if (getpid() != owner) return;
    for (const std::string& path : paths) {
      std::error_code ignored;
      std::filesystem::remove_all(path, ignored);
    }
  }
};

std::string NewFolder() {
  static Folders folders;
  std::string pattern = std::filesystem::temp_directory_path() / "qvtest.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    perror("mkdtemp");
    exit(1);
  }
  folders.paths.push_back(pattern);
  return pattern;
}

std::string ReadFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

void Redirect(const char* fileName, int descriptor) {
  const int file = open(fileName, O_CREAT | O_TRUNC | O_WRONLY | O_APPEND, 0666);
  dup2(file, descriptor);
  close(file);
}

[[noreturn]] void BeChild(const std::string& folder, const std::function<void()>& body) {
  if (chdir(folder.c_str()) != 0) _exit(98);
  Redirect(".stdout", STDOUT_FILENO);
  Redirect(".stderr", STDERR_FILENO);
  body();
  fflush(stdout);
  _exit(0);
}

int WaitFor(pid_t child, unsigned limitSeconds) {
  int status = 0;
  const time_t end = time(nullptr) + limitSeconds;
  for (unsigned waits = 0; waitpid(child, &status, WNOHANG) == 0; waits++) {
    if (time(nullptr) > end) kill(child, SIGKILL);
    usleep(waits < 50 ? 200 : 5000);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

std::string ChildResult::Read(const std::string& fileName) const {
  return ReadFile(folder + "/" + fileName);
}

ChildResult RunChild(const std::function<void()>& body, unsigned limitSeconds) {
  ChildResult result;
  result.folder = NewFolder();
  fflush(stdout);
  fflush(stderr);
  const pid_t child = fork();
  if (child == 0) BeChild(result.folder, body);
  result.status = WaitFor(child, limitSeconds);
  result.out = result.Read(".stdout");
  result.err = result.Read(".stderr");
  return result;
}

void FailCheck(const char* file, int line, const std::string& what) {
  fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what.c_str());
  fflush(stderr);
  _exit(kCheckFailedStatus);
}

}  // namespace qvtest

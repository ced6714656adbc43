// Steered programs. Contract: tests/qvheap/steered.h.
#include "tests/qvheap/steered.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace qvtest {
namespace {

namespace fs = std::filesystem;

constexpr int kPatienceMilliseconds = 60000;

[[noreturn]] void BecomeSteered(const std::string& folder, const std::string& options, int input,
                                int output) {
  dup2(input, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  for (int i = 3; i < 64; i++) close(i);
  if (chdir(folder.c_str()) != 0) _exit(94);
  const std::string line = "exec " QVHEAP " -quiet " + options + " -- " STEERED " 2>errors";
  execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
  _exit(93);
}

}  // namespace

Steered::Steered(const std::string& options) {
  KernelObjectsAreOurs();
  std::string pattern = testing::TempDir() + "steered.XXXXXX";
  folder_ = mkdtemp(pattern.data());
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) abort();
  pid_ = fork();
  if (pid_ == 0) BecomeSteered(folder_, options, in[0], out[1]);
  close(in[0]);
  close(out[1]);
  input_ = in[1];
  output_ = out[0];
  signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(Answer(), "ready " + std::to_string(pid_)) << Read("errors");
}

Steered::~Steered() {
  close(input_);  // whoever reads it ends
  if (!ended_) Wait();
  while (!Answer().empty()) continue;  // so do its children
  close(output_);
  fs::remove_all(folder_);
}

void Steered::Tell(const std::string& line) {
  const std::string text = line + "\n";
  EXPECT_EQ(write(input_, text.data(), text.size()), ssize_t(text.size()));
}

std::string Steered::Answer() {
  std::string line;
  for (char c;;) {
    pollfd wait = {output_, POLLIN, 0};
    if (poll(&wait, 1, kPatienceMilliseconds) <= 0) {
      ADD_FAILURE() << "no answer";
      return "";
    }
    if (read(output_, &c, 1) != 1) return line;
    if (c == '\n') return line;
    line += c;
  }
}

CtlResult Steered::Ctl(pid_t process, const std::string& words) const {
  const std::string line = QVCTL " " + folder_ + "/" + std::to_string(process) + " " + words + " 2>&1";
  FILE* const pipe = popen(line.c_str(), "r");
  CtlResult result;
  char buffer[4096];
  for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.text.append(buffer, got);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

bool Steered::HasChannel(pid_t process) const {
  return fs::exists(folder_ + "/" + std::to_string(process) + "/obkcmds.dat");
}

void Steered::AwaitChannel(pid_t process) {
  for (int i = 0; i < 3000 && !HasChannel(process); i++) {
    usleep(10000);
    Say("a 20000");
    Say("f");
  }
  EXPECT_TRUE(HasChannel(process));
}

int Steered::Wait() {
  int status = 0;
  for (int waits = 0; waitpid(pid_, &status, WNOHANG) == 0; waits++) {
    if (waits == kPatienceMilliseconds) kill(pid_, SIGKILL);
    usleep(1000);
  }
  ended_ = true;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string Steered::Read(const std::string& fileName) const {
  std::ifstream stream(folder_ + "/" + fileName, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::string> Steered::Files(const std::string& pattern) const {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder_)) {
    const std::string name = entry.path().filename();
    if (std::regex_match(name, std::regex(pattern))) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool KernelObjectsAreOurs() {
  static const bool ours = unshare(CLONE_NEWIPC) == 0;
  return ours;
}

KernelObjects CountKernelObjects() {
  KernelObjects objects = {};
  std::string line;
  std::ifstream segments("/proc/sysvipc/shm");
  while (std::getline(segments, line)) {
    std::istringstream words(line);
    long key, id, mode, size;
    objects.segments += words >> key >> id >> mode >> size && size == 21868;
  }
  std::ifstream semaphores("/proc/sysvipc/sem");
  std::getline(semaphores, line);  // headings
  while (std::getline(semaphores, line)) objects.semaphores++;
  return objects;
}

}  // namespace qvtest

// qvctl as people and scripts use it: its exit statuses and messages, two controllers at once, a
// controller killed with the lock, a tool killed at each step of its set-up, and what is left
// afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Result {
  int status;
  std::string text;  // standard output and standard error
};

Result RunShell(const std::string& command) {
  FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
  std::string text;
  char buffer[4096];
  for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, got);
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), text};
}

// The kernel objects below are the machine's, and other tests make some too. In a namespace of our own,
// which takes a privilege, all that is there is ours; without it they are not compared.
bool OwnsAllKernelObjects() {
  static const bool owns = unshare(CLONE_NEWIPC) == 0;
  return owns;
}

// Segments of a channel's size.
std::set<int> Segments() {
  std::set<int> ids;
  if (!OwnsAllKernelObjects()) return ids;
  std::ifstream table("/proc/sysvipc/shm");
  std::string line;
  std::getline(table, line);
  while (std::getline(table, line)) {
    std::istringstream words(line);
    long key, id, mode, size;
    if (words >> key >> id >> mode >> size && size == 21868) ids.insert(int(id));
  }
  return ids;
}

size_t SemaphoreSets() {
  if (!OwnsAllKernelObjects()) return 0;
  std::ifstream table("/proc/sysvipc/sem");
  return size_t(std::count(std::istreambuf_iterator<char>(table), {}, '\n'));
}

class Qvctl : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "qvctl.XXXXXX";
    folder_ = mkdtemp(pattern.data());
    segments_ = Segments();
    semaphores_ = SemaphoreSets();
  }
  void TearDown() override {
    if (tool_ > 0) StopTool(SIGKILL);
    if (fs::exists(folder_ + "/obkcmds.dat")) Ctl("clean");
    EXPECT_EQ(Segments(), segments_);
    EXPECT_EQ(SemaphoreSets(), semaphores_);
    EXPECT_FALSE(fs::exists(folder_ + "/obkcmds.dat"));
    fs::remove_all(folder_);
  }
  Result Ctl(const std::string& words) { return RunShell(QVCTL " " + folder_ + " " + words); }

  void StartTool() {
    fs::remove(folder_ + "/out");  // the former tool's must not look like this one's
    tool_ = fork();
    if (tool_ == 0) {
      const int out = open((folder_ + "/out").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0666);
      dup2(out, STDOUT_FILENO);
      execl(TOOL, TOOL, folder_.c_str(), nullptr);
      _exit(127);
    }
    for (int i = 0; i < 30000 && Output().empty(); i++) usleep(1000);
    ASSERT_EQ(Output(), "up\n");
  }
  // With signal 0 it has been told to end; one that does not is killed after half a minute.
  int StopTool(int signal) {
    if (signal != 0) kill(tool_, signal);
    int status = 0;
    for (int waits = 0; waitpid(tool_, &status, WNOHANG) == 0; waits++) {
      if (waits == 30000) kill(tool_, SIGKILL);
      usleep(1000);
    }
    tool_ = -1;
    return status;
  }
  std::string Output() {
    std::ifstream stream(folder_ + "/out");
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  std::string folder_;
  std::set<int> segments_;
  size_t semaphores_ = 0;
  pid_t tool_ = -1;
};

TEST_F(Qvctl, EveryStateHasItsExitStatusAndMessage) {
  EXPECT_EQ(Ctl("status").status, 2);
  EXPECT_NE(Ctl("status").text.find("no command channel"), std::string::npos);
  EXPECT_EQ(Ctl("clean").status, 2);
  EXPECT_EQ(Ctl("dance").status, 1);
  EXPECT_EQ(Ctl("send").status, 1);
  EXPECT_EQ(Ctl("send 1x").status, 1);
  EXPECT_EQ(Ctl("send 1 2 3 4 5 6").status, 1);
  EXPECT_EQ(Ctl("send 1 --payload").status, 1);
  EXPECT_EQ(Ctl("wait 5").status, 1);
  std::ofstream(folder_ + "/obkcmds.dat") << "abc";
  EXPECT_EQ(Ctl("status").status, 3);
  std::ofstream(folder_ + "/obkcmds.dat") << std::string(8, '\x7f');
  EXPECT_EQ(Ctl("send 5").status, 3);
  EXPECT_EQ(Ctl("clean").status, 0);

  StartTool();
  const Result status = Ctl("status");
  EXPECT_EQ(status.status, 0);
  EXPECT_NE(status.text.find("pid " + std::to_string(tool_) + ", alive"), std::string::npos)
      << status.text;
  EXPECT_NE(status.text.find("ready, 0 pending"), std::string::npos);
  EXPECT_EQ(Ctl("clean").status, 10);
  EXPECT_EQ(Ctl("send 7 0x10 --payload " + std::string(4353, 'p')).status, 8);
  EXPECT_EQ(Ctl("send 7 0x10 --payload " + std::string(4352, 'p')).status, 0);
  std::ofstream(folder_ + "/payload") << "from a file";
  EXPECT_EQ(Ctl("send -3 --payload-file " + folder_ + "/payload").status, 0);
  EXPECT_EQ(Ctl("send 3 --payload-file " + folder_ + "/none").status, 11);
  EXPECT_EQ(Ctl("wait").status, 0);
  for (int i = 0; i < 2000 && Output().find("-3 0 from a file\n") == std::string::npos; i++)
    usleep(1000);
  EXPECT_EQ(Output(), "up\n7 16 " + std::string(4352, 'p') + "\n-3 0 from a file\n");

  EXPECT_EQ(Ctl("send 2").status, 0);  // busy from now on: the next ones stay
  EXPECT_EQ(Ctl("wait").status, 0);
  for (int i = 0; i < 5; i++) EXPECT_EQ(Ctl("send " + std::to_string(20 + i)).status, 0);
  EXPECT_EQ(Ctl("send 9 --timeout 0.1").status, 6);
  EXPECT_EQ(Ctl("wait --timeout 0.1").status, 7);
  std::ofstream(folder_ + "/go") << "on";
  EXPECT_EQ(Ctl("send 9 --timeout 30").status, 0);
  EXPECT_EQ(Ctl("wait").status, 0);

  StopTool(SIGKILL);
  EXPECT_EQ(Ctl("status").status, 4);
  EXPECT_EQ(Ctl("send 1").status, 4);
  EXPECT_EQ(Ctl("clean").status, 0);
  StartTool();
  EXPECT_EQ(Ctl("send 1").status, 0);
  EXPECT_EQ(StopTool(0), 0);
  EXPECT_EQ(Ctl("status").status, 2);
}

// A command by name is its code, and one that does nothing behind it, which is taken when the first is
// done: the snapshot that this tool has not written is missed at once.
TEST_F(Qvctl, CommandsByNameAreDoneWhenTheyReturn) {
  EXPECT_EQ(Ctl("snapshot").status, 2);
  EXPECT_EQ(Ctl("pause now").status, 1);
  EXPECT_EQ(Ctl("pause --payload x").status, 1);
  StartTool();
  EXPECT_EQ(Ctl("resume").status, 0);
  EXPECT_EQ(Output(), "up\n3 0 \n0 0 \n");
  EXPECT_EQ(Ctl("reset-peak").status, 0);
  EXPECT_EQ(Output(), "up\n3 0 \n0 0 \n4 0 \n0 0 \n");
  EXPECT_EQ(Ctl("pause --timeout 0.2").status, 7);  // this tool's code 2: busy
  std::ofstream(folder_ + "/go") << "on";
  EXPECT_EQ(Ctl("wait").status, 0);
  EXPECT_EQ(Ctl("stop --timeout 0.2").status, 7);  // it knows of no such thing
  const Result snapshot = Ctl("snapshot");         // its code 1 ends it
  EXPECT_NE(snapshot.status, 0);
  EXPECT_EQ(StopTool(0), 0);
}

TEST_F(Qvctl, WatchEndsWithTheTool) {
  StartTool();
  FILE* const watch = popen((QVCTL " " + folder_ + " watch").c_str(), "r");
  char line[100] = "";
  EXPECT_NE(fgets(line, sizeof line, watch), nullptr);
  EXPECT_STREQ(line, "ready, 0 pending\n");
  StopTool(SIGKILL);
  std::string last;
  while (fgets(line, sizeof line, watch) != nullptr) last = line;
  EXPECT_EQ(last, "the tool is gone\n");
  EXPECT_EQ(pclose(watch), 0);
}

TEST_F(Qvctl, TwoControllersLoseAndDoubleNothingWhileOthersAreKilledWithTheLock) {
  StartTool();
  std::vector<pid_t> controllers;
  for (int who = 0; who < 2; who++) {
    controllers.push_back(fork());
    if (controllers.back() != 0) continue;
    for (int i = 0; i < 150; i++) {
      if (Ctl("send " + std::to_string(1000 * (who + 1) + i)).status != 0) _exit(1);
    }
    _exit(0);
  }
  for (int i = 0; i < 40; i++) {  // takes the lock and dies with it
    const pid_t victim = fork();
    if (victim == 0) {
      flock(open((folder_ + "/obkcmds.dat").c_str(), O_RDWR), LOCK_EX);
      pause();
    }
    usleep(5000);
    kill(victim, SIGKILL);
    waitpid(victim, nullptr, 0);
  }
  for (const pid_t controller : controllers) {
    int status = -1;
    waitpid(controller, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(Ctl("send 1 --payload end").status, 0);  // wakes the tool for what a held lock put off
  EXPECT_EQ(StopTool(0), 0);
  std::istringstream lines(Output());
  std::string line;
  int next[2] = {1000, 2000};
  while (std::getline(lines, line)) {
    const int code = atoi(line.c_str());
    if (code >= 1000) {
      EXPECT_EQ(code, next[code / 1000 - 1]++) << line;
    }
  }
  EXPECT_EQ(next[0], 1150);
  EXPECT_EQ(next[1], 2150);
}

// A tool may open its channel anew between a controller's look and its turn: what is then appended to
// the former area would be lost.
TEST_F(Qvctl, ACommandIsNotSentToAFormerArea) {
  StartTool();
  const int file = open((folder_ + "/obkcmds.dat").c_str(), O_RDWR);
  int id = -1;
  ASSERT_EQ(pread(file, &id, sizeof id, 0), 4);
  ASSERT_EQ(flock(file, LOCK_EX), 0);
  Result sent = {-1, ""};
  std::thread controller([&] { sent = Ctl("send 5 --timeout 60"); });
  shmid_ds info = {};
  for (int i = 0; i < 30000 && info.shm_nattch < 2; i++) {
    usleep(1000);
    shmctl(id, IPC_STAT, &info);
  }
  const int other = id + 1;
  EXPECT_EQ(pwrite(file, &other, sizeof other, 0), 4);
  flock(file, LOCK_UN);
  controller.join();
  EXPECT_EQ(sent.status, 3) << sent.text;
  EXPECT_EQ(pwrite(file, &id, sizeof id, 0), 4);
  close(file);
  EXPECT_EQ(Ctl("send 1").status, 0);
  EXPECT_EQ(StopTool(0), 0);
  EXPECT_EQ(Output(), "up\n1 0 \n");
}

TEST_F(Qvctl, AToolKilledAtAnyStepOfSetUpIsCleanedUpAndTheNextOneWorks) {
  for (int step = 0; step < 10; step++) {
    const Result dead =
        RunShell(TOOL " " + folder_ + " die-at " + std::to_string(step) + " </dev/null & wait $!");
    if (dead.text == "up\n") break;
    EXPECT_EQ(dead.status, 128 + SIGKILL) << step << dead.text;
    const int status = Ctl("status").status;
    EXPECT_TRUE(status == 3 || status == 4) << step << ": " << status;
    EXPECT_EQ(Ctl("clean").status, 0) << step;
    EXPECT_EQ(Segments(), segments_) << step;
    EXPECT_EQ(SemaphoreSets(), semaphores_) << step;
  }
  StartTool();
  EXPECT_EQ(Ctl("send 1").status, 0);
  EXPECT_EQ(StopTool(0), 0);
}

}  // namespace

// A program under qvheap with its command channel (tests/qvheap/steered.c), and qvctl.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace qvtest {

struct CtlResult {
  int status;
  std::string text;  // standard output and standard error
};

class Steered {
 public:
  // Options of qvheap. The results are in Folder(), which is new.
  explicit Steered(const std::string& options = "");
  ~Steered();
  Steered(const Steered&) = delete;
  Steered& operator=(const Steered&) = delete;

  const std::string& Folder() const { return folder_; }
  pid_t Pid() const { return pid_; }
  void Tell(const std::string& line);  // without waiting for an answer
  std::string Answer();                // the next line; "" if none comes any more
  std::string Say(const std::string& line) { return Tell(line), Answer(); }
  CtlResult Ctl(pid_t process, const std::string& words) const;
  CtlResult Ctl(const std::string& words) const { return Ctl(pid_, words); }
  bool HasChannel(pid_t process) const;
  // Has the process allocate until it has opened its channel; a due one needs some time.
  void AwaitChannel(pid_t process);
  int Wait();  // the exit status, or 128 + the signal
  std::string Read(const std::string& fileName) const;
  std::vector<std::string> Files(const std::string& pattern) const;

 private:
  std::string folder_;
  pid_t pid_ = -1;
  int input_ = -1, output_ = -1;
  bool ended_ = false;
};

// What the system holds in the name of channels: segments of their size, and semaphore sets.
struct KernelObjects {
  size_t segments, semaphores;
};
KernelObjects CountKernelObjects();
// The system's objects are the machine's, and other tests make some too. The first call puts this process
// into a namespace of its own, which takes a privilege; false if it has not got it.
bool KernelObjectsAreOurs();

}  // namespace qvtest

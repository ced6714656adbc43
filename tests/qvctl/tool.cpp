// A tool for the tests of qvctl: opens a channel in DIR and writes each command it is given as a line
// "code a2 payload" to standard output. Code 1 ends it in good order, code 2
// keeps it busy until there is a file "go" in DIR.
//
//   qvctl_test_tool DIR [die-at STEP]    killed at the n-th system call of set-up that is counted below;
//                                        ends in good order if set-up has fewer
#include <dlfcn.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "host/qvhost.h"
#include "include/qvrt.h"

namespace {

std::atomic<bool> g_end = false;
std::string g_go;
int g_dieAt = -1;

// Counts the steps of set-up as the library makes them; kills this process, as from outside, at one.
void Step() {
  if (g_dieAt >= 0 && g_dieAt-- == 0) kill(getpid(), SIGKILL);
}

void OnCommand(int code, int a2, int, int, int, unsigned char* payload, void*) {
  printf("%d %d %s\n", code, a2, reinterpret_cast<char*>(payload));
  fflush(stdout);
  while (code == 2 && access(g_go.c_str(), F_OK) != 0) usleep(1000);
  if (code == 1) g_end = true;
}

}  // namespace

// The library's calls come here first.
extern "C" int flock(int fd, int operation) {
  Step();
  const auto next = reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "flock"));
  return next(fd, operation);
}
extern "C" int shmget(key_t key, size_t size, int flags) {
  Step();
  const auto next = reinterpret_cast<int (*)(key_t, size_t, int)>(dlsym(RTLD_NEXT, "shmget"));
  const int id = next(key, size, flags);
  Step();
  return id;
}
extern "C" int semget(key_t key, int count, int flags) {
  Step();
  const auto next = reinterpret_cast<int (*)(key_t, int, int)>(dlsym(RTLD_NEXT, "semget"));
  const int id = next(key, count, flags);
  Step();
  return id;
}
extern "C" void* shmat(int id, const void* address, int flags) {
  Step();
  const auto next = reinterpret_cast<void* (*)(int, const void*, int)>(dlsym(RTLD_NEXT, "shmat"));
  void* const area = next(id, address, flags);
  Step();
  return area;
}

int main(int argc, char** argv) {
  const bool toDie = argc > 3 && strcmp(argv[2], "die-at") == 0;
  if (toDie) g_dieAt = atoi(argv[3]);
  QvHostInstall();
  g_go = std::string(argv[1]) + "/go";
  if (__QvRegisterCommandHandler(argv[1], OnCommand, nullptr) == 0) return 3;
  puts("up");
  fflush(stdout);
  while (!g_end && !toDie) usleep(2000);
  __QvShutdownCommandHandler();
  __QvUnregisterCommandHandler(QVCMDHDLR_CLEAN_ALL);
  return 0;
}

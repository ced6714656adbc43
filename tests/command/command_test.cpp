// The command channel: a real tool process and a controller written from the layout alone, through
// whole lives: set-up, batches, heartbeats, hostile areas, shutdown, tear-down, and every failing step.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "host/qvhost.h"
#include "include/qvrt.h"
#include "tests/support/child.h"

// A worker whose channel could not be set up has ended, and nobody may wait for it: the engine may start
// threads only after the registering call has returned. The thread sanitizer calls that a leak. A forked
// child of a tool may have a worker too.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() { return "report_thread_leaks=0:die_after_fork=0"; }

namespace {

// A controller, from the documented layout.
class Controller {
 public:
  explicit Controller(const std::string& lockFile) : file_(open(lockFile.c_str(), O_RDWR)) {
    int32_t words[2] = {-1, -1};
    CHECK_EQ(pread(file_, words, 8, 0), 8);
    CHECK_EQ(words[1], ftok(lockFile.c_str(), 0));
    segment_ = words[0];
    area_ = static_cast<char*>(shmat(words[0], nullptr, 0));
    CHECK(area_ != reinterpret_cast<char*>(-1));
    semaphore_ = semget(words[1], 1, 0);
    CHECK(semaphore_ != -1);
  }
  ~Controller() {
    Detach();
    close(file_);
  }
  void Detach() {
    if (area_ != nullptr) shmdt(area_);
    area_ = nullptr;
  }
  uint32_t Ready() const {
    return __atomic_load_n(reinterpret_cast<uint32_t*>(area_), __ATOMIC_ACQUIRE);
  }
  int32_t Pending() const { return __atomic_load_n(PendingWord(), __ATOMIC_ACQUIRE); }
  void SetPending(int32_t n) { __atomic_store_n(PendingWord(), n, __ATOMIC_RELEASE); }
  void Lock() { CHECK_EQ(flock(file_, LOCK_EX), 0); }
  void Unlock() { flock(file_, LOCK_UN); }
  void Write(int slot, int32_t code, const std::string& payload) {
    char* const record = area_ + 8 + 4372 * slot;
    const int32_t arguments[5] = {code, -code, code + 1, code + 2, code + 3};
    memcpy(record, arguments, 20);
    memset(record + 20, 0, 4352);
    memcpy(record + 20, payload.data(), payload.size());
  }
  void Post() {
    sembuf post = {0, 1, 0};
    CHECK_EQ(semop(semaphore_, &post, 1), 0);
  }
  int SegmentId() const { return segment_; }
  int SemaphoreId() const { return semaphore_; }

 private:
  int32_t* PendingWord() const { return reinterpret_cast<int32_t*>(area_ + 4); }
  int file_, segment_, semaphore_;
  char* area_;
};

struct Delivered {
  std::mutex lock;
  std::vector<int> codes;
  std::vector<std::string> payloads;
  bool faithful = true;
  size_t Count() {
    const std::lock_guard guard(lock);
    return codes.size();
  }
};

void OnCommand(int code, int a2, int a3, int a4, int a5, unsigned char* payload, void* context) {
  Delivered& delivered = *static_cast<Delivered*>(context);
  const std::lock_guard guard(delivered.lock);
  delivered.codes.push_back(code);
  if (code == QV_HEARTBEAT_CODE) {
    delivered.faithful &= (a2 | a3 | a4 | a5) == 0 && payload == nullptr;
    return;
  }
  delivered.payloads.emplace_back(reinterpret_cast<char*>(payload));
  delivered.faithful &= a2 == -code && a3 == code + 1 && a4 == code + 2 && a5 == code + 3;
}

template <class Condition>
void Await(Condition condition) {
  for (int i = 0; !condition(); i++) {
    CHECK(i < 20000);
    usleep(1000);
  }
}

void TakeDown() {
  __QvShutdownCommandHandler();
  __QvUnregisterCommandHandler(QVCMDHDLR_CLEAN_ALL);
}

// A removed segment goes when the last process has detached.
void CheckNothingIsLeft(Controller& controller) {
  controller.Detach();
  shmid_ds info;
  CHECK_EQ(shmctl(controller.SegmentId(), IPC_STAT, &info), -1);
  CHECK_EQ(semctl(controller.SemaphoreId(), 0, GETVAL), -1);
  CHECK_EQ(access("obkcmds.dat", F_OK), -1);
}

TEST(CommandChannel, BatchesArriveInOrderOnceAndTheObjectsGoAtTheEnd) {
  const auto child = qvtest::RunChild([] {
    QvHostInstall();
    mkdir("run", 0755);
    Delivered delivered;
    CHECK_EQ(__QvRegisterCommandHandler("./run//", OnCommand, &delivered), 1);
    CHECK(strcmp(theCommandHandler.lockFilePath, "./run/obkcmds.dat") == 0);
    struct stat info;
    CHECK(stat("run/obkcmds.dat", &info) == 0 && (info.st_mode & 0777) == 0600 && info.st_size == 8);
    Controller controller("run/obkcmds.dat");
    CHECK_EQ(controller.Ready(), 1u);
    std::mt19937 random(3);
    int next = 1;
    std::vector<std::string> sent;
    for (int batch = 0; batch < 3000; batch++) {
      controller.Lock();
      const int at = controller.Pending();
      const int count = std::min<int>(5 - at, 1 + int(random() % 5));
      for (int i = 0; i < count; i++) {
        sent.push_back(std::string(random() % 4352, char('a' + next % 26)));
        controller.Write(at + i, next++, sent.back());
      }
      controller.SetPending(at + count);
      controller.Unlock();
      controller.Post();
      if (random() % 8 == 0) Await([&] { return controller.Pending() == 0; });
    }
    Await([&] { return delivered.Count() + 1 == size_t(next); });
    {
      const std::lock_guard guard(delivered.lock);
      for (int i = 1; i < next; i++) CHECK_EQ(delivered.codes[size_t(i - 1)], i);
      CHECK(delivered.payloads == sent && delivered.faithful);
    }
    // Records that a locked controller posts stay for the next wake-up.
    controller.Lock();
    controller.Write(0, 7, "");
    controller.SetPending(1);
    controller.Post();
    usleep(20000);
    CHECK_EQ(controller.Pending(), 1);
    controller.Unlock();
    controller.Post();
    Await([&] { return delivered.Count() == size_t(next); });
    __QvShutdownCommandHandler();
    __QvShutdownCommandHandler();
    CHECK_EQ(controller.Ready(), 1u);
    CHECK_EQ(chdir("run"), 0);
    __QvUnregisterCommandHandler(QVCMDHDLR_CLEAN_DETACH);
    CHECK(access("obkcmds.dat", F_OK) == 0 && semctl(controller.SemaphoreId(), 0, GETVAL) >= 0);
    semctl(controller.SemaphoreId(), 0, IPC_RMID);
  });
  EXPECT_TRUE(child.Ok()) << child.status << child.err;
}

TEST(CommandChannel, HostileAreasMakeNoWorkerFail) {
  const auto child = qvtest::RunChild([] {
    QvHostInstall();
    Delivered delivered;
    CHECK_EQ(__QvRegisterCommandHandlerWithHeartbeat(nullptr, OnCommand, &delivered, 1), 1);
    Controller controller("obkcmds.dat");
    for (const int32_t pending : {-1, INT32_MIN, 6, INT32_MAX, 5}) {
      const size_t before = delivered.Count();
      for (int i = 0; i < 5; i++) controller.Write(i, 100 + i, "x");
      controller.SetPending(pending);
      controller.Post();
      Await([&] { return controller.Pending() == 0; });
      if (pending > 0) Await([&] { return delivered.Count() >= before + 5; });
    }
    Await([&] {
      const std::lock_guard guard(delivered.lock);
      CHECK(delivered.faithful);
      return delivered.codes.back() == QV_HEARTBEAT_CODE;
    });
    TakeDown();
    CheckNothingIsLeft(controller);
    CHECK_EQ(theCommandHandler.processCommands(), -1);
    CHECK_EQ(theCommandHandler.processHeartbeat(), -1);
  });
  EXPECT_TRUE(child.Ok()) << child.status << child.err;
}

TEST(CommandChannel, RefusalsCreateNothing) {
  const auto child = qvtest::RunChild([] {
    Delivered delivered;
    CHECK_EQ(__QvRegisterCommandHandler("", OnCommand, &delivered), 0);  // no thread services yet
    QvHostInstall();
    CHECK_EQ(__QvRegisterCommandHandler("", nullptr, &delivered), 0);
    std::string longest(4096 - 13, 'd');  // with '/' and the name one byte too many
    CHECK_EQ(__QvRegisterCommandHandler(longest.c_str(), OnCommand, &delivered), 0);
    longest.assign(100000, 'd');
    CHECK_EQ(__QvRegisterCommandHandler(longest.c_str(), OnCommand, &delivered), 0);
    CHECK_EQ(__QvRegisterCommandHandler("no/such/directory", OnCommand, &delivered), 0);
    CHECK_EQ(access("obkcmds.dat", F_OK), -1);
    CHECK_EQ(theCommandHandler.sharedMemoryId & theCommandHandler.lockFileDescriptor, -1);
    // A step that fails undoes the ones before it: no byte can be written to the lock file.
    const rlimit none = {0, RLIM_INFINITY};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &none);
    CHECK_EQ(__QvRegisterCommandHandler("", OnCommand, &delivered), 0);
    CHECK_EQ(access("obkcmds.dat", F_OK), -1);
    const rlimit four = {4, RLIM_INFINITY};  // the id fits, the key does not
    setrlimit(RLIMIT_FSIZE, &four);
    CHECK_EQ(__QvRegisterCommandHandler("", OnCommand, &delivered), 0);
    CHECK_EQ(access("obkcmds.dat", F_OK), -1);
    const rlimit all = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &all);
    shm_info totals;
    shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&totals));
    for (int i = 0; i <= 4096; i++) {
      shmid_ds info;
      if (shmctl(i, SHM_STAT, &info) != -1) CHECK(info.shm_cpid != getpid());
    }
    longest.assign(100000, '/');  // counts as one; and after all that it works
    CHECK_EQ(__QvRegisterCommandHandler(("." + longest).c_str(), OnCommand, &delivered), 1);
    TakeDown();
  });
  EXPECT_TRUE(child.Ok()) << child.status << child.err;
}

// The create-thread proc starts the worker at once; set-up waits long for the lock file.
TEST(CommandChannel, TheWorkerIsHeldUntilSetUpIsOver) {
  const auto child = qvtest::RunChild([] {
    QvHostInstall();
    const int file = open("obkcmds.dat", O_RDWR | O_CREAT, 0600);
    CHECK_EQ(flock(file, LOCK_EX), 0);
    Delivered delivered;
    std::atomic<int> up = -1;
    std::thread registrar(
        [&] { up = __QvRegisterCommandHandlerWithHeartbeat("", OnCommand, &delivered, 1); });
    usleep(300000);
    CHECK_EQ(up.load(), -1);
    unlink("obkcmds.dat");  // as a cleaner does; the tool must then take the file of that name
    flock(file, LOCK_UN);
    registrar.join();
    CHECK_EQ(up.load(), 1);
    Controller controller("obkcmds.dat");
    controller.Lock();
    controller.Write(0, 5, "");
    controller.SetPending(1);
    controller.Unlock();
    controller.Post();
    Await([&] { return delivered.Count() > 0; });
    TakeDown();
    CheckNothingIsLeft(controller);
  });
  EXPECT_TRUE(child.Ok()) << child.status << child.err;
}

void SendOne(Controller& controller, int code) {
  controller.Lock();
  controller.Write(0, code, "");
  controller.SetPending(1);
  controller.Unlock();
  controller.Post();
}

// The former worker may still wait on the semaphore, and takes nothing away from the new one.
TEST(CommandChannel, RegisteredAgainItMovesAndLosesNothing) {
  const auto child = qvtest::RunChild([] {
    QvHostInstall();
    mkdir("other", 0755);
    Delivered first, second;
    CHECK_EQ(__QvRegisterCommandHandler("", OnCommand, &first), 1);
    Controller former("obkcmds.dat");
    SendOne(former, 1);
    Await([&] { return first.Count() == 1; });
    CHECK_EQ(__QvRegisterCommandHandler("", nullptr, nullptr), 0);  // changes nothing
    SendOne(former, 2);
    Await([&] { return first.Count() == 2; });
    CHECK_EQ(__QvRegisterCommandHandler("", OnCommand, &second), 1);  // the same semaphore
    {
      Controller same("obkcmds.dat");
      CHECK(same.SegmentId() != former.SegmentId() && same.SemaphoreId() == former.SemaphoreId());
      for (int i = 3; i < 20; i++) {
        SendOne(same, i);
        Await([&] { return second.Count() == size_t(i - 2); });
      }
      CHECK_EQ(__QvRegisterCommandHandler("other", OnCommand, &second), 1);
      CHECK_EQ(semctl(same.SemaphoreId(), 0, GETVAL), -1);
    }
    Controller other("other/obkcmds.dat");
    SendOne(other, 20);
    Await([&] { return second.Count() == 18; });
    // A child of a fork takes nothing from its parent when it opens a channel of its own.
    mkdir("child", 0755);
    const pid_t pid = fork();
    if (pid == 0) {
      _exit(__QvRegisterCommandHandler("child", OnCommand, &first) == 1 &&
                    theCommandHandler.sharedMemoryId != other.SegmentId()
                ? (__QvUnregisterCommandHandler(QVCMDHDLR_CLEAN_ALL), 0)
                : 1);
    }
    int status = -1;
    CHECK(waitpid(pid, &status, 0) == pid && status == 0);
    shmid_ds info;
    CHECK(shmctl(other.SegmentId(), IPC_STAT, &info) == 0 && (info.shm_perm.mode & SHM_DEST) == 0);
    SendOne(other, 21);
    Await([&] { return second.Count() == 19; });
    // After a shut-down a worker ends at its first wake-up, and delivers nothing.
    __QvShutdownCommandHandler();
    CHECK_EQ(__QvRegisterCommandHandler("other", OnCommand, &second), 1);
    Controller last("other/obkcmds.dat");
    SendOne(last, 22);
    Await([&] { return semctl(last.SemaphoreId(), 0, GETVAL) == 0; });
    usleep(20000);
    CHECK_EQ(last.Pending(), 1);
    CHECK_EQ(first.Count() + second.Count(), 21u);
    __QvUnregisterCommandHandler(QVCMDHDLR_CLEAN_ALL);
  });
  EXPECT_TRUE(child.Ok()) << child.status << child.err;
}

// A controller may post before it has let the lock go.
TEST(CommandChannel, WhatABusyLockLeftIsDeliveredAtTheNextHeartbeat) {
  const auto child = qvtest::RunChild([] {
    QvHostInstall();
    Delivered delivered;
    CHECK_EQ(__QvRegisterCommandHandlerWithHeartbeat("", OnCommand, &delivered, 1), 1);
    Controller controller("obkcmds.dat");
    controller.Lock();
    controller.Write(0, 5, "");
    controller.SetPending(1);
    controller.Post();
    Await([&] { return semctl(controller.SemaphoreId(), 0, GETVAL) == 0; });
    usleep(50000);
    CHECK(delivered.Count() == 0 && controller.Pending() == 1);
    controller.Unlock();
    Await([&] { return delivered.Count() >= 2; });
    CHECK(delivered.codes[0] == QV_HEARTBEAT_CODE && delivered.codes[1] == 5);
    TakeDown();
  });
  EXPECT_TRUE(child.Ok()) << child.status << child.err;
}

// An engine that starts a worker when it is told to.
QV_THREAD_FUNCTION g_worker;
void InstallLateHost() {
  QvHostInstall();
  __QvSetThreadProcs(
      [](QV_THREAD_FUNCTION function, intptr_t, uint64_t, uint64_t* handle) {
        g_worker = function;
        return uint32_t(*handle = 1);
      },
      [](int32_t) {}, [](uint64_t*, uint32_t, int32_t*) { return 1u; },
      [](QV_FINI_FUNCTION, void*) { return 1u; });
}

// A controller that keeps no rule, for as long as the tool lives: three records, whatever is there.
[[noreturn]] void SendForEver(pid_t tool) {
  while (getppid() == tool) {
    const int file = open("obkcmds.dat", O_RDONLY);
    int32_t segment = -1;
    if (pread(file, &segment, sizeof segment, 0) != ssize_t{sizeof segment}) segment = -1;
    close(file);
    void* const area = shmat(segment, nullptr, 0);
    if (area == reinterpret_cast<void*>(-1)) continue;
    __atomic_store_n(&static_cast<CommandArea*>(area)->pending, 3, __ATOMIC_RELEASE);
    shmdt(area);
  }
  _exit(0);
}

// Where the low byte of the device's number is 0, one file in 65,536 has the key 0 and is refused. A run
// makes a hundred files.
void RegisterOnSomeFile(Delivered& delivered) {
  for (int refused = 0; __QvRegisterCommandHandler("", OnCommand, &delivered) == 0; refused++) {
    CHECK(refused < 2);
  }
}

// The workers find the area and the lock file whole or gone, never on their way out.
TEST(CommandChannel, IsTakenAwayAndMovedWhileAWorkerTakesRecords) {
  const auto child = qvtest::RunChild([] {
    InstallLateHost();
    Delivered delivered;
    CHECK_EQ(__QvRegisterCommandHandler("", OnCommand, &delivered), 1);
    const pid_t tool = getpid();
    const pid_t sender = fork();
    if (sender == 0) SendForEver(tool);
    std::atomic<bool> stop = false;
    std::thread flood([&] {
      while (!stop) theCommandHandler.processCommands();
    });
    for (int i = 0; i < 400; i++) {
      if (i % 4 == 3) __QvUnregisterCommandHandler(QVCMDHDLR_CLEAN_ALL);
      RegisterOnSomeFile(delivered);
    }
    Await([&] { return delivered.Count() > 0; });
    stop = true;
    flood.join();
    kill(sender, SIGKILL);
    CHECK_EQ(waitpid(sender, nullptr, 0), sender);
    TakeDown();
  });
  EXPECT_TRUE(child.Ok()) << child.status << child.err;
}

// The worker of a channel that was shut down before it began takes the wake-up that is there for it.
TEST(CommandChannel, ALateWorkerTakesTheWakeUpOfTheShutdown) {
  const auto child = qvtest::RunChild([] {
    InstallLateHost();
    CHECK_EQ(__QvRegisterCommandHandler("", OnCommand, nullptr), 1);
    const int semaphore = theCommandHandler.semaphoreId;
    __QvShutdownCommandHandler();
    CHECK_EQ(semctl(semaphore, 0, GETVAL), 1);
    g_worker(0);
    CHECK_EQ(semctl(semaphore, 0, GETVAL), 0);
    g_worker(0);  // another one finds that taken
    __QvUnregisterCommandHandler(QVCMDHDLR_CLEAN_ALL);
  });
  EXPECT_TRUE(child.Ok()) << child.status << child.err;
}

// An engine whose create-thread proc runs the worker there and then.
TEST(CommandChannel, AWorkerOnTheRegisteringThreadEnds) {
  const auto child = qvtest::RunChild([] {
    static int exits = 0;
    __QvSetThreadProcs(
        [](QV_THREAD_FUNCTION function, intptr_t argument, uint64_t reserved, uint64_t* handle) {
          CHECK(argument == -7 && reserved == 0);
          *handle = 5;
          function(argument);
          return 1u;
        },
        [](int32_t code) { exits += 1 + code; },
        [](uint64_t* handle, uint32_t limit, int32_t* code) {
          CHECK(*handle == 5 && limit == 1000 && code == nullptr);
          return 1u;
        },
        [](QV_FINI_FUNCTION, void* argument) { return uint32_t{argument == nullptr}; });
    CHECK_EQ(__QvRegisterCommandHandlerWithHeartbeat("", OnCommand, nullptr, -7), 1);
    CHECK_EQ(exits, 1);
    TakeDown();
  });
  EXPECT_TRUE(child.Ok()) << child.status << child.err;
}

TEST(CommandChannel, NeverOnStandardDescriptors) {
  const auto child = qvtest::RunChild([] {
    QvHostInstall();
    for (int closed = 1; closed < 8; closed++) {
      for (int d = 0; d < 3; d++) {
        if ((closed >> d & 1) != 0) close(d);
      }
      const int fd = safeOpen("file", O_RDWR | O_CREAT, 0600);
      for (int d = 0; d < 3; d++) {
        if ((fcntl(d, F_GETFD) == -1) != ((closed >> d & 1) != 0)) _exit(90 + d);
      }
      if (fd <= 2) _exit(93);
      close(fd);
      for (int d = 0; d < 3; d++) {
        if ((closed >> d & 1) != 0 && open("/dev/null", O_RDWR) != d) _exit(94);
      }
    }
    if (safeOpen("no/such", O_RDWR, 0) != -1) _exit(95);
  });
  EXPECT_TRUE(child.Ok()) << child.status;
}

}  // namespace

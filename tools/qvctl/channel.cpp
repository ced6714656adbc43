// The controller's end of a command channel. Design: tools/qvctl/channel.h.
#include "tools/qvctl/channel.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>

namespace qvctl {
namespace {

constexpr char kLockFileName[] = "obkcmds.dat";
constexpr long kPollNanoseconds = 5'000'000;

struct LockFileContent {
  int32_t segmentId;
  int32_t semaphoreKey;
};

std::string LockFilePath(const std::string& directory) {
  if (directory.empty()) return kLockFileName;
  return directory + (directory.back() == '/' ? "" : "/") + kLockFileName;
}

[[noreturn]] void Fail(Status status, const std::string& message) { throw Failure{status, message}; }

// A failed system call as a failure: missing permission has a status of its own.
[[noreturn]] void FailSystem(Status otherwise, const std::string& what) {
  const bool denied = errno == EACCES || errno == EPERM;
  Fail(denied ? kNoPermission : otherwise, what + ": " + strerror(errno));
}

class Deadline {
 public:
  explicit Deadline(double seconds) : end_(Now() + seconds) {}
  bool Passed() const { return Now() >= end_; }
  static void Pause() {
    const timespec pause = {0, kPollNanoseconds};
    nanosleep(&pause, nullptr);
  }

 private:
  static double Now() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
  }
  const double end_;
};

int OpenLockFile(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (file == -1 && errno == ENOENT) Fail(kNoChannel, "no command channel: " + path + " is not there");
  if (file == -1) FailSystem(kSystem, path);
  return file;
}

// The first eight bytes; false if there are fewer.
bool ReadContent(int file, LockFileContent& content) {
  return pread(file, &content, sizeof content, 0) == ssize_t{sizeof content};
}

// The segment of an id, if it is such an area; ids are reused, so any other kind is somebody else's.
bool FindSegment(int id, shmid_ds& info) {
  return shmctl(id, IPC_STAT, &info) == 0 && info.shm_segsz == sizeof(CommandArea);
}

// The semaphore set of the key, if the key is the one that belongs to this very file.
int FindSemaphore(const std::string& path, key_t key) {
  return key != 0 && key == ftok(path.c_str(), 0) ? semget(key, 1, 0) : -1;
}

bool IsLocked(int file) {
  if (flock(file, LOCK_SH | LOCK_NB) != 0) return true;
  flock(file, LOCK_UN);
  return false;
}

bool ProcessLives(pid_t pid) { return kill(pid, 0) == 0 || errno == EPERM; }

}  // namespace

Channel::Channel(const std::string& directory) : path_(LockFilePath(directory)) {
  file_ = OpenLockFile(path_);
  LockFileContent content;
  shmid_ds info;
  if (!ReadContent(file_, content)) {
    if (IsLocked(file_)) Fail(kNotReady, "a tool is just setting the channel up");
    Fail(kStaleFile, path_ + " is stale: no tool has finished setting it up (clean removes it)");
  }
  segmentId_ = content.segmentId;
  key_ = content.semaphoreKey;
  if (!FindSegment(segmentId_, info)) {
    if (errno == EACCES) FailSystem(kNoPermission, "the shared memory of " + path_);
    Fail(kStaleFile, path_ + " is stale: its shared memory is gone (clean removes it)");
  }
  semaphoreId_ = FindSemaphore(path_, key_);
  if (semaphoreId_ == -1) {
    if (errno == EACCES) FailSystem(kNoPermission, "the semaphore of " + path_);
    Fail(kStaleFile, path_ + " is stale: its semaphore is gone (clean removes it)");
  }
  void* const area = shmat(segmentId_, nullptr, 0);
  if (area == reinterpret_cast<void*>(-1)) FailSystem(kSystem, "the shared memory of " + path_);
  area_ = static_cast<CommandArea*>(area);
}

Channel::~Channel() {
  if (area_ != nullptr) shmdt(area_);
  if (file_ != -1) close(file_);
}

Facts Channel::Look() const {
  Facts facts;
  shmid_ds info = {};
  if (shmctl(segmentId_, IPC_STAT, &info) == 0) {
    facts.creator = info.shm_cpid;
    facts.attached = info.shm_nattch - 1;
    facts.creatorAlive = ProcessLives(info.shm_cpid);
  }
  facts.segmentId = segmentId_;
  facts.semaphoreId = semaphoreId_;
  facts.semaphoreKey = key_;
  facts.ready = __atomic_load_n(&area_->ready, __ATOMIC_ACQUIRE) == 1;
  facts.pending = __atomic_load_n(&area_->pending, __ATOMIC_ACQUIRE);
  return facts;
}

// Lock held. False if there is no room.
bool Channel::TryAppend(const CommandRecord& record) {
  LockFileContent content;
  if (!ReadContent(file_, content) || content.segmentId != segmentId_) {
    Fail(kStaleFile, "the tool has opened its channel anew meanwhile");
  }
  if (__atomic_load_n(&area_->ready, __ATOMIC_ACQUIRE) != 1) {
    Fail(kNotReady, "the tool has not finished setting the channel up");
  }
  const int pending = area_->pending;
  if (pending < 0 || pending >= QV_COMMAND_RECORDS) return false;
  memcpy(&area_->records[pending], &record, sizeof record);
  __atomic_store_n(&area_->pending, pending + 1, __ATOMIC_RELEASE);
  return true;
}

void Channel::Post() const {
  sembuf post = {0, 1, 0};
  if (semop(semaphoreId_, &post, 1) != 0) FailSystem(kDeadTool, "the tool's semaphore");
}

void Channel::Send(const CommandRecord& record, double limitSeconds) {
  for (const Deadline deadline(limitSeconds);; Deadline::Pause()) {
    if (!Look().Alive()) Fail(kDeadTool, "the tool that opened the channel is dead (clean removes it)");
    bool appended = false;
    if (flock(file_, LOCK_EX | LOCK_NB) == 0) {
      struct Unlock {
        int file;
        ~Unlock() { flock(file, LOCK_UN); }
      } const unlock{file_};
      appended = TryAppend(record);
    }
    if (appended) return Post();
    if (deadline.Passed()) Fail(kAreaFull, "no room for a command within the time limit");
  }
}

void Channel::AwaitTaken(double limitSeconds) const {
  for (const Deadline deadline(limitSeconds);; Deadline::Pause()) {
    const Facts facts = Look();
    if (facts.pending == 0) return;
    if (!facts.Alive()) Fail(kDeadTool, "the tool died before it took its commands");
    if (deadline.Passed()) Fail(kTimedOut, "the tool has not taken its commands within the time limit");
  }
}

namespace {

void RemoveSegment(int id) {
  if (shmctl(id, IPC_RMID, nullptr) != 0) FailSystem(kSystem, "the shared memory");
}

// A tool that was killed before it had written the id of its segment left one that no file names. Of
// this user, of a channel's size and mode, attached by nobody, made by a process that is no more: it is
// dead.
void RemoveOrphanedSegments() {
  shm_info totals;
  shmid_ds info;
  const int last = shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&totals));  // highest index in use
  for (int index = 0; index <= last; index++) {
    const int id = shmctl(index, SHM_STAT, &info);
    if (id == -1 || info.shm_segsz != sizeof(CommandArea) || info.shm_nattch != 0) continue;
    const bool ours = info.shm_perm.uid == geteuid() && info.shm_perm.__key == IPC_PRIVATE &&
                      (info.shm_perm.mode & 0777) == 0600;
    if (ours && !ProcessLives(info.shm_cpid)) shmctl(id, IPC_RMID, nullptr);
  }
}

void RemoveSemaphore(const std::string& path) {
  const key_t key = ftok(path.c_str(), 0);
  const int id = key == 0 || key == key_t{-1} ? -1 : semget(key, 1, 0);
  if (id != -1 && semctl(id, 0, IPC_RMID) != 0) FailSystem(kSystem, "the semaphore");
}

// A folder that the tool had made for this one process, by its id, is part of what it left.
void RemoveFolder(const std::string& directory, pid_t creator) {
  std::error_code error;
  const auto folder = std::filesystem::canonical(directory, error);
  if (!error && folder.filename() == std::to_string(creator)) rmdir(folder.c_str());
}

}  // namespace

void Clean(const std::string& directory) {
  const std::string path = LockFilePath(directory);
  const int file = OpenLockFile(path);
  // Held until the file is gone: a tool that sets up meanwhile waits here and then finds the name free.
  if (flock(file, LOCK_EX | LOCK_NB) != 0) {
    Fail(kAlive, path + " is locked: somebody is using the channel; nothing was removed");
  }
  LockFileContent content;
  shmid_ds info = {};
  if (ReadContent(file, content) && FindSegment(content.segmentId, info)) {
    if (info.shm_nattch > 0) Fail(kAlive, "the tool is alive; nothing was removed");
    RemoveSegment(content.segmentId);
  }
  RemoveSemaphore(path);
  RemoveOrphanedSegments();
  if (unlink(path.c_str()) != 0) FailSystem(kSystem, path);
  close(file);
  RemoveFolder(directory, info.shm_cpid);
}

void AwaitRemoval(const std::string& directory, double limitSeconds) {
  const std::string path = LockFilePath(directory);
  for (const Deadline deadline(limitSeconds); access(path.c_str(), F_OK) == 0; Deadline::Pause()) {
    if (deadline.Passed()) Fail(kTimedOut, "the tool has not closed its channel within the time limit");
  }
}

}  // namespace qvctl

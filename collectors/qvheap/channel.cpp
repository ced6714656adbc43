// Opening and ending the command channel. Design: collectors/qvheap/channel.h.
#include "collectors/qvheap/channel.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include "collectors/qvheap/census.h"
#include "collectors/qvheap/life.h"
#include "collectors/qvheap/log.h"
#include "collectors/qvheap/pause.h"
#include "collectors/qvheap/steering.h"
#include "collectors/qvheap/worker.h"

namespace qvheap {
namespace {

struct LockFileContent {
  int32_t segmentId;
  key_t semaphoreKey;
};

// Census lock.
constinit char g_folder[PATH_MAX + 16] = {};
constinit char g_lockFile[PATH_MAX + 32] = {};
constinit char g_aside[PATH_MAX + 48] = {};
constinit LockFileContent g_content = {-1, 0};  // of the open channel
constinit uint64_t g_dueSince = 0;
constinit bool g_keyExists = false;
constinit pthread_key_t g_mainKey = 0;  // has a value in the main thread once it has opened a channel

// What a file holds that an earlier process of this id left; false if there is none.
bool ReadLockFile(LockFileContent& content) {
  const int file = safeOpen(g_lockFile, O_RDONLY | O_CLOEXEC, 0);
  if (file == -1) return false;
  const bool whole = read(file, &content, sizeof content) == ssize_t{sizeof content};
  if (!whole || content.semaphoreKey != ftok(g_lockFile, 0)) content = {-1, 0};
  close(file);
  return true;
}

// Ids and keys may mean something else by now (another namespace): only what is a channel's, and was
// made by a process of this id. The files go first: a controller that comes now finds no channel rather
// than half of one.
void RemoveChannel(const LockFileContent& content) {
  unlink(g_lockFile);
  rmdir(g_folder);
  struct shmid_ds info;
  if (shmctl(content.segmentId, IPC_STAT, &info) == 0 && info.shm_segsz == sizeof(CommandArea) &&
      info.shm_cpid == g_process.pid) {
    shmctl(content.segmentId, IPC_RMID, nullptr);
  }
  const int semaphore = content.semaphoreKey != 0 ? semget(content.semaphoreKey, 1, 0) : -1;
  if (semaphore != -1) semctl(semaphore, 0, IPC_RMID);
}

void RemoveLeftovers() {
  LockFileContent content;
  if (ReadLockFile(content)) RemoveChannel(content);
}

void NameFilesLocked() {
  snprintf(g_folder, sizeof g_folder, "%s/%d", g_process.options.directory, g_process.pid);
  snprintf(g_lockFile, sizeof g_lockFile, "%s/obkcmds.dat", g_folder);
}

// Whether the semaphore's key, which comes of the file's inode modulo 65536, is nobody's yet. A set
// that two processes shared would be taken away from the second when the first ends.
bool KeyIsFree() {
  const key_t key = ftok(g_lockFile, 0);
  return key != 0 && key != key_t{-1} && semget(key, 1, 0) == -1 && errno == ENOENT;
}

const char* AsidePathLocked(uint32_t number) {
  snprintf(g_aside, sizeof g_aside, "%s.%u", g_lockFile, number);
  return g_aside;
}

// A lock file with a free key; false if there is none to be had. Files whose key is taken are kept
// until then, so that each gets another inode.
bool MakeLockFileLocked() {
  constexpr uint32_t kTries = 16;
  uint32_t tried = 0;
  bool found = false;
  while (!found && tried < kTries) {
    const int file = safeOpen(g_lockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file == -1) break;
    close(file);
    found = KeyIsFree();
    if (!found) rename(g_lockFile, AsidePathLocked(tried++));
  }
  while (tried > 0) unlink(AsidePathLocked(--tried));
  return found;
}

// The child of a vfork runs as its parent's thread, but is another process.
bool CallerIsMainThread() {
  return int32_t(__QvGetNativeThreadId()) == g_process.pid && getpid() == g_process.pid;
}

// pthread_exit in the main thread: the process goes on without it until its last thread has ended.
void MainThreadEnded(void*) {
  const Inside inside;
  {
    const SpinGuard guard(g_censusLock);
    CloseChannelLocked(ChannelState::kOff);
  }
  AwaitWorkersEnd();
}

bool RegisterLocked() {
  const int every = int(g_process.options.everySeconds);
  if (__QvRegisterCommandHandlerWithHeartbeat(g_folder, OnCommand, nullptr, every) == 0) return false;
  g_content = {theCommandHandler.sharedMemoryId, ftok(g_lockFile, 0)};
  close(theCommandHandler.lockFileDescriptor);
  theCommandHandler.lockFileDescriptor = -1;  // the worker opens its own
  return true;
}

void OpenChannelLocked() {
  g_channelState = ChannelState::kOff;  // a failure is not tried again
  RemoveLeftovers();
  mkdir(g_folder, 0700);
  InstallWorkerServices();
  if (!g_keyExists) g_keyExists = pthread_key_create(&g_mainKey, MainThreadEnded) == 0;
  if (!g_keyExists || !MakeLockFileLocked() || !RegisterLocked()) {
    QVHEAP_DUMP_LOCKED(kDumpChannel, "no channel could be opened in %s", g_folder);
    unlink(g_lockFile);
    rmdir(g_folder);
    return;
  }
  pthread_setspecific(g_mainKey, &g_mainKey);
  g_channelState = ChannelState::kOpen;
  BeginSeriesLocked();
  QVHEAP_DUMP_LOCKED(kDumpChannel, "opened in %s", g_folder);
}

void BecomeDueLocked() {
  if (g_process.options.noChannel) return;
  g_channelState = ChannelState::kDue;
  g_dueSince = MillisecondsNow();
  NameFilesLocked();
}

}  // namespace

constinit ChannelState g_channelState = ChannelState::kOff;

void StartChannelLocked() {
  BecomeDueLocked();
  if (g_channelState != ChannelState::kDue) return;
  if (g_process.pid == g_process.options.launchedPid) {
    OpenChannelLocked();
  } else {
    RemoveLeftovers();
  }
}

void OpenChannelIfDue() {
  if (t_inside || MillisecondsNow() - g_dueSince < kDueAfterMilliseconds) return;
  if (!CallerIsMainThread()) return;
  const Inside inside;
  const SpinGuard guard(g_censusLock);
  if (g_channelState == ChannelState::kDue && !WorkerExists()) OpenChannelLocked();
}

void CloseChannelLocked(ChannelState next) {
  if (g_channelState != ChannelState::kOpen) return;
  g_channelState = next;
  Store(theCommandHandler.semaphoreId, -1);  // the worker reads it
  theCommandHandler.sharedMemoryId = -1;
  RemoveChannel(g_content);
  g_dueSince = MillisecondsNow();
  QVHEAP_DUMP_LOCKED(kDumpChannel, "closed in %s", g_folder);
}

// The parent's objects stay its own: the area is detached here, nothing is removed.
void RestartChannelLocked() {
  ForgetWorker();
  g_channelState = ChannelState::kOff;
  BecomeDueLocked();
}

}  // namespace qvheap

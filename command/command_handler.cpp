// Command channel: the class with its set-up, tear-down and delivery. Design:
// command/command_handler.h.
#include "command/command_handler.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

static_assert(sizeof(CommandRecord) == 4372 && offsetof(CommandRecord, payload) == 20);
static_assert(sizeof(CommandArea) == 21868 && offsetof(CommandArea, records) == 8);

namespace {

constexpr char kLockFileName[] = "obkcmds.dat";
constexpr size_t kPathBytes = sizeof(CollectorCommandHandler::lockFilePath);

// Process-wide state.
constinit uint32_t g_taker = 0;  // process id of who holds the guard (5), or 0

// Not a GuardWord: a word that the parent's thread left taken must not keep its child waiting for ever.
class TakingGuard : qv::NonCopyable {
 public:
  TakingGuard() {
    const uint32_t me = uint32_t(getpid());
    for (;;) {
      const uint32_t taker = qv::LoadRelaxed(g_taker);
      if (taker != me && qv::TryExchange(g_taker, me, taker)) return;
      sched_yield();
    }
  }
  ~TakingGuard() { qv::StoreRelease(g_taker, 0u); }
};

// Who a record or a heartbeat is for at this moment.
struct Recipient {
  QV_COMMAND_CALLBACK callback;
  void* context;
  explicit Recipient(const CollectorCommandHandler& handler) {
    const TakingGuard guard;
    callback = handler.commandCallback;
    context = handler.callbackContext;
  }
};

// The path of the lock file in a directory; false if it does not fit. Runs of slashes are made one as they
// are copied: a directory that is too long by them alone fits.
bool BuildLockFilePath(const char* directory, char (&path)[kPathBytes]) {
  size_t length = 0;
  for (const char* c = directory != nullptr ? directory : ""; *c != 0; c++) {
    if (*c == '/' && length > 0 && path[length - 1] == '/') continue;
    if (length + sizeof kLockFileName >= kPathBytes) return false;
    path[length++] = *c;
  }
  const bool needsSlash = length > 0 && path[length - 1] != '/';
  if (length + needsSlash + sizeof kLockFileName > kPathBytes) return false;
  if (needsSlash) path[length] = '/';
  memcpy(path + length + needsSlash, kLockFileName, sizeof kLockFileName);
  return true;
}

bool WriteWord(int descriptor, int32_t word) {
  return write(descriptor, &word, sizeof word) == ssize_t{sizeof word};
}

bool LockWaiting(int descriptor) {
  int result;
  do {
    result = flock(descriptor, LOCK_EX);
  } while (result == -1 && errno == EINTR);  // a signal of the program's is no reason to give up
  return result == 0;
}

union SemaphoreArgument {  // semctl's fourth argument, which callers declare themselves
  int value;
};

bool SameFile(int descriptor, const char* path) {
  struct stat opened, named;
  return fstat(descriptor, &opened) == 0 && stat(path, &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

// ---- The steps of set-up. Each leaves what it made in the fields; the caller undoes all on a failure. --

// Opens and locks the lock file. Who cleans up after a dead tool may remove the file while we wait for
// its lock; then the file of that name is another one, and we take that. The descriptor is closed on
// exec: a program started while the lock is held would hold it on.
bool OpenLockFile(CollectorCommandHandler& handler) {
  int& descriptor = handler.lockFileDescriptor;
  for (;;) {
    descriptor = safeOpen(handler.lockFilePath, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor == -1 || !LockWaiting(descriptor)) return false;
    if (SameFile(descriptor, handler.lockFilePath)) return true;
    close(descriptor);
  }
}

bool CreateSegment(CollectorCommandHandler& handler) {
  handler.sharedMemoryId = shmget(IPC_PRIVATE, sizeof(CommandArea), IPC_CREAT | 0600);
  return handler.sharedMemoryId != -1 && WriteWord(handler.lockFileDescriptor, handler.sharedMemoryId);
}

// One semaphore under the lock file's key. A key of 0 would silently make a private set that no
// controller could open; ftok gives it for some files, and -1 when it fails.
bool CreateSemaphore(CollectorCommandHandler& handler) {
  const key_t key = ftok(handler.lockFilePath, 0);
  if (key == IPC_PRIVATE || key == key_t{-1}) return false;
  qv::StoreRelaxed(handler.semaphoreId, semget(key, 1, IPC_CREAT | 0666));
  if (handler.semaphoreId == -1) return false;
  semctl(handler.semaphoreId, 0, SETVAL, SemaphoreArgument{0});
  return WriteWord(handler.lockFileDescriptor, key);
}

bool AttachSegment(CollectorCommandHandler& handler) {
  void* const area = shmat(handler.sharedMemoryId, nullptr, 0);
  if (area == reinterpret_cast<void*>(-1)) return false;
  qv::StoreRelease(handler.sharedArea, static_cast<CommandArea*>(area));
  return true;
}

// An instance is used again without having been cleaned up: its fields are set free, and what this
// process made goes. Gives the former semaphore, which the new channel may take over, or -1. In the child
// of a fork the channel is the parent's, who keeps it.
int GiveUpFormer(CollectorCommandHandler& handler) {
  const TakingGuard guard;
  int semaphore = -1;
  shmid_ds info;
  if (handler.sharedMemoryId != -1 && shmctl(handler.sharedMemoryId, IPC_STAT, &info) == 0 &&
      info.shm_cpid == getpid()) {
    shmctl(handler.sharedMemoryId, IPC_RMID, nullptr);
    semaphore = handler.semaphoreId;
  }
  if (handler.sharedArea != nullptr) shmdt(handler.sharedArea);
  if (handler.lockFileDescriptor != -1) close(handler.lockFileDescriptor);
  qv::StoreRelease(handler.sharedArea, static_cast<CommandArea*>(nullptr));
  handler.lockFileDescriptor = handler.sharedMemoryId = -1;
  qv::StoreRelaxed(handler.semaphoreId, -1);
  return semaphore;
}

}  // namespace

// Standard descriptors that the program has closed are occupied for as long as it takes to open the
// file once more, above them.
int safeOpen(const char* path, int flags, int mode) {
  const int first = open(path, flags, mode);
  if (first == -1 || first > STDERR_FILENO) return first;
  int held[3];
  int count = 0;
  int result = -1;
  for (;;) {
    const int copy = dup(first);
    if (copy == -1) break;
    if (copy > STDERR_FILENO) {
      close(copy);
      result = open(path, flags, mode);
      break;
    }
    held[count++] = copy;
  }
  while (count > 0) close(held[--count]);
  close(first);
  return result;
}

// C callers find it under its plain name.
extern "C" QV_API int qvPlainSafeOpen(const char* path, int flags, int mode) __asm__("safeOpen")
    __attribute__((alias("_Z8safeOpenPKcii")));

CollectorCommandHandler::CollectorCommandHandler()
    : sharedArea(nullptr),
      commandCallback(nullptr),
      callbackContext(nullptr),
      lockFileDescriptor(-1),
      sharedMemoryId(-1),
      semaphoreId(-1) {}

CollectorCommandHandler::~CollectorCommandHandler() {}

int CollectorCommandHandler::initializeCommandHandler(const char* directory,
                                                      QV_COMMAND_CALLBACK callback, void* context) {
  if (callback == nullptr) return 0;
  {
    const TakingGuard guard;
    commandCallback = callback;
    callbackContext = context;
  }
  if (!BuildLockFilePath(directory, lockFilePath)) return 0;
  const int former = GiveUpFormer(*this);
  const int created = createSharedMemoryAndLockFile();
  if (former != -1 && former != semaphoreId) semctl(former, 0, IPC_RMID);
  if (created == 0) return 0;
  {
    const TakingGuard guard;  // a former worker may see the new area already
    memset(sharedArea, 0, sizeof(CommandArea));
    qv::StoreRelease(sharedArea->ready, 1u);
  }
  releaseLock();
  return 1;
}

int CollectorCommandHandler::createSharedMemoryAndLockFile() {
  if (OpenLockFile(*this) && CreateSegment(*this) && CreateSemaphore(*this) && AttachSegment(*this)) {
    return 1;
  }
  destroySharedMemoryAndLockFile(QVCMDHDLR_CLEAN_ALL);
  return 0;
}

void CollectorCommandHandler::destroySharedMemoryAndLockFile(_QVCMDHDLRCLEANEXTENT extent) {
  const TakingGuard guard;
  if (sharedArea != nullptr) {
    shmdt(sharedArea);
    qv::StoreRelease(sharedArea, static_cast<CommandArea*>(nullptr));
  }
  if (sharedMemoryId != -1) {
    shmctl(sharedMemoryId, IPC_RMID, nullptr);
    sharedMemoryId = -1;
  }
  const bool all = extent != QVCMDHDLR_CLEAN_DETACH;
  if (all && semaphoreId != -1) {
    semctl(semaphoreId, 0, IPC_RMID);
    qv::StoreRelaxed(semaphoreId, -1);
  }
  if (lockFileDescriptor != -1) {
    close(lockFileDescriptor);
    lockFileDescriptor = -1;
    if (all) unlink(lockFilePath);
  }
}

void CollectorCommandHandler::cleanupCommandHandler(_QVCMDHDLRCLEANEXTENT extent) {
  destroySharedMemoryAndLockFile(extent);
}

int CollectorCommandHandler::acquireLock() { return flock(lockFileDescriptor, LOCK_EX | LOCK_NB) == 0; }

int CollectorCommandHandler::releaseLock() { return flock(lockFileDescriptor, LOCK_UN); }

// The copies stand on the stack, 21 KiB, the one large frame of the library: the worker is an internal
// thread, and a static buffer would make two instances share it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wframe-larger-than="
int CollectorCommandHandler::processCommands() {
  CommandRecord records[uint32_t{QV_COMMAND_RECORDS}];
  uint32_t count = 0;
  {
    const TakingGuard guard;
    CommandArea* const area = qv::LoadAcquire(sharedArea);
    if (area == nullptr) return -1;
    if (qv::LoadAcquire(area->pending) == 0) return 0;
    if (!acquireLock()) return 1;
    const int32_t pending = qv::LoadAcquire(area->pending);
    if (pending > 0) {
      count = uint32_t(pending < QV_COMMAND_RECORDS ? pending : int32_t{QV_COMMAND_RECORDS});
    }
    memcpy(records, area->records, count * sizeof(CommandRecord));
    qv::StoreRelease(area->pending, 0);
    releaseLock();
  }
  for (uint32_t i = 0; i < count; i++) {
    const Recipient to(*this);  // a callback may have registered another one
    if (to.callback == nullptr) break;
    const int32_t* const a = records[i].arguments;
    to.callback(a[0], a[1], a[2], a[3], a[4], records[i].payload, to.context);
  }
  return 2;
}
#pragma GCC diagnostic pop

int CollectorCommandHandler::processHeartbeat() {
  if (qv::LoadAcquire(sharedArea) == nullptr) return -1;
  const Recipient to(*this);
  if (to.callback != nullptr) to.callback(QV_HEARTBEAT_CODE, 0, 0, 0, 0, nullptr, to.context);
  return 2;
}

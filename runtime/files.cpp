// Streams away from the standard descriptors, thin stdio wrappers, and lock files.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "log/report.h"
#include "runtime/base.h"

namespace {

constexpr size_t kLockFileBytes = 8;

FILE* OpenReporting(const char* path, const char* mode, int* errorOut) {
  FILE* const stream = fopen(path, mode);
  if (errorOut != nullptr) *errorOut = errno;
  return stream;
}

// The standard descriptors were closed and `first` took one of them. Occupies the others with
// duplicates for as long as it takes to open the file once more, above them. The duplicates are a set
// of bits, so that a program that goes on closing descriptors meanwhile cannot make them more than
// there is room for.
FILE* ReopenAboveStandard(FILE* first, const char* path, const char* mode, int* errorOut) {
  uint32_t duplicates = 0;
  int copy = dup(fileno(first));
  for (; copy >= 0 && copy <= STDERR_FILENO; copy = dup(fileno(first))) duplicates |= 1u << copy;
  FILE* stream = nullptr;
  if (copy >= 0) {
    close(copy);
    stream = OpenReporting(path, mode, errorOut);
  } else if (errorOut != nullptr) {
    *errorOut = errno;
  }
  for (int descriptor = STDERR_FILENO; descriptor >= 0; descriptor--) {
    if ((duplicates >> descriptor & 1) != 0) close(descriptor);
  }
  fclose(first);
  return stream;
}

struct flock WholeFile(short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 0;  // to the end, wherever that is
  lock.l_pid = pid_t(__QvGetPid());
  return lock;
}

}  // namespace

FILE* __QvFopen(const char* path, const char* mode, int* errorOut) {
  FILE* const stream = OpenReporting(path, mode, errorOut);
  if (stream == nullptr || fileno(stream) > STDERR_FILENO) return stream;
  return ReopenAboveStandard(stream, path, mode, errorOut);
}

FILE* __QvWFopen(const wchar_t*, const wchar_t*) { return nullptr; }

int __QvFclose(FILE* stream) { return fclose(stream); }
int __QvFflush(FILE* stream) { return fflush(stream); }
long __QvFtell(FILE* stream) { return ftell(stream); }
int __QvFseek(FILE* stream, int64_t offset, int origin) { return fseek(stream, offset, origin); }

size_t __QvFread(void* buffer, size_t elementSize, size_t count, FILE* stream) {
  return fread(buffer, elementSize, count, stream);
}

size_t __QvFwrite(const void* buffer, size_t elementSize, size_t count, FILE* stream) {
  return fwrite(buffer, elementSize, count, stream);
}

char* __QvFgets(char* buffer, uint32_t sizeBytes, FILE* stream) {
  return fgets(buffer, int(sizeBytes), stream);
}

int __QvFprintf(FILE* stream, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = vfprintf(stream, format, arguments);
  va_end(arguments);
  return result;
}

// The descriptor is closed on exec: a program that the analysed process starts has no business with it.
int __QvCreateLockFile(const char* path, int truncate) {
  const int flags = O_RDWR | O_CREAT | O_SYNC | O_CLOEXEC | (truncate != 0 ? O_TRUNC : 0);
  const int descriptor = open(path, flags, 0777);
  if (descriptor == -1) qv::LogFatalToolDefect("Could not open lock file %s (error %d)", path, errno);
  return descriptor;
}

int __QvLockFile(int descriptor) {
  struct flock lock = WholeFile(F_WRLCK);
  return fcntl(descriptor, F_SETLKW, &lock);
}

int __QvUnlockFile(int descriptor) {
  struct flock lock = WholeFile(F_UNLCK);
  return fcntl(descriptor, F_SETLK, &lock);
}

int64_t __QvWriteLockFile(int descriptor, const void* eightBytes) {
  lseek(descriptor, 0, SEEK_SET);
  const ssize_t written = write(descriptor, eightBytes, kLockFileBytes);
  if (written == -1) qv::LogFatalToolDefect("failed to write to lock file");
  return written;
}

int64_t __QvReadLockFile(int descriptor, void* eightBytes) {
  lseek(descriptor, 0, SEEK_SET);
  const ssize_t got = read(descriptor, eightBytes, kLockFileBytes);
  if (got == -1) qv::LogFatalToolDefect("failed to read from lock file");
  return got;
}

int __QvCloseLockFile(int descriptor) { return close(descriptor); }
int __QvClose(int descriptor) { return close(descriptor); }

// Streams away from the standard descriptors, the stdio wrappers, lock files, and the process launcher.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "tests/support/child.h"
#include "tests/support/threads.h"

using namespace qvtest;

namespace {

bool IsOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

int OpenCount() {
  int count = 0;
  for (int descriptor = 0; descriptor < 256; descriptor++) count += IsOpen(descriptor);
  return count;
}

// Closes the standard descriptors of a set of bits. What a CHECK prints goes to the others.
void CloseStandard(unsigned set) {
  for (int descriptor = 0; descriptor <= 2; descriptor++) {
    if ((set >> descriptor & 1) != 0) close(descriptor);
  }
}

void SetDescriptorLimit(rlim_t limit) {
  struct rlimit limits;
  getrlimit(RLIMIT_NOFILE, &limits);
  limits.rlim_cur = limit;
  setrlimit(RLIMIT_NOFILE, &limits);
}

}  // namespace

// Faults: a stream on a standard descriptor, a duplicate left open, one of the program's own closed.
TEST(Fopen, KeepsClearOfTheStandardDescriptors) {
  for (unsigned closed = 0; closed < 8; closed++) {
    const ChildResult child = RunChild([closed] {
      CloseStandard(closed);
      const int before = OpenCount();
      int error = -1;
      errno = 77;
      FILE* const stream = __QvFopen("file", "w", &error);
      CHECK(stream != nullptr && fileno(stream) > 2);
      if (closed == 0) CHECK_EQ(error, 77);  // reported on success too
      CHECK(error != -1);
      CHECK_EQ(OpenCount(), before + 1);
      for (int descriptor = 0; descriptor <= 2; descriptor++) {
        CHECK_EQ(IsOpen(descriptor), (closed >> descriptor & 1) == 0);
      }
      CHECK_EQ(__QvFprintf(stream, "%s %d", "text", 5), 6);
      CHECK_EQ(__QvFclose(stream), 0);
      CHECK(__QvFopen("file", "r", nullptr) != nullptr);
    });
    ASSERT_TRUE(child.Ok()) << closed << "\n" << child.err;
    EXPECT_EQ(child.Read("file"), "text 5");
  }
}

// Faults: a null result that leaks descriptors or says no error; a failure hidden by the second open.
TEST(Fopen, FailsCleanly) {
  const ChildResult missing = RunChild([] {
    int error = 0;
    CHECK(__QvFopen("no/such", "w", &error) == nullptr);
    CHECK_EQ(error, ENOENT);
    CHECK(__QvFopen("no/such", "w", nullptr) == nullptr);
    CHECK(__QvWFopen(L"file", L"w") == nullptr);
  });
  EXPECT_TRUE(missing.Ok()) << missing.err;
  for (rlim_t limit = 0; limit <= 4; limit++) {
    const ChildResult child = RunChild([limit] {
      close_range(3, ~0u, 0);  // what the test program was started with
      const int report = dup2(STDERR_FILENO, 200);
      CloseStandard(7);
      SetDescriptorLimit(limit);
      int error = 0;
      FILE* const stream = __QvFopen("file", "w", &error);
      const bool closed = !IsOpen(0) && !IsOpen(1) && !IsOpen(2);
      const bool asDue = limit < 4 ? stream == nullptr && error == EMFILE && !IsOpen(3)
                                   : stream != nullptr && fileno(stream) == 3;
      if (!closed || !asDue)
        dprintf(report, "error %d, stream %p\n", error, static_cast<void*>(stream));
      CHECK(closed && asDue);
    });
    ASSERT_TRUE(child.Ok()) << limit << "\n" << child.err;
  }
}

TEST(Stdio, WrappersPassEverythingThrough) {
  const ChildResult child = RunChild([] {
    FILE* const stream = __QvFopen("file", "w+", nullptr);
    CHECK_EQ(__QvFwrite("abcdefg\nhi", 2, 5, stream), 5u);
    CHECK_EQ(__QvFtell(stream), 10);
    CHECK_EQ(__QvFseek(stream, -8, SEEK_END), 0);
    char text[16] = "";
    CHECK_EQ(__QvFread(text, 3, 2, stream), 2u);
    CHECK(strcmp(text, "cdefg\n") == 0);
    CHECK_EQ(__QvFseek(stream, 1, SEEK_SET), 0);
    CHECK(__QvFgets(text, 4, stream) == text && strcmp(text, "bcd") == 0);
    CHECK(__QvFseek(stream, 0x1'0000'0000, SEEK_SET) == 0 && __QvFtell(stream) == 0x1'0000'0000);
    CHECK(__QvFgets(text, 4, stream) == nullptr);
    __QvFseek(stream, 0, SEEK_SET);
    __QvFprintf(stream, "%c", 'Z');
    CHECK_EQ(__QvFflush(stream), 0);
    struct stat status;
    CHECK(stat("file", &status) == 0 && status.st_size == 10);
    close(fileno(stream));
    CHECK_EQ(__QvFtell(stream), -1);
    CHECK_EQ(__QvFclose(stream), EOF);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(child.Read("file"), "Zbcdefg\nhi");
}

namespace {

uint64_t ReadLocked(int descriptor) {
  uint64_t value = 0;
  CHECK_EQ(__QvReadLockFile(descriptor, &value), 8);
  return value;
}

void CountUp(const char* path, int times) {
  const int descriptor = __QvCreateLockFile(path, 0);
  for (int i = 0; i < times; i++) {
    CHECK_EQ(__QvLockFile(descriptor), 0);
    const uint64_t value = ReadLocked(descriptor) + 1;
    CHECK_EQ(__QvWriteLockFile(descriptor, &value), 8);
    CHECK_EQ(__QvUnlockFile(descriptor), 0);
  }
  CHECK_EQ(__QvCloseLockFile(descriptor), 0);
}

}  // namespace

// Faults: a lock that does not exclude, bytes at the wrong offset, a file truncated or not against the
// wish, permission bits.
TEST(LockFile, TwoProcessesCountWithoutLoss) {
  const ChildResult child = RunChild([] {
    umask(022);
    int descriptor = __QvCreateLockFile("lock", 0);
    struct stat status;
    CHECK(fstat(descriptor, &status) == 0 && (status.st_mode & 0777) == 0755);
    const int flags = fcntl(descriptor, F_GETFL);
    CHECK((flags & O_ACCMODE) == O_RDWR && (flags & O_SYNC) == O_SYNC);
    uint64_t value = 0;
    CHECK_EQ(__QvReadLockFile(descriptor, &value), 0);  // an empty file is no defect
    CHECK_EQ(write(descriptor, "abc", 3), 3);
    CHECK_EQ(__QvReadLockFile(descriptor, &value), 3);
    CHECK_EQ(value, 0x636261u);
    value = 1000;
    CHECK_EQ(__QvWriteLockFile(descriptor, &value), 8);
    CHECK_EQ(__QvClose(descriptor), 0);

    const pid_t other = fork();
    CountUp("lock", 300);
    if (other == 0) _exit(0);
    int how = -1;
    CHECK(waitpid(other, &how, 0) == other && how == 0);
    descriptor = __QvCreateLockFile("lock", 0);
    CHECK_EQ(ReadLocked(descriptor), 1600u);
    CHECK(fstat(descriptor, &status) == 0 && status.st_size == 8);
    CHECK_EQ(__QvCreateLockFile("lock", 1), descriptor + 1);
    CHECK_EQ(__QvReadLockFile(descriptor, &value), 0);

    CHECK_EQ(__QvLockFile(250), -1);
    CHECK_EQ(__QvUnlockFile(250), -1);
    CHECK_EQ(__QvCloseLockFile(250), -1);
    CHECK_EQ(__QvClose(250), -1);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

// Faults: another text, a failure returned instead of fatal, another status.
TEST(LockFile, FailuresEndTheProcessWithTheirTexts) {
  const struct {
    const char* text;
    void (*fail)();
  } cases[] = {
      {"Could not open lock file no/such (error 2)", [] { __QvCreateLockFile("no/such", 0); }},
      {"failed to write to lock file",
       [] { __QvWriteLockFile(open("/dev/null", O_RDONLY), "eightbyt"); }},
      {"failed to read from lock file",
       [] {
         char buffer[8];
         __QvReadLockFile(open("/dev/null", O_WRONLY), buffer);
       }},
  };
  for (const auto& failure : cases) {
    const ChildResult child = RunChild([&] {
      __QvRtStartup();
      failure.fail();
    });
    EXPECT_EQ(child.status, 255);
    const std::string log = child.Read("qvlog.log");
    const size_t text = log.find("\n\t\t<!-- " + std::string(failure.text) + " -->\n\t</msg>");
    EXPECT_NE(text, std::string::npos) << log;
    EXPECT_LT(log.find("<type>INTERNAL</type>\n\t\t<severity>ERROR</severity>"), text) << log;
    EXPECT_GT(log.find("<type>ABNORMAL_TERMINATE</type>"), text) << log;
  }
}

namespace {

// The child's exit status, or -1 if it does not end.
int Reap(pid_t child) {
  for (int waits = 0; waits < 20000; waits++) {
    int how = 0;
    if (waitpid(child, &how, WNOHANG) == child) return WIFEXITED(how) ? WEXITSTATUS(how) : -2;
    usleep(waits < 100 ? 100 : 1000);
  }
  return -1;
}

int CountOf(const std::string& text, const std::string& part) {
  int count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) count++;
  return count;
}

}  // namespace

// Faults: a wait in the parent, the parent's environment, other arguments; a child that goes on with
// the tool's code or runs its exit functions, a text without its trailing blank.
TEST(CreateProcess, StartsProgramsAndTellsWhichItCannot) {
  const ChildResult child = RunChild([] {
    __QvRtStartup();
    setenv("QV_TEST_SECRET", "leaked", 1);
    atexit([] { __QvLogInternal(QVLOG_SEVERITY_INFO, QVLOG_MSG_COMMENT, 0, "exit function"); });
    char script[] = "read line; echo \"$0 $1 $line [$QV_TEST_SECRET]\" > out";
    char shell[] = "/bin/sh", option[] = "-c", name[] = "name", argument[] = "arg";
    char* const arguments[] = {shell, option, script, name, argument, nullptr};
    int ends[2];
    CHECK(pipe(ends) == 0);
    dup2(ends[0], STDIN_FILENO);
    const pid_t started = __QvCreateProcess(arguments);  // which waits for our line
    CHECK_EQ(write(ends[1], "line\n", 5), 5);
    CHECK_EQ(Reap(started), 0);

    char nowhere[] = "no/such";
    char* const missing[] = {nowhere, argument, nullptr};
    CHECK_EQ(Reap(__QvCreateProcess(missing)), 127);
    CHECK_EQ(__QvCreateProcess(nullptr), -1);
    __QvLogInternal(QVLOG_SEVERITY_INFO, QVLOG_MSG_COMMENT, 0, "the parent goes on");
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(child.Read("out"), "name arg line []\n");
}

TEST(CreateProcess, LogsAProgramItCannotExecute) {
  const ChildResult child = RunChild([] {
    __QvRtStartup();
    char nowhere[] = "no/such";
    char* const missing[] = {nowhere, nullptr};
    __QvLogInternal(QVLOG_SEVERITY_INFO, QVLOG_MSG_COMMENT, 0, "before");
    CHECK_EQ(Reap(__QvCreateProcess(missing)), 127);
    __QvLogInternal(QVLOG_SEVERITY_INFO, QVLOG_MSG_COMMENT, 0, "after");
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  const std::string log = child.Read("qvlog.log");
  const size_t before = log.find(
      "\n\t<!-- before -->\n\t<msg id='1' source='qvrt'>\n\t\t<type>INTERNAL</type>"
      "\n\t\t<severity>ERROR</severity>\n\t\t<timestamp>");
  const size_t text = log.find(
      "</timestamp>\n\t\t<!-- failed to launch process no/such  -->\n\t</msg>"
      "\n\t<!-- after -->");
  EXPECT_TRUE(before != std::string::npos && text != std::string::npos && before < text) << log;
  EXPECT_EQ(CountOf(log, "<msg"), 1) << log;
}

// Faults: the child's entry where the entry before it stood, though the root element was closed since, or
// another log opened.
TEST(CreateProcess, LogsAtTheLevelOfTheLogAsItIs) {
  const ChildResult child = RunChild([] {
    __QvRtStartup();
    char nowhere[] = "no/such";
    char* const missing[] = {nowhere, nullptr};
    __QvLogInternal(QVLOG_SEVERITY_INFO, QVLOG_MSG_COMMENT, 0, "first");
    __QvCloseLogger();
    CHECK_EQ(Reap(__QvCreateProcess(missing)), 127);
    __QvLogInternal(QVLOG_SEVERITY_INFO, QVLOG_MSG_COMMENT, 0, "last");
    CHECK_EQ(__QvCreateLogger("tool", "other.log", 0), 1u);
    CHECK_EQ(Reap(__QvCreateProcess(missing)), 127);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  const std::string log = child.Read("qvlog.log"), other = child.Read("other.log");
  EXPECT_EQ(CountOf(log, "\n</log>\n<msg id='1' source='qvrt'>\n\t<type>INTERNAL</type>"), 1) << log;
  EXPECT_EQ(CountOf(log, "\n\t<!-- failed to launch process no/such  -->\n</msg>\n<!-- last -->"), 1)
      << log;
  EXPECT_EQ(CountOf(other, "source='tool'>\n\t<msg id='1' source='qvrt'>\n\t\t<type>INTERNAL</type>"),
            1)
      << other;
}

namespace {

// Launches what cannot be executed so many times, while other threads do something else.
void LaunchBeside(int launches, int others, void (*busy)(int thread, uint32_t round)) {
  std::atomic<bool> done{false};
  RunThreads(1 + others, [&](int thread) {
    char nowhere[] = "no/such";
    char* const missing[] = {nowhere, nullptr};
    for (int i = 0; thread == 0 && i < launches; i++) CHECK_EQ(Reap(__QvCreateProcess(missing)), 127);
    if (thread == 0) done = true;
    for (uint32_t round = 0; !done; round++) busy(thread, round);
  });
}

}  // namespace

// Faults: a child that waits for a lock of a thread it does not have (the time zone's, the log's, its
// stream's), or writes what another thread had half written.
TEST(CreateProcess, SurvivesThreadsThatLogOrTellTheTime) {
  const ChildResult child = RunChild([] {
    UseThreadIds();
    __QvRtStartup();
    CHECK_EQ(__QvCreateLogger("qvrt", "qvlog.log", 0), 1u);  // without an entry, hence without a time
    LaunchBeside(30, 3, [](int, uint32_t) {
      struct tm local;
      const time_t now = 0;
      localtime_r(&now, &local);
    });
    LaunchBeside(300, 3, [](int thread, uint32_t round) {
      if (round % 16 == 0) usleep(1);  // lets the children have the processor
      __QvLogInternal(QVLOG_SEVERITY_WARNING, QVLOG_MSG_INTERNAL, 0, "thread %d", thread);
    });
  });
  ASSERT_TRUE(child.Ok()) << child.err;
  const std::string log = child.Read("qvlog.log");
  EXPECT_EQ(CountOf(log, "\n\t\t<!-- failed to launch process no/such  -->\n\t</msg>"), 330);
  EXPECT_EQ(CountOf(log, "<msg"), CountOf(log, "</timestamp>\n\t\t<!-- "));
  EXPECT_EQ(CountOf(log, "<msg"), CountOf(log, " -->\n\t</msg>"));
  EXPECT_EQ(CountOf(log, "<msg"), CountOf(log, "\n\t<msg id='"));
}

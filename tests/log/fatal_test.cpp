// The end of the process by the library's decision.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "include/qvrt.h"
#include "tests/support/child.h"
#include "tests/support/log_text.h"
#include "tests/support/scripted_host.h"

namespace {

using namespace qvtest;

void Start() {
  InstallScriptedHost();
  __QvRtStartup();
}

void HandleAndReturn(int32_t code) { dprintf(1, "handler %d", code); }

// Exit functions do not run and stdio is not flushed: the program may be in any state.
TEST(Fatal, ToolDefectLogsTwiceCallsTheHandlerAndEndsAtOnce) {
  const ChildResult child = RunChild([] {
    Start();
    atexit([] { dprintf(1, "exit function"); });
#ifndef __SANITIZE_THREAD__  // whose _exit flushes
    printf("buffered");
#endif
    __QvSetExitHandler(HandleAndReturn);
    __QvLogFatalToolDefect("option %s has %d -- faults", "<x>", 3);
  });
  EXPECT_EQ(child.status, 255);
  EXPECT_EQ(child.out, "handler -1");
  EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(),
            "ERROR INTERNAL : option <x> has 3 - faults\nERROR ABNORMAL_TERMINATE\n");
}

TEST(Fatal, EveryWayOutHasItsHandlerItsStatusAndItsEntries) {
  struct Case {
    void (*end)();
    int status;
    const char *out, *log;
  };
  const char* const abnormal = "ERROR ABNORMAL_TERMINATE\n";
  const Case cases[] = {
      {[] { Start(), __QvFatalExit(7); }, 255, "", abnormal},
      {[] { Start(), __QvSetExitHandler(HandleAndReturn), __QvFatalExit(7); }, 255, "handler 7",
       abnormal},
      {[] { Start(), __QvSetExitHandler([](int32_t code) { _exit(code + 1); }), __QvFatalExit(7); }, 8,
       "", abnormal},
      {[] { Start(), __QvSetExitHandler(HandleAndReturn), __QvExitHandler(3); }, 255, "handler 3", ""},
      {[] {
         Start(), __QvSetExitHandler(HandleAndReturn), __QvSetExitHandler(nullptr), __QvExitHandler(0);
       },
       255, "", ""},
      {[] { __QvSetExitHandler(HandleAndReturn), __QvLogFatalToolDefect("before start-up"); }, 255,
       "handler -1", ""},
      {[] {  // the handler may still log
         Start(), __QvSetExitHandler([](int32_t) { __QvLogInternal(2, 0, 0, "last words"); }),
             __QvFatalExit(-1);
       },
       255, "", "ERROR ABNORMAL_TERMINATE\n# last words\n"},
  };
  for (const Case& c : cases) {
    const ChildResult child = RunChild(c.end);
    EXPECT_EQ(child.status, c.status) << &c - cases << child.err;
    EXPECT_EQ(child.out, c.out) << &c - cases;
    EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(), c.log) << &c - cases;
  }
}

TEST(Fatal, FourThreadsAtOnceLeaveAWholeLog) {
  const ChildResult child = RunChild([] {
    Start();
    OnThreads(4, [](int thread) { __QvLogFatalToolDefect("thread %d", thread); });
  });
  EXPECT_EQ(child.status, 255);
  const std::string bytes = child.Read("qvlog.log");
  const LogText log = ReadLog(bytes);
  EXPECT_TRUE(log.Whole()) << bytes;
  EXPECT_GE(log.Count("ERROR ABNORMAL_TERMINATE"), 1);
}

}  // namespace

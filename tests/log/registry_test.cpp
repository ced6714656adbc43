// The message table and the source table.
#include "log/registry.h"

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/log_text.h"
#include "tests/support/scripted_host.h"

namespace {

using namespace qvtest;

constexpr uint32_t kNone = 0xFFFFFFFF;

void Start() {
  InstallScriptedHost();
  __QvRtStartup();
}

void Comment(const char* text) { __QvLogInternal(QVLOG_SEVERITY_INFO, QVLOG_MSG_COMMENT, 0, text); }

uint32_t Register(const char* name, const char* const* arguments = nullptr, uint32_t flags = 0,
                  int32_t source = 0) {
  const QVLOG_MESSAGE message = {name, arguments, flags, source};
  return __QvRegisterLogMessage2(&message);
}

const uint32_t* const kInternalIds[] = {
    &QVLOG_MSG_ABNORMAL_TERMINATE, &QVLOG_MSG_OUT_OF_MEMORY,         &QVLOG_MSG_COLLECT_MEMORY,
    &QVLOG_MSG_MEMORY_IS_TIGHT,    &QVLOG_MSG_FREEING_RESERVES,      &QVLOG_MSG_BAD_OPTION,
    &QVLOG_MSG_BAD_ARGUMENT,       &QVLOG_MSG_FAIL_CONVERT_FILENAME, &QVLOG_MSG_FAIL_OPEN_FILE,
    &QVLOG_MSG_FAIL_SEEK_FILE,     &QVLOG_MSG_FAIL_READ_FILE,        &QVLOG_MSG_FAIL_READ_FILE_VERBOSE};

TEST(Registry, InternalMessagesFollowTheToolsInTheirOrder) {
  const ChildResult child = RunChild([] {
    CHECK_EQ(Register("BEFORE"), 2u);
    for (const uint32_t* id : kInternalIds) CHECK_EQ(*id, 0u);
    Start();
    uint32_t expected = 3;
    for (const uint32_t* id : kInternalIds) CHECK_EQ(*id, expected++);
    CHECK_EQ(Register("AFTER"), expected);
    __QvLogInternal(1, 2, 0);
    for (const uint32_t* id : kInternalIds) {
      __QvLogInternal(1, *id, 0, QVLOG_ARG_STRING, "v", QVLOG_ARG_STRING, "w");
    }
    CHECK_EQ(__QvRegisterInternalQVRTLogMessages(), 1u);  // anew
    CHECK_EQ(QVLOG_MSG_ABNORMAL_TERMINATE >= 16 && QVLOG_MSG_ABNORMAL_TERMINATE < 28, true);
    for (uint32_t id = 28; id < 128; id++) CHECK_EQ(Register("FILLER"), id);
    const uint32_t before = QVLOG_MSG_ABNORMAL_TERMINATE;
    CHECK_EQ(__QvRegisterInternalQVRTLogMessages(), 0u);
    CHECK_EQ(QVLOG_MSG_ABNORMAL_TERMINATE, before);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(
      ReadLog(child.Read("qvlog.log")).Brief(),
      "WARNING BEFORE\nWARNING ABNORMAL_TERMINATE\nWARNING OUT_OF_MEMORY\nWARNING COLLECT_MEMORY\n"
      "WARNING MEMORY_IS_TIGHT\nWARNING FREEING_RESERVES hidden num_bytes=v\n"
      "WARNING BAD_OPTION option=v\nWARNING BAD_ARGUMENT option=v\nWARNING FAIL_CONVERT_FILENAME\n"
      "WARNING FAIL_OPEN_FILE filename=v\nWARNING FAIL_SEEK_FILE filename=v\n"
      "WARNING FAIL_READ_FILE filename=v\nWARNING FAIL_READ_FILE_VERBOSE filename=v srerror=w\n");
}

// Faults: pointers kept instead of copies, an unsigned comparison of the handle, a name read when null.
TEST(Registry, CopiesWhatItIsGivenAndRefusesWhatItCannotKnow) {
  const ChildResult child = RunChild([] {
    Start();
    char name[] = "MINE", argument[] = "what";
    const char* arguments[] = {argument, nullptr};
    const char* const none[] = {nullptr};
    const QVLOG_MESSAGE message = {name, arguments, 0xFFFFFFF8, -7};  // high flags mean nothing
    CHECK_EQ(__QvRegisterLogMessage(&message), 14u);
    strcpy(name, "ZZZZ");
    strcpy(argument, "zzzz");
    arguments[0] = nullptr;
    CHECK_EQ(__QvRegisterLogMessage(nullptr), kNone);
    CHECK_EQ(__QvRegisterLogMessage2(nullptr), kNone);
    CHECK_EQ(Register(nullptr), kNone);
    CHECK_EQ(Register("ONE", nullptr, 0, 1), kNone);  // no handle was handed out
    CHECK_EQ(Register("EMPTY", none), 15u);
    CHECK_EQ(__QvGetLoggerHandle("tool"), 1u);
    CHECK_EQ(Register("ONE", nullptr, 0, 1), 16u);
    __QvLogInternal(2, 14, 0, QVLOG_ARG_INTEGER, -1);
    __QvLogInternal(2, 15, 0);
    __QvLogInternal(2, 16, 0);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  const LogText log = ReadLog(child.Read("qvlog.log"));
  std::string expected;
  for (int i = 0; i < 4; i++) {
    expected += "ERROR INTERNAL : A valid message must be specified to register it with QVRT\n";
  }
  EXPECT_EQ(log.Brief(), expected + "INFO MINE what=-1\nINFO EMPTY\nINFO ONE\n");
  ASSERT_EQ(log.items.size(), 7u);
  EXPECT_EQ(log.items[4].source + "," + log.items[5].source + "," + log.items[6].source, ",qvrt,tool");
}

// Four threads register until the table is full while two log with ids that may be half written: such
// an entry is a comment, or the message complete.
TEST(Registry, FillsToExactly128FromFourThreads) {
  const ChildResult child = RunChild([] {
    Start();
    static uint32_t ids[4][60];
    OnThreads(6, [](int thread) {
      if (thread >= 4) {
        for (uint32_t i = 0; i < 1000; i++) __QvLogInternal(2, 14 + i % 120, 0, "not yet", "");
        return;
      }
      for (int i = 0; i < 60; i++) {
        const std::string name = "T" + std::to_string(thread) + "_" + std::to_string(i);
        const char* const arguments[] = {name.c_str(), nullptr};
        ids[thread][i] = Register(name.c_str(), arguments);
      }
    });
    CHECK_EQ(Register("ANOTHER"), kNone);
    uint32_t owner[128] = {};
    for (uint32_t t = 0; t < 4; t++) {
      for (uint32_t i = 0; i < 60; i++) {
        if (ids[t][i] == kNone) continue;
        CHECK(ids[t][i] >= 14 && ids[t][i] < 128 && owner[ids[t][i]] == 0);
        owner[ids[t][i]] = 1 + t * 100 + i;
      }
    }
    Comment("complete");
    for (uint32_t id = 14; id < 128; id++) {
      CHECK(owner[id] != 0);
      const std::string name =
          "T" + std::to_string((owner[id] - 1) / 100) + "_" + std::to_string((owner[id] - 1) % 100);
      __QvLogInternal(0, id, 0, QVLOG_ARG_STRING, name.c_str());
    }
    __QvLogInternal(0, 128, 0, "id %d", 128);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  const LogText log = ReadLog(child.Read("qvlog.log"));
  EXPECT_TRUE(log.Whole()) << log.broken;
  ASSERT_EQ(log.items.size(), 2000u + 1 + 114 + 1);
  EXPECT_EQ(log.items[2000].text, "complete");
  EXPECT_EQ(log.items.back().text, "id 128");
  for (const LogItem& item : log.items) {
    if (item.id == 0) continue;
    ASSERT_EQ(item.arguments.size(), 1u);
    EXPECT_EQ(item.arguments[0].first, item.type);
    if (item.severity == "ERROR") {
      EXPECT_EQ(item.arguments[0].second, item.type);
    }
  }
}

// The tool has filled the table. No QVLOG_MSG_* id is valid, and none of the markers may become a
// format.
TEST(Registry, FailedInternalRegistrationLeavesNoIdAndNoMarkerIsAFormat) {
  for (const uint32_t left : {0u, 5u}) {
    const ChildResult child = RunChild([left] {
      for (uint32_t i = 2; i < 128 - left; i++) CHECK_EQ(Register("FILLER"), i);
      Start();
      CHECK_EQ(__QvRegisterInternalQVRTLogMessages(), 0u);
      CHECK_EQ(Register("ANOTHER"), kNone);
      for (const uint32_t* id : kInternalIds) CHECK_EQ(*id, 0u);
      __QvLogInternal(0, QVLOG_MSG_BAD_OPTION, 0, QVLOG_ARG_STRING, "--%s%n<&>---x");
      __QvLogInternal(0, QVLOG_MSG_FREEING_RESERVES, 0, QVLOG_ARG_INTEGER, -33);
      __QvLogInternal(0, QVLOG_MSG_FAIL_OPEN_FILE, 0, QVLOG_ARG_POINTER, reinterpret_cast<void*>(0x10));
      Comment("still a comment");
      __QvFatalExit(-1);
    });
    EXPECT_EQ(child.status, 255) << child.err;
    EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(),
              "# A message that could not be registered: -%s%n<&>-x\n"
              "# A message that could not be registered: -33\n"
              "# A message that could not be registered: 0x10\n"
              "# still a comment\n# ABNORMAL_TERMINATE\n");
  }
}

TEST(Sources, HandlesRunFromOneToFifteenAndAreNotReused) {
  const ChildResult child = RunChild([] {
    CHECK_EQ(__QvGetLoggerHandle("early"), kNone);
    Start();
    CHECK_EQ(__QvGetLoggerHandle("no log yet"), kNone);
    CHECK_EQ(__QvReleaseLoggerHandle(0, "qvrt"), 0u);
    Comment("opens it");
    CHECK_EQ(__QvGetLoggerHandle(nullptr), kNone);
    static uint32_t handles[4][5];
    OnThreads(4, [](int thread) {
      for (uint32_t& handle : handles[thread]) handle = __QvGetLoggerHandle("tool");
    });
    std::vector<uint32_t> sorted(&handles[0][0], &handles[3][5]);
    std::sort(sorted.begin(), sorted.end());
    for (uint32_t i = 0; i < 20; i++) CHECK_EQ(sorted[i], i < 15 ? i + 1 : kNone);
    CHECK_EQ(__QvGetLoggerHandle("tool"), kNone);
    CHECK_EQ(Register("SIXTEEN", nullptr, 0, 16), kNone);
    CHECK_EQ(Register("THREE", nullptr, 0, 3), 14u);
    for (const int32_t handle : {0, -1, 16, INT32_MIN, INT32_MAX}) {
      CHECK_EQ(__QvReleaseLoggerHandle(handle, handle == 0 ? "qvrt" : "tool"), 0u);
    }
    CHECK_EQ(__QvReleaseLoggerHandle(3, nullptr), 0u);
    CHECK_EQ(__QvReleaseLoggerHandle(3, "too"), 0u);
    CHECK_EQ(__QvReleaseLoggerHandle(3, "Tool"), 0u);
    CHECK_EQ(__QvReleaseLoggerHandle(3, "toolbox"), 1u);  // compared over the stored name's length
    CHECK_EQ(__QvReleaseLoggerHandle(3, "tool"), 0u);
    CHECK_EQ(__QvGetLoggerHandle("next"), kNone);
    __QvLogInternal(0, 14, 0);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  const LogText log = ReadLog(child.Read("qvlog.log"));
  EXPECT_EQ(log.Brief(),
            "# opens it\nERROR INTERNAL : A valid message must be specified to register it with QVRT\n"
            "ERROR THREE\n");
  EXPECT_EQ(log.items.back().source, "");
}

TEST(Sources, ReleasedHandleIsNotTheNextOne) {
  const ChildResult child = RunChild([] {
    Start();
    Comment("");
    for (uint32_t i = 1; i <= 3; i++) CHECK_EQ(__QvGetLoggerHandle(i == 3 ? "" : "x"), i);
    CHECK_EQ(__QvReleaseLoggerHandle(3, "an empty name begins every name"), 1u);
    CHECK_EQ(__QvReleaseLoggerHandle(3, ""), 0u);
    CHECK_EQ(__QvGetLoggerHandle("y"), 4u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

// Names too large for a slab go straight back to the host, which spoils them: an entry shows the whole
// name or none.
TEST(Sources, ReleaseWhileThreeThreadsLogReadsNoFreedName) {
  static const std::string name(33000, 'n');
  const ChildResult child = RunChild([] {
    Start();
    Comment("opens it");
    for (uint32_t round = 1; round <= 8; round++) {
      CHECK_EQ(__QvGetLoggerHandle(name.c_str()), round);
      static uint32_t id = 0, logged = 0;
      id = Register("OF_TOOL", nullptr, 0, int32_t(round));
      logged = 0;
      OnThreads(4, [round](int thread) {
        if (thread != 0) {
          for (int i = 0; i < 12; i++) {
            __QvLogInternal(0, id, 0);
            qv::Increment(logged);
          }
          return;
        }
        while (qv::LoadRelaxed(logged) < round * 4) sched_yield();
        CHECK_EQ(__QvReleaseLoggerHandle(int32_t(round), name.c_str()), 1u);
      });
    }
    __QvLogInternal(0, 14, 0);  // all are released
    CHECK(TakeEvents().find("-33024 ") != std::string::npos);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  const LogText log = ReadLog(child.Read("qvlog.log"));
  EXPECT_TRUE(log.Whole());
  EXPECT_EQ(log.items.size(), 1u + 8 * 36 + 1);
  for (const LogItem& item : log.items) {
    EXPECT_TRUE(item.source.empty() || item.source == name);
  }
  EXPECT_EQ(log.items.back().source, "");
}

}  // namespace

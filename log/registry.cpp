// Message and source registration. Design: log/registry.h.
#include "log/registry.h"

#include <sched.h>
#include <string.h>

#include "log/message_log.h"
#include "log/report.h"
#include "memory/allocate.h"

static_assert(sizeof(QVLOG_MESSAGE) == 24 && offsetof(QVLOG_MESSAGE, flags) == 16 &&
              offsetof(QVLOG_MESSAGE, sourceHandle) == 20);

constinit uint32_t QVLOG_MSG_ABNORMAL_TERMINATE = 0;
constinit uint32_t QVLOG_MSG_OUT_OF_MEMORY = 0;
constinit uint32_t QVLOG_MSG_COLLECT_MEMORY = 0;
constinit uint32_t QVLOG_MSG_MEMORY_IS_TIGHT = 0;
constinit uint32_t QVLOG_MSG_FREEING_RESERVES = 0;
constinit uint32_t QVLOG_MSG_BAD_OPTION = 0;
constinit uint32_t QVLOG_MSG_BAD_ARGUMENT = 0;
constinit uint32_t QVLOG_MSG_FAIL_CONVERT_FILENAME = 0;
constinit uint32_t QVLOG_MSG_FAIL_OPEN_FILE = 0;
constinit uint32_t QVLOG_MSG_FAIL_SEEK_FILE = 0;
constinit uint32_t QVLOG_MSG_FAIL_READ_FILE = 0;
constinit uint32_t QVLOG_MSG_FAIL_READ_FILE_VERBOSE = 0;

namespace qv {
namespace {

struct Source {
  const char* name;
  uint32_t readers;
};

// Process-wide state.
constinit QVLOG_MESSAGE g_messages[kMessages] = {
    {"COMMENT", nullptr, QVLOG_FLAG_COMMENT | QVLOG_FLAG_NO_DISPLAY, 0},
    {"INTERNAL", nullptr, QVLOG_FLAG_FREE_TEXT, 0},
};
constinit uint32_t g_messageCount = 2;
constinit Source g_sources[kSources] = {{"qvrt", 0}};
constinit uint32_t g_sourceCount = 1;

constexpr const char* kNumBytes[] = {"num_bytes", nullptr};
constexpr const char* kOption[] = {"option", nullptr};
constexpr const char* kFileName[] = {"filename", nullptr};
constexpr const char* kFileNameAndError[] = {"filename", "srerror", nullptr};

struct InternalMessage {
  uint32_t* id;
  QVLOG_MESSAGE message;
};

const InternalMessage kInternalMessages[] = {
    {&QVLOG_MSG_ABNORMAL_TERMINATE, {"ABNORMAL_TERMINATE", nullptr, 0, 0}},
    {&QVLOG_MSG_OUT_OF_MEMORY, {"OUT_OF_MEMORY", nullptr, 0, 0}},
    {&QVLOG_MSG_COLLECT_MEMORY, {"COLLECT_MEMORY", nullptr, 0, 0}},
    {&QVLOG_MSG_MEMORY_IS_TIGHT, {"MEMORY_IS_TIGHT", nullptr, 0, 0}},
    {&QVLOG_MSG_FREEING_RESERVES, {"FREEING_RESERVES", kNumBytes, QVLOG_FLAG_NO_DISPLAY, 0}},
    {&QVLOG_MSG_BAD_OPTION, {"BAD_OPTION", kOption, 0, 0}},
    {&QVLOG_MSG_BAD_ARGUMENT, {"BAD_ARGUMENT", kOption, 0, 0}},
    {&QVLOG_MSG_FAIL_CONVERT_FILENAME, {"FAIL_CONVERT_FILENAME", nullptr, 0, 0}},
    {&QVLOG_MSG_FAIL_OPEN_FILE, {"FAIL_OPEN_FILE", kFileName, 0, 0}},
    {&QVLOG_MSG_FAIL_SEEK_FILE, {"FAIL_SEEK_FILE", kFileName, 0, 0}},
    {&QVLOG_MSG_FAIL_READ_FILE, {"FAIL_READ_FILE", kFileName, 0, 0}},
    {&QVLOG_MSG_FAIL_READ_FILE_VERBOSE, {"FAIL_READ_FILE_VERBOSE", kFileNameAndError, 0, 0}},
};
constexpr uint32_t kInternalCount = sizeof kInternalMessages / sizeof kInternalMessages[0];

constinit uint32_t g_internalAttempted = 0;

// Signed, as handles are compared; never above the table.
int32_t SourceCount() {
  const int32_t count = int32_t(LoadAcquire(g_sourceCount));
  return count < kSources ? count : kSources;
}

char* NewCopy(const char* text) {
  const size_t bytes = strlen(text) + 1;
  return static_cast<char*>(memcpy(Allocate(kMisc, uint32_t(bytes)), text, bytes));
}

const char** NewNameList(const char* const* names) {
  uint32_t count = 0;
  while (names != nullptr && names[count] != nullptr) count++;
  const uint32_t bytes = uint32_t((count + 1) * sizeof(const char*));
  const char** const copies = static_cast<const char**>(Allocate(kMisc, bytes));
  for (uint32_t i = 0; i < count; i++) copies[i] = NewCopy(names[i]);
  copies[count] = nullptr;
  return copies;
}

uint32_t Register(const QVLOG_MESSAGE* message) {
  if (message == nullptr || message->name == nullptr || message->sourceHandle >= SourceCount()) {
    LogError("A valid message must be specified to register it with QVRT");
    return kNone;
  }
  const uint32_t id = Increment(g_messageCount) - 1;
  if (id >= kMessages) {
    Decrement(g_messageCount);
    return kNone;
  }
  QVLOG_MESSAGE& slot = g_messages[id];
  const char* const name = NewCopy(message->name);
  slot.argumentNames = NewNameList(message->argumentNames);
  slot.flags = message->flags;
  slot.sourceHandle = message->sourceHandle;
  StoreRelease(slot.name, name);
  return id;
}

bool RegisterInternals() {
  uint32_t ids[kInternalCount];
  for (uint32_t i = 0; i < kInternalCount; i++) {
    ids[i] = Register(&kInternalMessages[i].message);
    if (ids[i] == kNone) return false;
  }
  for (uint32_t i = 0; i < kInternalCount; i++) StoreRelaxed(*kInternalMessages[i].id, ids[i]);
  return true;
}

// Takes the source's name out of its slot if it begins `sourceName`; null if not.
const char* TakeSourceName(int32_t handle, const char* sourceName) {
  const SourceName name(handle);
  const char* const text = name.Text();
  if (*text == 0 && LoadRelaxed(g_sources[handle].name) != text) return nullptr;
  if (strncmp(text, sourceName, strlen(text)) != 0) return nullptr;
  return TryExchange(g_sources[handle].name, nullptr, text) ? text : nullptr;
}

}  // namespace

const QVLOG_MESSAGE* FindMessage(uint32_t id) {
  if (id >= kMessages || id >= LoadRelaxed(g_messageCount)) return nullptr;
  const QVLOG_MESSAGE& message = g_messages[id];
  if (LoadAcquire(message.name) == nullptr) return nullptr;
  return message.sourceHandle < SourceCount() ? &message : nullptr;
}

bool InternalRegistrationFailed() {
  return LoadRelaxed(g_internalAttempted) != 0 && LoadRelaxed(QVLOG_MSG_ABNORMAL_TERMINATE) == 0;
}

SourceName::SourceName(int32_t handle) {
  if (handle < 0) return;
  readers_ = &g_sources[handle].readers;
  Increment(*readers_);  // before the name is read, by (3)
  const char* const name = LoadAcquire(g_sources[handle].name);
  if (name != nullptr) text_ = name;
}

SourceName::~SourceName() {
  if (readers_ != nullptr) Decrement(*readers_);
}

}  // namespace qv

uint32_t __QvRegisterLogMessage2(const QVLOG_MESSAGE* message) { return qv::Register(message); }
uint32_t __QvRegisterLogMessage(const QVLOG_MESSAGE* message) { return qv::Register(message); }

uint32_t __QvRegisterInternalQVRTLogMessages() {
  qv::StoreRelaxed(qv::g_internalAttempted, 1u);
  return qv::RegisterInternals();
}

uint32_t __QvGetLoggerHandle(const char* sourceName) {
  if (sourceName == nullptr || !qv::LoggerExists()) return qv::kNone;
  const uint32_t handle = qv::Increment(qv::g_sourceCount) - 1;
  if (handle >= uint32_t{qv::kSources}) {
    qv::Decrement(qv::g_sourceCount);
    return qv::kNone;
  }
  qv::StoreRelease(qv::g_sources[handle].name, qv::NewCopy(sourceName));
  return handle;
}

uint32_t __QvReleaseLoggerHandle(int32_t handle, const char* sourceName) {
  if (sourceName == nullptr || !qv::LoggerExists()) return 0;
  if (handle <= 0 || handle >= qv::SourceCount()) return 0;
  const char* const name = qv::TakeSourceName(handle, sourceName);
  if (name == nullptr) return 0;
  while (qv::LoadAcquire(qv::g_sources[handle].readers) != 0) sched_yield();
  qv::Release(const_cast<char*>(name));
  return 1;
}

// Formatting, bounded copies, paths, the time stamp, and counted strings.
#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "log/report.h"
#include "memory/allocate.h"
#include "runtime/atomics.h"

static_assert(sizeof(QV_STRING) == 24 && offsetof(QV_STRING, buffer) == 16);

namespace {

constinit uint64_t g_timestamp = 0;

char* Copy(char* destination, const char* source, size_t sizeBytes) {
  if (sizeBytes == 0) return destination;
  strncpy(destination, source, sizeBytes - 1);
  destination[sizeBytes - 1] = 0;
  return destination;
}

// Sizes are 32 bits wide in requests and records; a text that outgrows them is the caller's defect.
uint32_t CheckedSize(uint64_t bytes) {
  if (bytes > UINT32_MAX) {
    qv::LogFatalToolDefect("A string would need %llu bytes", static_cast<unsigned long long>(bytes));
  }
  return uint32_t(bytes);
}

char* NewCopy(const char* text, size_t length) {
  char* const copy = static_cast<char*>(qv::Allocate(qv::kMisc, CheckedSize(uint64_t{length} + 1)));
  memcpy(copy, text, length);
  copy[length] = 0;
  return copy;
}

const char* BaseName(const char* path, size_t length) {
  if (length == 1) return path;
  const char* const slash = strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}

char* NewBaseName(const char* path) {
  if (path == nullptr || *path == 0) return nullptr;
  const char* const name = BaseName(path, strlen(path));
  return NewCopy(name, strlen(name));
}

}  // namespace

void __QvSanitizePath(char* path) {
  if (path == nullptr) return;
  char* out = path;
  for (const char* in = path; *in != 0; in++) {
    if (*in != '/' || out == path || out[-1] != '/') *out++ = *in;
  }
  *out = 0;
}

int __QvVsnprintf(char* buffer, size_t sizeBytes, const char* format, va_list arguments) {
  return vsnprintf(buffer, sizeBytes, format, arguments);
}

int __QvSnprintf(char* buffer, size_t sizeBytes, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = vsnprintf(buffer, sizeBytes, format, arguments);
  va_end(arguments);
  return result;
}

int __QvSCnprintf(char* buffer, size_t sizeBytes, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = vsnprintf(buffer, sizeBytes, format, arguments);
  va_end(arguments);
  return result;
}

char* __QvStrncpy(char* destination, const char* source, size_t sizeBytes) {
  return Copy(destination, source, sizeBytes);
}

char* __QvStrSCncpy(char* destination, const char* source, size_t sizeBytes) {
  return Copy(destination, source, sizeBytes);
}

char* __QvStrdup(const char* text) { return text == nullptr ? nullptr : NewCopy(text, strlen(text)); }

char* __QvStripWhiteSpaces(char* text) {
  if (text == nullptr) return nullptr;
  for (size_t length = strlen(text); length > 0; length--) {
    if (!isspace(static_cast<unsigned char>(text[length - 1]))) break;
    text[length - 1] = 0;
  }
  while (isspace(static_cast<unsigned char>(*text))) text++;
  return text;
}

char* __QvGetBaseName(const char* path) { return NewBaseName(path); }
char* __QvGetSCBaseName(const char* path) { return NewBaseName(path); }

void __QvConvertUtf8ToLowerCase(char* text) {
  if (text == nullptr) return;
  for (; *text != 0; text++) *text = char(tolower(static_cast<unsigned char>(*text)));
}

uint64_t __QvUpdateTimestamp(int32_t step) {
  const uint64_t addend = step == 0 ? 1 : uint64_t(int64_t{step});
  uint64_t before = qv::LoadRelaxed(g_timestamp);
  for (;;) {
    const uint64_t found = qv::CompareExchange(g_timestamp, before + addend, before);
    if (found == before) return before + addend;
    before = found;
  }
}

QV_STRING* __QvStrAlloc(uint32_t category, uint32_t capacityBytes, const char* text) {
  QV_STRING* const string = static_cast<QV_STRING*>(qv::Allocate(category, sizeof(QV_STRING)));
  *string = {0, capacityBytes, category, static_cast<char*>(qv::Allocate(category, capacityBytes))};
  return __QvStrSet(string, text == nullptr ? "" : text);
}

QV_STRING* __QvStrSet(QV_STRING* string, const char* text) {
  if (string == nullptr || text == nullptr) return string;
  const size_t length = strlen(text);
  if (length + 1 > string->capacity) {  // so the text is not our own buffer's, and that may go first
    string->capacity = CheckedSize(length == 0 ? 1 : 2 * uint64_t{length});
    qv::Release(string->buffer);
    string->buffer = static_cast<char*>(qv::Allocate(string->category, string->capacity));
  }
  memmove(string->buffer, text, length + 1);
  string->length = uint32_t(length);
  return string;
}

void __QvStrAppend(QV_STRING* string, const char* text) {
  if (string == nullptr || text == nullptr) return;
  const size_t added = strlen(text);
  char* former = nullptr;
  if (string->length + added + 1 > string->capacity) {
    string->capacity = CheckedSize(2 * (added + uint64_t{string->capacity}));
    former = string->buffer;
    string->buffer = static_cast<char*>(qv::Allocate(string->category, string->capacity));
    memcpy(string->buffer, former, string->length);
  }
  memmove(string->buffer + string->length, text, added);  // the text may lie in the former buffer
  string->length += uint32_t(added);
  string->buffer[string->length] = 0;
  qv::Release(former);
}

void __QvStrDestroy(QV_STRING* string) {
  if (string == nullptr) return;
  qv::Release(string->buffer);
  qv::Release(string);
}

// Annotation definitions from a text file, for images built without the section.
//
//   name  "module path"  offset, hexadecimal  [literal value]
//
// One list per process, in the order of the files. No lock: it is loaded, matched and cleaned up on one
// thread. A definition owns its name, its path and its value.
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "log/report.h"
#include "memory/allocate.h"

static_assert(sizeof(ZcaDefinition) == 48 && offsetof(ZcaDefinition, name) == 8 &&
              offsetof(ZcaDefinition, hasValue) == 24 && offsetof(ZcaDefinition, next) == 40);
static_assert(sizeof(ZcaValue) == 16);

namespace qv {
namespace {

constexpr uint32_t kLineBufferBytes = 65535;
constexpr uint32_t kLineReadBytes = 65534;  // a longer line comes in pieces

constinit ZcaDefinition* g_definitions = nullptr;

bool IsSpace(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

struct Field {
  const char* text;
  size_t length;
};

// The next field at *cursor, which moves behind it; length 0 if there is none. White space inside
// quotes does not separate.
Field NextField(const char** cursor) {
  const char* at = *cursor;
  while (IsSpace(*at)) at++;
  const char* const begin = at;
  for (bool quoted = false; *at != 0 && (quoted || !IsSpace(*at)); at++) {
    if (*at == '"') quoted = !quoted;
  }
  *cursor = at;
  return {begin, size_t(at - begin)};
}

char* NewText(const char* text, size_t length) {
  char* const copy = static_cast<char*>(Allocate(kMisc, uint32_t(length + 1)));
  memcpy(copy, text, length);
  copy[length] = 0;
  return copy;
}

// The path without its quotes. A field too short to have two is an empty path, which matches no module.
char* NewModulePath(const Field& field) {
  char* const path = field.length < 2 ? NewText("", 0) : NewText(field.text + 1, field.length - 2);
  __QvSanitizePath(path);
  return path;
}

ZcaValue* NewValue(const char* text) {
  ZcaValue* const value = static_cast<ZcaValue*>(Allocate(kMisc, sizeof(ZcaValue)));
  *value = {strtoul(text, nullptr, 0), {0, 0}};
  return value;
}

void StoreField(ZcaDefinition& definition, uint32_t index, const Field& field) {
  switch (index) {
    case 1: definition.name = NewText(field.text, field.length); break;
    case 2: definition.modulePath = NewModulePath(field); break;
    case 3: definition.offset = uint32_t(strtoul(field.text, nullptr, 16)); break;
    case 4:
      definition.hasValue = 1;
      definition.value = NewValue(field.text);
      break;
  }
}

void CutTrailingSpace(char* line) {
  for (size_t length = strlen(line); length > 0 && IsSpace(line[length - 1]);) line[--length] = 0;
}

bool ParseDefinition(char* line, ZcaDefinition& definition) {
  while (IsSpace(*line)) line++;
  if (*line == 0) return false;
  CutTrailingSpace(line);
  const char* cursor = line;
  uint32_t count = 0;
  for (Field field = NextField(&cursor); field.length != 0; field = NextField(&cursor)) {
    if (++count == 5) {
      LogComment("zca_file_parser: Unexpected number of annotation arguments: %d", 4);
      return false;
    }
    StoreField(definition, count, field);
  }
  return count == 4;
}

ZcaDefinition* NewDefinition() {
  return static_cast<ZcaDefinition*>(Allocate(kMisc, sizeof(ZcaDefinition)));
}

// The definitions of a file in order. A definition that a blank line left empty takes the next line.
ZcaDefinition* ReadDefinitions(FILE* file, char* line) {
  ZcaDefinition* first = nullptr;
  ZcaDefinition* current = nullptr;
  while (__QvFgets(line, kLineReadBytes, file) != nullptr) {
    if (current == nullptr) {
      first = current = NewDefinition();
    } else if (current->name != nullptr) {
      current->next = NewDefinition();
      current = current->next;
    }
    *current = {};
    ParseDefinition(line, *current);
  }
  return first;
}

void AppendDefinitions(ZcaDefinition* added) {
  ZcaDefinition** end = &g_definitions;
  while (*end != nullptr) end = &(*end)->next;
  *end = added;
}

AnnotationRecord RecordOf(const ZcaDefinition& definition, uint64_t loadAddress) {
  AnnotationRecord record = {};
  record.address = loadAddress + definition.offset;
  record.name = definition.name;
  record.hasLocation = definition.hasValue;
  if (definition.hasValue == 1) record.locationValue = definition.value->value;
  return record;
}

}  // namespace
}  // namespace qv

int __QvZCAParseDefinition(char* line, ZcaDefinition* definition) {
  return line != nullptr && definition != nullptr && qv::ParseDefinition(line, *definition);
}

uint8_t __QvZCALoadExternalDefinitions(const char* path) {
  if (path == nullptr) return 0;
  char* const line = static_cast<char*>(qv::Allocate(qv::kMisc, qv::kLineBufferBytes));
  FILE* const file = __QvFopen(path, "re", nullptr);
  if (file == nullptr) {
    qv::Log(QVLOG_SEVERITY_ERROR, QVLOG_MSG_FAIL_OPEN_FILE, QVLOG_ARG_STRING, path);
    qv::Release(line);
    return 0;
  }
  ZcaDefinition* const added = qv::ReadDefinitions(file, line);
  qv::Release(line);
  fclose(file);
  qv::AppendDefinitions(added);
  return 1;
}

void __QvZCAProcessExternalRecords(const char* modulePath, uint64_t loadAddress,
                                   QV_ANNOTATION_CALLBACK callback, void* context) {
  if (modulePath == nullptr || callback == nullptr) return;
  char* const path = __QvStrdup(modulePath);
  __QvSanitizePath(path);
  for (const ZcaDefinition* d = qv::g_definitions; d != nullptr; d = d->next) {
    if (d->modulePath == nullptr || strcmp(d->modulePath, path) != 0) continue;
    const AnnotationRecord record = qv::RecordOf(*d, loadAddress);
    callback(&record, context);
  }
  qv::Release(path);
}

void __QvZCACleanupDefinitions() {
  while (qv::g_definitions != nullptr) {
    ZcaDefinition* const definition = qv::g_definitions;
    qv::g_definitions = definition->next;
    qv::Release(definition->name);
    qv::Release(definition->modulePath);
    qv::Release(definition->value);
    qv::Release(definition);
  }
}

// Definition lines from arbitrary text: the parsed fields lie in the line, and everything is given
// back.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "include/qvrt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string line = text.c_str();  // up to the first NUL
  ZcaDefinition definition = {};
  const int four = __QvZCAParseDefinition(line.data(), &definition);
  if (four != 0 && (definition.value == nullptr || definition.modulePath == nullptr)) abort();
  if (definition.name != nullptr && text.find(definition.name) == std::string::npos) abort();
  __QvFree(definition.name);
  __QvFree(definition.modulePath);
  __QvFree(definition.value);
  return 0;
}

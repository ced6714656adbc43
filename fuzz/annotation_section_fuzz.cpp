// Annotation sections from arbitrary bytes. The input is copied to the end of a heap block, so that the
// address sanitizer sees a read of one byte too many; every name and expression delivered is read.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "include/qvrt.h"

namespace {

struct Seen {
  const unsigned char *begin, *end;
  size_t total = 0;
};

void Read(const AnnotationRecord* record, void* context) {
  Seen& seen = *static_cast<Seen*>(context);
  seen.total += strlen(record->name);
  if (record->expression < seen.begin || record->expression >= seen.end) abort();
  if (record->hasLocation != 1 || record->isRegister > 1) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<unsigned char> section(data, data + size);
  Seen seen{section.data(), section.data() + size};
  __QvZCAParseAndProcessRecords(0x1000, section.data(), size, Read, &seen);
  return 0;
}

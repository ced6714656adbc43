// Annotation entries: the parser over one table, beside a bare loop that loads the same bytes of each
// entry, its name's and its expression's first ones among them, and calls back.
#include <string.h>

#include <string>
#include <vector>

#include "bench/support/bench.h"
#include "include/qvrt.h"

namespace {

struct Section {
  std::vector<unsigned char> bytes;
  uint32_t count;

  explicit Section(uint32_t entries) : count(entries) {
    ZcaTableHeader12 header = {};
    memcpy(header.magic, ".ubq_notify_tab", 15);
    header.version = 0x0102;
    header.entryCount = uint16_t(entries);
    header.flags = 1;
    std::string items, names, expressions;
    for (uint32_t i = 0; i < entries; i++) {
      const uint64_t address = i * 16;
      const uint32_t offsets[2] = {uint32_t(names.size()), uint32_t(expressions.size())};
      items.append(reinterpret_cast<const char*>(&address), 8);
      items.append(reinterpret_cast<const char*>(offsets), 8);
      names += "annotation" + std::to_string(i) + '\0';
      expressions +=
          i % 4 == 0 ? std::string("\x02\x77\x10") : std::string("\x01") + char(0x50 + i % 16);
    }
    header.stringOffset = uint32_t(sizeof header + items.size());
    header.stringBytes = uint32_t(names.size());
    header.expressionOffset = header.stringOffset + header.stringBytes;
    header.expressionBytes = uint32_t(expressions.size());
    const std::string whole = std::string(reinterpret_cast<const char*>(&header), sizeof header) +
                              items + names + expressions;
    bytes.assign(whole.begin(), whole.end());
  }
};

void Consume(const AnnotationRecord* record, void* sum) {
  *static_cast<uint64_t*>(sum) += record->address + record->locationValue;
}
QV_ANNOTATION_CALLBACK volatile g_callback = Consume;

// The log's line for the table would be most of the time of a short one: it is not open here.
void Parse(benchmark::State& state) {
  const Section section{uint32_t(state.range(0))};
  uint64_t sum = 0;
  for (auto _ : state) {
    __QvZCAParseAndProcessRecords(0, section.bytes.data(), section.bytes.size(), g_callback, &sum);
  }
  benchmark::DoNotOptimize(sum);
  qvbench::SetOperationsPerIteration(state, double(section.count));
}

void BareLoop(benchmark::State& state) {
  const Section section{uint32_t(state.range(0))};
  const unsigned char* const header = section.bytes.data();
  uint64_t sum = 0;
  for (auto _ : state) {
    const QV_ANNOTATION_CALLBACK callback = g_callback;
    ZcaTableHeader12 head;
    memcpy(&head, header, sizeof head);
    const unsigned char* entry = header + sizeof head;
    for (uint32_t i = 0; i < head.entryCount; i++, entry += 16) {
      AnnotationRecord record = {};
      uint32_t offsets[2];
      memcpy(&record.address, entry, 8);
      memcpy(offsets, entry + 8, 8);
      record.name = reinterpret_cast<const char*>(header + head.stringOffset + offsets[0]);
      record.expression = header + head.expressionOffset + offsets[1];
      record.hasLocation = record.expression[0];
      record.locationValue = record.expression[1];
      callback(&record, &sum);
    }
  }
  benchmark::DoNotOptimize(sum);
  qvbench::SetOperationsPerIteration(state, double(section.count));
}

}  // namespace

void qvbench::Setup() {
  for (const int64_t count : {1000, 10000, 60000}) {
    if (Smoke() && count > 1000) continue;
    Add("annotation_entry", "qvrt", Parse)->Arg(count);
    Add("annotation_entry", "bare_loop", BareLoop)->Arg(count);
  }
  Aim("annotation_entry/10000", "bare_loop", 1.35);
}

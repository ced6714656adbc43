// Annotation sections: tables of (address, name, place of a value) that the compiler leaves in an
// image.
//
//   section: | zeros | table | zeros | table ...
//   table:   | header 36 (1.1) or 48 (1.2) | entry 0 | entry 1 ... |  strings  |  expressions |
//             \__ offsets of strings and expressions count from the header's first byte
//
// The bytes are a file's, so anything can stand in them. Invariants
//  (1) Nothing outside [section, end) is read. Entries were counted against the section before the loop;
//      a name is inside if it begins at or before the last NUL of the section, since a string that
//      begins there ends there at the latest; expressions are decoded by a reader that knows the end.
//  (2) Each table begins behind the former one, so the walk ends.
//  (3) The loop over entries allocates nothing and calls nothing but the callback, and the log for an
//      expression it cannot decode. Entries that would leave the section are counted and reported after
//      it, once per table.
// Integers may lie unaligned.
#include <string.h>

#include "log/report.h"
#include "runtime/base.h"

static_assert(sizeof(AnnotationRecord) == 48 && offsetof(AnnotationRecord, probeSize) == 24 &&
              offsetof(AnnotationRecord, locationValue) == 32 &&
              offsetof(AnnotationRecord, isRegister) == 40);

extern const uint64_t QV_ZCA_FLAG_PCREL = 1;
extern const uint64_t QV_ZCA_FLAG_PROBE = 2;
extern const uint64_t QV_ZCA_FLAG_32BIT = 4;

namespace qv {
namespace {

using Byte = unsigned char;

constexpr char kMagic[16] = ".ubq_notify_tab";
constexpr uint64_t kHeader11Bytes = 36;
constexpr uint64_t kHeader12Bytes = 48;
constexpr uint64_t kFlagPcRelative = 1, kFlagProbe = 2, kFlag32Bit = 4;

// DWARF operations: lit0 to lit31, reg0 to reg31 and breg0 to breg31 are three runs in a row.
constexpr uint32_t kRun = 32, kOpLit0 = 0x30, kOpBreg0 = kOpLit0 + 2 * kRun;
constexpr uint64_t kUnknownRegister = 0xFFFFFFFF;

template <class T>
QV_INLINE T Load(const Byte* at) {
  T value;
  memcpy(&value, at, sizeof value);
  return value;
}

struct Section {
  uint64_t imageBase;
  const Byte* end;
  const Byte* lastNul;  // last zero byte of the section; null if there is none
};

struct Table {
  const Byte* header;
  const Byte* entries;
  uint32_t entryCount;
  uint64_t entryBytes;
  uint64_t stringOffset, stringBytes, expressionOffset, expressionBytes;
  uint64_t flags;
  bool is11;
};

// Bytes of an expression, never beyond the section.
struct ExpressionReader {
  const Byte* at;
  const Byte* end;
  bool inside = true;  // false once a byte was asked for that is not there

  QV_INLINE uint32_t Next() {
    if (QV_UNLIKELY(at == end)) {
      inside = false;
      return 0;
    }
    return *at++;
  }

  // Seven bits a byte. Bits beyond the 64th are dropped.
  QV_INLINE uint64_t NextUleb() {
    uint32_t byte = Next();
    uint64_t value = byte & 0x7F;
    for (uint32_t shift = 7; (byte & 0x80) != 0; shift += 7) {
      byte = Next();
      if (shift < 64) value |= uint64_t{byte & 0x7F} << shift;
    }
    return value;
  }

  QV_INLINE int32_t NextSleb() {
    uint32_t byte = Next();
    uint32_t value = byte & 0x7F;
    uint32_t shift = 7;
    while ((byte & 0x80) != 0) {
      byte = Next();
      if (shift < 32) value |= (byte & 0x7F) << shift;
      shift += 7;
    }
    if (shift < 32 && (byte & 0x40) != 0) value |= ~uint32_t{0} << shift;
    return int32_t(value);
  }
};

enum class Decoded : uint8_t { kYes, kUnsupported, kOutside };

QV_INLINE void SetPlace(AnnotationRecord& record, uint64_t value, uint32_t isRegister) {
  record.locationValue = value;
  record.isRegister = isRegister;
}

QV_INLINE void DecodeSingle(uint32_t operation, AnnotationRecord& record) {
  const uint32_t fromLit0 = operation - kOpLit0;
  if (fromLit0 < 3 * kRun) {
    SetPlace(record, fromLit0 % kRun, fromLit0 >= kRun);
  } else {
    SetPlace(record, kUnknownRegister, 1);
  }
}

QV_INLINE Decoded DecodeExpression(const Byte* expression, const Byte* end, AnnotationRecord& record) {
  if (QV_UNLIKELY(expression >= end)) return Decoded::kOutside;
  ExpressionReader reader{expression, end};
  const uint64_t length = reader.NextUleb();
  if (QV_UNLIKELY(!reader.inside || length > uint64_t(end - reader.at))) return Decoded::kOutside;
  if (QV_LIKELY(length == 1)) {
    DecodeSingle(reader.Next(), record);
    return Decoded::kYes;
  }
  const uint32_t fromBreg0 = length == 0 ? kRun : reader.Next() - kOpBreg0;
  if (fromBreg0 >= kRun) return Decoded::kUnsupported;
  const int32_t offset = reader.NextSleb();
  if (!reader.inside) return Decoded::kOutside;
  SetPlace(record, fromBreg0, 1);
  record.registerOffset = offset;
  return Decoded::kYes;
}

QV_INLINE uint64_t AddressOf(const Table& table, const Section& section, const Byte* entry) {
  uint64_t value = Load<uint64_t>(entry);
  if (table.is11) return section.imageBase + value;
  if ((table.flags & kFlag32Bit) != 0 && (value & 0x80000000u) != 0) value |= 0xFFFFFFFFull << 32;
  if ((table.flags & kFlagPcRelative) != 0) value += reinterpret_cast<uint64_t>(table.header);
  return value;
}

// False if the entry would leave the section.
QV_INLINE bool ReadEntry(const Table& table, const Section& section, const Byte* entry,
                         AnnotationRecord& record) {
  const bool hasSecondField = table.entryBytes == 20;
  const Byte* const names = entry + (hasSecondField ? 12 : 8);
  const uint64_t room = uint64_t(section.end - table.header);
  const uint64_t name = table.stringOffset + Load<uint32_t>(names);
  const uint64_t expression = table.expressionOffset + Load<uint32_t>(names + 4);
  const uint64_t lastNul = uint64_t(section.lastNul - table.header);
  if (QV_UNLIKELY((name > lastNul) | (expression >= room))) return false;
  record = {};
  record.address = AddressOf(table, section, entry);
  record.name = reinterpret_cast<const char*>(table.header + name);
  record.expression = table.header + expression;
  record.probeSize = hasSecondField ? Load<uint32_t>(entry + 8) : 0;
  record.hasLocation = 1;
  const Decoded decoded = DecodeExpression(record.expression, section.end, record);
  if (QV_UNLIKELY(decoded == Decoded::kUnsupported)) {
    LogComment("QVRT: Unsupported Dwarf Expression in ZCA");
  }
  return decoded != Decoded::kOutside;
}

void DeliverEntries(const Table& table, const Section& section, QV_ANNOTATION_CALLBACK callback,
                    void* context) {
  uint32_t skipped = 0;
  // Without a NUL behind the header no name can end inside.
  if (section.lastNul == nullptr || section.lastNul < table.header) {
    skipped = table.entryCount;
  } else {
    const Byte* entry = table.entries;
    for (uint32_t i = 0; i < table.entryCount; i++, entry += table.entryBytes) {
      AnnotationRecord record;
      if (QV_UNLIKELY(!ReadEntry(table, section, entry, record))) {
        skipped++;
      } else if (callback != nullptr) {
        callback(&record, context);
      }
    }
  }
  if (skipped != 0) LogComment("zca_parser: skipped %u zca items that leave their section", skipped);
}

void Fill11(Table& table) {
  const Byte* const h = table.header;
  table.is11 = true;
  table.entries = h + kHeader11Bytes;
  table.entryCount = Load<uint16_t>(h + 18);
  table.entryBytes = 20;
  table.stringOffset = Load<uint32_t>(h + 20);
  table.stringBytes = Load<uint32_t>(h + 24);
  table.expressionOffset = Load<uint32_t>(h + 28);
  table.expressionBytes = Load<uint32_t>(h + 32);
  table.flags = 0;
}

void Fill12(Table& table) {
  const Byte* const h = table.header;
  table.is11 = false;
  table.entries = h + kHeader12Bytes;
  table.entryCount = Load<uint16_t>(h + 20);
  table.stringOffset = Load<uint32_t>(h + 24);
  table.stringBytes = Load<uint32_t>(h + 28);
  table.expressionOffset = Load<uint32_t>(h + 32);
  table.expressionBytes = Load<uint32_t>(h + 36);
  table.flags = Load<uint64_t>(h + 40);
  table.entryBytes = (table.flags & kFlagProbe) != 0 ? 20 : 16;
}

// Reads the header at `p`; false, with the reason in the log, if no table can be read there.
bool ReadHeader(const Byte* p, const Section& section, Table& table) {
  const uint64_t left = uint64_t(section.end - p);
  if (left < kHeader11Bytes) {
    LogComment("ZCA parser: invalid zca section size");
    return false;
  }
  if (memcmp(p, kMagic, sizeof kMagic) != 0) {
    LogComment("zca_parser: Incorrect zca header format");
    return false;
  }
  table.header = p;
  const uint32_t version = Load<uint16_t>(p + 16);
  if (version == 0x0101) {
    LogComment("Found ZCA section with version 1.1");
    Fill11(table);
  } else if (version != 0x0102) {
    LogComment("zca_parser: Expected zca version %d.%d", int(version >> 8), int(version & 0xFF));
    return false;
  } else if (left < kHeader12Bytes) {
    LogComment("ZCA parser: invalid zca section size");
    return false;
  } else {
    LogComment("Found ZCA section with version 1.2");
    Fill12(table);
  }
  if (uint64_t(section.end - table.entries) >= table.entryCount * table.entryBytes) return true;
  LogComment("zca_parser: incorrect number of zca items");
  return false;
}

// Bytes from the header to where the next table is looked for: behind whichever part starts later.
uint64_t BytesToNext(const Table& table) {
  return table.stringOffset < table.expressionOffset ? table.expressionOffset + table.expressionBytes
                                                     : table.stringOffset + table.stringBytes;
}

const Byte* FindLastNul(const Byte* begin, const Byte* end) {
  while (end != begin) {
    if (*--end == 0) return end;
  }
  return nullptr;
}

}  // namespace
}  // namespace qv

void __QvZCAParseAndProcessRecords(uint64_t imageBase, const unsigned char* section,
                                   uint64_t sectionBytes, QV_ANNOTATION_CALLBACK callback,
                                   void* context) {
  if (section == nullptr || sectionBytes == 0) return;
  const unsigned char* const end = section + sectionBytes;
  const qv::Section bounds = {imageBase, end, qv::FindLastNul(section, end)};
  for (const unsigned char* p = section; p < end;) {
    if (*p == 0) {
      p++;
      continue;
    }
    qv::Table table;
    if (!qv::ReadHeader(p, bounds, table)) return;
    qv::DeliverEntries(table, bounds, callback, context);
    const uint64_t step = qv::BytesToNext(table);
    if (step == 0 || step >= uint64_t(end - p)) return;
    p += step;
  }
}

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
// The loop decodes in place what compilers write, an operation alone or a register with a one-byte
// offset; every other expression, and those in the last two bytes of the section, takes the reader.
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

// The last three fields of a record, where a value lives.
struct Place {
  uint64_t value;
  uint32_t isRegister;
  int32_t offset;
};
static_assert(sizeof(Place) == 16 && offsetof(AnnotationRecord, registerOffset) == 44);

// One copy of 16 bytes.
QV_INLINE void SetPlace(AnnotationRecord& record, const Place& place) {
  memcpy(&record.locationValue, &place, sizeof place);
}

// The place that each operation stands for if it is alone: no branch, whatever the mix of them.
struct SinglePlaces {
  alignas(64) Place of[256];
  constexpr SinglePlaces() : of() {
    for (uint32_t operation = 0; operation < 256; operation++) {
      const uint32_t fromLit0 = operation - kOpLit0;
      of[operation] = {kUnknownRegister, 1, 0};
      if (fromLit0 < 3 * kRun) of[operation] = {fromLit0 % kRun, fromLit0 >= kRun, 0};
    }
  }
};
constexpr SinglePlaces kSingle;

// Any expression, with `room` bytes to the section's end.
QV_COLD Decoded DecodeSlow(uint64_t room, AnnotationRecord& record) {
  ExpressionReader reader{record.expression, record.expression + room};
  const uint64_t length = reader.NextUleb();
  if (!reader.inside || length > uint64_t(reader.end - reader.at)) return Decoded::kOutside;
  if (length == 1) {
    SetPlace(record, kSingle.of[reader.Next()]);
    return Decoded::kYes;
  }
  const uint32_t fromBreg0 = length == 0 ? kRun : reader.Next() - kOpBreg0;
  if (fromBreg0 >= kRun) return Decoded::kUnsupported;
  const int32_t offset = reader.NextSleb();
  if (!reader.inside) return Decoded::kOutside;
  SetPlace(record, {fromBreg0, 1, offset});
  return Decoded::kYes;
}

// The common expressions, three bytes of which can be read. False: another one, record as it was.
QV_INLINE bool DecodeFast(AnnotationRecord& record) {
  const Byte* const at = record.expression;
  if (QV_LIKELY(at[0] == 1)) {
    SetPlace(record, kSingle.of[at[1]]);
    return true;
  }
  const uint32_t fromBreg0 = at[1] - kOpBreg0;
  if (QV_UNLIKELY(at[0] != 2 || fromBreg0 >= kRun || at[2] >= 0x80)) return false;
  SetPlace(record, {fromBreg0, 1, int32_t(uint32_t{at[2]} << 25) >> 25});
  return true;
}

// What the loop over the entries of a table needs, worked out once.
struct Walk {
  const Byte* strings;
  uint64_t stringRoom;  // a name at an offset below this ends inside the section
  const Byte* expressions;
  uint64_t expressionRoom;  // an expression at an offset below this begins inside
  uint64_t fastRoom;        // ... and has three bytes
  uint64_t addressBase;
  bool extends;  // addresses have 32 bits and a sign

  Walk(const Table& table, const Section& section)
      : strings(table.header + table.stringOffset),
        stringRoom(section.lastNul >= strings ? uint64_t(section.lastNul - strings) + 1 : 0),
        expressions(table.header + table.expressionOffset),
        expressionRoom(expressions < section.end ? uint64_t(section.end - expressions) : 0),
        fastRoom(expressionRoom > 2 ? expressionRoom - 2 : 0),
        addressBase(table.is11                             ? section.imageBase
                    : (table.flags & kFlagPcRelative) != 0 ? reinterpret_cast<uint64_t>(table.header)
                                                           : 0),
        extends((table.flags & kFlag32Bit) != 0) {}
};

// False if the entry would leave the section. hasLocation is set already, as is a probe size of 0.
template <bool kHasSecondField>
QV_INLINE bool ReadEntry(const Walk& walk, const Byte* entry, AnnotationRecord& record) {
  const Byte* const offsets = entry + (kHasSecondField ? 12 : 8);
  const uint64_t name = Load<uint32_t>(offsets);
  const uint64_t expression = Load<uint32_t>(offsets + 4);
  if (QV_UNLIKELY(name >= walk.stringRoom)) return false;
  uint64_t address = Load<uint64_t>(entry);
  if (walk.extends && (address & 0x80000000u) != 0) address |= 0xFFFFFFFFull << 32;
  record.address = walk.addressBase + address;
  record.name = reinterpret_cast<const char*>(walk.strings + name);
  record.expression = walk.expressions + expression;
  if (kHasSecondField) record.probeSize = Load<uint32_t>(entry + 8);
  if (QV_LIKELY(expression < walk.fastRoom) && QV_LIKELY(DecodeFast(record))) return true;
  if (expression >= walk.expressionRoom) return false;
  SetPlace(record, {0, 0, 0});
  const Decoded decoded = DecodeSlow(walk.expressionRoom - expression, record);
  if (decoded == Decoded::kUnsupported) LogComment("QVRT: Unsupported Dwarf Expression in ZCA");
  return decoded != Decoded::kOutside;
}

void Ignore(const AnnotationRecord*, void*) {}

// The number of entries that were skipped.
template <bool kHasSecondField>
uint32_t DeliverEntries(const Table& table, const Walk& walk, QV_ANNOTATION_CALLBACK callback,
                        void* context) {
  constexpr uint32_t kEntryBytes = kHasSecondField ? 20 : 16;
  uint32_t skipped = 0;
  const Byte* const end = table.entries + table.entryCount * kEntryBytes;
  AnnotationRecord record;  // callbacks get it const: what is the same for all entries is written once
  record.probeSize = 0;
  record.hasLocation = 1;
  for (const Byte* entry = table.entries; entry != end; entry += kEntryBytes) {
    if (QV_UNLIKELY(!ReadEntry<kHasSecondField>(walk, entry, record))) {
      skipped++;
    } else {
      callback(&record, context);
    }
  }
  return skipped;
}

void DeliverTable(const Table& table, const Section& section, QV_ANNOTATION_CALLBACK callback,
                  void* context) {
  if (callback == nullptr) callback = Ignore;
  const Walk walk(table, section);
  const uint32_t skipped = table.entryBytes == 20
                               ? DeliverEntries<true>(table, walk, callback, context)
                               : DeliverEntries<false>(table, walk, callback, context);
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

}  // namespace
}  // namespace qv

void __QvZCAParseAndProcessRecords(uint64_t imageBase, const unsigned char* section,
                                   uint64_t sectionBytes, QV_ANNOTATION_CALLBACK callback,
                                   void* context) {
  if (section == nullptr || sectionBytes == 0) return;
  const unsigned char* const end = section + sectionBytes;
  const qv::Section bounds = {imageBase, end,
                              static_cast<const unsigned char*>(memrchr(section, 0, sectionBytes))};
  for (const unsigned char* p = section; p < end;) {
    if (*p == 0) {
      p++;
      continue;
    }
    qv::Table table;
    if (!qv::ReadHeader(p, bounds, table)) return;
    qv::DeliverTable(table, bounds, callback, context);
    const uint64_t step = qv::BytesToNext(table);
    if (step == 0 || step >= uint64_t(end - p)) return;
    p += step;
  }
}

// Annotation sections: built by hand, decoded by a second, dull decoder, and damaged at every byte
// right before an inaccessible page.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>

#include <random>
#include <string>
#include <vector>

#include "include/qvrt.h"
#include "tests/support/child.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Entry {
  uint64_t address = 0;
  uint32_t probe = 0;
  std::string name;
  Bytes expression;  // with its length in front
};

template <class T>
void Append(Bytes& bytes, T value) {
  const unsigned char* const raw = reinterpret_cast<const unsigned char*>(&value);
  bytes.insert(bytes.end(), raw, raw + sizeof value);
}

// One table; strings before expressions or the other way round.
Bytes Table(bool is11, uint64_t flags, const std::vector<Entry>& entries, bool stringsFirst = true) {
  Bytes strings, expressions, items;
  const bool probe = is11 || (flags & 2) != 0;
  for (const Entry& entry : entries) {
    Append(items, entry.address);
    if (probe) Append(items, entry.probe);
    Append(items, uint32_t(strings.size()));
    Append(items, uint32_t(expressions.size()));
    strings.insert(strings.end(), entry.name.begin(), entry.name.end());
    strings.push_back(0);
    expressions.insert(expressions.end(), entry.expression.begin(), entry.expression.end());
  }
  const uint32_t after = uint32_t((is11 ? 36 : 48) + items.size());
  const uint32_t stringAt = stringsFirst ? after : after + uint32_t(expressions.size());
  const uint32_t expressionAt = stringsFirst ? after + uint32_t(strings.size()) : after;
  Bytes table(16);
  memcpy(table.data(), ".ubq_notify_tab", 15);
  Append(table, uint16_t(is11 ? 0x0101 : 0x0102));
  if (!is11) Append(table, uint16_t{0xAAAA});
  Append(table, uint16_t(entries.size()));
  if (!is11) Append(table, uint16_t{0xBBBB});
  for (const uint32_t word :
       {stringAt, uint32_t(strings.size()), expressionAt, uint32_t(expressions.size())}) {
    Append(table, word);
  }
  if (!is11) Append(table, flags);
  table.insert(table.end(), items.begin(), items.end());
  const Bytes& first = stringsFirst ? strings : expressions;
  const Bytes& second = stringsFirst ? expressions : strings;
  table.insert(table.end(), first.begin(), first.end());
  table.insert(table.end(), second.begin(), second.end());
  return table;
}

struct Seen {
  AnnotationRecord record;
  std::string name;
};

void Collect(const AnnotationRecord* record, void* context) {
  static_cast<std::vector<Seen>*>(context)->push_back({*record, record->name});
}

// The section's last byte stands right before a page that cannot be touched. One section at a time.
class GuardedSection {
 public:
  explicit GuardedSection(const Bytes& bytes) : size_(bytes.size()) {
    CHECK(size_ <= kRoom);
    memcpy(Data(), bytes.data(), size_);
  }
  unsigned char* Data() const { return Room() + kRoom - size_; }
  std::vector<Seen> Parse(uint64_t base) const {
    std::vector<Seen> seen;
    __QvZCAParseAndProcessRecords(base, Data(), size_, Collect, &seen);
    return seen;
  }

 private:
  static constexpr size_t kRoom = 16 * 4096;
  static unsigned char* Map() {
    void* const room =
        mmap(nullptr, kRoom + 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mprotect(static_cast<char*>(room) + kRoom, 4096, PROT_NONE);
    return static_cast<unsigned char*>(room);
  }
  static unsigned char* Room() {
    static unsigned char* const room = Map();
    return room;
  }
  const size_t size_;
};

std::vector<std::string> Comments(const std::string& log) {
  std::vector<std::string> texts;
  for (size_t at = 0; (at = log.find("\t<!-- ", at)) != std::string::npos; at++) {
    texts.push_back(log.substr(at + 6, log.find(" -->", at) - at - 6));
  }
  return texts;
}

TEST(SectionParser, TablesOfBothVersionsInARowWithZerosBetween) {
  const auto child = qvtest::RunChild([] {
    __QvRtStartup();
    Bytes section(16);
    const Bytes old = Table(true, 0, {{0x10, 7, "first", {1, 0x35}}, {0x20, 8, "", {1, 0x57}}});
    section.insert(section.end(), old.begin(), old.end());
    section.push_back(0);
    const size_t header = section.size();
    const Bytes fresh =
        Table(false, 1 | 2 | 4,
              {{0x40, 9, "relative", {2, 0x77, 0x78}}, {0xFFFFFFF0, 10, "back", {1, 0x93}}}, false);
    section.insert(section.end(), fresh.begin(), fresh.end());
    const GuardedSection guarded(section);
    const auto seen = guarded.Parse(0x400000);
    CHECK_EQ(seen.size(), 4u);
    CHECK_EQ(seen[0].record.address, 0x400010u);
    CHECK(seen[0].name == "first" && seen[1].name.empty() && seen[2].name == "relative");
    CHECK_EQ(seen[0].record.probeSize, 7u);
    CHECK(seen[0].record.isRegister == 0 && seen[0].record.locationValue == 5);
    CHECK(seen[1].record.isRegister == 1 && seen[1].record.locationValue == 7);
    const uint64_t at = reinterpret_cast<uint64_t>(guarded.Data()) + header;
    CHECK_EQ(seen[2].record.address, at + 0x40);
    CHECK(seen[2].record.locationValue == 7 && seen[2].record.registerOffset == -8);
    CHECK_EQ(seen[3].record.address, at - 0x10);
    CHECK(seen[3].record.isRegister == 1 && seen[3].record.locationValue == 0xFFFFFFFF);
    CHECK_EQ(seen[3].record.hasLocation, 1u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(Comments(child.Read("qvlog.log")),
            (std::vector<std::string>{"Found ZCA section with version 1.1",
                                      "Found ZCA section with version 1.2"}));
}

TEST(SectionParser, WhatEndsTheWalkIsSaidAndWhatCameBeforeStaysDelivered) {
  const auto child = qvtest::RunChild([] {
    __QvRtStartup();
    const Bytes good = Table(false, 0, {{1, 0, "x", {2, 0x91, 0x10}}});
    auto count = [&](Bytes second) {
      Bytes section = good;
      section.insert(section.end(), second.begin(), second.end());
      return GuardedSection(section).Parse(0).size();
    };
    Bytes wrongVersion = good, tooMany = good, wrongMagic = good;
    wrongVersion[16] = 3;
    tooMany[20] = 200;
    wrongMagic[14] = 'B';
    CHECK_EQ(count(Bytes(35, 'a')), 1u);
    CHECK_EQ(count(Bytes(36, 'a')), 1u);
    CHECK_EQ(count(wrongMagic), 1u);
    CHECK_EQ(count(wrongVersion), 1u);
    CHECK_EQ(count(tooMany), 1u);
    CHECK_EQ(count(Bytes(good.begin(), good.begin() + 47)), 1u);
    CHECK_EQ(GuardedSection(good).Parse(0)[0].record.isRegister, 0u);
    __QvZCAParseAndProcessRecords(0, good.data(), good.size(), nullptr, nullptr);
    __QvZCAParseAndProcessRecords(0, nullptr, 10, Collect, nullptr);
    __QvZCAParseAndProcessRecords(0, good.data(), 0, Collect, nullptr);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  std::vector<std::string> want;
  const std::string found = "Found ZCA section with version 1.2";
  const std::string unsupported = "QVRT: Unsupported Dwarf Expression in ZCA";
  for (const std::string& end :
       {std::string("ZCA parser: invalid zca section size"),
        std::string("zca_parser: Incorrect zca header format"),
        std::string("zca_parser: Incorrect zca header format"),
        std::string("zca_parser: Expected zca version 1.3"),
        found + "|zca_parser: incorrect number of zca items",
        std::string("ZCA parser: invalid zca section size"), std::string(), std::string()}) {
    want.push_back(found);
    want.push_back(unsupported);
    if (const size_t bar = end.find('|'); bar != std::string::npos) {
      want.push_back(end.substr(0, bar));
      want.push_back(end.substr(bar + 1));
    } else if (!end.empty()) {
      want.push_back(end);
    }
  }
  EXPECT_EQ(Comments(child.Read("qvlog.log")), want);
}

TEST(SectionParser, AnEntryThatLeavesTheSectionIsSkippedAndTheOthersAreNot) {
  const auto child = qvtest::RunChild([] {
    __QvRtStartup();
    const Bytes table = Table(false, 0, {{1, 0, "a", {1, 0x30}}, {2, 0, "b", {1, 0x31}}}, false);
    auto without = [&](size_t at, uint32_t word) {
      Bytes bytes = table;
      memcpy(bytes.data() + at, &word, sizeof word);
      const auto seen = GuardedSection(bytes).Parse(0);
      CHECK_EQ(seen.size(), 1u);
      CHECK_EQ(seen[0].record.address, 2u);
    };
    without(48 + 8, 5);           // the name begins at the section's end
    without(48 + 8, 0xFFFFFFFF);  // far outside
    without(48 + 12, 8);          // the expression likewise
    without(48 + 12, 0xFFFFFF00);
    Bytes longer = table;
    longer[48 + 32] = 200;  // an expression longer than the section
    CHECK_EQ(GuardedSection(longer).Parse(0).size(), 1u);
    Bytes unterminated = table;
    unterminated.back() = 'x';  // the last name has no end; the first one still has
    const auto seen = GuardedSection(unterminated).Parse(0);
    CHECK_EQ(seen.size(), 1u);
    CHECK(seen[0].name == "a");
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_NE(child.Read("qvlog.log").find("skipped 1 zca items that leave their section"),
            std::string::npos);
}

// The dull decoder: what a location expression means, without a thought for speed.
void Decode(const Bytes& e, AnnotationRecord& want) {
  size_t at = 0;
  uint64_t length = 0;
  for (uint32_t shift = 0;; shift += 7) {
    length |= uint64_t(e[at] & 0x7F) << shift;
    if ((e[at++] & 0x80) == 0) break;
  }
  const uint32_t op = length == 0 ? 0 : e[at++];
  want.hasLocation = 1;
  if (length == 1) {
    const bool known = op >= 0x30 && op <= 0x8F;
    want.isRegister = !known || op >= 0x50;
    want.locationValue = known ? (op - 0x30) % 32 : 0xFFFFFFFF;
  } else if (op >= 0x70 && op <= 0x8F) {
    int64_t value = 0;
    uint32_t shift = 0;
    do {
      value |= int64_t(e[at] & 0x7F) << shift;
      shift += 7;
    } while ((e[at++] & 0x80) != 0);
    if (shift < 32 && (e[at - 1] & 0x40) != 0) value |= -(int64_t{1} << shift);
    want.locationValue = op - 0x70;
    want.isRegister = 1;
    want.registerOffset = int32_t(uint32_t(value));
  }
}

Bytes RandomExpression(std::mt19937_64& random) {
  if (random() % 3 == 0) return {1, static_cast<unsigned char>(random())};
  Bytes operand;
  for (uint64_t more = random() % 5; more > 0; more--) {
    operand.push_back(static_cast<unsigned char>(random() | 0x80));
  }
  operand.push_back(random() & 0x7F);
  Bytes e = {static_cast<unsigned char>(1 + operand.size()),
             static_cast<unsigned char>(0x68 + random() % 48)};
  if (random() % 4 == 0)
    e.insert(e.begin(), {static_cast<unsigned char>(e[0] | 0x80), 0}), e.erase(e.begin() + 2);
  e.insert(e.end(), operand.begin(), operand.end());
  return e;
}

TEST(SectionParser, RandomTablesAgreeWithTheDullDecoderAndDamagedOnesReadNothingOutside) {
  const auto child = qvtest::RunChild([] {  // no start-up: the log stays closed
    std::mt19937_64 random(20261124);
    for (int round = 0; round < 3000; round++) {
      const bool is11 = random() % 2 == 0;
      const uint64_t flags = random() % 8;
      std::vector<Entry> entries(random() % 8);
      for (Entry& entry : entries) {
        entry = {random(), uint32_t(random()), std::string(random() % 9, 'n'),
                 RandomExpression(random)};
      }
      Bytes bytes = Table(is11, flags, entries, random() % 2 == 0);
      const GuardedSection section(bytes);
      const auto seen = section.Parse(0x1000);
      CHECK_EQ(seen.size(), entries.size());
      for (size_t i = 0; i < seen.size(); i++) {
        AnnotationRecord want = seen[i].record;
        want.locationValue = want.isRegister = 0;
        want.registerOffset = 0;
        Decode(entries[i].expression, want);
        CHECK(memcmp(&want, &seen[i].record, sizeof want) == 0);
        CHECK(seen[i].name == entries[i].name);
        uint64_t address = entries[i].address;
        if (is11) address += 0x1000;
        if (!is11 && (flags & 4) != 0 && (address & 0x80000000) != 0) address |= 0xFFFFFFFF00000000;
        if (!is11 && (flags & 1) != 0) address += reinterpret_cast<uint64_t>(section.Data());
        CHECK_EQ(seen[i].record.address, address);
      }
      for (int damage = 0; damage < 40; damage++) {
        Bytes damaged = bytes;
        for (uint64_t n = 1 + random() % 3; n > 0; n--) {
          damaged[16 + random() % (damaged.size() - 16)] = static_cast<unsigned char>(random());
        }
        damaged.resize(16 + random() % (damaged.size() - 15));
        GuardedSection(damaged).Parse(0);  // names are read to their ends by Collect
      }
    }
  });
  EXPECT_TRUE(child.Ok()) << child.status << child.err;
}

}  // namespace

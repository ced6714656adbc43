// Debug dump channels: the option's grammar against a model, and what reaches the log.
#include "log/debug_dump.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/expected_log.h"

namespace qvtest {
namespace {

using Map = std::vector<QV_DEBUG_CHANNEL>;  // without the end

// The groups as unions, so that a wrong bit in either table shows.
Map BuiltInMap() {
  Map map = {{0, "NONE"}};
  uint64_t bit = 1;
  const auto add = [&](const char* group, const std::vector<const char*>& names) {
    const uint64_t first = bit;
    for (const char* const name : names) {
      map.push_back({bit, name});
      bit <<= 1;
    }
    map.push_back({bit - first, group});
  };
  add("QVCORE", {"API", "CAL", "MEM", "BUF", "MOD", "CFG", "MIC", "ZCA", "SCR"});
  add("QVET", {"TRC", "IMG", "RTN", "BBL", "INS", "THR", "RTL", "TRA"});
  add("DOTNET", {"DOTNET_GC", "DOTNET_API", "DOTNET_MEM", "DOTNET_JIT", "DOTNET_GEN"});
  map.push_back({bit - 1, "ALL"});
  return map;
}

std::string Lower(std::string text) {
  for (char& c : text) c = char(tolower(c));
  return text;
}

// As documented, entry by entry; an entry of exactly that name behind the first one goes before it.
bool ModelApply(const Map& map, const std::string& item, uint32_t& mask) {
  for (const QV_DEBUG_CHANNEL& first : map) {
    for (const bool negated : {false, true}) {
      if (negated && (item.size() <= 3 || item.rfind("no-", 0) != 0)) continue;
      const std::string word = negated ? item.substr(3) : item;
      if (Lower(first.name).rfind(word, 0) != 0) continue;
      uint64_t bits = first.mask;
      for (const QV_DEBUG_CHANNEL* later = &map.back(); later >= &first; later--) {
        if (!word.empty() && Lower(later->name) == word) bits = later->mask;
      }
      mask = negated ? mask & ~uint32_t(bits) : bits == 0 ? 0 : mask | uint32_t(bits);
      return true;
    }
  }
  return false;
}

bool ModelParse(const Map& map, std::string text, uint32_t& mask) {
  text = Lower(text);
  while (!text.empty()) {
    const size_t comma = std::min(text.find(','), text.size());
    if (!ModelApply(map, text.substr(0, comma), mask)) return false;
    text.erase(0, comma + 1);
  }
  return true;
}

std::string RandomText(std::mt19937& random, const Map& map) {
  std::string text;
  for (uint32_t items = uint32_t(random() % 5); items-- > 0;) {
    const std::string name = map[random() % map.size()].name;
    text += (random() % 3 == 0 ? "No-" : "") + name.substr(0, random() % (name.size() + 1));
    if (random() % 12 == 0) text += "q";
    if (items != 0 || random() % 4 == 0) text += ",";
  }
  return random() % 2 == 0 ? Lower(text) : text;
}

void CompareOnRandomTexts(const Map& map) {
  std::mt19937 random(7);
  uint32_t mask = qv::g_dump.mask;
  for (int i = 0; i < 20000; i++) {
    const std::string text = RandomText(random, map);
    const bool accepted = ModelParse(map, text, mask);
    if (__QvParseDbgDumpOption(text.c_str()) != uint32_t{accepted} || qv::g_dump.mask != mask) {
      FailCheck(__FILE__, __LINE__, text);
    }
  }
}

TEST(DebugDump, TheOptionAgreesWithTheModelOnAnyMap) {
  const ChildResult child = RunChild([] {
    CompareOnRandomTexts(BuiltInMap());
    const uint64_t high = uint64_t{1} << 32;
    Map tricky = {{1, "no-a"}, {2, "ab"},      {0, "off"},        {4, "A"},
                  {8, "no-"},  {high, "high"}, {high + 16, "hi"}, {32, ""}};
    tricky.push_back({0, nullptr});
    CHECK_EQ(__QvDbgRegisterDbgMap(tricky.data()), 1u);
    tricky.pop_back();
    CompareOnRandomTexts(tricky);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(DebugDump, TheOptionTakesMasksAndTheDocumentedLists) {
  const struct {
    const char* text;
    uint32_t before, result, after;
  } kCases[] = {{"api,mem", 0, 1, 5},
                {"all,no-mem", 5, 1, 0x3FFFFB},
                {"0x10", 1, 1, 0x11},
                {"0x0", 9, 1, 0},
                {"0", 9, 0, 9},
                {"0q", 9, 0, 9},
                {"0x", 9, 0, 9},
                {"0xq", 9, 0, 9},
                {"0X1fQ,api", 0x20, 1, 0x3F},
                {"", 9, 1, 9},
                {"api,", 0, 1, 1},
                {",api", 6, 1, 1},
                {"no-", 3, 0, 3},
                {"dotnet", 0, 1, 0x3E0000},
                {"no-dotnet", 0x3FFFFF, 1, 0x1FFFF}};
  const ChildResult child = RunChild([&] {
    for (const auto& [text, before, result, after] : kCases) {
      qv::g_dump.mask = before;
      const bool same = __QvParseDbgDumpOption(text) == result && qv::g_dump.mask == after;
      if (!same) FailCheck(__FILE__, __LINE__, text);
    }
    CHECK_EQ(__QvParseDbgDumpOption(nullptr), 0u);
    CHECK_EQ(__QvDbgRegisterDbgMap(nullptr), 0u);
    CHECK_EQ(__QvParseDbgDumpOption("api"), 1u);
    const QV_DEBUG_CHANNEL empty = {0, nullptr};
    CHECK_EQ(__QvDbgRegisterDbgMap(&empty), 1u);
    CHECK_EQ(__QvParseDbgDumpOption("api"), 0u);
    CHECK_EQ(__QvParseDbgDumpOption(","), 0u);
    CHECK_EQ(__QvParseDbgDumpOption("0x8"), 1u);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(DebugDump, ALineIsWrittenExactlyWhenTheBitsMeet) {
  const Map map = BuiltInMap();
  const ChildResult child = RunChild([&] {
    __QvRtStartup();
    for (uint32_t bit = 0; bit < 32; bit++) {
      qv::g_dump.mask = 1u << bit;
      for (uint32_t channel = 0; channel < 70; channel++)
        __QvDbgMessageDumpInternal(channel, "%u", bit);
    }
    for (const uint32_t channel : {0x10000001u, 0x80000001u, 0xFFFFFFFFu}) {
      __QvDbgMessageDumpInternal(channel, "not in the map");
    }
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  ExpectedLog log;
  for (uint32_t bit = 0; bit < 32; bit++) {
    for (const QV_DEBUG_CHANNEL& channel : map) {
      if ((channel.mask >> bit & 1) == 0) continue;
      std::string name = channel.name;
      name.resize(std::max<size_t>(name.size(), 4), ' ');
      log.Comment("[" + name + "] [0    ] " + std::to_string(bit));
    }
  }
  EXPECT_EQ(WithoutTimes(child.Read("qvlog.log")), log.Text());
}

// The gate must hand over every register and the stack as they came.
TEST(DebugDump, ALineHoldsAllArgumentsTheThreadAndAtMost1022Characters) {
  const ChildResult child = RunChild([] {
    __QvSetGetNativeThreadIdProc([] { return uint64_t{0x100000000 + 1234567}; });
    __QvRtStartup();
    std::vector<QV_DEBUG_CHANNEL> map(40, {1, "X"});
    map[31] = {0x700000002, "last<"};
    CHECK_EQ(__QvDbgRegisterDbgMap(map.data()), 1u);
    __QvParseDbgDumpOption("0x2");
    __QvDbgMessageDumpInternal(31, "%s %d %.1f %ld %x %.1f %.1f %.1f %.1f %.1f %.1f %.1f %.1f %d %s",
                               "s", -2, 1.5, 3L, 0xAB, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5, 8.5, 9.5, 7,
                               "end");
    for (const int width : {1021, 1022, 1023, 9999}) __QvDbgMessageDumpInternal(31, "%*d", width, 5);
    const char* volatile none = nullptr;
    __QvDbgMessageDumpInternal(31, none, 0);
    __QvParseDbgDumpOption("0x1");
    __QvDbgMessageDumpInternal(32, "only 32 entries of a map count");
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  ExpectedLog log;
  const std::string head = "[last<] [1234567] ";
  log.Comment(head + "s -2 1.5 3 ab 2.5 3.5 4.5 5.5 6.5 7.5 8.5 9.5 7 end");
  log.Comment(head + std::string(1020, ' ') + "5").Comment(head + std::string(1021, ' ') + "5");
  log.Comment(head + std::string(1022, ' ')).Comment(head + std::string(1022, ' '));
  EXPECT_EQ(WithoutTimes(child.Read("qvlog.log")), log.Text());
}

}  // namespace
}  // namespace qvtest

// Values of append and enumeration options where the model of parser_test does not reach.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/options/tool.h"
#include "tests/support/child.h"
#include "tests/support/expected_log.h"

namespace qvtest {
namespace {

uint32_t g_parser, g_option;
std::vector<std::string> g_seen;

void AddAtFirst(const char* value, void*) {
  g_seen.push_back(value);
  if (g_seen.size() == 1) __QvSetStringOption(g_parser, g_option, "added");
}

void ReleaseInSecondSlab(const char* value, void*) {
  g_seen.push_back(value);
  CHECK(g_seen.size() <= 3000);
  if (g_seen.size() < 3000) return;
  CHECK_EQ(__QvReleaseOptionParserHandle(g_parser, "tool"), 1);
  CHECK_EQ(__QvGetOptionNumberOfArguments(g_parser, g_option), 5003u);  // it goes on telling
}

TEST(OptionValues, AWalkSeesWhatTheCallbackAddsAndMayNotGoOnAfterARelease) {
  const ChildResult child = RunChild([] {
    StartTool();
    g_parser = __QvGetOptionParser("tool");
    g_option = __QvRegisterStringOption(g_parser, "-I", "", "default", 0, 1, 0);
    __QvSetStringOption(g_parser, g_option, "a");
    __QvSetStringOption(g_parser, g_option, "b");
    __QvProcessAppendOptionValues(g_parser, g_option, nullptr, nullptr);
    __QvProcessAppendOptionValues(g_parser, g_option, AddAtFirst, nullptr);
    CHECK(g_seen == std::vector<std::string>({"a", "b", "added"}));
    g_seen.clear();
    for (int i = 0; i < 5000; i++) __QvSetStringOption(g_parser, g_option, "c");  // three slabs
    __QvProcessAppendOptionValues(g_parser, g_option, ReleaseInSecondSlab, nullptr);
  });
  EXPECT_EQ(child.status, 255) << child.err;
  EXPECT_EQ(
      WithoutTimes(child.Read("qvlog.log")),
      ExpectedLog()
          .Fatal("A valid option id and parser id must be specified to get the value of the option")
          .Text());
}

TEST(OptionValues, AnEnumerationIsTheNumberOfTheFirstValueThatBeginsWithTheString) {
  const ChildResult child = RunChild([] {
    StartTool();
    const uint32_t parser = __QvGetOptionParser("tool");
    const uint32_t mode = __QvRegisterStringEnumOption(parser, "-mode", "", "detail", 0, 0);
    const uint32_t none = __QvRegisterStringEnumOption(parser, "-none", "", nullptr, 0, 0);
    CHECK_EQ(__QvGetStringOptionEnumValue(parser, mode), 0xFFFFFFFFu);  // nothing is valid yet
    CHECK_EQ(__QvGetStringOptionEnumValue(parser, none), 0xFFFFFFFFu);
    CHECK_EQ(__QvSetValidIntegerOptionArgument(parser, mode, 9), 1);  // no string: never meant
    CHECK_EQ(__QvSetValidStringOptionArgumentWithEnum(parser, mode, "summary", 1), 1);
    CHECK_EQ(__QvSetValidStringOptionArgumentWithEnum(parser, mode, "detailed", 2), 1);
    CHECK_EQ(__QvSetValidStringOptionArgumentWithEnum(parser, mode, "detail", 3), 1);
    CHECK_EQ(__QvSetValidStringOptionArgument(parser, mode, "plain"), 1);
    CHECK_EQ(__QvGetStringOptionEnumValue(parser, mode), 2u);
    for (const auto& [text, number] : {std::pair("", 1), {"det", 2}, {"s", 1}, {"p", -1}}) {
      CHECK_EQ(__QvSetStringOption(parser, mode, text), 1);
      CHECK_EQ(__QvGetStringOptionEnumValue(parser, mode), uint32_t(number));
      CHECK(std::string(__QvGetStringOptionValue(parser, mode)) == text);
    }
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

// The separator ends at the limit, before it, behind it, and is cut in the middle.
TEST(OptionValues, TheLogJoinsAppendValuesUpTo2047Characters) {
  for (const size_t length : {2042u, 2043u, 2044u, 2045u, 2046u, 2047u, 5000u}) {
    const std::string value(length, 'v');
    const ChildResult child = RunChild([&] {
      StartTool();
      const uint32_t parser = __QvGetOptionParser("tool");
      const uint32_t list = __QvRegisterStringOption(parser, "-list", "", nullptr, 0, 1, 0);
      __QvSetStringOption(parser, list, value.c_str());
      __QvSetStringOption(parser, list, "w");
      __QvLogToolOptionValues(parser);
      const int blocks = g_blocks;
      for (int again = 0; again < 39; again++) __QvLogToolOptionValues(parser);
      CHECK_EQ(g_blocks, blocks);
    });
    EXPECT_TRUE(child.Ok()) << child.err;
    ExpectedLog log;
    for (int i = 0; i < 40; i++) {
      log.Comment("tool's options are the following: ");
      log.Comment("-list" + std::string(30, ' ') + (value + ", w, ").substr(0, 2047));
    }
    EXPECT_EQ(WithoutTimes(child.Read("qvlog.log")), log.Text());
  }
}

}  // namespace
}  // namespace qvtest

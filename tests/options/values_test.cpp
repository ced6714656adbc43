// Values of append and enumeration options, and what the log says of them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/options/tool.h"
#include "tests/support/child.h"
#include "tests/support/expected_log.h"

namespace qvtest {
namespace {

struct Walk {
  uint32_t parser, option;
  std::vector<std::string> seen;
  const char* atFirst;  // what the callback does at the first value: a value to add, or null to release
};

void See(const char* value, void* context) {
  Walk& walk = *static_cast<Walk*>(context);
  walk.seen.push_back(value);
  if (walk.seen.size() != 1) return;
  if (walk.atFirst != nullptr) {
    __QvSetStringOption(walk.parser, walk.option, walk.atFirst);
  } else {
    CHECK_EQ(__QvReleaseOptionParserHandle(walk.parser, "tool"), 1);
  }
}

TEST(OptionValues, AnAppendOptionHasItsValuesInOrderAndItsDefaultOnlyWhileUnset) {
  const ChildResult child = RunChild([] {
    StartTool();
    const uint32_t parser = __QvGetOptionParser("tool");
    const uint32_t option = __QvRegisterStringOption(parser, "-I", "", "first", 0, 1, 0);
    Walk walk = {parser, option, {}, "added"};
    CHECK(std::string(__QvGetStringOptionArgumentValue(parser, option, 1)) == "first");
    CHECK(__QvGetStringOptionArgumentValue(parser, option, 2) == nullptr);
    CHECK(__QvGetStringOptionArgumentValue(parser, option, 0xFFFFFFFF) == nullptr);
    __QvProcessAppendOptionValues(parser, option, See, &walk);
    CHECK(walk.seen.empty());
    __QvSetStringOption(parser, option, "a");
    __QvSetStringOption(parser, option, "b");
    __QvProcessAppendOptionValues(parser, option, nullptr, &walk);
    __QvProcessAppendOptionValues(parser, option, See, &walk);
    CHECK(walk.seen == std::vector<std::string>({"a", "b", "added"}));
    CHECK(std::string(__QvGetStringOptionValue(parser, option)) == "a");
    CHECK(std::string(__QvGetStringOptionArgumentValue(parser, option, 3)) == "added");
    CHECK(__QvGetStringOptionArgumentValue(parser, option, 0) == nullptr);
    CHECK(__QvGetStringOptionArgumentValue(parser, option, 4) == nullptr);
    walk = {parser, option, {}, nullptr};
    __QvProcessAppendOptionValues(parser, option, See, &walk);
    CHECK(walk.seen == std::vector<std::string>({"a"}));
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  const ExpectedLog log = ExpectedLog()
                              .Internal("Option -I does not have an argument #0")
                              .Internal("Option -I does not have an argument #4");
  EXPECT_EQ(WithoutTimes(child.Read("qvlog.log")), log.Text());
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
    for (const auto& [text, number] :
         {std::pair("", 1), {"det", 2}, {"s", 1}, {"detailed", 2}, {"p", -1}}) {
      __QvSetStringOption(parser, mode, text);
      CHECK_EQ(__QvGetStringOptionEnumValue(parser, mode), uint32_t(number));
      CHECK(std::string(__QvGetStringOptionValue(parser, mode)) == text);
    }
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

// A separator that ends exactly at the limit, one before it and one behind it.
TEST(OptionValues, TheLogJoinsAppendValuesUpTo2047CharactersAndShowsNoNullPointer) {
  for (const size_t length : {2044u, 2045u, 2046u, 2047u, 5000u}) {
    const std::string longValue(length, 'v');
    const ChildResult child = RunChild([&] {
      StartTool();
      const uint32_t parser = __QvGetOptionParser("tool");
      const uint32_t list = __QvRegisterStringOption(parser, "-list", "", nullptr, 0, 1, 0);
      __QvRegisterPathOption(parser, "-unset", "", "a//b", 0, 1, 0);
      __QvRegisterStringOption(parser, "-null", "", nullptr, 0, 0, 0);
      __QvLogToolOptionValues(parser);
      __QvSetStringOption(parser, list, longValue.c_str());
      __QvSetStringOption(parser, list, "w");
      __QvLogToolOptionValues(parser);
    });
    EXPECT_TRUE(child.Ok()) << child.err;
    ExpectedLog log;
    for (const std::string& joined : {std::string("(null), "), (longValue + ", w, ").substr(0, 2047)}) {
      log.Comment("tool's options are the following: ");
      log.Comment("-list" + std::string(30, ' ') + joined);
      log.Comment("-unset" + std::string(29, ' ') + "a/b, ");
      log.Comment("-null" + std::string(30, ' ') + "(null)");
    }
    EXPECT_EQ(WithoutTimes(child.Read("qvlog.log")), log.Text());
  }
}

}  // namespace
}  // namespace qvtest

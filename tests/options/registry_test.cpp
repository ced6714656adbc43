// The option registry: limits, misuse, memory, release, threads.
#include "options/registry.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tests/options/tool.h"
#include "tests/support/child.h"
#include "tests/support/expected_log.h"

namespace qvtest {
namespace {

constexpr uint32_t kNone = 0xFFFFFFFF;

TEST(OptionRegistry, FullTablesRefuseInSilenceAndNobodyReadsPastThem) {
  const ChildResult child = RunChild([] {
    StartTool();
    CHECK_EQ(__QvGetOptionParser(nullptr), kNone);
    for (uint32_t id = 0; id < 16; id++) CHECK_EQ(__QvGetOptionParser("tool"), id);
    for (uint32_t id = 0; id < 256; id++) {
      CHECK_EQ(__QvRegisterIntegerOption(id % 16, "-n", "", int32_t(id), 7, 0), id);
    }
    for (int again = 0; again < 40; again++) {
      CHECK_EQ(__QvGetOptionParser("tool"), kNone);
      CHECK_EQ(__QvRegisterBooleanOption(0, "no hyphen, yet not fatal", "", 0, 0, 0), kNone);
    }
    CHECK_EQ(__QvGetIntegerOptionValue(15, 255), 255u);
    char option[] = "-n", value[] = "9";
    char* const line[] = {option, value};
    for (const uint32_t parser : {16u, 17u, 255u, 256u, 0x10000000u, kNone}) {
      CHECK_EQ(__QvParseOptions2(parser, 2, line), 0);
      CHECK_EQ(__QvReleaseOptionParserHandle(parser, "tool"), 0);
      __QvPrintHelp(parser, 1);
      __QvLogToolOptionValues(parser);
    }
    CHECK_EQ(__QvParseOptions2(kNone, 0, nullptr), 1);
    CHECK_EQ(__QvParseOptions2(3, 1, nullptr), 0);
    for (const uint32_t id : {0u, 256u, 257u, 0x80000000u, kNone}) {
      CHECK(__QvGetOptionName(1, id) == nullptr);
      CHECK_EQ(__QvGetOptionNumberOfArguments(0, id), 0u);
    }
    CHECK_EQ(__QvGetOptionFlags(15, 256), kNone);
    CHECK_EQ(__QvGetOptionFlags(15, 255), 7u);
    CHECK(qv::ValidateOptions() == nullptr);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(child.out, "");
  ExpectedLog log;
  for (int i = 0; i < 6; i++) {
    log.Message("BAD_OPTION", "option", "-n");
    log.Comment("Invalid command line option: -n used with tool: (unknown)");
  }
  log.Message("BAD_OPTION", "option", "(null)");
  log.Comment("Bad command line option: (null) used with tool: tool");
  log.Internal("Invalid option parser id or option id used to get option flags");
  EXPECT_EQ(WithoutTimes(child.Read("qvlog.log")), log.Text());
}

// Options by type in order of registration, so that an id is its type; then the two append options.
// Parser 1 is released and owned option 7.
enum { kBoolean, kInteger, kString, kEnum, kPath, kStrings, kPaths, kReleased };

void RegisterOneOfEach() {
  __QvGetOptionParser("tool");
  __QvGetOptionParser("gone");
  __QvRegisterBooleanOption(0, "-b", "", 0, 0, 0);
  __QvRegisterIntegerOption(0, "-i", "", 0, 0, 0);
  __QvRegisterStringOption(0, "-s", "", nullptr, 0, 0, 0);
  __QvRegisterStringEnumOption(0, "-e", "", nullptr, 0, 0);
  __QvRegisterPathOption(0, "-p", "", nullptr, 0, 0, 0);
  __QvRegisterStringOption(0, "-S", "", nullptr, 0, 1, 0);
  __QvRegisterPathOption(0, "-P", "", nullptr, 0, 1, 0);
  __QvRegisterStringOption(1, "-r", "", nullptr, 0, 1, 0);
  __QvSetStringOption(1, kReleased, "value");
  CHECK_EQ(__QvReleaseOptionParserHandle(1, "gone"), 1);
  __QvSetValidIntegerOptionArgument(0, kInteger, 3);
  __QvSetIntegerOption(0, kInteger, 3);
  __QvSetValidStringOptionArgument(0, kEnum, "summary");
  __QvSetValidStringOptionArgumentWithEnum(0, kEnum, "detailed", 2);
  __QvSetStringOption(0, kEnum, "det");
}

void Ignore(const char*, void*) {}

#define MISUSE(text, call) \
  {                        \
    text, [] { call; }     \
  }

TEST(OptionRegistry, MisuseEndsTheProcessWithItsText) {
  const std::string mustBe = "A valid option id and parser id must be specified to ";
  const std::string get = mustBe + "get the value of the option",
                    isSet = mustBe + "check if an option is set";
  const std::string argument = mustBe + "register an option argument for an option in QVRT";
  const std::string registered =
      "A valid option name, description and parser handle must be specified to register an option with "
      "QVRT";
  const std::string hyphen =
      "A valid option name starting with '-' must be specified to register the option with QVRT";
  const std::string append =
      "Registering valid arguments for append options is not currenctly supported";
  const std::string type = "Only string and integer option types can register valid arguments";
  const std::string walk = "A iterator can be applied only to string and path append options.";
  const std::string null = "Null string used to set string option";
  const std::string invalid = "Invalid argument ";
  const std::pair<std::string, void (*)()> kCases[] = {
      MISUSE(registered, __QvRegisterBooleanOption(0, nullptr, "", 0, 0, 0)),
      MISUSE(registered, __QvRegisterPathOption(0, "-x", nullptr, "", 0, 0, 0)),
      MISUSE(registered, __QvRegisterIntegerOption(2, "-x", "", 0, 0, 0)),
      MISUSE(registered, __QvRegisterStringOption(1, "-x", "", "", 0, 0, 0)),
      MISUSE(registered, __QvRegisterStringEnumOption(kNone, "-x", "", "", 0, 0)),
      MISUSE(hyphen, __QvRegisterBooleanOption(0, "x-", "", 0, 0, 0)),
      MISUSE(argument, __QvSetValidIntegerOptionArgument(0, 8, 1)),
      MISUSE(argument, __QvSetValidStringOptionArgument(1, kString, "x")),
      MISUSE(argument, __QvSetValidStringOptionArgumentWithEnum(kNone, kReleased, "x", 1)),
      MISUSE(append, __QvSetValidStringOptionArgument(0, kStrings, "x")),
      MISUSE(append, __QvSetValidStringOptionArgument(0, kPaths, "x")),
      MISUSE(type, __QvSetValidIntegerOptionArgument(0, kBoolean, 1)),
      MISUSE(type, __QvSetValidStringOptionArgument(0, kPath, "x")),
      MISUSE(get, __QvSetBooleanOption(0, kInteger, 1)),
      MISUSE(get, __QvSetIntegerOption(0, kBoolean, 1)),
      MISUSE(get, __QvSetPathOption(0, kString, "x")),
      MISUSE(get, __QvSetStringOption(1, kString, "x")),
      MISUSE(get, __QvSetStringOption(kNone, kReleased, "x")),
      MISUSE(null, __QvSetStringOption(0, kString, nullptr)),
      MISUSE(null, __QvSetPathOption(0, kPaths, nullptr)),
      MISUSE(invalid + "[\"\", 4] used to set Option -i", __QvSetIntegerOption(0, kInteger, 4)),
      MISUSE(invalid + "[3, -1] used to set Option -i", __QvSetStringOption(0, kInteger, "3")),
      MISUSE(invalid + "[full, -1] used to set Option -e", __QvSetStringOption(0, kEnum, "full")),
      MISUSE(invalid + "[detailed!, -1] used to set Option -e",
             __QvSetStringOption(0, kEnum, "detailed!")),
      MISUSE(invalid + "[\"\", -1] used to set Option -e", __QvSetStringOption(0, kEnum, nullptr)),
      MISUSE(get, __QvGetBooleanOptionValue(0, kInteger)),
      MISUSE(get, __QvGetIntegerOptionValue(0, kString)),
      MISUSE(get, __QvGetStringOptionValue(0, 8)),
      MISUSE(get, __QvGetStringOptionValue(kNone, kReleased)),
      MISUSE(get, __QvGetPathOptionValue(0, kString)),
      MISUSE(get, __QvGetStringOptionEnumValue(0, kString)),
      MISUSE(get, __QvGetStringOptionArgumentValue(1, kReleased, 1)),
      MISUSE(get, __QvGetPathOptionArgumentValue(0, kStrings, 1)),
      MISUSE(isSet, __QvIsOptionSet(1, kBoolean)),
      MISUSE(isSet + "s", __QvProcessAppendOptionValues(1, kStrings, Ignore, nullptr)),
      MISUSE(walk, __QvProcessAppendOptionValues(0, kString, Ignore, nullptr)),
  };
  for (const auto& [text, misuse] : kCases) {
    const ChildResult child = RunChild([call = misuse] {
      StartTool();
      RegisterOneOfEach();
      call();
    });
    EXPECT_EQ(child.status, 255) << text << child.err;
    EXPECT_EQ(WithoutTimes(child.Read("qvlog.log")), ExpectedLog().Fatal(text).Text());
  }
}

// Every string is a block of its own here: a leak, a second release or a copy taken too late shows.
TEST(OptionRegistry, OwnsWhatItCopiesAndGivesAllOfItBack) {
  const ChildResult child = RunChild([] {
    StartTool();
    const std::string a = BlockText('a'), b = BlockText('b'), slashes = "/" + std::string(40000, '/');
    const int before = g_blocks;
    const uint32_t parser = __QvGetOptionParser(a.c_str());
    const uint32_t text = __QvRegisterStringOption(parser, a.c_str(), b.c_str(), a.c_str(), 0, 0, 1);
    const uint32_t mode = __QvRegisterStringEnumOption(parser, "-m", "", b.c_str(), 0, 0);
    const uint32_t list = __QvRegisterPathOption(parser, "-l", "", slashes.c_str(), 0, 1, 0);
    CHECK(std::string(__QvGetPathOptionValue(parser, list)) == "/");
    __QvSetValidStringOptionArgument(parser, mode, a.c_str());
    __QvSetValidStringOptionArgument(parser, mode, b.c_str());
    for (const std::string& value : {a, b, a}) __QvSetStringOption(parser, text, value.c_str());
    __QvSetStringOption(parser, text, __QvGetStringOptionValue(parser, text) + 1);
    CHECK(std::string(__QvGetStringOptionValue(parser, text)) == a.substr(1));
    for (int i = 0; i < 3; i++) __QvSetPathOption(parser, list, b.c_str());
    __QvSetPathOption(parser, list, __QvGetPathOptionArgumentValue(parser, list, 2));
    for (int i = 0; i < 5000; i++) __QvSetStringOption(parser, list, "x");  // nodes of several slabs
    for (int i = 0; i < 5000; i++) __QvSetValidIntegerOptionArgument(parser, mode, i);
    CHECK(std::string(__QvGetPathOptionArgumentValue(parser, list, 4)) == b);
    CHECK_EQ(__QvGetOptionNumberOfArguments(parser, list), 5004u);
    CHECK(qv::ValidateOptions() == nullptr);
    CHECK_EQ(__QvReleaseOptionParserHandle(parser, b.c_str()), 0);
    CHECK_EQ(__QvReleaseOptionParserHandle(parser, a.substr(1).c_str()), 0);
    CHECK_EQ(__QvReleaseOptionParserHandle(parser, a.substr(0, a.size() - 1).c_str()), 0);
    CHECK_EQ(__QvReleaseOptionParserHandle(parser, nullptr), 0);
    CHECK(__QvGetOptionName(parser, list) != nullptr);
    CHECK_EQ(__QvReleaseOptionParserHandle(parser, (a + "longer").c_str()), 1);
    CHECK_EQ(g_blocks, before);
    CHECK_EQ(qv::g_optionTables.options[list].parserId, kNone);
    CHECK_EQ(__QvReleaseOptionParserHandle(parser, a.c_str()), 0);
    for (const uint32_t id : {parser, kNone}) {
      CHECK(__QvGetOptionName(id, list) == nullptr);
      CHECK_EQ(__QvGetOptionFlags(id, list), kNone);
      CHECK_EQ(__QvGetOptionNumberOfArguments(id, list), 5004u);
      __QvPrintHelp(id, 1);
      __QvLogToolOptionValues(id);
    }
    CHECK_EQ(__QvGetOptionParser(""), parser + 1);
    CHECK_EQ(__QvRegisterBooleanOption(parser + 1, "-x", "", 5, 0, 0), list + 1);
    __QvPrintHelpAll(1);
    CHECK(qv::ValidateOptions() == nullptr);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  EXPECT_EQ(child.out,
            "\n tool options are the following:\n   -x" + std::string(31, ' ') + "   default: true\n");
  const std::string text = "Invalid option parser id or option id used to get option flags";
  EXPECT_EQ(WithoutTimes(child.Read("qvlog.log")), ExpectedLog().Internal(text).Internal(text).Text());
}

TEST(OptionRegistry, ThreadsWithParsersOfTheirOwnDoNotDisturbOneAnother) {
  const ChildResult child = RunChild([] {
    StartTool();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
      threads.emplace_back([] {
        for (int round = 0; round < 4; round++) {
          const uint32_t parser = __QvGetOptionParser("tool");
          char name[] = "-n", value[] = "7";
          char* const line[] = {name, value};
          for (int i = 0; i < 15; i++) {
            const uint32_t id = __QvRegisterIntegerOption(parser, "-n", "", i, parser, 0);
            CHECK_EQ(__QvGetIntegerOptionValue(parser, id), i == 0 ? 0u : uint32_t(i));
            CHECK_EQ(__QvGetOptionFlags(parser, id), parser);
            CHECK_EQ(__QvParseOptions(parser, 2, line), 1);
          }
          CHECK_EQ(__QvReleaseOptionParserHandle(parser, "tool"), 1);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    CHECK_EQ(qv::OptionCount(), 240u);
    CHECK(qv::ValidateOptions() == nullptr);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

}  // namespace
}  // namespace qvtest

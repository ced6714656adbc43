// The command-line parser against an independent model: results, values, log and help, byte for byte.
#include <errno.h>
#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "options/registry.h"
#include "tests/options/tool.h"
#include "tests/support/child.h"
#include "tests/support/expected_log.h"

namespace qvtest {
namespace {

using Text = std::optional<std::string>;

struct ModelOption {
  uint32_t parser;
  std::string name;
  int type;
  bool append, shown;
  Text defaultText;
  int number;               // default, then value
  std::vector<Text> texts;  // values
  int sets = 0;
  int defaultNumber = 0;
};

std::string Padded(std::string name) {
  name.resize(std::max<size_t>(name.size(), 33), ' ');
  return name;
}

std::string Collapsed(const std::string& path) {
  std::string out;
  for (const char c : path) {
    if (c != '/' || out.empty() || out.back() != '/') out += c;
  }
  return out;
}

// C's notation of a whole number, by hand.
std::optional<int> NumberOf(const std::string& text) {
  size_t i = text.find_first_not_of(" \t");
  if (i == std::string::npos) return {};
  if (text[i] == '+') i++;
  uint64_t base = 10, value = 0;
  if (text.compare(i, 1, "0") == 0) base = 8;
  if (text.compare(i, 2, "0x") == 0 || text.compare(i, 2, "0X") == 0) base = 16, i += 2;
  if (i == text.size()) return {};
  for (; i < text.size(); i++) {
    const size_t digit = std::string("0123456789abcdef").find(char(tolower(text[i])));
    if (digit >= base) return {};
    value = std::min<uint64_t>(value * base + digit, uint64_t{1} << 40);
  }
  if (value > 0x7FFFFFFF) return {};
  return int(value);
}

class Model {
 public:
  explicit Model(unsigned seed) : random_(seed) {}

  // One line of random elements for a random parser, parsed by both.
  void ParseOneLine() {
    const uint32_t parser = Below(uint32_t(tools_.size()) + 1);
    std::vector<Text> line(Below(8));
    for (Text& element : line) element = RandomElement();
    std::vector<char*> elements;
    for (Text& element : line) elements.push_back(element ? element->data() : nullptr);
    errno = 77;
    const int result = Below(2) != 0 ? __QvParseOptions2(parser, uint32_t(line.size()), elements.data())
                                     : __QvParseOptions(parser, uint32_t(line.size()), elements.data());
    CHECK_EQ(errno, 77);  // the analysed program's
    CHECK_EQ(result, Parse(parser, line) ? 1 : 0);
  }

  void Register() {
    for (const char* const tool : {"alpha", "beta <&>"}) {
      tools_.push_back(tool);
      CHECK_EQ(__QvGetOptionParser(tool), tools_.size() - 1);
    }
    for (int i = 0; i < 24; i++) RegisterOne();
  }

  void CheckValues() {
    for (uint32_t id = 0; id < options_.size(); id++) CheckOption(id, options_[id]);
    CHECK(qv::ValidateOptions() == nullptr);
  }

  // Help and log of all parsers; what they should hold goes into files beside the log.
  void Report() {
    std::string help;
    for (const int all : {0, 1}) {
      __QvPrintHelpAll(all);
      for (uint32_t parser = 0; parser < tools_.size(); parser++) help += HelpOf(parser, all != 0);
    }
    for (uint32_t parser = 0; parser < tools_.size(); parser++) {
      __QvLogToolOptionValues(parser);
      LogValues(parser);
    }
    std::ofstream("expected.out") << help;
    std::ofstream("expected.log") << log_.Text();
  }

 private:
  uint32_t Below(uint32_t limit) { return uint32_t(random_() % limit); }

  Text RandomElement() {
    static const char* const kNames[] = {"-a",     "-ab",    "-no-a",  "-no-no-a",  "-no",
                                         "-nofoo", "-no-",   "-depth", "-no-depth", "-I",
                                         "-",      "--long", "-NO-a"};
    static const char* const kArguments[] = {
        "5",      "0x10", "010",        "2147483647", "2147483648",
        "12abc",  "",     "-5",         " 7",         "+7",
        "0x",     "08",   "a//b///c",   "///",        "99999999999999999999999",
        "<&>'\"", "0",    "0X7fffffff", "no-a",       "a--b"};
    if (Below(50) == 0) return {};
    if (Below(3) != 0 && !options_.empty()) {
      const std::string name = options_[Below(uint32_t(options_.size()))].name;
      return Below(4) == 0 ? "-no" + name : name;
    }
    return Below(4) == 0 ? kNames[Below(std::size(kNames))] : kArguments[Below(std::size(kArguments))];
  }

  void RegisterOne() {
    static const char* const kNames[] = {
        "-a",     "-ab", "-no-a", "-no",    "-nofoo",
        "-depth", "-I",  "-",     "--long", "-a-name-of-more-than-thirty-three-characters"};
    ModelOption option = {Below(uint32_t(tools_.size())),
                          kNames[Below(std::size(kNames))],
                          int(Below(5)),
                          false,
                          Below(2) != 0,
                          {},
                          -1,
                          {}};
    const uint32_t parser = option.parser, shown = option.shown ? 8 : 0, flags = parser + 100;
    const char* const name = option.name.c_str();
    const char* const text = Below(2) != 0 ? "d//e" : nullptr;
    const int number = int(Below(7)) - 3, append = Below(2) != 0 ? -8 : 0;
    uint32_t id = 0;
    switch (option.type) {
      case 0: id = __QvRegisterBooleanOption(parser, name, "about", number, flags, shown); break;
      case 1: id = __QvRegisterIntegerOption(parser, name, "about", number, flags, shown); break;
      case 2: id = __QvRegisterStringOption(parser, name, "about", text, flags, append, shown); break;
      case 3: id = __QvRegisterStringEnumOption(parser, name, "about", text, flags, shown); break;
      default: id = __QvRegisterPathOption(parser, name, "about", text, flags, append, shown); break;
    }
    option.append = append != 0 && (option.type == 2 || option.type == 4);
    if (text != nullptr && option.type >= 2) option.defaultText = option.type == 4 ? "d/e" : text;
    CHECK_EQ(id, options_.size());
    if (option.type < 2) option.number = option.type == 0 ? number != 0 : number;
    option.defaultNumber = option.number;
    options_.push_back(option);
  }

  bool FailOption(const char* kind, const Text& element, uint32_t parser) {
    const std::string shown = element.value_or("(null)");
    log_.Message("BAD_OPTION", "option", shown);
    log_.Comment(kind + (" command line option: " + shown) +
                 " used with tool: " + (parser < tools_.size() ? tools_[parser] : "(unknown)"));
    return false;
  }

  bool FailArgument(const std::string& option, const std::string& comment) {
    log_.Message("BAD_ARGUMENT", "option", option).Comment(comment + " command line option: " + option);
    return false;
  }

  bool Parse(uint32_t parser, const std::vector<Text>& line) {
    for (size_t i = 0; i < line.size(); i++) {
      if (!line[i] || line[i]->rfind("-", 0) != 0) return FailOption("Bad", line[i], parser);
      const std::string& element = *line[i];
      const bool negated = element.rfind("-no-", 0) == 0;
      ModelOption* const option = Find(parser, negated ? element.substr(3) : element);
      if (option == nullptr) return FailOption("Invalid", element, parser);
      if (negated && option->type != 0) return FailOption("Invalid negation for", element, parser);
      if (option->type == 0) {
        option->number = negated ? 0 : 1;
        option->sets = 1;
        continue;
      }
      i++;
      if (i == line.size() || !line[i] || line[i]->rfind("-", 0) == 0) {
        return FailArgument(element, "No arguments for");
      }
      if (!Set(*option, *line[i]))
        return FailArgument(element, "Bad integer value: " + *line[i] + " for");
    }
    return true;
  }

  ModelOption* Find(uint32_t parser, const std::string& name) {
    for (ModelOption& option : options_) {
      if (option.parser == parser && option.name == name) return &option;
    }
    return nullptr;
  }

  static bool Set(ModelOption& option, const std::string& argument) {
    if (option.type == 1) {
      const std::optional<int> number = NumberOf(argument);
      if (!number) return false;
      option.number = *number;
    } else {
      if (!option.append) option.texts.clear();
      option.texts.push_back(option.type == 4 ? Collapsed(argument) : argument);
    }
    option.sets = option.append ? option.sets + 1 : 1;
    return true;
  }

  static Text Copy(const char* text) { return text == nullptr ? Text() : Text(text); }

  static void CheckOption(uint32_t id, const ModelOption& option) {
    const uint32_t parser = option.parser;
    CHECK_EQ(__QvIsOptionSet(parser, id), option.sets != 0 ? 1 : 0);
    CHECK_EQ(__QvGetOptionNumberOfArguments(parser, id), uint32_t(option.sets));
    CHECK_EQ(__QvGetOptionFlags(parser, id), parser + 100);
    CHECK(std::string(__QvGetOptionName(parser, id)) == option.name);
    if (option.type == 0) CHECK_EQ(__QvGetBooleanOptionValue(parser, id), uint32_t(option.number));
    if (option.type == 1) CHECK_EQ(__QvGetIntegerOptionValue(parser, id), uint32_t(option.number));
    if (option.type < 2) return;
    const std::vector<Text> values =
        option.sets != 0 ? option.texts : std::vector<Text>{option.defaultText};
    CHECK(Copy(__QvGetStringOptionValue(parser, id)) == values[0]);
    if (option.type == 4) CHECK(Copy(__QvGetPathOptionValue(parser, id)) == values[0]);
    for (uint32_t i = 0; i < values.size(); i++) {
      CHECK(Copy(__QvGetStringOptionArgumentValue(parser, id, i + 1)) == values[i]);
      if (option.type == 4) CHECK(Copy(__QvGetPathOptionArgumentValue(parser, id, i + 1)) == values[i]);
    }
  }

  std::string HelpOf(uint32_t parser, bool all) const {
    std::string help = "\n" + tools_[parser] + " tool options are the following:\n";
    for (const ModelOption& option : options_) {
      if (option.parser != parser || !(all || option.shown)) continue;
      help += "   " + Padded(option.name) + "  about default: ";
      if (option.type == 0) help += option.defaultNumber != 0 ? "true" : "false";
      if (option.type == 1) help += std::to_string(option.defaultNumber);
      if (option.type >= 2) help += option.defaultText.value_or("none");
      help += "\n";
    }
    return help;
  }

  void LogValues(uint32_t parser) {
    log_.Comment(tools_[parser] + "'s options are the following: ");
    for (const ModelOption& option : options_) {
      if (option.parser != parser) continue;
      const std::vector<Text> values =
          option.sets != 0 ? option.texts : std::vector<Text>{option.defaultText};
      std::string text;
      if (option.type == 0) text = option.number != 0 ? "true" : "false";
      if (option.type == 1) text = std::to_string(option.number);
      if (option.type >= 2) {
        for (const Text& value : values) text += value.value_or("(null)") + (option.append ? ", " : "");
      }
      log_.Comment(Padded(option.name) + "  " + (option.append ? text.substr(0, 2047) : text));
    }
  }

  std::mt19937 random_;
  std::vector<std::string> tools_;
  std::vector<ModelOption> options_;
  ExpectedLog log_;
};

TEST(OptionParser, AgreesWithTheModelOnRandomCommandLines) {
  for (unsigned seed = 1; seed <= 20; seed++) {
    const ChildResult child = RunChild([seed] {
      StartTool();
      Model model(seed);
      model.Register();
      for (int line = 0; line < 300; line++) {
        model.ParseOneLine();
        if (line % 10 == 0) model.CheckValues();
      }
      model.CheckValues();
      model.Report();
    });
    ASSERT_TRUE(child.Ok()) << "seed " << seed << ": " << child.err;
    EXPECT_EQ(child.out, child.Read("expected.out")) << "seed " << seed;
    EXPECT_EQ(WithoutTimes(child.Read("qvlog.log")), child.Read("expected.log")) << "seed " << seed;
  }
}

}  // namespace
}  // namespace qvtest

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

const char* const kTools[] = {"alpha", "beta <&>", "gamma"};
const char* const kNames[] = {
    "-a",     "-ab", "-no-a", "-no",    "-nofoo",
    "-depth", "-I",  "-",     "--long", "-a-name-of-more-than-thirty-three-characters"};
const char* const kArguments[] = {"5",          "0x10",     "010",        "2147483647",
                                  "2147483648", "12abc",    "",           "-5",
                                  " 7",         "+7",       "0x",         "08",
                                  "-NO-a",      "a//b///c", "///",        "99999999999999999999999",
                                  "<&>'\"",     "0",        "0X7fffffff", "no-a",
                                  "a--b",       "-no-"};

struct ModelOption {
  uint32_t parser;
  std::string name;
  uint32_t type;  // 0 to 4
  bool append, shown;
  Text defaultText;  // of boolean and integer options too, as help shows it
  std::vector<Text> values = {};

  std::vector<Text> InForce() const { return values.empty() ? std::vector<Text>{defaultText} : values; }
};

std::string Padded(std::string name) {
  name.resize(std::max<size_t>(name.size(), 33), ' ');
  return name + "  ";
}

std::string Collapsed(const std::string& path) {
  std::string out;
  for (const char c : path) {
    if (c != '/' || out.empty() || out.back() != '/') out += c;
  }
  return out;
}

// C's notation of a whole number, by hand; decimal digits of what it stands for.
Text Normalized(const std::string& text) {
  size_t i = text.find_first_not_of(" +");
  if (i == std::string::npos) return {};
  const bool hexadecimal = text.compare(i, 2, "0x") == 0 || text.compare(i, 2, "0X") == 0;
  const size_t base = hexadecimal ? 16 : text[i] == '0' ? 8 : 10;
  if (hexadecimal) i += 2;
  if (i == text.size()) return {};
  uint64_t value = 0;
  for (; i < text.size(); i++) {
    const size_t digit = std::string("0123456789abcdef").find(char(tolower(text[i])));
    if (digit >= base) return {};
    value = std::min<uint64_t>(value * base + digit, uint64_t{1} << 40);
  }
  return value > 0x7FFFFFFF ? Text() : std::to_string(value);
}

class Model {
 public:
  explicit Model(unsigned seed) : random_(seed) {
    for (const char* const tool : kTools) __QvGetOptionParser(tool);
    for (int i = 0; i < 24; i++) RegisterOne();
  }

  // One random line for a random parser, the one after the last among them, parsed by both.
  void ParseOneLine() {
    const uint32_t parser = Below(4);
    std::vector<Text> line(Below(8));
    std::vector<char*> elements;
    for (Text& element : line) {
      element = RandomElement();
      elements.push_back(element ? element->data() : nullptr);
    }
    const auto parse = Below(2) != 0 ? __QvParseOptions2 : __QvParseOptions;
    errno = 77;
    const int32_t result = parse(parser, uint32_t(line.size()), elements.data());
    CHECK_EQ(errno, 77);  // the analysed program's
    CHECK_EQ(result, Parse(parser, line) ? 1 : 0);
  }

  void CheckValues() {
    for (uint32_t id = 0; id < options_.size(); id++) CheckOption(id, options_[id]);
    CHECK(qv::ValidateOptions() == nullptr);
  }

  // Help and log of all parsers; what they should hold goes into files beside the log.
  void Report() {
    std::ofstream help("expected.out");
    for (const int all : {0, 1}) {
      __QvPrintHelpAll(all);
      for (uint32_t parser = 0; parser < std::size(kTools); parser++) PrintHelp(help, parser, all != 0);
    }
    for (uint32_t parser = 0; parser < std::size(kTools); parser++) {
      __QvLogToolOptionValues(parser);
      LogValues(parser);
    }
    std::ofstream("expected.log") << log_.Text();
  }

 private:
  uint32_t Below(uint32_t limit) { return uint32_t(random_() % limit); }
  template <size_t kSize>
  std::string Pick(const char* const (&texts)[kSize]) {
    return texts[Below(kSize)];
  }

  Text RandomElement() {
    if (Below(50) == 0) return {};
    if (Below(3) == 0) return Pick(kArguments);
    return Below(4) == 0 ? "-no" + Pick(kNames) : options_[Below(24)].name;
  }

  void RegisterOne() {
    ModelOption o = {
        Below(std::size(kTools)), Pick(kNames), Below(5), Below(2) != 0, Below(2) != 0, {}};
    const char* const text = Below(2) != 0 ? "d//e" : nullptr;
    const char* const name = o.name.c_str();
    const int number = int(Below(7)) - 3, append = o.append ? -8 : 0;
    const uint32_t p = o.parser, shown = o.shown ? 8 : 0;
    o.append = o.append && (o.type == 2 || o.type == 4);
    if (text != nullptr) o.defaultText = o.type == 4 ? "d/e" : text;
    switch (o.type) {
      case 0:
        CHECK_EQ(__QvRegisterBooleanOption(p, name, "about", number, p, shown), options_.size());
        o.defaultText = number != 0 ? "true" : "false";
        break;
      case 1:
        CHECK_EQ(__QvRegisterIntegerOption(p, name, "about", number, p, shown), options_.size());
        o.defaultText = std::to_string(number);
        break;
      case 2: __QvRegisterStringOption(p, name, "about", text, p, append, shown); break;
      case 3: __QvRegisterStringEnumOption(p, name, "about", text, p, shown); break;
      default: __QvRegisterPathOption(p, name, "about", text, p, append, shown); break;
    }
    options_.push_back(o);
  }

  bool FailOption(const std::string& kind, const Text& element, uint32_t parser) {
    const std::string shown = element.value_or("(null)"),
                      tool = parser < 3 ? kTools[parser] : "(unknown)";
    log_.Message("BAD_OPTION", "option", shown);
    log_.Comment(kind + " command line option: " + shown + " used with tool: " + tool);
    return false;
  }

  bool FailArgument(const std::string& kind, const std::string& element) {
    log_.Message("BAD_ARGUMENT", "option", element).Comment(kind + " command line option: " + element);
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
      Text value = negated ? "false" : "true";
      if (option->type != 0) {
        if (++i == line.size() || !line[i] || line[i]->rfind("-", 0) == 0) {
          return FailArgument("No arguments for", element);
        }
        value = option->type == 1   ? Normalized(*line[i])
                : option->type == 4 ? Collapsed(*line[i])
                                    : *line[i];
        if (!value) return FailArgument("Bad integer value: " + *line[i] + " for", element);
      }
      if (!option->append) option->values.clear();
      option->values.push_back(value);
    }
    return true;
  }

  ModelOption* Find(uint32_t parser, const std::string& name) {
    for (ModelOption& option : options_) {
      if (option.parser == parser && option.name == name) return &option;
    }
    return nullptr;
  }

  static Text Copy(const char* text) { return text == nullptr ? Text() : Text(text); }

  void CheckOption(uint32_t id, const ModelOption& option) {
    const uint32_t p = option.parser, count = uint32_t(option.values.size());
    CHECK_EQ(__QvIsOptionSet(p, id), count != 0 ? 1 : 0);
    CHECK_EQ(__QvGetOptionNumberOfArguments(p, id), count);
    CHECK_EQ(__QvGetOptionFlags(p, id), p);
    CHECK(__QvGetOptionName(p, id) == option.name);
    const std::vector<Text> values = option.InForce();
    if (option.type == 0) CHECK_EQ(__QvGetBooleanOptionValue(p, id), values[0] == "true" ? 1u : 0u);
    if (option.type == 1) CHECK_EQ(int32_t(__QvGetIntegerOptionValue(p, id)), std::stoi(*values[0]));
    if (option.type < 2) return;
    CHECK(Copy(__QvGetStringOptionValue(p, id)) == values[0]);
    if (option.type == 4) CHECK(Copy(__QvGetPathOptionValue(p, id)) == values[0]);
    for (uint32_t i = 0; i <= values.size() + 2; i++) {
      const auto get =
          option.type == 4 ? __QvGetPathOptionArgumentValue : __QvGetStringOptionArgumentValue;
      CHECK(Copy(get(p, id, i)) == (i - 1 < values.size() ? values[i - 1] : Text()));
      if (i != 0 && (count == 0 || i <= count)) continue;
      log_.Internal("Option " + option.name + " does not have an argument #" + std::to_string(i));
    }
    if (!option.append) return;
    std::vector<Text> walked;
    const auto see = [](const char* value, void* seen) {
      static_cast<std::vector<Text>*>(seen)->push_back(value);
    };
    __QvProcessAppendOptionValues(p, id, see, &walked);
    CHECK(walked == option.values);
  }

  void PrintHelp(std::ostream& out, uint32_t parser, bool all) const {
    out << "\n" << kTools[parser] << " tool options are the following:\n";
    for (const ModelOption& option : options_) {
      if (option.parser != parser || !(all || option.shown)) continue;
      out << "   " << Padded(option.name) << "about default: " << option.defaultText.value_or("none")
          << "\n";
    }
  }

  void LogValues(uint32_t parser) {
    log_.Comment(kTools[parser] + std::string("'s options are the following: "));
    for (const ModelOption& option : options_) {
      if (option.parser != parser) continue;
      std::string text;
      for (const Text& value : option.InForce())
        text += value.value_or("(null)") + (option.append ? ", " : "");
      log_.Comment(Padded(option.name) + (option.append ? text.substr(0, 2047) : text));
    }
  }

  std::mt19937 random_;
  std::vector<ModelOption> options_;
  ExpectedLog log_;
};

TEST(OptionParser, AgreesWithTheModelOnRandomCommandLines) {
  for (unsigned seed = 1; seed <= 10; seed++) {
    const ChildResult child = RunChild([seed] {
      StartTool();
      Model model(seed);
      for (int line = 0; line < 400; line++) {
        model.ParseOneLine();
        if (line % 16 == 0) model.CheckValues();
      }
      model.Report();
    });
    ASSERT_TRUE(child.Ok()) << "seed " << seed << ": " << child.err;
    EXPECT_EQ(child.out, child.Read("expected.out")) << "seed " << seed;
    EXPECT_EQ(WithoutTimes(child.Read("qvlog.log")), child.Read("expected.log")) << "seed " << seed;
  }
}

}  // namespace
}  // namespace qvtest

// qvheap-report: what `qvheap report` and `qvheap diff` run. A program of its own, for the launcher starts
// with every program that is counted, and must not load an XML parser and a debug-info reader for that.
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/qvheap/report/formats.h"
#include "tools/qvheap/report/inputs.h"
#include "tools/qvheap/report/numbers.h"

namespace qvheap {
namespace {

enum Status { kDone = 0, kSomeInputBad = 1, kUsage = 2 };

constexpr char kReportUsage[] =
    "usage: qvheap report [-format FORMAT] [-o FILE] [-sort ORDER] [-top N] PATH...\n"
    "\n"
    "Reports what qvheap has counted. PATH is a results file, or a directory: then all results files "
    "in\n"
    "it.\n"
    "  -format FORMAT  text (default), massif, folded, callgrind or json\n"
    "  -o FILE         where the report goes (default: standard output). massif and callgrind "
    "describe\n"
    "                  one process: of several each gets a file, FILE.<pid>[.<n>]\n"
    "  -sort ORDER     peak (default): bytes live at the peak; live; allocated; count: allocations.\n"
    "                  It is also the figure of folded stacks.\n"
    "  -top N          call stacks that the text shows (default 10; 0: all)\n"
    "  -help           this text\n"
    "\n"
    "exit status: 0 all reported, 1 a PATH could not be read (the others are reported), 2 usage, or "
    "the\n"
    "report could not be written\n";

constexpr char kDiffUsage[] =
    "usage: qvheap diff [-format FORMAT] [-o FILE] [-sort ORDER] [-top N] [-lines] BEFORE AFTER\n"
    "\n"
    "Compares two results files, of snapshots or of runs, by call stack.\n"
    "  -format FORMAT  text (default) or json\n"
    "  -o FILE         where the report goes (default: standard output)\n"
    "  -sort ORDER     peak (default): bytes live at the peak; live; allocated; count: allocations\n"
    "  -top N          call stacks that the text shows (default 10; 0: all)\n"
    "  -lines          stacks that differ in their source lines alone are different\n"
    "  -help           this text\n"
    "\n"
    "exit status: 0 compared, 1 a file could not be read, 2 usage, or the report could not be "
    "written\n";

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct CommandLine {
  bool diff = false;
  bool help = false;
  std::string format = "text";
  std::string output = "-";
  View view;
  std::vector<std::string> paths;
};

bool IsFormat(const CommandLine& line) {
  for (const char* known : {"text", "json", "massif", "folded", "callgrind"}) {
    if (line.format == known) return !line.diff || line.format == "text" || line.format == "json";
  }
  return false;
}

void SetOption(CommandLine& line, const std::string& option, const std::string& value) {
  int64_t number = 0;
  if (option == "-format") {
    line.format = value;
    if (!IsFormat(line)) throw UsageError("'" + value + "' is no format");
  } else if (option == "-o") {
    line.output = value;
  } else if (option == "-sort") {
    if (!ParseOrder(value, line.view.order)) throw UsageError("'" + value + "' is no order");
  } else {
    if (!ParseDecimal(value, number) || number < 0)
      throw UsageError("'" + value + "' is no number of stacks");
    line.view.top = size_t(number);
  }
}

bool TakesValue(const std::string& option) {
  return option == "-format" || option == "-o" || option == "-sort" || option == "-top";
}

CommandLine ReadCommandLine(char** argument) {
  CommandLine line;
  line.diff = *argument != nullptr && strcmp(*argument, "diff") == 0;
  bool options = true;
  for (argument++; *argument != nullptr; argument++) {
    std::string word = *argument;
    if (!options || word.size() < 2 || word[0] != '-') {
      line.paths.push_back(word);
      continue;
    }
    if (word == "--") {
      options = false;
      continue;
    }
    if (word[1] == '-') word.erase(0, 1);  // both spellings are about
    if (word == "-help") {
      line.help = true;
    } else if (word == "-lines" && line.diff) {
      line.view.byLine = true;
    } else if (!TakesValue(word)) {
      throw UsageError("unknown option " + std::string(*argument));
    } else if (argument[1] == nullptr) {
      throw UsageError(word + " needs a value");
    } else {
      SetOption(line, word, *++argument);
    }
  }
  return line;
}

// A line on a terminal while names are looked up, if that takes long; removed again at the end.
class ProgressLine {
 public:
  ~ProgressLine() {
    if (shown_) fputs("\r\033[K", stderr);
  }

  void operator()(size_t done, size_t all) {
    if (!isatty(STDERR_FILENO)) return;
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    const int64_t now = time.tv_sec * 1000 + time.tv_nsec / 1'000'000;
    if (next_ == 0) next_ = now + 300;
    if (now < next_) return;
    next_ = now + 100;
    shown_ = true;
    fprintf(stderr, "\rqvheap: names of call stacks, %zu of %zu\033[K", done, all);
    fflush(stderr);
  }

 private:
  int64_t next_ = 0;  // when the line is written next
  bool shown_ = false;
};

Profile ReadProfile(const std::string& path, Symbols& symbols) {
  ProgressLine progress;
  return NameSites(ReadResults(path), symbols, std::ref(progress));
}

void Say(const std::string& text) {
  fflush(stdout);
  fprintf(stderr, "qvheap: %s\n", text.c_str());
}

// ---- report ----------------------------------------------------------------------------------------

// Takes one profile after the other, so that only one is in memory.
class Report {
 public:
  Report(const CommandLine& line, bool several) : line_(line), several_(several) {}

  void Add(const Profile& profile, Symbols& symbols) {
    if (line_.format == "folded") return folded_.Add(profile, symbols, line_.view.order, several_);
    if (line_.format == "massif" || line_.format == "callgrind") return WriteAlone(profile, symbols);
    const bool first = !out_.has_value();
    if (first) out_.emplace(line_.output);
    if (line_.format == "json") {
      if (first) json_.emplace(*out_);
      return json_->Add(profile, symbols);
    }
    WriteText(profile, symbols, line_.view, *out_);
    if (several_) out_->Print("\n%s\n\n", std::string(100, '=').c_str());
    summary_.Add(profile.results);
  }

  void Finish() {
    if (line_.format == "folded") folded_.Write(out_.emplace(line_.output));
    if (json_) json_->Finish();
    if (line_.format == "text" && several_) summary_.Write(*out_);
    if (out_) out_->Close();
  }

 private:
  void WriteAlone(const Profile& profile, const Symbols& symbols) {
    const Results& results = profile.results;
    std::string path = line_.output;
    if (several_) path += "." + std::to_string(results.pid);
    if (several_ && results.kind == "snapshot") path += "." + std::to_string(results.number);
    Writer out(path);
    line_.format == "massif" ? WriteMassif(profile, symbols, out)
                             : WriteCallgrind(profile, symbols, out);
    out.Close();
  }

  const CommandLine& line_;
  const bool several_;
  std::optional<Writer> out_;
  std::optional<JsonReports> json_;
  Folded folded_;
  TextSummary summary_;
};

Status RunReport(const CommandLine& line) {
  const Inputs inputs = FindInputs(line.paths);
  for (const std::string& note : inputs.notes) Say(note);
  for (const std::string& problem : inputs.problems) Say(problem);
  const bool several = inputs.files.size() > 1;
  if (several && line.output == "-" && (line.format == "massif" || line.format == "callgrind")) {
    throw UsageError(line.format + " describes one process, and there are " +
                     std::to_string(inputs.files.size()) +
                     " results files; -o NAME makes a file for each");
  }
  Symbols symbols;
  Report report(line, several);
  size_t good = 0;
  for (const std::string& file : inputs.files) {
    try {
      report.Add(ReadProfile(file, symbols), symbols);
      good++;
    } catch (const BadInput& bad) {
      Say(bad.what());
    }
  }
  if (good != 0) report.Finish();
  return good == inputs.files.size() && inputs.problems.empty() ? kDone : kSomeInputBad;
}

// ---- diff ------------------------------------------------------------------------------------------

Status RunDiff(const CommandLine& line) {
  if (line.paths.size() != 2) throw UsageError("diff takes two results files");
  Symbols symbols;
  std::vector<Profile> profiles;
  for (const std::string& path : line.paths) {
    const Inputs inputs = FindInputs({path});
    for (const std::string& problem : inputs.problems) Say(problem);
    if (inputs.files.size() > 1) Say(path + ": holds several results files; diff takes one");
    if (inputs.files.size() != 1) continue;
    try {
      profiles.push_back(ReadProfile(inputs.files[0], symbols));
    } catch (const BadInput& bad) {
      Say(bad.what());
    }
  }
  if (profiles.size() != 2) return kSomeInputBad;
  Writer out(line.output);
  (line.format == "json" ? WriteDiffJson : WriteDiffText)(profiles[0], profiles[1], symbols, line.view,
                                                          out);
  out.Close();
  return kDone;
}

Status Run(char** arguments) {
  const CommandLine line = ReadCommandLine(arguments + 1);
  if (line.help) return fputs(line.diff ? kDiffUsage : kReportUsage, stdout), kDone;
  if (line.paths.empty()) throw UsageError("no results file is given");
  return line.diff ? RunDiff(line) : RunReport(line);
}

}  // namespace
}  // namespace qvheap

int main(int, char** arguments) {
  const bool diff =
      arguments[0] != nullptr && arguments[1] != nullptr && strcmp(arguments[1], "diff") == 0;
  try {
    return qvheap::Run(arguments);
  } catch (const qvheap::UsageError& error) {
    fprintf(stderr, "qvheap: %s (qvheap %s -help tells how)\n", error.what(), diff ? "diff" : "report");
  } catch (const std::exception& error) {
    fprintf(stderr, "qvheap: %s\n", error.what());
  }
  return qvheap::kUsage;
}

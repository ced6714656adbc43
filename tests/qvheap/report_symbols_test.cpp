// Names and lines in reports: of programs built with and without debug entries, of inlined functions, of
// files that are no longer what they were.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/qvheap/report_files.h"
#include "tests/qvheap/shell.h"

namespace {

using qvtest::ChildResult;
using qvtest::ShellWith;

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Copies the subject built in that way into the folder, runs it, then the line.
ChildResult RunSubject(const std::string& name, const std::string& line) {
  return ShellWith({}, "cp -p " SUBJECT_FOLDER "/qvheap_report_subject_" + name +
                           " subject && ./subject >lines && " + line);
}

// The line that the subject told for a function.
std::string LineIn(const ChildResult& child, const std::string& function) {
  std::smatch found;
  const std::string text = child.Read("lines");
  return std::regex_search(text, found, std::regex(function + " ([0-9]+)\n")) ? found[1].str() : "?";
}

// The stack whose innermost frame is that function, as the text shows it.
bool HasStack(const std::string& text, const std::vector<std::string>& frames) {
  std::string pattern;
  for (const std::string& frame : frames) pattern += " +" + frame + "\n";
  return std::regex_search(text, std::regex("\n" + pattern));
}

TEST(QvheapReportSymbols, InlinedFunctionsHaveNamesAndTheLinesOfTheirCalls) {
  const ChildResult child = RunSubject("debug", "exec $REPORT qvheap.*.xml");
  ASSERT_EQ(child.status, 0) << child.err;
  const std::string file = "report_subject\\.cpp:";
  EXPECT_TRUE(HasStack(
      child.out, {"shop::Stock\\(long\\) +" + file + LineIn(child, "Stock") + " +subject",
                  "void shop::Fill<int>\\(int const&\\) +" + file + LineIn(child, "Fill") + " +subject",
                  "main +" + file + "[0-9]+ +subject"}))
      << child.out;
  EXPECT_TRUE(
      HasStack(child.out, {"\\(anonymous namespace\\)::Hidden\\(\\) +" + file + "[0-9]+ +subject",
                           "main +" + file + "[0-9]+ +subject"}))
      << child.out;
  EXPECT_TRUE(Contains(child.out, "libc.so.6"));
  EXPECT_FALSE(Contains(child.out, "changed"));
}

TEST(QvheapReportSymbols, WithoutDebugEntriesTheSymbolsGiveNames) {
  const ChildResult child = RunSubject("plain", "exec $REPORT qvheap.*.xml");
  EXPECT_TRUE(HasStack(child.out, {"void shop::Fill<int>\\(int const&\\) +subject", "main +subject"}))
      << child.out;
  EXPECT_FALSE(Contains(child.out, "report_subject.cpp"));
}

TEST(QvheapReportSymbols, AStrippedProgramGivesPlacesInItsFile) {
  const ChildResult child =
      RunSubject("debug",
                 "strip subject && $REPORT qvheap.*.xml && a=$(grep -o 'subject+0x[0-9a-f]*' .stdout | "
                 "head -1) && "
                 "addr2line -fCe " SUBJECT_FOLDER "/qvheap_report_subject_debug ${a#subject+}");
  EXPECT_EQ(child.status, 0) << child.err;
  EXPECT_FALSE(Contains(child.out, "changed since"));  // the build id says that it is the same code
  EXPECT_TRUE(std::regex_search(
      child.out, std::regex("\nshop::(Stock|Descend|Allocate)[^\n]*\n.*report_subject\\.cpp:")))
      << child.out;
}

TEST(QvheapReportSymbols, ASeparateDebugFileIsFound) {
  const ChildResult child = RunSubject(
      "debug",
      "mkdir .debug && objcopy --only-keep-debug subject .debug/subject.debug && strip subject && "
      "objcopy --add-gnu-debuglink=.debug/subject.debug subject && exec $REPORT qvheap.*.xml");
  EXPECT_TRUE(HasStack(child.out, {"shop::Stock\\(long\\) +report_subject\\.cpp:[0-9]+ +subject"}))
      << child.out << child.err;
}

TEST(QvheapReportSymbols, AFileThatHasChangedIsMarkedAndNotAsked) {
  const struct {
    const char *subject, *change, *mark;
  } kCases[] = {
      {"debug", "cp " SUBJECT_FOLDER "/qvheap_report_subject_plain subject", "has changed since"},
      {"anonymous", "echo >>subject", "has changed since"},
      {"anonymous", "touch -d yesterday subject", "has changed since"},
      {"anonymous", "rm subject", "has gone"},
      {"debug", "echo x >subject", "is unreadable"},
  };
  for (const auto& changed : kCases) {
    const ChildResult child =
        RunSubject(changed.subject, std::string(changed.change) + " && exec $REPORT qvheap.*.xml");
    EXPECT_EQ(child.status, 0) << child.err;
    EXPECT_TRUE(
        Contains(child.out, "/subject " + std::string(changed.mark) + ": calls in it have no names."))
        << changed.change << child.out;
    const std::string mark = std::string(changed.mark).substr(std::string(changed.mark).find(' ') + 1);
    EXPECT_TRUE(HasStack(child.out, {"subject\\+0x[0-9a-f]+ +\\(" + mark + "\\) +subject"}))
        << child.out;
    EXPECT_FALSE(Contains(child.out, "shop::")) << child.out;
  }
  const ChildResult touched =
      RunSubject("debug", "touch -d yesterday subject && exec $REPORT qvheap.*.xml");
  EXPECT_TRUE(Contains(touched.out, "shop::Stock(long)"));
  const ChildResult same = RunSubject("anonymous", "exec $REPORT qvheap.*.xml");
  EXPECT_TRUE(Contains(same.out, "shop::Stock(long)")) << same.out;
}

TEST(QvheapReportSymbols, EpochsDecideBetweenImagesAtOneAddress) {
  qvtest::MadeResults results = qvtest::ThreeSites();
  results.modules =
      "<module start='1000' end='2000' bias='0' from='1' to='4'>[second]</module>"
      "<module start='1000' end='2000' bias='800' from='0' to='0'>[first]</module>"
      "<module start='2000' end='3000' bias='0' from='5'>[late]</module>";
  const ChildResult child = ShellWith({{"f", results.Text()}}, "exec $REPORT f");
  EXPECT_TRUE(Contains(child.out, "[first]+0x800"));
  EXPECT_FALSE(Contains(child.out, "[second]"));
  EXPECT_FALSE(Contains(child.out, "[late]"));
}

TEST(QvheapReportSymbols, CodeMadeAtRunTimeHasOneName) {
  qvtest::MadeResults results = qvtest::ThreeSites();
  results.regions = "<region start='1000' end='1200'/><region start='5000' end='6000'/>";
  const ChildResult child = ShellWith({{"f", results.Text()}}, "exec $REPORT f");
  EXPECT_EQ(qvtest::CountOf(child.out, "      (code made at run time)\n"), 2u) << child.out;
  EXPECT_TRUE(Contains(child.out, "0x1200\n"));
}

// Two runs have their images at different addresses; the last argument makes one site larger.
TEST(QvheapReportSymbols, RunsAreComparedByNameWhateverTheirAddresses) {
  const ChildResult child = RunSubject("debug",
                                       "mv qvheap.*.xml a && ./subject >lines && mv qvheap.*.xml b && "
                                       "./subject 2 >lines && mv qvheap.*.xml c && "
                                       "! cmp -s a b && $DIFF a b && $DIFF a c && $DIFF -lines a c");
  ASSERT_EQ(child.status, 0) << child.err;
  EXPECT_TRUE(Contains(child.out, "0 of 0 call stacks with a change")) << child.out;
  EXPECT_EQ(qvtest::CountOf(child.out, "1 of 1 call stacks with a change"), 2u) << child.out;
  EXPECT_TRUE(std::regex_search(child.out, std::regex("#1 +\\+1000 B [^\n]*\n +shop::Stock")))
      << child.out;
}

TEST(QvheapReportSymbols, ViewersShowNamesAndLines) {
  const ChildResult child = RunSubject(
      "debug",
      "$REPORT -format massif -o m qvheap.*.xml && $REPORT -format callgrind -o c qvheap.*.xml && "
      "$REPORT -format folded -o f qvheap.*.xml && ms_print --threshold=0 m >mt && "
      "callgrind_annotate --threshold=100 --inclusive=yes c >ct");
  ASSERT_EQ(child.status, 0) << child.err;
  EXPECT_TRUE(
      std::regex_search(child.Read("mt"), std::regex("\\(1,000B\\) 0x[0-9A-F]+: shop::Stock\\(long\\) "
                                                     "\\(report_subject.cpp:" +
                                                     LineIn(child, "Stock") + "\\)")))
      << child.Read("mt");
  const std::string costs = child.Read("ct");
  EXPECT_TRUE(
      std::regex_search(costs, std::regex("1,350 \\(100\\.0%\\) [^\n]*report_subject\\.cpp:main ")))
      << costs;
  EXPECT_TRUE(std::regex_search(costs, std::regex("\n *50 [^\n]*:shop::Descend\\(int\\) "))) << costs;
  EXPECT_TRUE(std::regex_search(
      child.Read("f"),
      std::regex("main;void shop::Fill<int>\\(int const&\\);shop::Stock\\(long\\) 1000\n")))
      << child.Read("f");
}

}  // namespace

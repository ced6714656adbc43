// The written forms of qvheap report and qvheap diff, each read by the program that it is made for.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>

#include "tests/qvheap/report_files.h"
#include "tests/qvheap/shell.h"

namespace {

using qvtest::ChildResult;
using qvtest::CountOf;
using qvtest::MadeResults;
using qvtest::NamedFile;
using qvtest::ShellWith;
using qvtest::ThreeSites;

constexpr char kFile[] = "qvheap.77.xml";

ChildResult Report(const MadeResults& results, const std::string& line) {
  return ShellWith({{kFile, results.Text()}}, line);
}

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// ---- text ------------------------------------------------------------------------------------------

TEST(QvheapReport, TextShowsTotalsAndTheLargestSitesInTheAskedOrder) {
  const struct {
    const char *order, *first, *second, *third;
  } kCases[] = {{"peak", "0x1000", "0x1100", "0x1200"},
                {"live", "0x1200", "0x1000", "0x1100"},
                {"allocated", "0x1100", "0x1200", "0x1000"},
                {"count", "0x1200", "0x1100", "0x1000"}};
  for (const auto& expected : kCases) {
    const ChildResult child =
        Report(ThreeSites(), "exec $REPORT -sort " + std::string(expected.order) + " " + kFile);
    ASSERT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(child.err, "");
    EXPECT_TRUE(Contains(child.out, "/usr/bin/subject, process 77, to its end\n  subject -x\n"));
    EXPECT_TRUE(std::regex_search(child.out, std::regex("allocated +60 +180,000 ")));
    EXPECT_TRUE(std::regex_search(child.out, std::regex("live +9 +6,000 ")));
    EXPECT_TRUE(std::regex_search(child.out, std::regex("peak +60,000 ")));
    EXPECT_LT(child.out.find(expected.first), child.out.find(expected.second)) << child.out;
    EXPECT_LT(child.out.find(expected.second), child.out.find(expected.third)) << child.out;
    EXPECT_NE(child.out.find(expected.third), std::string::npos);
  }
}

TEST(QvheapReport, TextHasSharesLifetimesAndAsManySitesAsAskedFor) {
  const ChildResult child = Report(ThreeSites(), std::string("exec $REPORT -top 1 ") + kFile);
  EXPECT_TRUE(Contains(child.out, "1 of 3 call stacks, by bytes live at the peak (50.0% of those"));
  EXPECT_TRUE(std::regex_search(
      child.out, std::regex("#1 +29\\.3 KiB +50\\.0% +2\\.0 KiB +33\\.3% +5 +39\\.1 KiB +10 ")));
  EXPECT_TRUE(Contains(child.out, "within 1 ms 50%, within 1 s 0%, later 0%, never 50%; 1 thread\n"));
  EXPECT_FALSE(Contains(child.out, "0x1100"));
  const ChildResult all = Report(ThreeSites(), std::string("exec $REPORT -top 0 ") + kFile);
  EXPECT_TRUE(Contains(all.out, "0x1200"));
}

TEST(QvheapReport, TextFitsOn100ColumnsWhateverNamesItHas) {
  MadeResults results = ThreeSites();
  results.program = "/" + std::string(300, 'p');
  results.arguments = "<argument>" + std::string(300, 'a') + "\n\xC3\xA9</argument>";
  results.modules =
      "<module start='1000' end='2000' bias='0' from='0'>/" + std::string(300, 'm') + "</module>";
  for (auto& site : results.sites) site.bytesAllocated *= 1'000'000'000, site.allocations *= 1'000'000;
  const ChildResult child = Report(results, std::string("exec $REPORT ") + kFile);
  ASSERT_EQ(child.status, 0) << child.err;
  std::istringstream lines(child.out);
  size_t longest = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.find("  ! ") == 0) continue;  // a path that is to be copied is not cut
    longest = std::max(longest, line.size());
    EXPECT_LE(line.size(), 100u) << line;
  }
  EXPECT_GT(longest, 90u);
}

TEST(QvheapReport, ThePlotFollowsTheTimeline) {
  MadeResults results = ThreeSites();
  results.timeline = {{0, 0}, {760, 80}, {1140, 40}, {1520, 40}};
  const ChildResult child = Report(results, std::string("exec $REPORT ") + kFile);
  const std::string blank(42, ' ');  // the first half of 84 columns
  EXPECT_TRUE(Contains(child.out, "80 B |" + blank + std::string(21, '#') + "\n")) << child.out;
  EXPECT_EQ(CountOf(child.out, "|" + blank + std::string(42, '#') + "\n"), 4u) << child.out;
}

// ---- massif ----------------------------------------------------------------------------------------

TEST(QvheapReport, MsPrintReadsTheMassifFormAndItsTotals) {
  const ChildResult child =
      Report(ThreeSites(), std::string("$REPORT -format massif -o m ") + kFile + " && ms_print m");
  ASSERT_EQ(child.status, 0) << child.err;
  EXPECT_EQ(child.err, "");
  EXPECT_TRUE(Contains(child.out, "Command:            subject -x\n"));
  EXPECT_TRUE(Contains(child.out, "Detailed snapshots: [2 (peak), 4]")) << child.out;
  EXPECT_TRUE(std::regex_search(child.out, std::regex(" 2 +700 +60,000 +60,000 ")));
  EXPECT_TRUE(std::regex_search(child.out, std::regex(" 4 +1,520 +6,000 +6,000 ")));
  const size_t peak = child.out.find("100.00% (60,000B)"), end = child.out.find("100.00% (6,000B)");
  EXPECT_LT(peak, child.out.find("->50.00% (30,000B) 0x1000: 0x1000")) << child.out;
  EXPECT_LT(child.out.find("->16.67% (10,000B) 0x1200: 0x1200"), end) << child.out;
  EXPECT_LT(end, child.out.find("->50.00% (3,000B) 0x1200: 0x1200")) << child.out;
  EXPECT_FALSE(Contains(child.out, "not attributed"));
}

TEST(QvheapReport, MassifTellsWhatNoStackAccountsForAndSumsUpSmallNodes) {
  MadeResults results = ThreeSites();
  results.mode = "sampled";
  results.peakBytes = 100000;
  results.liveBytes = 5000;  // less than the estimates: their sum is the root
  for (uint64_t i = 0; i < 10; i++) results.sites.push_back({{0x5001 + 16 * i, 0x9001}, 1, 1, 0, 0, 1});
  results.sites.push_back({{}, 1, 20000, 0, 0, 20000});
  const ChildResult child = Report(
      results, std::string("$REPORT -format massif -o m ") + kFile + " && ms_print --threshold=0 m");
  ASSERT_EQ(child.status, 0) << child.err;
  EXPECT_TRUE(Contains(child.out, "100.00% (100,000B)")) << child.out;
  EXPECT_TRUE(Contains(child.out, "->39.99% (39,990B) (not attributed to a call stack)")) << child.out;
  EXPECT_TRUE(Contains(child.out, "(10B) in 10 places, all below massif's threshold")) << child.out;
  EXPECT_TRUE(Contains(child.out, "100.00% (6,000B)")) << child.out;
}

// ---- callgrind -------------------------------------------------------------------------------------

TEST(QvheapReport, CallgrindAnnotateReadsTheCallGraphAndItsCosts) {
  const ChildResult child =
      Report(ThreeSites(), std::string("$REPORT -format callgrind -o c ") + kFile +
                               " && callgrind_annotate --threshold=100 c >own && "
                               "callgrind_annotate --threshold=100 --inclusive=yes c >inclusive");
  ASSERT_EQ(child.status, 0) << child.err;
  EXPECT_EQ(child.err, "");
  const std::string own = child.Read("own"), inclusive = child.Read("inclusive");
  EXPECT_TRUE(std::regex_search(own, std::regex("60,000 \\(100\\.0%\\) +6,000 \\(100\\.0%\\) +180,000 "
                                                "\\(100\\.0%\\) +60 \\(100\\.0%\\) +PROGRAM TOTALS")))
      << own;
  EXPECT_TRUE(std::regex_search(own, std::regex("30,000 \\(50\\.00%\\) +2,000 .*40,000 .*0x1000")))
      << own;
  EXPECT_TRUE(
      std::regex_search(inclusive, std::regex("50,000 \\(83\\.33%\\) +3,000 .*120,000 .*0x2000")))
      << inclusive;
  EXPECT_TRUE(
      std::regex_search(inclusive, std::regex("60,000 \\(100\\.0%\\) +6,000 .*180,000 .*0x9000")))
      << inclusive;
}

// b calls itself through c, and a itself directly.
TEST(QvheapReport, RecursionIsChargedOnce) {
  MadeResults results;
  results.sites = {{{0xa001, 0xa001, 0xc001, 0xb001, 0xc001, 0xb001, 0x9001}, 1, 100, 1, 100, 100},
                   {{0xd001, 0xb001, 0x9001}, 1, 10, 1, 10, 10}};
  const ChildResult child =
      Report(results, std::string("$REPORT -format callgrind -o c ") + kFile +
                          " && callgrind_annotate --threshold=100 --inclusive=yes c");
  ASSERT_EQ(child.status, 0) << child.err;
  const auto has = [&](const std::string& figure, const std::string& function) {
    return std::regex_search(child.out,
                             std::regex(figure + " \\([ .0-9]+%\\) [^\n]*:" + function + " "));
  };
  EXPECT_TRUE(has("110", "0x9000")) << child.out;
  EXPECT_TRUE(has("110", "0xb000")) << child.out;
  EXPECT_TRUE(has("100", "0xb000'2")) << child.out;
  EXPECT_TRUE(has("100", "0xc000")) << child.out;
  EXPECT_TRUE(has("100", "0xa000")) << child.out;
  EXPECT_FALSE(Contains(child.out, "0xa000'2")) << child.out;
}

// ---- folded and JSON -------------------------------------------------------------------------------

TEST(QvheapReport, FoldedStacksAddUpToTheChosenFigure) {
  const struct {
    const char* order;
    long sum;
  } kCases[] = {{"peak", 60000}, {"live", 6000}, {"allocated", 180000}, {"count", 60}};
  for (const auto& expected : kCases) {
    const ChildResult child = Report(
        ThreeSites(), std::string("exec $REPORT -format folded -sort ") + expected.order + " " + kFile);
    std::istringstream lines(child.out);
    long sum = 0;
    size_t count = 0;
    for (std::string line; std::getline(lines, line); count++)
      sum += std::stol(line.substr(line.rfind(' ')));
    EXPECT_EQ(sum, expected.sum) << expected.order;
    EXPECT_EQ(count, 3u);
  }
  const ChildResult child = Report(ThreeSites(), std::string("exec $REPORT -format folded ") + kFile);
  EXPECT_TRUE(Contains(child.out, "0x9000;0x2000;0x1000 30000\n")) << child.out;
}

TEST(QvheapReport, JsonHasEverything) {
  MadeResults results = ThreeSites();
  results.arguments = "<argument>a \"b\" \\ \xFF &lt;</argument>";
  const ChildResult child = Report(
      results,
      std::string("$REPORT -format json -o j ") + kFile +
          " && python3 -m json.tool j >/dev/null && python3 -c 'import json\n"
          "r, = json.load(open(\"j\"))\n"
          "s = r[\"sites\"]\n"
          "print(r[\"pid\"], r[\"arguments\"], r[\"process\"][\"peakBytes\"], len(r[\"timeline\"]))\n"
          "print(sum(x[\"liveAtPeakBytes\"] for x in s), sum(x[\"lifetimes\"][\"never\"] for x in s))\n"
          "print([r[\"frames\"][i][\"function\"] for i in s[1][\"stack\"]])\n"
          "print(s[2][\"threads\"], r[\"threads\"][1][\"older\"], r[\"memory\"][0][\"bytes\"])'");
  ASSERT_EQ(child.status, 0) << child.err;
  EXPECT_EQ(child.out,
            "77 ['a \"b\" \\\\ ? <'] 60000 3\n"
            "60000 9\n"
            "['0x1100', '0x2000', '0x9000']\n"
            "[{'id': 77, 'allocations': 30, 'bytes': 60000}] 7 4096\n");
}

// ---- Several files ---------------------------------------------------------------------------------

std::vector<NamedFile> Family() {
  MadeResults parent = ThreeSites(), child = ThreeSites(), early = ThreeSites();
  child.pid = 100;
  early.snapshot = 2;
  return {{"qvheap.77.xml", parent.Text()},
          {"qvheap.100.xml", child.Text()},
          {"qvheap.77.2.xml", early.Text()},
          {"qvlog.100.xml", "<log/>"},
          {"other.xml", "<other/>"}};
}

TEST(QvheapReport, ADirectoryStandsForItsResultsFilesInOrder) {
  const ChildResult child = ShellWith(Family(), "exec $REPORT .");
  ASSERT_EQ(child.status, 0) << child.err;
  const size_t snapshot = child.out.find("process 77, snapshot 2"),
               end = child.out.find("process 77, to its"),
               other = child.out.find("process 100, to its");
  EXPECT_LT(snapshot, end);
  EXPECT_LT(end, other);
  EXPECT_NE(other, std::string::npos) << child.out;
  EXPECT_EQ(CountOf(child.out, "by bytes live at the peak"), 3u);
  EXPECT_TRUE(std::regex_search(
      child.out,
      std::regex("3 results files\n.*\n  77.2 +58.6 KiB .*\n  77 +58.6 KiB +5.9 KiB +175.8 KiB "
                 "+60  subject -x\n  100 .*\n$")))
      << child.out;
}

TEST(QvheapReport, FormsOfOneProcessGetAFileForEach) {
  for (const std::string format : {"massif", "callgrind"}) {
    const ChildResult child = ShellWith(Family(), "$REPORT -format " + format + " -o out .; ls out*");
    EXPECT_EQ(child.out, "out.100\nout.77\nout.77.2\n") << child.err;
    const ChildResult refused = ShellWith(Family(), "exec $REPORT -format " + format + " .");
    EXPECT_EQ(refused.status, 2);
    EXPECT_TRUE(Contains(refused.err, "describes one process, and there are 3 results files"))
        << refused.err;
  }
  const ChildResult folded = ShellWith(Family(), "exec $REPORT -format folded .");
  EXPECT_TRUE(Contains(folded.out, "subject (77);0x9000;0x2000;0x1000 30000\n")) << folded.out;
  EXPECT_TRUE(Contains(folded.out, "subject (77 snapshot 2);0x9000;0x2000;0x1000 30000\n"));
  const ChildResult json = ShellWith(
      Family(),
      "$REPORT -format json . | python3 -c 'import json, sys; print(len(json.load(sys.stdin)))'");
  EXPECT_EQ(json.out, "3\n");
}

// In exact mode the sites account for everything.
TEST(QvheapReport, ReadsWhatTheCollectorWrites) {
#ifdef QVHEAP_COLLECTS
  const ChildResult child = ShellWith(
      {},
      "seq 2000 | " QVHEAP
      " -quiet -exact -out . -- sort -o sorted && $REPORT -format json -o j . && "
      "python3 -c 'import json\n"
      "r, = json.load(open(\"j\"))\n"
      "p, s = r[\"process\"], r[\"sites\"]\n"
      "for name in \"allocations\", \"bytesAllocated\", \"liveBytes\", \"liveBlocks\": print(p[name] - "
      "sum(x[name] for x in s))\n"
      "print(p[\"peakBytes\"] > 1000, len(s) > 5, r[\"mode\"], r[\"kind\"])\n"
      "print(any(f[\"function\"] == \"__libc_start_main\" or \"libc\" in f.get(\"module\", \"\") for f "
      "in r[\"frames\"]))'");
  EXPECT_EQ(child.out, "0\n0\n0\n0\nTrue True exact end\nTrue\n") << child.err;
#else
  GTEST_SKIP() << "a preloaded collector and a sanitizer's run-time do not mix";
#endif
}

// ---- diff ------------------------------------------------------------------------------------------

TEST(QvheapDiff, SitesArePairedAndSortedByTheirChange) {
  MadeResults later = ThreeSites();
  later.sites[0].liveAtPeakBytes += 5000;                       // grew
  later.sites[2] = {{0x1301, 0x9001}, 1, 7000, 1, 7000, 7000};  // one gone (-10000), one new
  const std::vector<NamedFile> files = {{"a", ThreeSites().Text()}, {"b", later.Text()}};
  const ChildResult child = ShellWith(files, "exec $DIFF a b");
  ASSERT_EQ(child.status, 0) << child.err;
  EXPECT_TRUE(Contains(child.out, "3 of 3 call stacks with a change")) << child.out;
  EXPECT_TRUE(std::regex_search(child.out, std::regex("peak bytes +60,000 +62,000 +\\+2,000\n")))
      << child.out;
  EXPECT_TRUE(std::regex_search(
      child.out, std::regex("#1 +-9\\.8 KiB +9\\.8 KiB before, 0 B after; -30 .*\n +0x1200")))
      << child.out;
  EXPECT_TRUE(std::regex_search(child.out, std::regex("#2 +\\+6\\.8 KiB .*\n +0x1300"))) << child.out;
  EXPECT_TRUE(std::regex_search(child.out, std::regex("#3 +\\+4\\.9 KiB .*\n +0x1000"))) << child.out;
  EXPECT_FALSE(Contains(child.out, "0x1100"));
  const ChildResult json =
      ShellWith(files,
                "$DIFF -format json a b | python3 -c 'import json, sys; d = json.load(sys.stdin)\n"
                "print([(s[\"change\"], s[\"stack\"][0][\"function\"]) for s in d[\"sites\"]])'");
  EXPECT_EQ(json.out, "[(-10000, '0x1200'), (7000, '0x1300'), (5000, '0x1000'), (0, '0x1100')]\n")
      << json.err;
}

TEST(QvheapDiff, TakesTwoReadableFiles) {
  const std::vector<NamedFile> files = {{"a", ThreeSites().Text()}, {"b", "<x/>"}};
  EXPECT_EQ(ShellWith(files, "exec $DIFF a").status, 2);
  const ChildResult child = ShellWith(files, "exec $DIFF a b");
  EXPECT_EQ(child.status, 1);
  EXPECT_TRUE(Contains(child.err, "qvheap: b: is no results file of qvheap")) << child.err;
  EXPECT_EQ(child.out, "");
}

}  // namespace

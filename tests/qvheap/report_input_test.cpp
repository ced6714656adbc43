// qvheap report on files that are damaged, foreign, missing, or made to hurt.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <random>
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

constexpr char kName[] = "qvheap.77.xml";

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  const size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return text.replace(at, from.size(), to);
}

TEST(QvheapReportInput, EachKindOfBadFileIsNamedWithWhatIsWrong) {
  const std::string good = ThreeSites().Text();
  const struct {
    std::string text;
    const char* message;
  } kCases[] = {
      {"", "is empty"},
      {"#!/bin/sh\necho\n", "is damaged or no results file of qvheap"},
      {std::string("\x7f"
                   "ELF\0\1\2\3",
                   8),
       "is damaged or no results file of qvheap"},
      {"<log version='2.0'></log>", "is no results file of qvheap: it begins with <log>"},
      {"<!DOCTYPE heap [<!ENTITY a 'aaaa'>]><heap version='2.0'>&a;</heap>", "it has a document type"},
      {"<heap version='1.0' pid='5'></heap>",
       "has version '1.0' of the form, and this qvheap reads versions 2.x "
       "(it is an older qvheap's)"},
      {"<heap version='3.0' pid='5'></heap>", "has version '3.0' of the form"},
      {"<heap pid='5'></heap>", "has version '' of the form"},
      {"<heap version='2.0' pid='5'></heap>", "is incomplete: it has no figures of the process"},
      {good + "<heap/>", "is damaged"},
      {Replaced(good, "<liveBytes>6000", "<liveBytes>6x00"),
       "'liveBytes' is no number: '6x00' (line 9)"},
      {Replaced(good, "<liveBytes>6000", "<liveBytes>99999999999999999999"),
       "'liveBytes' is no number"},
      {Replaced(good, "<stack>1001", "<stack>10g1"), "'stack' is no address: '10g1'"},
      {Replaced(good, "<stack>1001", "<stack>12345678901234567"), "is no address"},
      {Replaced(good, "folded='0'", "folded='none'"), "'folded' is no number: 'none'"},
      {Replaced(good, "</process>", "</proces>"), "is damaged"},
      {Replaced(good, "<modules>", std::string(40 * 3, '<').replace(0, 0, "")), "is damaged"},
  };
  for (const auto& bad : kCases) {
    const ChildResult child = ShellWith({{kName, bad.text}}, std::string("exec $REPORT ") + kName);
    EXPECT_EQ(child.status, 1) << bad.message;
    EXPECT_EQ(child.err.find("qvheap: qvheap.77.xml: "), 0u) << child.err;
    EXPECT_TRUE(Contains(child.err, bad.message)) << bad.message << ": " << child.err;
    EXPECT_EQ(CountOf(child.err, "\n"), 1u) << child.err;
    EXPECT_EQ(child.out, "");
  }
}

TEST(QvheapReportInput, AFileCutAnywhereIsRefusedAsCut) {
  const std::string good = ThreeSites().Text();
  std::vector<NamedFile> files;
  std::string line;
  for (size_t length = 1; length + 2 < good.size(); length += 59) {
    files.push_back({"cut." + std::to_string(length), good.substr(0, length)});
    line += "$REPORT " + files.back().name + "; echo $? >>statuses\n";
  }
  const ChildResult child = ShellWith(files, line);
  EXPECT_EQ(child.out, "");
  EXPECT_EQ(CountOf(child.Read("statuses"), "1\n"), files.size());
  EXPECT_EQ(CountOf(child.err, ": is cut off: it ends in line "), files.size()) << child.err;
  EXPECT_GT(files.size(), 30u);
}

// What a changed digit says cannot be known; what is asked is that nothing crashes or goes on for ever, and
// that what is refused is named.
TEST(QvheapReportInput, NoChangedByteMakesAReportCrash) {
  MadeResults results = ThreeSites();
  results.modules =
      "<module start='1000' end='2000' bias='0' from='0' bytes='5' buildId='aa'>/bin/sh</module>";
  const std::string good = results.Text();
  std::mt19937 random(20);
  std::vector<NamedFile> files;
  std::string line;
  for (int i = 0; i < 60; i++) {
    std::string text = good;
    for (int k = 0; k <= i % 3; k++) text[random() % text.size()] = char(random());
    files.push_back({"f" + std::to_string(i), text});
    for (const char* format : {"text", "massif", "callgrind", "json"}) {
      line += "$REPORT -format " + std::string(format) + " f" + std::to_string(i) +
              " >out 2>err; s=$?; case $s in 0) ;; 1) grep -q ': f" + std::to_string(i) +
              ": ' err && echo refused;; *) echo \"f" + std::to_string(i) + " $s\";; esac\n";
    }
  }
  const ChildResult child = ShellWith(files, line);
  EXPECT_EQ(CountOf(child.out, "refused\n"), CountOf(child.out, "\n")) << child.out;
  EXPECT_GT(CountOf(child.out, "refused\n"), 60u);
}

TEST(QvheapReportInput, GoodFilesAreReportedBesideBadOnes) {
  const ChildResult child = ShellWith({{"good", ThreeSites().Text()}, {"bad", "<heap"}, {"empty", ""}},
                                      "exec $REPORT bad good empty absent");
  EXPECT_EQ(child.status, 1);
  EXPECT_TRUE(Contains(child.out, "3 of 3 call stacks"));
  EXPECT_TRUE(Contains(child.err, "qvheap: bad: is cut off"));
  EXPECT_TRUE(Contains(child.err, "qvheap: empty: is empty"));
  EXPECT_TRUE(Contains(child.err, "qvheap: absent: No such file or directory")) << child.err;
}

TEST(QvheapReportInput, BytesThatAreNoTextDoNotSpoilAReport) {
  MadeResults results = ThreeSites();
  results.arguments = "<argument>a\xFF\x01\xE2\x82 \xED\xA0\x80 \xE2\x82\xAC</argument>";
  for (const char* format : {"text", "massif", "callgrind", "json", "folded"}) {
    const ChildResult child = ShellWith({{kName, results.Text()}},
                                        std::string("exec $REPORT -format ") + format + " " + kName);
    EXPECT_EQ(child.status, 0) << child.err;
    if (std::string(format) == "folded") continue;
    EXPECT_TRUE(Contains(child.out, "a???? ??? \xE2\x82\xAC")) << child.out;
  }
}

// ---- What is not there -----------------------------------------------------------------------------

TEST(QvheapReportInput, AProcessThatStillRunsIsToldFromOneThatLeftNothing) {
  const ChildResult child = ShellWith(
      {},
      "touch qvlog.$$.xml; $REPORT qvheap.$$.xml; echo $?; $REPORT .; echo $?; rm qvlog.$$.xml\n"
      "touch qvlog.99999999.xml; $REPORT qvheap.99999999.xml; echo $?; $REPORT .; echo $?\n"
      "touch qvheap.5.xml.part; $REPORT qvheap.5.xml; echo $?; $REPORT .; echo $?\n"
      "mkdir none; $REPORT none; echo $?");
  EXPECT_EQ(child.out, "1\n1\n1\n1\n1\n1\n1\n");
  EXPECT_EQ(CountOf(child.err, " is still running; its results come at its end"), 2u) << child.err;
  EXPECT_TRUE(
      Contains(child.err, "qvheap.99999999.xml: is not there: the process ended without results"));
  EXPECT_TRUE(
      Contains(child.err, ".: holds no results file of qvheap; the processes with a log there ended"));
  EXPECT_TRUE(
      Contains(child.err, "qvheap.5.xml: is not complete yet: only qvheap.5.xml.part is there"));
  EXPECT_TRUE(Contains(child.err, "./qvheap.5.xml.part: not complete: being written"));
  EXPECT_TRUE(Contains(child.err, "qvheap: none: holds no results file of qvheap\n"));
}

TEST(QvheapReportInput, WhatIsNoOrdinaryFileIsRefusedWithoutWaiting) {
  const ChildResult child =
      ShellWith({}, "mkfifo pipe; $REPORT pipe; echo $?; $REPORT /dev/zero; echo $?");
  EXPECT_EQ(child.out, "1\n1\n");
  EXPECT_EQ(CountOf(child.err, ": is no ordinary file\n"), 2u) << child.err;
}

TEST(QvheapReportInput, AnImageThatIsNoFileIsNotOpened) {
  MadeResults results = ThreeSites();
  results.modules =
      "<module start='1000' end='2000' bias='0' from='0'>pipe</module>"
      "<module start='2000' end='3000' bias='0' from='0'>/dev/zero</module>"
      "<module start='3000' end='4000' bias='0' from='0'>[vdso]</module>";
  const ChildResult child =
      ShellWith({{kName, results.Text()}}, "mkfifo pipe; exec $REPORT qvheap.77.xml");
  EXPECT_EQ(child.status, 0) << child.err;
  EXPECT_TRUE(Contains(child.out, "pipe+0x1000"));
  EXPECT_TRUE(Contains(child.out, "[vdso]+0x3000"));
  EXPECT_TRUE(Contains(child.out, "! /dev/zero is unreadable: calls in it have no names."));
}

// ---- Size ------------------------------------------------------------------------------------------

TEST(QvheapReportInput, StacksOf200000FramesAreWrittenInEveryForm) {
  MadeResults results = ThreeSites();
  std::vector<uint64_t> deep;
  for (uint64_t i = 0; i < 200'000; i++) deep.push_back(0x1001 + i % 1000 * 16);
  results.sites.push_back({deep, 1, 100, 1, 100, 100'000});
  results.sites.push_back({std::vector<uint64_t>(200'000, 0x7001), 1, 100, 1, 100, 100'000});
  const std::string text = results.Text();
  for (const char* format : {"text", "massif", "callgrind", "json", "folded"}) {
    const ChildResult child =
        ShellWith({{kName, text}}, std::string("exec $REPORT -format ") + format + " " + kName);
    EXPECT_EQ(child.status, 0) << format << child.err;
    EXPECT_GT(child.out.size(), 1000u) << format;
  }
  const ChildResult child = ShellWith({{kName, text}}, "exec $REPORT qvheap.77.xml");
  EXPECT_EQ(CountOf(child.out, "... 199968 frames ..."), 2u) << child.out;
  EXPECT_EQ(ShellWith({{kName, text}}, "$REPORT -format massif -o m qvheap.77.xml && ms_print m").err,
            "");
}

// ---- Command line and output -----------------------------------------------------------------------

TEST(QvheapReportInput, WrongCommandLinesAndLostOutputHaveAStatusOfTheirOwn) {
  const struct {
    const char *line, *message;
  } kCases[] = {
      {"", "no results file is given (qvheap report -help tells how)"},
      {"-format yaml g", "'yaml' is no format"},
      {"-sort size g", "'size' is no order"},
      {"-top -3 g", "'-3' is no number of stacks"},
      {"-lines g", "unknown option -lines"},
      {"-format", "-format needs a value"},
      {"-o nowhere/x g", "nowhere/x: cannot write: No such file or directory"},
      {"-o no-space g", "no-space: cannot write: No space left on device"},
      {"g >/dev/full", "standard output: cannot write: No space left on device"},
  };
  for (const auto& wrong : kCases) {
    const ChildResult child =
        ShellWith({{"g", ThreeSites().Text()}},
                  "ln -s /dev/full no-space; exec $REPORT " + std::string(wrong.line));
    EXPECT_EQ(child.status, 2) << wrong.line;
    EXPECT_TRUE(Contains(child.err, wrong.message)) << wrong.line << ": " << child.err;
    EXPECT_TRUE(
        std::filesystem::is_symlink(child.folder + "/no-space"));  // what is no file of ours stays
  }
  const ChildResult help = ShellWith({}, "$REPORT --help && $DIFF -help");
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(Contains(help.out, "usage: qvheap report") && Contains(help.out, "usage: qvheap diff"));
}

}  // namespace

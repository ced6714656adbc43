// qvheap, from outside: the built launcher on a program that keeps its own account
// (tests/qvheap/subject.c) and on real programs, whose output and status must be what they are without
// it.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "tests/qvheap/shell.h"
#include "tests/support/child.h"

namespace {

using qvtest::ChildResult;
using qvtest::FilesLike;
using qvtest::OnlyFileLike;
using qvtest::RunChild;
using qvtest::Shell;
using qvtest::WhatIsOpen;

ChildResult Count(const std::string& arguments) {
  return Shell("exec " QVHEAP " -quiet -- " SUBJECT " " + arguments);
}

// ---- Reading reports -------------------------------------------------------------------------------

using Figures = std::map<std::string, uint64_t>;

// The figures within an element that has none of its own kind inside. A size class is named size<from>.
Figures ReadElement(const std::string& element) {
  Figures figures;
  const std::regex line("<([A-Za-z]+)(?: from='([0-9]+)' to='[0-9]+')?>(-?[0-9]+)</");
  for (std::sregex_iterator at(element.begin(), element.end(), line), end; at != end; ++at) {
    figures[(*at)[1].str() + (*at)[2].str()] = uint64_t(std::stoll((*at)[3]));
  }
  return figures;
}

struct Report {
  Figures process;
  std::map<int, Figures> threads;
  Figures older;
  uint64_t olderCount = 0;
};

std::string Between(const std::string& text, size_t from, const std::string& end) {
  return text.substr(from, text.find(end, from) - from);
}

Report ReadReport(const std::string& text) {
  Report report;
  EXPECT_EQ(WhatIsOpen(text), "") << text;
  report.process = ReadElement(Between(text, text.find("<process>"), "</process>"));
  const std::regex thread("<thread id='([0-9]+)' state=");
  for (std::sregex_iterator at(text.begin(), text.end(), thread), end; at != end; ++at) {
    report.threads[std::stoi((*at)[1])] =
        ReadElement(Between(text, size_t(at->position()), "</thread>"));
  }
  const size_t older = text.find("<olderThreads count='");
  if (older == std::string::npos) return report;
  report.olderCount = std::stoull(text.substr(older + 21));
  report.older = ReadElement(Between(text, older, "</olderThreads>"));
  return report;
}

// What the subject wrote about itself.
Figures ReadExpected(const ChildResult& child, const std::string& id) {
  std::istringstream lines(child.Read("expected." + id));
  Figures figures;
  std::string name;
  for (uint64_t value; lines >> name >> value;) figures[name] = value;
  EXPECT_GT(figures["allocations"], 50u);
  return figures;
}

// The figures that both have must agree, and no size class may be there that was not expected.
void ExpectAgreement(Figures expected, const Figures& found, const std::string& what) {
  for (const auto& [name, value] : found) {
    if (name.compare(0, 4, "size") == 0) expected.insert({name, 0});
  }
  for (const auto& [name, value] : expected) {
    const auto at = found.find(name);
    EXPECT_EQ(at != found.end() ? at->second : ~uint64_t{0}, value) << name << " of " << what;
  }
}

Figures Sum(const Report& report) {
  Figures sum = report.older;
  for (const auto& [id, figures] : report.threads) {
    for (const auto& [name, value] : figures) sum[name] += value;
  }
  sum.erase("peakBytes");
  sum.erase("balanceBytes");
  return sum;
}

// ---- Counting --------------------------------------------------------------------------------------

TEST(Qvheap, TotalsAgreeExactlyWithTheProgramsOwnAccount) {
  for (int seed = 1; seed <= 5; seed++) {
    const ChildResult child = Count("random " + std::to_string(seed));
    ASSERT_EQ(child.status, 0) << "seed " << seed << ": " << child.err;
    const std::string id = OnlyFileLike(child, "expected\\..*").substr(9);
    const Report report = ReadReport(child.Read("qvheap." + id + ".xml"));
    Figures expected = ReadExpected(child, id);
    ExpectAgreement(expected, report.threads.at(std::stoi(id)), "thread, seed " + std::to_string(seed));
    expected["liveBytes"] = expected["bytesAllocated"] - expected["bytesReleased"];
    expected["liveBlocks"] = expected["allocations"] - expected["releases"];
    expected["peakToleranceBytes"] = 0;
    ExpectAgreement(expected, report.process, "process, seed " + std::to_string(seed));
  }
  const ChildResult idle = Count("none");
  const Report report = ReadReport(idle.Read(OnlyFileLike(idle, "qvheap\\..*")));
  EXPECT_EQ(report.process.at("allocations"), 0u);
  EXPECT_TRUE(report.threads.empty());
}

// Each thread goes on allocating in a destructor of its thread storage that runs after the collector's.
TEST(Qvheap, EveryThreadIsCountedToItsLastRelease) {
  const ChildResult child = Count("threads 7");
  ASSERT_EQ(child.status, 0) << child.err;
  const Report report = ReadReport(child.Read(OnlyFileLike(child, "qvheap\\..*")));
  const std::vector<std::string> accounts = FilesLike(child, "expected\\..*");
  ASSERT_EQ(accounts.size(), 4u);
  for (const std::string& account : accounts) {
    const std::string id = account.substr(9);
    ASSERT_EQ(report.threads.count(std::stoi(id)), 1u);
    ExpectAgreement(ReadExpected(child, id), report.threads.at(std::stoi(id)), "thread " + id);
  }
  ExpectAgreement(Sum(report), report.process, "process against the sum of its threads");
  EXPECT_EQ(report.process.at("peakToleranceBytes"), 5 * 8192u);
  EXPECT_GE(report.process.at("peakBytes"), report.process.at("liveBytes"));
}

TEST(Qvheap, ThreadsThatComeAndGoAreSummedUpAndNothingIsLost) {
  const ChildResult child = Count("many 1300");
  const Report report = ReadReport(child.Read(OnlyFileLike(child, "qvheap\\..*")));
  EXPECT_EQ(report.process.at("allocations") - report.process.at("releases"), 1u);  // pthread's own
  EXPECT_EQ(report.process.at("releases"), 1302u);
  EXPECT_EQ(report.threads.size() + report.olderCount, 1302u);
  EXPECT_LE(report.threads.size(), 1010u);
  const uint64_t peak = 1500000 + report.process.at("liveBytes");
  EXPECT_EQ(report.process.at("peakToleranceBytes"), 2 * 8192u);
  EXPECT_NEAR(double(report.process.at("peakBytes")), double(peak), 2 * 8192.0);
  ExpectAgreement(Sum(report), report.process, "process against the sum of its threads");
}

TEST(Qvheap, WhatThreadsAllocateAtTheirVeryEndIsInThePeak) {
  const ChildResult child = Count("late 1000");
  ASSERT_EQ(child.status, 0) << child.err;
  const Report report = ReadReport(child.Read(OnlyFileLike(child, "qvheap\\..*")));
  const uint64_t tolerance = report.process.at("peakToleranceBytes");
  EXPECT_EQ(tolerance, 2 * 8192u);
  EXPECT_GE(report.process.at("peakBytes") + tolerance, 7000000u);
  EXPECT_LE(report.process.at("peakBytes"), 7000000 + report.process.at("liveBytes") + tolerance);
}

TEST(Qvheap, AForkedChildCountsAfreshAndAnExecutedProgramTakesOver) {
  const ChildResult forked = Count("fork 3");
  ASSERT_EQ(forked.status, 0) << forked.err;
  const std::vector<std::string> accounts = FilesLike(forked, "expected\\..*");
  ASSERT_EQ(accounts.size(), 2u);
  for (const std::string& account : accounts) {
    const std::string id = account.substr(9);
    const Report report = ReadReport(forked.Read("qvheap." + id + ".xml"));
    ExpectAgreement(ReadExpected(forked, id), report.process, "process " + id);
    EXPECT_EQ(WhatIsOpen(forked.Read("qvlog." + id + ".xml")), "");
  }
  const ChildResult executed = Count("exec 4");
  const std::string id = OnlyFileLike(executed, "expected\\..*").substr(9);
  const Report report = ReadReport(executed.Read("qvheap." + id + ".xml"));
  ExpectAgreement(ReadExpected(executed, id), report.process, "the executed program");
}

TEST(Qvheap, ForksAmidBusyThreadsNeitherHangNorLoseAReport) {
  const ChildResult child = Count("forks 60");
  ASSERT_EQ(child.status, 0) << child.err;
  const std::vector<std::string> reports = FilesLike(child, "qvheap\\..*");
  EXPECT_EQ(reports.size(), 61u);
  for (const std::string& report : reports) {
    const Figures process = ReadReport(child.Read(report)).process;
    const bool isChild = process.at("bytesAllocated") < 100000;
    if (isChild) {
      EXPECT_EQ(process.at("releases"), 5u);
    }
  }
}

// Each fork finds the threads somewhere else: in a look, in the tables, making one.
TEST(Qvheap, AStormOfForksAmidAllocatingThreadsNeitherHangsNorLosesACount) {
  for (const std::string mode : {"-interval 2000", "-exact"}) {
    const ChildResult child = Shell("exec " QVHEAP " -quiet " + mode + " -- " SUBJECT " storm 1000");
    ASSERT_EQ(child.status, 0) << mode << ": " << child.err;
    const std::vector<std::string> accounts = FilesLike(child, "expected\\..*");
    ASSERT_EQ(accounts.size(), 2u);
    uint64_t children = 0;
    for (const std::string& name : FilesLike(child, "qvheap\\..*\\.xml")) {
      const Report report = ReadReport(child.Read(name));
      ExpectAgreement(Sum(report), report.process, name + " against the sum of its threads");
      if (report.threads.count(std::stoi(accounts[0].substr(9))) == 0) {
        EXPECT_EQ(report.process.at("releases"), 5u) << name;
        children++;
        continue;
      }
      for (const std::string& account : accounts) {
        const std::string id = account.substr(9);
        ExpectAgreement(ReadExpected(child, id), report.threads.at(std::stoi(id)), "thread " + id);
      }
    }
    EXPECT_EQ(children, 10u) << mode;
  }
}

// ---- How processes end -----------------------------------------------------------------------------

TEST(Qvheap, NoDescriptorOfTheProgramIsWrittenTo) {
  const ChildResult child = Shell("exec " QVHEAP " -- " SUBJECT " closed");
  ASSERT_EQ(child.status, 0) << child.err;
  EXPECT_EQ(child.err, "");  // its standard error is a file of its own by then
  for (int i = 0; i < 100; i++) EXPECT_EQ(child.Read("own." + std::to_string(i)), "mine\n") << i;
  const Report report = ReadReport(child.Read(OnlyFileLike(child, "qvheap\\..*")));
  EXPECT_EQ(report.process.at("bytesAllocated"), 10u);
  EXPECT_EQ(WhatIsOpen(child.Read(OnlyFileLike(child, "qvlog\\..*"))), "");
}

TEST(Qvheap, AProcessThatDoesNotExitLeavesAReadableLog) {
  for (const auto& [mode, status] :
       std::map<std::string, int>{{"_exit", 9}, {"signal", 128 + SIGTERM}}) {
    const ChildResult child = Count(mode);
    EXPECT_EQ(child.status, status) << child.err;
    EXPECT_TRUE(FilesLike(child, "qvheap\\..*").empty());
    const std::string name = OnlyFileLike(child, "qvlog\\..*");
    const std::string pid = name.substr(6, name.size() - 10);
    const std::string log = child.Read(name);
    EXPECT_EQ(log.find("<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<!-- DO NOT EDIT THIS FILE -->\n\n"
                       "<log version='2.0' source='qvheap'>\n\t<!-- qvheap counts process " +
                       pid + ": " SUBJECT " -->\n\t<!-- qvheap's options are the following:  -->\n"),
              0u);
    EXPECT_EQ(WhatIsOpen(log), "log");
  }
}

// The handler runs while the program is inside malloc or free, so the report may use neither.
TEST(Qvheap, AProgramThatExitsFromASignalHandlerDoesNotHang) {
  for (int i = 0; i < 15; i++) {
    const ChildResult child = Count("interrupted");
    ASSERT_EQ(child.status, 3) << child.err;
    ReadReport(child.Read(OnlyFileLike(child, "qvheap\\..*")));
  }
}

TEST(Qvheap, AReaderThatIsGoneDoesNotEndTheProgram) {
  const ChildResult child = RunChild([] {
    int ends[2];
    CHECK_EQ(pipe(ends), 0);
    close(ends[0]);
    dup2(ends[1], STDERR_FILENO);
    execl(QVHEAP, QVHEAP, "--", SUBJECT, "none", nullptr);
  });
  EXPECT_EQ(child.status, 0);
}

// ---- Real programs ---------------------------------------------------------------------------------

// A line of shell in which $RUN stands before the program, with what it needs made beforehand.
struct RealProgram {
  const char* name;
  const char* preparation;
  const char* line;
};

const RealProgram kRealPrograms[] = {
    {"sqlite3", "",
     "echo 'create table t(a,b); with recursive n(i) as (select 1 union all select i+1 from n where "
     "i<5000) "
     "insert into t select i, i*i%97 from n; create index x on t(b); select b, count(*), sum(a) from t "
     "group by b order by 3; drop table u;' | $RUN sqlite3 test.db; echo $?; $RUN sqlite3 test.db "
     "'select 1/'"},
    {"python3", "",
     "$RUN python3 -c 'import json, os, subprocess, sys, threading\n"
     "t = [threading.Thread(target=lambda: json.dumps(list(range(10000)))) for i in range(4)]\n"
     "[x.start() for x in t]; [x.join() for x in t]\n"
     "print(subprocess.run([\"sort\", \"-n\"], input=b\"3\\n1\\n2\\n\", capture_output=True).stdout)\n"
     "print(open(os.devnull).fileno(), sorted(os.listdir(\"/proc/self/fd\")))\n"
     "if os.fork() == 0: print(\"child\", flush=True); os._exit(0)\n"
     "os.wait(); sys.stderr.write(\"to stderr\\n\"); sys.exit(41)'; echo $?"},
    {"perl", "", "$RUN perl -e 'print map { $_ * $_, \"\\n\" } 1..1000; die \"gone\\n\"'; echo $?"},
    {"git",
     "git -c init.defaultBranch=main init -q r; cd r; i=0; while [ $i -lt 20 ]; do "
     "echo $i >f; git add f; GIT_AUTHOR_DATE='@1 +0000' GIT_COMMITTER_DATE='@1 +0000' "
     "git -c user.name=a -c user.email=b commit -qm $i; i=$((i+1)); done",
     "$RUN git log --stat; $RUN git diff HEAD~5; $RUN git show nothing; echo $?; $RUN git gc -q; "
     "$RUN git fsck --full; $RUN git count-objects -v"},
    {"sort", "seq 1 7 300000 | rev >n",
     "$RUN sort n | tail -1000; $RUN sort -n --parallel=4 -S 1M n | cksum; $RUN sort missing; echo $?"},
    {"gcc",
     "printf '#include <stdio.h>\\nint main(void) { printf(\"%%d\\\\n\", 6 * 7); return 3; }' >a.c",
     "$RUN gcc -O2 -Wall -c a.c -o a.o && cksum <a.o; $RUN gcc -O2 a.c -o a && ./a; echo $?; "
     "echo 'int x = ;' >b.c; $RUN gcc -c b.c; echo $?"},
    {"bash", "",
     "$RUN bash -c 'trap \"echo trapped\" EXIT; for i in 1 2 3; do (echo $i; exit $i) | cat; done; "
     "x=$(seq 5 | wc -l); echo $x; exec {fd}>/dev/null; echo $fd; ls /proc/self/fd; "
     "exec 2>&-; kill -0 $$; exit 7'; echo $?; $RUN bash -c 'kill -9 $$'; echo $?"},
};

TEST(Qvheap, RealProgramsWriteAndReturnWhatTheyDoWithoutIt) {
  for (const RealProgram& program : kRealPrograms) {
    if (Shell("command -v " + std::string(program.name)).status != 0) continue;
    // The reports go to a place of their own, so that they cannot be among the program's files.
    const std::string script = "mkdir reports work; R=$PWD/reports; cd work; HOME=$PWD; export HOME; " +
                               std::string(program.preparation) +
                               (*program.preparation != 0 ? "\n" : "") + program.line;
    const ChildResult plain = Shell("RUN=; " + script);
    const ChildResult counted = Shell("RUN=\"" QVHEAP " -quiet -out $PWD/reports --\"; " + script);
    EXPECT_EQ(counted.out, plain.out) << program.name;
    EXPECT_EQ(counted.err, plain.err) << program.name;
    EXPECT_EQ(counted.status, plain.status) << program.name;
    EXPECT_GT(plain.out.size() + plain.err.size(), 20u) << program.name;
    uint64_t reports = 0;
    for (const auto& entry : std::filesystem::directory_iterator(counted.folder + "/reports")) {
      const std::string name = entry.path().filename();
      const std::string text = counted.Read("reports/" + name);
      if (name.compare(0, 6, "qvheap") != 0) continue;
      EXPECT_EQ(WhatIsOpen(text), "") << program.name << " " << name;
      EXPECT_GT(ReadReport(text).process.at("allocations"), 0u) << program.name << " " << name;
      reports++;
    }
    EXPECT_GT(reports, 0u) << program.name;
  }
}

TEST(Qvheap, OnlyTheLaunchedProcessPrintsItsTable) {
  const ChildResult child = Shell("exec " QVHEAP " -- sort -o sorted .stdout");
  const std::string id = OnlyFileLike(child, "qvheap\\..*");
  const Figures process = ReadReport(child.Read(id)).process;
  const std::regex row("  process +([0-9]+) +([0-9]+) +([0-9]+) +([0-9]+) +([0-9]+)\n");
  std::smatch found;
  ASSERT_TRUE(std::regex_search(child.err, found, row)) << child.err;
  EXPECT_EQ(std::stoull(found[1]), process.at("allocations"));
  EXPECT_EQ(std::stoull(found[2]), process.at("releases"));
  EXPECT_EQ(std::stoull(found[3]), process.at("bytesAllocated"));
  EXPECT_EQ(std::stoull(found[4]), process.at("liveBytes"));
  EXPECT_EQ(std::stoull(found[5]), process.at("peakBytes"));
  const ChildResult family = Shell("exec " QVHEAP " -- bash -c 'sort .stdout; (sort .stdout); exit 0'");
  EXPECT_GE(FilesLike(family, "qvheap\\..*").size(), 3u);
  const size_t first = family.err.find("  process ");
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(family.err.find("  process ", first + 1), std::string::npos) << family.err;
}

TEST(Qvheap, FilesGoToTheNamedDirectoryWhereverTheProgramGoes) {
  const ChildResult child =
      Shell("mkdir \"a b,'&<c\"; exec " QVHEAP
            " -quiet -out \"a b,'&<c\" -- sh -c 'cd /; sort /dev/null; (:); exit 0'");
  EXPECT_EQ(child.status, 0) << child.err;
  uint64_t logs = 0, reports = 0;
  for (const auto& entry : std::filesystem::directory_iterator(child.folder + "/a b,'&<c")) {
    const std::string name = entry.path().filename();
    logs += name.compare(0, 6, "qvlog.") == 0;
    reports += name.compare(0, 7, "qvheap.") == 0;
  }
  EXPECT_EQ(logs, 3u);     // a child that leaves by _exit has one too
  EXPECT_GE(reports, 1u);  // of sort, at least
}

// ---- Refusals --------------------------------------------------------------------------------------

TEST(Qvheap, SaysWhyItCannotAndReturnsAStatusOfItsOwn) {
  struct Case {
    const char* line;
    int status;
    const char* message;
  };
  const Case cases[] = {
      {"-- no-such-program", 127, "qvheap: no-such-program: not found\n"},
      {"-- ./absent", 127, "qvheap: ./absent: not found\n"},
      {"-- " STATIC_SUBJECT, 126, STATIC_SUBJECT " is statically linked"},
      {"-- ./script", 126, STATIC_SUBJECT " is statically linked"},
      {"-- ./plain", 126, "./plain is not executable"},
      {"-- ./deep", 126, "./deep: too many interpreters"},
      {"-out nowhere -- true", 125, "qvheap: nowhere: cannot write there: No such file or directory\n"},
      {"-out plain -- true", 125, "cannot write there: Not a directory\n"},
      {"-out /proc -- true", 125, "qvheap: /proc: cannot write there: "},
      {"-quiet --", 125, "no program is given"},
  };
  for (const Case& refusal : cases) {
    const ChildResult child =
        Shell("echo x >plain; printf '#!" STATIC_SUBJECT
              "\\n' >script; "
              "printf '#!./deep\\n' >deep; chmod +x script deep; exec " QVHEAP " " +
              std::string(refusal.line));
    EXPECT_EQ(child.status, refusal.status) << refusal.line;
    EXPECT_NE(child.err.find(refusal.message), std::string::npos) << refusal.line << ": " << child.err;
    EXPECT_TRUE(FilesLike(child, "qv.*").empty()) << refusal.line;
  }
}

TEST(Qvheap, OtherPreloadedLibrariesStayAndPlainScriptsRun) {
  const ChildResult child = Shell(
      "echo 'echo $LD_PRELOAD; exit 6' >plain; chmod +x plain; "
      "LD_PRELOAD=libm.so.6 exec " QVHEAP " -quiet ./plain");
  EXPECT_EQ(child.status, 6) << child.err;
  EXPECT_NE(child.out.find("/libqvheap.so:libm.so.6\n"), std::string::npos) << child.out;
}

}  // namespace

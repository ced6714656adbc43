// The options of qvheap, from the command line to the collector in every process that comes of it.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/qvheap/shell.h"

namespace {

using qvtest::ChildResult;
using qvtest::FilesLike;
using qvtest::OnlyFileLike;
using qvtest::Shell;
using qvtest::WhatIsOpen;

std::string Line(const std::string& name, const std::string& value) {
  return "<!-- " + name + std::string(35 - name.size(), ' ') + value + " -->";
}

TEST(QvheapOptions, HelpListsEveryOptionWithItsDefault) {
  for (const char* spelling : {"-help", "--help", "-quiet -help no-such-program"}) {
    const ChildResult child = Shell("exec " QVHEAP " " + std::string(spelling));
    EXPECT_EQ(child.status, 0) << spelling;
    for (const char* line : {
             "\n   -out                               DIR: where the files go; default: .\n",
             "\n   -quiet                             no table on standard error at the end; default: "
             "false\n",
             "\n   -exact                             a stack for every allocation, not for samples; "
             "default: false\n",
             "\n   -interval                          BYTES: allocated from sample to sample on "
             "average; "
             "default: 65536\n",
             "\n   -every                             SECONDS: from line to line of the time series, 0 "
             "for "
             "none; default: 0\n",
             "\n   -dump                              LIST: what happens inside, by topic, in the log; "
             "default: none\n",
             "\n   -nochannel                         no command channel, hence no second thread; "
             "default: "
             "false\n",
             "FORK, SITES, MODULES, CHANNEL, SNAPSHOT, SAMPLING, ALL, NONE",
         }) {
      EXPECT_NE(child.out.find(line), std::string::npos) << line;
    }
    EXPECT_TRUE(FilesLike(child, "qv.*").empty());
  }
}

TEST(QvheapOptions, AWrongOneIsALineAndALogAndAStatus) {
  struct Case {
    const char* line;
    const char* message;
    const char* type;  // null: the parser had nothing against it
    const char* comment;
  };
  const Case cases[] = {
      {"-loud -- true", "qvheap: unknown option -loud (qvheap -help lists them)\n", "BAD_OPTION",
       "Invalid command line option: -loud used with tool: qvheap"},
      {"-quiet -out", "qvheap: -out needs a directory\n", "BAD_ARGUMENT",
       "No arguments for command line option: -out"},
      {"-dump -quiet true", "qvheap: -dump needs a list of channels\n", "BAD_ARGUMENT",
       "No arguments for command line option: -dump"},
      {"-no-out true", "qvheap: -no-out: only options without an argument can be negated\n",
       "BAD_OPTION", "Invalid negation for command line option: -no-out used with tool: qvheap"},
      {"-interval 12abc true", "qvheap: -interval needs a number of bytes, and 12abc is none\n",
       "BAD_ARGUMENT", "Bad integer value: 12abc for command line option: -interval"},
      {"-interval 0 true", "qvheap: -interval needs a number of bytes, at least 1\n", nullptr, nullptr},
      {"-every 1 -nochannel true",
       "qvheap: -every writes on the command channel, which -nochannel turns off\n", nullptr, nullptr},
      {"-dump fork,xyz true",
       "qvheap: -dump needs a list of channels, and fork,xyz is none; there are ", nullptr, nullptr},
  };
  for (const Case& wrong : cases) {
    const ChildResult child = Shell("mkdir d; exec " QVHEAP " -out d " + std::string(wrong.line));
    EXPECT_EQ(child.status, 125) << wrong.line;
    EXPECT_EQ(child.err.find(wrong.message), 0u) << wrong.line << ": " << child.err;
    EXPECT_TRUE(FilesLike(child, "qv.*").empty()) << wrong.line;
    const ChildResult files{0, "", "", child.folder + "/d"};
    if (wrong.type == nullptr) {
      EXPECT_TRUE(FilesLike(files, ".*").empty());
      continue;
    }
    const std::string log = files.Read(OnlyFileLike(files, "qvlog\\..*"));
    EXPECT_EQ(WhatIsOpen(log), "") << log;
    EXPECT_NE(log.find("<type>" + std::string(wrong.type) + "<"), std::string::npos) << log;
    EXPECT_NE(log.find("<!-- " + std::string(wrong.comment) + " -->"), std::string::npos) << log;
  }
  const ChildResult nowhere = Shell("exec " QVHEAP " -out d -loud true");  // no log can be had there
  EXPECT_EQ(nowhere.status, 125);
  EXPECT_EQ(nowhere.err, "qvheap: unknown option -loud (qvheap -help lists them)\n");
}

// The values cross a fork and an exec, and a directory's name may hold what the handover uses itself.
TEST(QvheapOptions, ValuesInForceAreInTheLogOfEveryProcess) {
  const ChildResult child = Shell(
      "mkdir 'a \\ -quiet  b'; exec " QVHEAP
      " -exact -no-exact -quiet -interval 0x1000 -every 7 -dump ,none -nochannel -no-nochannel -out "
      "'./a \\ -quiet  b//' sh -c 'cd /; sort /dev/null; (:); exec sort /dev/null'");
  ASSERT_EQ(child.status, 0) << child.err;
  const ChildResult files{0, "", "", child.folder + "/a \\ -quiet  b"};
  const std::vector<std::string> logs = FilesLike(files, "qvlog\\..*");
  EXPECT_EQ(logs.size(), 3u);  // the shell, which sort takes over, its child sort, and a child shell
  for (const std::string& name : logs) {
    const std::string log = files.Read(name);
    EXPECT_NE(log.find(Line("-out", files.folder)), std::string::npos) << log;
    EXPECT_NE(log.find(Line("-quiet", "true")), std::string::npos) << log;
    EXPECT_NE(log.find(Line("-exact", "false")), std::string::npos) << log;
    EXPECT_NE(log.find(Line("-interval", "4096")), std::string::npos) << log;
    EXPECT_NE(log.find(Line("-every", "7")), std::string::npos) << log;
    EXPECT_NE(log.find(Line("-dump", ",none")), std::string::npos) << log;
    EXPECT_NE(log.find(Line("-nochannel", "false")), std::string::npos) << log;
  }
}

TEST(QvheapOptions, ChannelsAreDumpedThatTheListNames) {
  for (const bool selected : {false, true}) {
    const ChildResult child =
        Shell("exec " QVHEAP " -quiet -dump " + std::string(selected ? "all,no-sites" : "sites") +
              " -- bash -c '(:); exit 0'");
    ASSERT_EQ(child.status, 0) << child.err;
    std::string parent;
    uint32_t came = 0;
    for (const std::string& name : FilesLike(child, "qvlog\\..*")) {
      const std::string log = child.Read(name);
      const std::string pid = name.substr(6, name.size() - 10);
      const std::string line = "<!-- \\[FORK\\] \\[" + pid + " *\\] process " + pid;  // padded to 5
      if (std::regex_search(log, std::regex(line + " forked -->"))) {
        EXPECT_EQ(parent, "");
        parent = pid;
      }
      came += std::regex_search(log, std::regex(line + " came of process [0-9]+ -->"));
    }
    EXPECT_EQ(parent != "", selected);
    EXPECT_EQ(came, selected ? 1u : 0u);
  }
}

// The state is dumped with each results file.
TEST(QvheapOptions, StateIsDumpedWithTheResults) {
  const ChildResult child =
      Shell("exec " QVHEAP " -quiet -exact -dump sites,modules,sampling -- sort /dev/null");
  ASSERT_EQ(child.status, 0) << child.err;
  const std::string log = child.Read(OnlyFileLike(child, "qvlog\\..*"));
  for (const char* line :
       {"\\[SITES\\] \\[[0-9]+ *\\] [1-9][0-9]* sites, 0 of them folded",
        "\\[MODULES\\] \\[[0-9]+ *\\] epoch [0-9]+",
        "\\[MODULES\\] \\[[0-9]+ *\\] [0-9a-f]+ to [0-9a-f]+, from epoch 0: /.*/libc",
        "\\[SAMPLING\\] \\[[0-9]+ *\\] one sample in 1 bytes, 0 missed; paused for 0 ms"}) {
    EXPECT_TRUE(std::regex_search(log, std::regex(line))) << line << "\n" << log;
  }
  EXPECT_EQ(log.find("[FORK]"), std::string::npos);
}

// Somebody who sets the variable by hand gets the defaults, and is told in the log.
TEST(QvheapOptions, AHandoverThatIsNoneIsSaidInTheLog) {
  for (const char* value : {"", "pid=1", "pid=1,stderr=0:0", "pid=1,stderr=0:0 -out rel",
                            "pid=1,stderr=0:0 -loud -out /tmp", "pid=1,stderr=0:0 -out"}) {
    const ChildResult child =
        Shell("QVHEAP_OPTIONS='" + std::string(value) +
              "'; export QVHEAP_OPTIONS; P=$(" QVHEAP
              " -quiet -out /tmp sh -c 'echo $LD_PRELOAD'); LD_PRELOAD=$P exec sort /dev/null");
    EXPECT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(child.out + child.err, "") << value;
    const std::string log = child.Read(OnlyFileLike(child, "qvlog\\..*"));
    EXPECT_NE(log.find("<!-- QVHEAP_OPTIONS is not understood: "), std::string::npos) << log;
    EXPECT_EQ(WhatIsOpen(log), "");
    EXPECT_EQ(FilesLike(child, "qvheap\\..*").size(), 1u);
    EXPECT_TRUE(FilesLike(child, "qvlog\\.log").empty());
  }
}

// The log goes on in its file, or in a new one if somebody removed that, and nowhere else.
TEST(QvheapOptions, TheLogSurvivesItsRemovalAndClosedDescriptors) {
  const ChildResult child =
      Shell("exec " QVHEAP
            " -quiet -dump fork -- bash -c 'exec 1>&- 2>&- 0<&-; rm qvlog.$$.xml; (:); exec sleep 0'");
  EXPECT_EQ(child.status, 0);
  for (const std::string& name : FilesLike(child, "qvlog\\..*")) {
    EXPECT_EQ(child.Read(name).find("<?xml "), 0u) << name;
  }
  EXPECT_EQ(child.out + child.err, "");
  EXPECT_GE(FilesLike(child, "qvlog\\..*").size(), 3u);
}

TEST(QvheapOptions, ADirectoryWhoseFilesCouldNotBeNamedIsRefused) {
  const ChildResult child = Shell(
      "N=$(printf '%0200d' 0); i=0; while [ $i -lt 20 ]; do mkdir $N && cd $N || exit 98; i=$((i+1)); "
      "done; " QVHEAP " -quiet -- true");
  EXPECT_EQ(child.status, 125);
  EXPECT_NE(child.err.find("the directory's name is too long"), std::string::npos) << child.err;
}

}  // namespace

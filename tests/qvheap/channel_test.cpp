// qvheap steered through its command channel, by qvctl: what each command does, how processes come to
// their channels and leave them, and that nothing stays behind in the system.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "tests/qvheap/shell.h"
#include "tests/qvheap/steered.h"

namespace {

using qvtest::CountKernelObjects;
using qvtest::CtlResult;
using qvtest::Steered;
using qvtest::WhatIsOpen;

using Figures = std::map<std::string, uint64_t>;

// The process's figures in a results file, with `paused` and the numbers among the root's attributes.
Figures ReadResults(const std::string& text) {
  EXPECT_EQ(WhatIsOpen(text), "") << text;
  Figures figures;
  const std::string head = text.substr(0, text.find("<sizes>"));
  const std::regex line("<([A-Za-z]+)>([0-9]+)</|(number)='([0-9]+)'");
  for (std::sregex_iterator at(head.begin(), head.end(), line), end; at != end; ++at) {
    figures[(*at)[1].str() + (*at)[3].str()] = std::stoull((*at)[2].str() + (*at)[4].str());
  }
  return figures;
}

// Takes a snapshot and reads it.
Figures Snapshot(const Steered& program, pid_t process, int number) {
  const std::string name = "qvheap." + std::to_string(process) + "." + std::to_string(number) + ".xml";
  const CtlResult result = program.Ctl(process, "snapshot");
  EXPECT_EQ(result.status, 0) << result.text;
  EXPECT_EQ(result.text, program.Folder() + "/" + name + "\n");
  const Figures figures = ReadResults(program.Read(name));
  EXPECT_EQ(figures.at("number"), uint64_t(number));
  return figures;
}

// The channel's thread lets go of the area a moment after the rest is gone.
void ExpectObjects(size_t count, const std::string& what) {
  if (!qvtest::KernelObjectsAreOurs()) return;
  auto objects = CountKernelObjects();
  for (int i = 0; i < 500 && objects.segments != count; i++) {
    usleep(10000);
    objects = CountKernelObjects();
  }
  EXPECT_EQ(objects.segments, count) << what;
  EXPECT_EQ(objects.semaphores, count) << what;
}

std::vector<int> Threads(pid_t process) {
  std::vector<int> threads;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
    threads.push_back(std::stoi(entry.path().filename()));
  }
  return threads;
}

// ---- Commands --------------------------------------------------------------------------------------

TEST(QvheapChannel, EachCommandDoesWhatItSays) {
  Steered program;
  const auto ctl = [&](const std::string& words) {
    const CtlResult result = program.Ctl(words);
    EXPECT_EQ(result.status, 0) << words << ": " << result.text;
  };
  program.Say("a 1000");
  const Figures first = Snapshot(program, program.Pid(), 1);
  EXPECT_EQ(first.at("allocations"), 1u);
  EXPECT_EQ(first.at("liveBytes"), 1000u);
  EXPECT_EQ(first.at("paused"), 0u);

  ctl("pause");
  program.Say("a 5000");
  program.Say("a 6000");
  program.Say("f");
  usleep(20000);
  const Figures paused = Snapshot(program, program.Pid(), 2);
  EXPECT_EQ(paused.at("allocations"), 1u);
  EXPECT_EQ(paused.at("releases"), 0u);
  EXPECT_EQ(paused.at("unknownReleases"), 1u);
  EXPECT_GE(paused.at("paused"), 20u);
  program.Say("f");
  program.Say("r 1700");  // the first block, which was counted: a release, and no allocation
  program.Say("f");
  const Figures released = Snapshot(program, program.Pid(), 3);
  EXPECT_EQ(released.at("releases"), 1u);
  EXPECT_EQ(released.at("reallocations"), 0u);
  EXPECT_EQ(released.at("unknownReleases"), 3u);
  EXPECT_EQ(released.at("liveBytes"), 0u);
  EXPECT_EQ(released.at("peakBytes"), 1000u);

  ctl("resume");
  program.Say("a 70000");
  program.Say("f");
  program.Say("a 300");
  const Figures resumed = Snapshot(program, program.Pid(), 4);
  EXPECT_EQ(resumed.at("allocations"), 3u);
  EXPECT_EQ(resumed.at("peakBytes"), 70000u);
  ctl("reset-peak");
  EXPECT_EQ(Snapshot(program, program.Pid(), 5).at("peakBytes"), 300u);
  program.Say("a 400");
  const Figures last = Snapshot(program, program.Pid(), 6);
  EXPECT_EQ(last.at("peakBytes"), 700u);
  EXPECT_EQ(last.at("paused"), resumed.at("paused"));

  ctl("send 12345");  // none of its commands: taken and forgotten
  ctl("stop");
  ExpectObjects(0, "stop");
  EXPECT_FALSE(program.HasChannel(program.Pid()));
  EXPECT_EQ(program.Ctl("snapshot").status, 2);
  program.Say("a 800");
  for (int i = 0; i < 500 && Threads(program.Pid()).size() != 1; i++) usleep(10000);
  EXPECT_EQ(Threads(program.Pid()).size(), 1u);
  program.Tell("Q");
  EXPECT_EQ(program.Wait(), 6);
  EXPECT_EQ(
      ReadResults(program.Read("qvheap." + std::to_string(program.Pid()) + ".xml")).at("liveBytes"),
      1500u);
  EXPECT_TRUE(program.Files(".*\\.part").empty());
}

TEST(QvheapChannel, ASnapshotThatCannotBeWrittenIsSaidAndLeavesNothing) {
  Steered program;
  const std::string part =
      program.Folder() + "/qvheap." + std::to_string(program.Pid()) + ".1.xml.part";
  std::filesystem::create_directory(part);
  const CtlResult result = program.Ctl("snapshot");
  EXPECT_EQ(result.status, 11);
  EXPECT_NE(result.text.find("the snapshot could not be written"), std::string::npos) << result.text;
  EXPECT_NE(program.Read("qvlog." + std::to_string(program.Pid()) + ".xml").find("CENSUS_NOT_WRITTEN"),
            std::string::npos);
  std::filesystem::remove(part);
  Snapshot(program, program.Pid(), 1);
  const std::string end = program.Folder() + "/qvheap." + std::to_string(program.Pid()) + ".xml";
  std::filesystem::create_directory(end);
  program.Tell("Q");
  EXPECT_EQ(program.Wait(), 6);
  EXPECT_TRUE(program.Files(".*\\.part").empty());
}

TEST(QvheapChannel, HeartbeatsWriteTheSeries) {
  Steered program("-every 1");
  const std::string name = "qvheap." + std::to_string(program.Pid()) + ".series";
  program.Say("a 5000");
  program.Say("f");
  program.Say("a 100");
  const auto lines = [&] {
    const std::string text = program.Read(name);
    return std::count(text.begin(), text.end(), '\n');
  };
  for (int i = 0; i < 3000 && lines() < 3; i++) usleep(10000);
  std::istringstream text(program.Read(name));
  std::string headings;
  std::getline(text, headings);
  EXPECT_EQ(headings,
            "elapsed\tliveBytes\tliveBlocks\tallocations\treleases\tbytesAllocated\tpeakBytes");
  uint64_t before = 0;
  for (int i = 0; i < 2; i++) {
    uint64_t elapsed = 0;
    std::string rest;
    text >> elapsed;
    std::getline(text, rest);
    EXPECT_GE(elapsed, before + 900);
    EXPECT_EQ(rest, "\t100\t1\t2\t1\t5100\t5000");
    before = elapsed;
  }
}

TEST(QvheapChannel, WithoutAChannelThereIsNoThreadAndNoFolder) {
  Steered program("-nochannel");
  program.Say("a 100000");
  usleep(150000);
  program.Say("a 100000");
  EXPECT_EQ(Threads(program.Pid()).size(), 1u);
  EXPECT_EQ(program.Files("[0-9]+").size(), 0u);
  ExpectObjects(0, "-nochannel");
}

// ---- The program is left alone ---------------------------------------------------------------------

TEST(QvheapChannel, TheProgramFindsEveryDescriptorFreeAndMayCloseThemAll) {
  Steered program;
  EXPECT_EQ(program.Say("C"), "wrong 0");
  Snapshot(program, program.Pid(), 1);
  program.Say("a 100000");
  EXPECT_EQ(Snapshot(program, program.Pid(), 2).at("liveBytes"), 100000u);
  EXPECT_EQ(program.Ctl("stop").status, 0);
  for (int i = 3; i <= 40; i++) {
    const std::string link = "/proc/" + std::to_string(program.Pid()) + "/fd/" + std::to_string(i);
    EXPECT_EQ(std::filesystem::read_symlink(link), program.Folder() + "/own." + std::to_string(i));
    EXPECT_EQ(program.Read("own." + std::to_string(i)), "");
  }
}

// While snapshots, log and series are written, the program closes and replaces whatever descriptor it
// can. What it writes goes to its own files, and nothing else does.
TEST(QvheapChannel, TheProgramMayReplaceDescriptorsWhileWeWrite) {
  Steered program("-dump all -every 1");
  program.Tell("H 20000");
  for (int i = 1; i <= 20; i++) Snapshot(program, program.Pid(), i);
  EXPECT_EQ(program.Answer(), "hammered 20000");
  for (int i = 3; i <= 40; i++) {
    EXPECT_EQ(program.Read("own." + std::to_string(i)), std::string(20000, 'x')) << i;
  }
}

// Each ends the wait on a semaphore, whatever signals are blocked.
TEST(QvheapChannel, StopsDoNotEndTheChannel) {
  Steered program;
  for (int i = 1; i <= 3; i++) {
    kill(program.Pid(), SIGSTOP);
    usleep(20000);
    kill(program.Pid(), SIGCONT);
    Snapshot(program, program.Pid(), i);
  }
  const std::vector<int> threads = Threads(program.Pid());
  ASSERT_EQ(threads.size(), 2u);
  std::ifstream status("/proc/" + std::to_string(program.Pid()) + "/task/" +
                       std::to_string(std::max(threads[0], threads[1])) + "/status");
  std::string blocked;
  for (std::string word; status >> word;) {
    if (word == "SigBlk:") status >> blocked;
  }
  EXPECT_EQ(blocked, "fffffffe7ffbfeff") << "no signal handler may run on the channel's thread";
}

// Which is forbidden to a process with two threads.
TEST(QvheapChannel, TheProgramMayMoveToAnotherNamespace) {
  std::string without;
  {
    Steered program("-nochannel");
    without = program.Say("n");
  }
  Steered program;
  EXPECT_EQ(program.Say("n"), without);
  if (without != "moved 0") GTEST_SKIP() << "the system does not let us: " << without;
  program.AwaitChannel(program.Pid());
  ExpectObjects(1, "a channel again");
}

TEST(QvheapChannel, ChildrenOfVforkTouchNothing) {
  Steered program;
  program.Say("a 100");
  EXPECT_EQ(program.Say("v 100"), "spawned 100");
  EXPECT_EQ(Snapshot(program, program.Pid(), 1).at("liveBytes"), 100u);
  ExpectObjects(1, "vfork");
}

// ---- Ends ------------------------------------------------------------------------------------------

TEST(QvheapChannel, EveryOrderlyEndLeavesNothing) {
  for (const char* end : {"Q", "X", "N"}) {
    Steered program;
    ExpectObjects(1, end);
    program.Tell(end);
    EXPECT_EQ(program.Wait(), 6);
    ExpectObjects(0, end);
    EXPECT_EQ(program.Files("[0-9]+").size(), 0u) << end;
  }
}

TEST(QvheapChannel, ExecEndsAChannelAndTheNewImageOpensItsOwn) {
  Steered program;
  Snapshot(program, program.Pid(), 1);
  EXPECT_EQ(program.Say("E"), "ready " + std::to_string(program.Pid()));
  ExpectObjects(1, "exec");
  program.Say("a 10");
  EXPECT_EQ(Snapshot(program, program.Pid(), 2).at("liveBytes"), 10u);  // the first is not overwritten
  program.Tell("S " STATIC_SUBJECT);
  EXPECT_EQ(program.Wait(), 0);
  ExpectObjects(0, "exec of a program that cannot be counted");
  EXPECT_EQ(program.Files("[0-9]+").size(), 0u);
}

TEST(QvheapChannel, AnExecThatFailsGivesTheChannelBack) {
  Steered program;
  EXPECT_EQ(program.Say("U"), "done 1");
  program.AwaitChannel(program.Pid());
  Snapshot(program, program.Pid(), 1);
  ExpectObjects(1, "failed exec");
  EXPECT_EQ(program.Ctl("stop").status, 0);
}

// The channel's thread must not keep a process alive whose own threads have all ended.
TEST(QvheapChannel, AProcessEndsWithItsLastThread) {
  Steered program;
  program.Say("a 10");
  EXPECT_EQ(program.Say("P"), "leaving 0");
  EXPECT_EQ(program.Wait(), 0);
  ExpectObjects(0, "pthread_exit");
  EXPECT_EQ(program.Files("qvheap\\.[0-9]+\\.xml").size(), 1u);
}

TEST(QvheapChannel, TheLastSnapshotSurvivesAKillAndCleanRemovesTheRest) {
  Steered program;
  program.Say("a 12345");
  Snapshot(program, program.Pid(), 1);
  Snapshot(program, program.Pid(), 2);
  kill(program.Pid(), SIGKILL);
  EXPECT_EQ(program.Wait(), 128 + SIGKILL);
  EXPECT_EQ(program.Ctl("snapshot").status, 4);
  const std::string name = "qvheap." + std::to_string(program.Pid()) + ".2.xml";
  EXPECT_EQ(ReadResults(program.Read(name)).at("liveBytes"), 12345u);
  EXPECT_TRUE(program.Files(".*\\.part").empty());
  ExpectObjects(1, "kill");
  EXPECT_EQ(program.Ctl("clean").status, 0);
  ExpectObjects(0, "clean");
  EXPECT_EQ(program.Files("[0-9]+").size(), 0u);
}

// A lock file's semaphore key depends on its inode alone, modulo 65536: those of other channels on the
// machine are not taken over, and not taken away. Where the next files get these inodes again, it shows.
TEST(QvheapChannel, SemaphoresOfOthersAreLeftAlone) {
  if (!qvtest::KernelObjectsAreOurs()) GTEST_SKIP() << "takes a namespace of its own";
  const std::string folder = testing::TempDir() + "keys." + std::to_string(getpid());
  std::filesystem::create_directory(folder);
  std::vector<int> others;
  for (int i = 0; i < 5; i++) {
    const std::string file = folder + "/" + std::to_string(i);
    std::ofstream(file) << i;
    others.push_back(semget(ftok(file.c_str(), 0), 1, IPC_CREAT | 0600));
  }
  std::filesystem::remove_all(folder);
  {
    Steered program;
    EXPECT_EQ(program.Ctl("status").status, 0);
    program.Tell("Q");
    EXPECT_EQ(program.Wait(), 6);
    EXPECT_EQ(program.Files("[0-9]+").size(), 0u);
  }
  for (const int set : others) EXPECT_EQ(semctl(set, 0, IPC_RMID), 0);
}

// ---- Children --------------------------------------------------------------------------------------

TEST(QvheapChannel, AChildHasAChannelOfItsOwn) {
  Steered program("-every 1");
  program.Say("a 1000");
  const std::string answer = program.Say("F");
  ASSERT_EQ(answer.find("child "), 0u);
  const pid_t child = std::stoi(answer.substr(6));
  EXPECT_FALSE(program.HasChannel(child));
  EXPECT_EQ(Threads(child).size(), 1u);
  EXPECT_EQ(Snapshot(program, program.Pid(), 1).at("liveBytes"), 1000u);
  program.AwaitChannel(child);
  ExpectObjects(2, "two processes");
  EXPECT_EQ(program.Ctl(child, "stop").status, 0);
  ExpectObjects(1, "the child's is stopped");
  EXPECT_EQ(program.Say("X"), "parent 6");
  EXPECT_EQ(Snapshot(program, program.Pid(), 2).at("liveBytes"), 1000u);
  ExpectObjects(1, "the parent's stays");
}

TEST(QvheapChannel, AChildThatEndsRemovesItsOwnAlone) {
  for (const char* end : {"Q", "X", "E"}) {  // the image that E runs ends when it is told to, by Q
    Steered program;
    const pid_t child = std::stoi(program.Say("F").substr(6));
    program.AwaitChannel(child);
    const bool isExec = *end == 'E';
    if (isExec) {
      EXPECT_EQ(program.Say(end), "ready " + std::to_string(child));
    }
    ExpectObjects(isExec ? 1 : 2, end);
    EXPECT_EQ(program.Say(isExec ? "Q" : end), "parent 6");
    ExpectObjects(1, end);
    Snapshot(program, program.Pid(), 1);
  }
}

TEST(QvheapChannel, ADaemonLeavesNothingOfItsFormerProcess) {
  Steered program;
  const std::string answer = program.Say("D");
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_FALSE(program.HasChannel(program.Pid()));
  const pid_t daemon = std::stoi(answer.substr(7));
  program.AwaitChannel(daemon);
  ExpectObjects(1, "daemon");
  program.Tell("Q");
  EXPECT_EQ(program.Answer(), "");
  for (int i = 0; i < 3000 && kill(daemon, 0) == 0; i++) usleep(10000);
  ExpectObjects(0, "the daemon's end");
}

}  // namespace

// qvheap on a server that forks to save while it serves: it brings an allocator of its own, has threads,
// and the child that saves leaves by _exit.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/qvheap/results.h"
#include "tests/qvheap/shell.h"

namespace {

using qvtest::ChildResult;
using qvtest::FilesLike;
using qvtest::ReadResults;
using qvtest::Results;
using qvtest::Shell;

// $RUN stands before the server, $MEANWHILE is done while it is under load and saves. What it prints is
// what the same commands leave behind in every run.
constexpr char kSession[] = R"--(
cli() { redis-cli -s socket "$@"; }
load() { redis-benchmark -s socket -q -c 8 -n $1 -t set,incr,lpush,lpop,sadd,hset,lrange_100 >load 2>&1; }
await() { i=0; until eval "$1" || [ $i -gt 200 ]; do i=$((i+1)); sleep 0.05; done; }
$RUN redis-server --port 0 --unixsocket socket --dir . --save '' --logfile server.log &
SERVER=$!
await '[ "$(cli ping 2>&1)" = PONG ]'
load 4000 || echo "no load"
load 8000 & LOAD=$!
cli bgsave
eval "$MEANWHILE"
wait $LOAD; echo $?
await 'cli info persistence | grep -q bgsave_in_progress:0'
cli info persistence | grep -E 'rdb_saves|rdb_last_bgsave_status'
cli dbsize; cli llen mylist; cli get counter:__rand_int__; cli dump mylist | cksum
cli shutdown nosave; wait $SERVER; echo "status $?"; redis-check-rdb dump.rdb | tail -1
)--";

ChildResult RunSession(const std::string& mode) {
  const std::string run = "mkdir results; RUN=\"" QVHEAP " -quiet -out results " + mode + " --\"; ";
  const std::string meanwhile = "MEANWHILE='" QVCTL " results/$SERVER snapshot >snapshot'; ";
  return Shell(mode == "plain" ? "RUN=; MEANWHILE=:; " + std::string(kSession)
                               : run + meanwhile + kSession);
}

// The threads' own figures stand between the process's and the modules.
uint64_t SumOverThreads(const Results& results, const std::string& figure) {
  const size_t from = results.text.find("</process>");
  const std::string part = results.text.substr(from, results.text.find("<modules", from) - from);
  const std::regex element("<" + figure + ">([0-9]+)<");
  uint64_t sum = 0;
  for (std::sregex_iterator at(part.begin(), part.end(), element), end; at != end; ++at) {
    sum += std::stoull((*at)[1]);
  }
  return sum;
}

// While a snapshot is written the program goes on: its threads' figures are a little later than the
// process's.
void ExpectConsistent(const Results& results, bool atEnd) {
  const qvtest::Figures& process = results.process;
  EXPECT_GT(process.at("allocations"), 10000u);
  EXPECT_GE(process.at("peakBytes"), process.at("liveBytes"));
  for (const char* figure : {"allocations", "releases", "bytesAllocated", "bytesReleased"}) {
    const uint64_t sum = SumOverThreads(results, figure);
    EXPECT_TRUE(sum == process.at(figure) || (!atEnd && sum > process.at(figure))) << figure << sum;
  }
  for (const char* figure : {"unknownReleases", "unrecorded"}) EXPECT_EQ(process.at(figure), 0u);
  EXPECT_EQ(results.missed, 0u);
}

// But for what libraries make as they are loaded, before the options are read, and keep.
void ExpectSitesToAddUp(const Results& results) {
  const auto missing = [&](const std::string& figure) {
    return results.process.at(figure) - results.SumOverSites(figure);
  };
  EXPECT_LT(missing("allocations"), 10u);
  EXPECT_EQ(missing("liveBlocks"), missing("allocations"));
  EXPECT_EQ(missing("liveBytes"), missing("bytesAllocated"));
  EXPECT_EQ(missing("releases"), 0u);
}

TEST(QvheapRedis, UnderLoadAndWhileItSavesItDoesWhatItDoesWithoutIt) {
  if (Shell("command -v redis-server redis-benchmark redis-cli redis-check-rdb").status != 0)
    GTEST_SKIP() << "redis-server is not installed";
  const ChildResult plain = RunSession("plain");
  ASSERT_NE(plain.out.find("rdb_last_bgsave_status:ok"), std::string::npos) << plain.out;
  for (const std::string mode : {"-interval 4096", "-exact"}) {
    const ChildResult counted = RunSession(mode);
    EXPECT_EQ(counted.out, plain.out) << mode;
    EXPECT_EQ(counted.err, plain.err) << mode;
    const std::string snapshotPath = counted.Read("snapshot");
    const size_t name = snapshotPath.rfind("qvheap.");
    ASSERT_NE(name, std::string::npos) << mode << ": no snapshot";
    const std::string snapshotName = snapshotPath.substr(name, snapshotPath.find('\n', name) - name);
    const std::string endName = snapshotName.substr(0, snapshotName.size() - 6) + ".xml";  // ".1.xml"
    const Results end = ReadResults(counted.Read("results/" + endName));
    const Results snapshot = ReadResults(counted.Read("results/" + snapshotName));
    ExpectConsistent(end, true);
    ExpectConsistent(snapshot, false);
    EXPECT_LT(snapshot.process.at("allocations"), end.process.at("allocations")) << mode;
    if (mode == "-exact") ExpectSitesToAddUp(end);
  }
}

}  // namespace

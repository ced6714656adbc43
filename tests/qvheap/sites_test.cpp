// qvheap's sites, from outside: a program that allocates at known places and keeps its own log
// (tests/qvheap/sites_subject.c), and what the results file says of them.
#include <gtest/gtest.h>
#include <math.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/qvheap/results.h"
#include "tests/qvheap/shell.h"

namespace {

using qvtest::ChildResult;
using qvtest::FilesLike;
using qvtest::OnlyFileLike;
using qvtest::ReadResults;
using qvtest::Results;
using qvtest::ResultsModule;
using qvtest::ResultsSite;
using qvtest::Shell;

constexpr char kResultsPattern[] = "qvheap\\.[0-9]+\\.xml";
constexpr int kPlaces = 11;
constexpr double kInterval = 65536;

Results ResultsOf(const ChildResult& child) {
  return ReadResults(child.Read(OnlyFileLike(child, kResultsPattern)));
}

ChildResult RunSites(const std::string& options, const std::string& arguments) {
  return Shell("exec " QVHEAP " -quiet " + options + " -- " SITES_SUBJECT " " + arguments);
}

// What the program says of one of its places.
struct Place {
  uint64_t address = 0, allocations = 0, releases = 0, bytesAllocated = 0, bytesReleased = 0;
  uint64_t liveBytes = 0, peakBytes = 0, liveAtPeakBytes = 0;
};

std::vector<Place> ReadLog(const ChildResult& child) {
  std::istringstream lines(child.Read("sites.txt"));
  std::vector<Place> places;
  int number;
  for (Place p; lines >> number >> std::hex >> p.address >> std::dec >> p.allocations >> p.releases >>
                p.bytesAllocated >> p.bytesReleased >> p.liveBytes >> p.peakBytes >>
                p.liveAtPeakBytes;) {
    places.push_back(p);
  }
  EXPECT_EQ(places.size(), size_t{kPlaces});
  return places;
}

// The sites whose innermost frame lies in the function at this place; functions are next to one
// another.
std::vector<const ResultsSite*> SitesAt(const Results& results, const std::vector<Place>& places,
                                        const Place& place) {
  uint64_t end = place.address + 200;
  for (const Place& other : places) {
    if (other.address > place.address) end = std::min(end, other.address);
  }
  std::vector<const ResultsSite*> sites;
  for (const ResultsSite& site : results.sites) {
    if (!site.stack.empty() && site.stack[0] > place.address && site.stack[0] <= end)
      sites.push_back(&site);
  }
  return sites;
}

uint64_t Sum(const std::vector<const ResultsSite*>& sites, const std::string& figure) {
  uint64_t sum = 0;
  for (const ResultsSite* site : sites) sum += site->figures.at(figure);
  return sum;
}

// ---- Exact mode ------------------------------------------------------------------------------------

TEST(QvheapSites, ExactModeAgreesWithTheProgramsOwnLogInEveryFigure) {
  for (int seed = 1; seed <= 3; seed++) {
    const ChildResult child = RunSites("-exact", "known " + std::to_string(seed));
    ASSERT_EQ(child.status, 0) << child.err;
    const Results results = ResultsOf(child);
    const std::vector<Place> places = ReadLog(child);
    for (const Place& place : places) {
      const std::vector<const ResultsSite*> sites = SitesAt(results, places, place);
      ASSERT_EQ(sites.size(), 1u) << "seed " << seed << " place " << &place - places.data();
      const qvtest::Figures& figures = sites[0]->figures;
      EXPECT_EQ(figures.at("samples"), place.allocations);
      EXPECT_EQ(figures.at("allocations"), place.allocations);
      EXPECT_EQ(figures.at("releases"), place.releases);
      EXPECT_EQ(figures.at("bytesAllocated"), place.bytesAllocated);
      EXPECT_EQ(figures.at("bytesReleased"), place.bytesReleased);
      EXPECT_EQ(figures.at("liveBlocks"), place.allocations - place.releases);
      EXPECT_EQ(figures.at("liveBytes"), place.liveBytes);
      EXPECT_EQ(figures.at("peakBytes"), place.peakBytes);
      EXPECT_EQ(figures.at("liveAtPeakBytes"), place.liveAtPeakBytes);
      EXPECT_EQ(figures.at("never"), place.allocations - place.releases);
      EXPECT_EQ(figures.at("within1ms") + figures.at("within1s") + figures.at("longer"),
                place.releases);
    }
    for (const char* figure :
         {"allocations", "releases", "bytesAllocated", "bytesReleased", "liveBytes", "liveBlocks"}) {
      EXPECT_EQ(results.SumOverSites(figure), results.process.at(figure)) << figure;
    }
    EXPECT_EQ(results.SumOverSites("liveAtPeakBytes"), results.process.at("peakBytes"));
  }
}

TEST(QvheapSites, AreWrittenByWhatTheyHeldAtThePeakLargestFirst) {
  const Results results = ResultsOf(RunSites("-exact", "known 9"));
  ASSERT_GE(results.sites.size(), size_t{kPlaces});
  for (size_t i = 1; i < results.sites.size(); i++) {
    EXPECT_GE(results.sites[i - 1].figures.at("liveAtPeakBytes"),
              results.sites[i].figures.at("liveAtPeakBytes"));
  }
  EXPECT_EQ(results.folded, 0u);
}

// Who has slept so long has surely lived so long; what is released at once may be held up, but not
// mostly.
TEST(QvheapSites, LifetimesAreInTheirClasses) {
  const ChildResult child = RunSites("-exact", "lifetimes");
  const Results results = ResultsOf(child);
  const std::vector<Place> places = ReadLog(child);
  EXPECT_GT(Sum(SitesAt(results, places, places[0]), "within1ms"), 800u);
  EXPECT_EQ(Sum(SitesAt(results, places, places[1]), "within1ms"), 0u);
  EXPECT_GT(Sum(SitesAt(results, places, places[1]), "within1s"), 10u);
  EXPECT_EQ(Sum(SitesAt(results, places, places[2]), "longer"), 5u);
  EXPECT_EQ(Sum(SitesAt(results, places, places[3]), "never"), 7u);
}

TEST(QvheapSites, KnowTheirThreadsAndWhatEachOfThemAllocated) {
  const ChildResult child = RunSites("-exact", "threads");
  const Results results = ResultsOf(child);
  const std::vector<Place> places = ReadLog(child);
  const std::vector<const ResultsSite*> shared = SitesAt(results, places, places[9]);
  ASSERT_EQ(shared.size(), 1u);
  EXPECT_EQ(shared[0]->threadCount, 3u);
  std::istringstream lines(child.Read("threads.txt"));
  int seen = 0;
  for (int number, id; lines >> number >> id; seen++) {
    const uint64_t blocks = uint64_t(100 * (number + 1));
    ASSERT_EQ(shared[0]->threads.count(id), 1u);
    EXPECT_EQ(shared[0]->threads.at(id).at("allocations"), blocks);
    EXPECT_EQ(shared[0]->threads.at(id).at("bytes"), blocks * uint64_t(20 + number));
    const std::vector<const ResultsSite*> own = SitesAt(results, places, places[size_t(number)]);
    ASSERT_EQ(own.size(), 1u);
    EXPECT_EQ(own[0]->threadCount, 1u);
    EXPECT_EQ(own[0]->threads.at(id).at("allocations"), 50u);
  }
  EXPECT_EQ(seen, 3);
}

// ---- Stacks ----------------------------------------------------------------------------------------

TEST(QvheapSites, StacksAreThoseThatLibcsUnwinderSees) {
  const ChildResult child = RunSites("-exact", "stacks");
  ASSERT_EQ(child.status, 0) << child.err;
  const Results results = ResultsOf(child);
  std::istringstream lines(child.Read("stacks.txt"));
  int compared = 0;
  for (std::string line; std::getline(lines, line); compared++) {
    std::vector<uint64_t> frames;
    std::istringstream words(line);
    for (std::string word; words >> word;) frames.push_back(std::stoull(word, nullptr, 16));
    const auto sameStack = [&](const ResultsSite& site) {
      return site.stack.size() > frames.size() &&
             std::equal(frames.begin(), frames.end(), site.stack.begin() + 1);
    };
    EXPECT_EQ(std::count_if(results.sites.begin(), results.sites.end(), sameStack), 1) << line;
  }
  EXPECT_GE(compared, 5);
}

// Each walk but the first goes along the one before where it can. A frame taken from there that is no
// longer the stack's gives a stack that the program never had.
TEST(QvheapSites, NoStackIsTakenForTheOneBefore) {
  for (int seed : {1, 2, 3}) {
    const ChildResult child =
        Shell("exec " QVHEAP " -quiet -exact -- " WANDER " " + std::to_string(seed));
    ASSERT_EQ(child.status, 0) << child.err;
    std::map<std::vector<uint64_t>, uint64_t> found;
    std::set<std::vector<uint64_t>> stacks;
    for (const ResultsSite& site : ResultsOf(child).sites) {
      EXPECT_TRUE(stacks.insert(site.stack).second) << "two sites have one stack";
      found[{site.stack.begin() + 1, site.stack.end()}] += site.figures.at("allocations");
    }
    std::istringstream lines(child.Read("stacks.txt"));
    size_t compared = 0;
    for (std::string line; std::getline(lines, line); compared++) {
      std::istringstream words(line);
      uint64_t hits;
      words >> hits;
      std::vector<uint64_t> frames;
      for (std::string word; words >> word;) frames.push_back(std::stoull(word, nullptr, 16));
      ASSERT_EQ(found[frames], hits) << line;
    }
    EXPECT_GT(compared, 3000u);
  }
}

TEST(QvheapSites, AStackEndsAtAWordThatIsNoAddress) {
  const ChildResult child = RunSites("-exact", "coroutine");
  ASSERT_EQ(child.status, 0) << child.err;
  const Results results = ResultsOf(child);
  const auto isOurs = [](const ResultsSite& site) { return site.figures.at("allocations") >= 1000; };
  EXPECT_EQ(std::count_if(results.sites.begin(), results.sites.end(), isOurs), 1);
  EXPECT_LT(results.sites.size(), 20u);
}

TEST(QvheapSites, TheLibrarysCaptureIsBoundToTheCollectorsUnwinder) {
  const ChildResult child = Shell("LD_DEBUG=bindings exec " QVHEAP " -quiet -- " SITES_SUBJECT " none");
  EXPECT_NE(child.err.find("/libqvrt12.so [0] to " COLLECTOR " [0]: normal symbol `backtrace'"),
            std::string::npos);
}

// Two images, one after the other at the same addresses: a stack belongs to the one of its time.
TEST(QvheapSites, AStackIsOfTheImagesOfItsEpoch) {
  const ChildResult child = RunSites("-exact", "images " PLUGIN_A " " PLUGIN_B " " PLUGIN_A);
  ASSERT_EQ(child.status, 0) << child.err;
  const Results results = ResultsOf(child);
  std::vector<const ResultsModule*> plugins;
  for (const ResultsModule& module : results.modules) {
    if (module.path == PLUGIN_A || module.path == PLUGIN_B) plugins.insert(plugins.begin(), &module);
  }
  ASSERT_EQ(plugins.size(), 3u);
  EXPECT_EQ(plugins[0]->path, PLUGIN_A);
  EXPECT_EQ(plugins[1]->path, PLUGIN_B);
  EXPECT_EQ(plugins[2]->path, PLUGIN_A);
  EXPECT_EQ(plugins[0]->buildId.size(), 40u);
  for (size_t i = 0; i < 3; i++) {
    const ResultsModule& plugin = *plugins[i];
    EXPECT_FALSE(plugin.isThere);
    if (i > 0) {
      EXPECT_GT(plugin.from, plugins[i - 1]->to);
    }
    uint64_t blocks = 0;
    for (const ResultsSite& site : results.sites) {
      const bool inRange = site.stack[0] > plugin.start && site.stack[0] < plugin.end;
      if (inRange && site.epoch >= plugin.from && site.epoch <= plugin.to)
        blocks += site.figures.at("allocations");
    }
    EXPECT_EQ(blocks, 10u) << i;
  }
}

// ---- Sampled mode ----------------------------------------------------------------------------------

// A block of s bytes is looked at with probability p = 1 - exp(-s / interval), and counts 1 / p. Of n
// blocks the estimate has the variance n (1 / p - 1), in units of blocks. Seeds are fixed, so the
// outcome is too.
TEST(QvheapSites, SampledEstimatesLieWithinTheErrorOfTheTheory) {
  constexpr int kSeeds = 20;
  double sums[kPlaces] = {}, squares[kPlaces] = {}, deviations[kPlaces] = {};
  std::vector<Place> places;
  for (int seed = 1; seed <= kSeeds; seed++) {
    const ChildResult child = Shell("QVHEAP_SEED=" + std::to_string(seed) +
                                    " exec " QVHEAP " -quiet -- " SITES_SUBJECT " sampled");
    ASSERT_EQ(child.status, 0) << child.err;
    const Results results = ResultsOf(child);
    places = ReadLog(child);
    for (size_t i = 0; i + 1 < kPlaces; i++) {
      const double bytes = double(places[i].bytesAllocated) / double(places[i].allocations);
      const double inverse = 1 / (1 - exp(-bytes / kInterval));
      deviations[i] = sqrt(double(places[i].allocations) * (inverse - 1));
      const double error = double(Sum(SitesAt(results, places, places[i]), "allocations")) -
                           double(places[i].allocations);
      EXPECT_LT(fabs(error), 5 * deviations[i]) << "seed " << seed << " place " << i;
      sums[i] += error;
      squares[i] += error * error;
    }
    EXPECT_EQ(results.process.at("allocations"), 30000u);  // always exact
  }
  double meanSquare = 0;
  for (size_t i = 0; i + 1 < kPlaces; i++) {
    EXPECT_LT(fabs(sums[i] / kSeeds), 3.5 * deviations[i] / sqrt(kSeeds)) << "place " << i;
    meanSquare += squares[i] / (deviations[i] * deviations[i]) / kSeeds / (kPlaces - 1);
  }
  EXPECT_GT(meanSquare,
            0.7);  // 200 squares of mean 1: neither are they too far off nor is it not sampled at all
  EXPECT_LT(meanSquare, 1.35);
}

TEST(QvheapSites, WhatSamplingAddsItTakesAwayToTheLastBit) {
  const ChildResult child =
      Shell("QVHEAP_SEED=3 exec " QVHEAP " -quiet -interval 100 -- " SITES_SUBJECT " known 4");
  const Results results = ResultsOf(child);
  const std::vector<Place> places = ReadLog(child);
  EXPECT_NEAR(double(results.SumOverSites("liveBytes")), double(results.process.at("liveBytes")),
              0.05 * double(results.process.at("liveBytes")));
  for (const ResultsSite& site : results.sites) {
    const uint64_t released =
        site.figures.at("within1ms") + site.figures.at("within1s") + site.figures.at("longer");
    EXPECT_NEAR(double(released), double(site.figures.at("releases")), 2);  // each is rounded
    EXPECT_LT(site.figures.at("liveBlocks"), uint64_t{1} << 40);            // never below nothing
  }
}

// ---- The rest of the file --------------------------------------------------------------------------

TEST(QvheapSites, TheTimelineIsEvenAndBounded) {
  for (const char* options : {"", "-exact"}) {
    const Results results = ResultsOf(RunSites(options, "known 5"));
    ASSERT_GT(results.timeline.size(), 20u);
    EXPECT_LE(results.timeline.size(), 200u);
    const uint64_t all = results.process.at("bytesAllocated");
    for (size_t i = 1; i < results.timeline.size(); i++) {
      EXPECT_GE(results.timeline[i].at("time"), results.timeline[i - 1].at("time"));
      EXPECT_GE(results.timeline[i].at("bytesAllocated"), results.timeline[i - 1].at("bytesAllocated"));
      EXPECT_LT(results.timeline[i].at("bytesAllocated") - results.timeline[i - 1].at("bytesAllocated"),
                all / 25);
    }
    EXPECT_EQ(results.timeline.back().at("bytesAllocated"), all);
    EXPECT_EQ(results.timeline.back().at("liveBytes"), results.process.at("liveBytes"));
  }
}

TEST(QvheapSites, EverythingTheCollectorHoldsIsInItsCategories) {
  const Results results = ResultsOf(RunSites("-exact", "known 6"));
  uint64_t sum = 0;
  for (const auto& [name, bytes] : results.memory) sum += bytes;
  const uint64_t held = std::stoull(results.text.substr(results.text.find("<collectorBytes>") + 16));
  EXPECT_NEAR(double(sum), double(held), 0.02 * double(held));
  for (const char* name : {"sites", "stacks", "threads", "blockSizes", "liveBlocks", "modules"}) {
    EXPECT_GT(results.memory.at(name), 0u) << name;
  }
}

// ---- Bad weather -----------------------------------------------------------------------------------

TEST(QvheapSites, ForksAmidThreadsThatAreLookedAtNeitherHangNorMixProcesses) {
  const ChildResult child = Shell("exec " QVHEAP " -quiet -exact -- " SUBJECT " forks 300");
  ASSERT_EQ(child.status, 0) << child.err;
  const std::vector<std::string> files = FilesLike(child, kResultsPattern);
  EXPECT_EQ(files.size(), 301u);
  for (const std::string& file : files) {
    const Results results = ReadResults(child.Read(file));
    if (results.process.at("bytesAllocated") > 100000) continue;  // the parent
    for (const char* figure : {"allocations", "releases", "bytesAllocated", "liveBytes"}) {
      EXPECT_EQ(results.SumOverSites(figure), results.process.at(figure)) << file << " " << figure;
    }
  }
}

TEST(QvheapSites, AProgramThatExitsFromASignalHandlerWhileItIsLookedAtDoesNotHang) {
  for (int i = 0; i < 15; i++) {
    const ChildResult child = Shell("exec " QVHEAP " -quiet -exact -- " SUBJECT " interrupted");
    ASSERT_EQ(child.status, 3) << child.err;
    ResultsOf(child);
  }
}

// The least that the program itself needs is some 20 MB. A limit a little above that leaves the
// collector too little, and the program may feel it, as it would feel any use of its address space;
// with 18 MB more it does what it does, however much of it is recorded.
TEST(QvheapSites, UnderALimitOnAddressSpaceTheProgramDoesWhatItDoes) {
  for (const char* options : {"", "-exact"}) {
    for (int megabytes = 18; megabytes <= 60; megabytes += 3) {
      const ChildResult child =
          Shell("ulimit -v " + std::to_string(megabytes) + "000; exec " QVHEAP " -quiet " + options +
                " -- " SITES_SUBJECT " known 7");
      const bool ranShort = child.err.find("no block") != std::string::npos;
      EXPECT_TRUE(child.status == 0 || (ranShort && megabytes < 36))
          << megabytes << options << " status " << child.status << child.err;
      for (const std::string& file : FilesLike(child, kResultsPattern)) ReadResults(child.Read(file));
    }
  }
}

// Where the memory ends, in the making of a site or in the report, depends on where the kernel puts
// images. All sites have one size, so a shortage that folded what is small would fold all of them; and
// one that folded at each new site would leave a handful.
TEST(QvheapSites, InAShortageOfMemorySmallSitesAreFoldedAndNothingIsLost) {
  for (int megabytes : {24, 34, 44}) {
    const ChildResult child = Shell("ulimit -v " + std::to_string(megabytes) +
                                    "000; exec " QVHEAP " -quiet -exact -- " SITES_SUBJECT " branches");
    ASSERT_EQ(child.status, 0) << child.err;
    const Results results = ResultsOf(child);
    EXPECT_GT(results.folded, 1000u) << megabytes;
    EXPECT_GT(results.sites.size(), 4000u) << megabytes;
    EXPECT_LT(results.sites.size(), 60000u) << megabytes;
    EXPECT_EQ(results.SumOverSites("allocations"), 65536u) << megabytes;
    EXPECT_EQ(results.SumOverSites("releases"), 65536u) << megabytes;
    EXPECT_EQ(results.missed, 0u) << megabytes;
  }
  const ChildResult ample = RunSites("-exact", "branches");
  const Results all = ResultsOf(ample);
  EXPECT_EQ(all.folded, 0u);
  EXPECT_EQ(all.sites.size(), 65536u);
}

TEST(QvheapSites, AFullDiskLeavesNoFileUnderTheResultsName) {
  const ChildResult child =
      Shell("ulimit -f 2; exec " QVHEAP " -quiet -exact -- " SITES_SUBJECT " known 8");
  EXPECT_EQ(child.status, 0) << child.err;
  EXPECT_TRUE(FilesLike(child, "qvheap\\..*").empty());
  EXPECT_NE(child.Read(OnlyFileLike(child, "qvlog\\..*")).find("CENSUS_NOT_WRITTEN"),
            std::string::npos);
}

TEST(QvheapSites, AnOutputDirectoryThatVanishesChangesNothingForTheProgram) {
  for (const char* options : {"", "-exact", "-nochannel"}) {
    const ChildResult child = Shell("mkdir gone; exec " QVHEAP " -quiet " + std::string(options) +
                                    " -out gone -- bash -c 'rm -r gone; echo done; exit 7'");
    EXPECT_EQ(child.status, 7) << child.err;
    EXPECT_EQ(child.out, "done\n");
    EXPECT_EQ(child.err, "");
    EXPECT_TRUE(FilesLike(child, "(qv|gone|[0-9]).*").empty());
  }
}

}  // namespace

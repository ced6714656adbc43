// The main program of every benchmark: default flags, the run, the table. Design: support/bench.h.
#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bench/support/bench.h"
#include "host/qvhost.h"
#include "include/qvrt.h"

namespace qvbench {
namespace {

constexpr char kOurs[] = "qvrt";
constexpr char kOperations[] = "ops";  // the counter that holds operations per iteration

bool g_smoke = false;

struct AimOf {
  std::string group, peer;  // the peer is ours for an aim in ns
  double most;
};
std::vector<AimOf>& Aims() {
  static std::vector<AimOf> aims;
  return aims;
}

double Median(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  const size_t half = samples.size() / 2;
  return samples.size() % 2 != 0 ? samples[half] : (samples[half - 1] + samples[half]) / 2;
}

// Collects ns per operation by group and side, and prints them in the order of registration.
class Table : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& context) override {
    PrintBasicContext(&GetErrorStream(), context);
    return true;
  }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) Take(run);
  }
  void Finalize() override {
    printf("%-34s %-20s %12s %10s %8s\n", "group", "", "ns/op", "qvrt/peer", "aim");
    for (const auto& [order, side] : sides_) {
      Group& group = GroupOf(side.group);
      group.sides.insert(side.who == kOurs ? group.sides.begin() : group.sides.end(), &side);
    }
    for (const Group& group : groups_) PrintGroup(group);
  }
  bool Failed() const { return failed_; }

 private:
  using Order = std::pair<int64_t, int64_t>;  // of registration, of the arguments
  struct Side {
    std::string group, who;
    std::vector<double> samples;
  };
  struct Group {
    std::string name;
    std::vector<const Side*> sides;
  };

  void Take(const Run& run) {
    if (run.error_occurred) {
      fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
      failed_ = true;
    } else if (run.run_type == Run::RT_Iteration) {
      Side& side = sides_[{run.family_index, run.per_family_instance_index}];
      side.group = GroupName(run.run_name);
      side.who = run.run_name.function_name.substr(run.run_name.function_name.find('/') + 1);
      side.samples.push_back(NanosecondsPerOperation(run));
    }
  }

  static std::string GroupName(const benchmark::BenchmarkName& name) {
    std::string group = name.function_name.substr(0, name.function_name.find('/'));
    if (!name.args.empty()) group += "/" + name.args;
    return group;
  }

  static double NanosecondsPerOperation(const Run& run) {
    const bool cpuTime = run.run_name.time_type.empty();
    const double time = cpuTime ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
    const auto operations = run.counters.find(kOperations);
    return time * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit) /
           (operations == run.counters.end() ? 1 : operations->second.value);
  }

  Group& GroupOf(const std::string& name) {
    for (Group& group : groups_) {
      if (group.name == name) return group;
    }
    return groups_.emplace_back(Group{name, {}});
  }

  // The aim of a group, most specific first: "malloc_batch/64" before "malloc_batch".
  static const AimOf* FindAim(std::string group, const std::string& peer) {
    for (;;) {
      for (const AimOf& aim : Aims()) {
        if (aim.group == group && aim.peer == peer) return &aim;
      }
      const size_t slash = group.rfind('/');
      if (slash == std::string::npos) return nullptr;
      group.resize(slash);
    }
  }

  static void PrintGroup(const Group& group) {
    const char* title = group.name.c_str();
    double ours = 0;
    for (const Side* side : group.sides) {
      const double median = Median(side->samples);
      printf("%-34s %-20s %12.2f", title, side->who.c_str(), median);
      title = "";
      const AimOf* const aim = FindAim(group.name, side->who);
      if (side->who == kOurs) {
        ours = median;
        if (aim != nullptr) printf(" %10s %8.0f%s", "", aim->most, Verdict(ours, *aim));
      } else if (ours != 0) {
        printf(" %10.3f", ours / median);
        if (aim != nullptr) printf(" %8.2f%s", aim->most, Verdict(ours / median, *aim));
      }
      printf("\n");
    }
  }

  static const char* Verdict(double value, const AimOf& aim) {
    return value <= aim.most ? "" : "  missed";
  }

  std::map<Order, Side> sides_;
  std::vector<Group> groups_;
  bool failed_ = false;
};

// Ours first, so that the user's own flags win.
std::vector<std::string> DefaultFlags() {
  if (g_smoke) return {"--benchmark_min_time=0.001"};
  return {"--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=15",
          "--benchmark_min_time=0.04"};
}

std::vector<std::string> AllArguments(int argc, char** argv) {
  std::vector<std::string> users;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--smoke") == 0) {
      g_smoke = true;
    } else {
      users.push_back(argv[i]);
    }
  }
  std::vector<std::string> all = {argv[0]};
  for (const std::string& flag : DefaultFlags()) all.push_back(flag);
  all.insert(all.end(), users.begin(), users.end());
  return all;
}

// Collectors live in programs with threads. The C library's locks and allocator take shortcuts in a
// process that never had a second one, so this one has it, asleep, before anything is measured.
void StartIdleThread() {
  pthread_t thread;
  pthread_create(
      &thread, nullptr,
      [](void*) -> void* {
        for (;;) pause();
      },
      nullptr);
}

// An allocator opened at run time needs more room for its thread-local data than the loader keeps by
// default, which is fixed when a process starts.
void RestartWithRoomForPeers(char** argv) {
  if (getenv("GLIBC_TUNABLES") != nullptr) return;
  setenv("GLIBC_TUNABLES", "glibc.rtld.optional_static_tls=16384", 1);
  execv("/proc/self/exe", argv);
}

int Main(int argc, char** argv) {
  RestartWithRoomForPeers(argv);
  std::vector<std::string> arguments = AllArguments(argc, argv);
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  int count = int(pointers.size());
  benchmark::Initialize(&count, pointers.data());
  if (benchmark::ReportUnrecognizedArguments(count, pointers.data())) return 1;
  StartIdleThread();
  Setup();
  Table table;
  benchmark::RunSpecifiedBenchmarks(&table);
  return table.Failed() ? 1 : 0;
}

}  // namespace

bool Smoke() { return g_smoke; }

void SetOperationsPerIteration(benchmark::State& state, double count) {
  state.counters[kOperations] = benchmark::Counter(count, benchmark::Counter::kAvgThreads);
}

void Aim(const std::string& group, const std::string& peer, double ratio) {
  Aims().push_back({group, peer, ratio});
}

void AimNanoseconds(const std::string& group, double nanoseconds) {
  Aims().push_back({group, kOurs, nanoseconds});
}

void StartHost() {
  QvHostInstall();
  __QvRtStartup();
}

void* OpenPeer(const char* sharedObject) {
  void* const peer = dlopen(sharedObject, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
  if (peer == nullptr) fprintf(stderr, "left out: %s\n", dlerror());
  return peer;
}

void* FindInPeer(void* peer, const char* symbol) {
  return peer == nullptr ? nullptr : dlsym(peer, symbol);
}

}  // namespace qvbench

int main(int argc, char** argv) { return qvbench::Main(argc, argv); }

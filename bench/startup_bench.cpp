// Start-up: the stand-in host, the allocator's class table and the library, in a fresh process.
//
// Every sample is a child that has not touched the library yet; it takes the time itself and hands it to
// its parent. by_hand is the floor: a block of the class table's size on huge pages, every record written.
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "bench/support/bench.h"
#include "host/qvhost.h"
#include "include/qvrt.h"

namespace {

constexpr uint32_t kRecords = QV_MEMORY_CATEGORIES * QV_SIZE_CLASSES;
constexpr uint64_t kHugePageBytes = 2 << 20;
constexpr uint64_t kBytes =
    (kRecords * sizeof(QV_SIZE_CLASS) + kHugePageBytes - 1) / kHugePageBytes * kHugePageBytes;

double Seconds() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return double(time.tv_sec) + double(time.tv_nsec) * 1e-9;
}

void StartLibrary() {
  QvHostInstall();
  __QvRtStartup();
}

void WriteTable() {
  void* const pages = mmap(nullptr, kBytes + kHugePageBytes, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  const uint64_t start = (reinterpret_cast<uint64_t>(pages) + kHugePageBytes - 1) & -kHugePageBytes;
  madvise(reinterpret_cast<void*>(start), kBytes, MADV_HUGEPAGE);
  QV_SIZE_CLASS* const classes = reinterpret_cast<QV_SIZE_CLASS*>(start);
  for (uint32_t i = 0; i < kRecords; i++) classes[i] = {{0, 0, 0, 0}, nullptr, i % QV_SIZE_CLASSES + 1};
  benchmark::DoNotOptimize(classes);
}

void InAChild(benchmark::State& state, void (*start)()) {
  double* const taken = static_cast<double*>(
      mmap(nullptr, sizeof(double), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  for (auto _ : state) {
    const pid_t child = fork();
    if (child == 0) {
      const double before = Seconds();
      start();
      *taken = Seconds() - before;
      _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    if (status != 0) {
      state.SkipWithError("the child did not end well");
      break;
    }
    state.SetIterationTime(*taken);
  }
  munmap(taken, sizeof(double));
}

void AddStart(const char* who, void (*start)()) {
  qvbench::Add("startup", who, [start](benchmark::State& state) {
    InAChild(state, start);
  })->UseManualTime();
}

}  // namespace

void qvbench::Setup() {
  AddStart("qvrt", StartLibrary);
  AddStart("by_hand", WriteTable);
  AimNanoseconds("startup", 500000);
}

// Benchmarks of the shipped library beside its peers, all in one process and interleaved in one run.
//
// Each bench/<name>_bench.cpp is a program of its own and defines Setup():
//
//   void qvbench::Setup() {
//     StartHost();
//     Add("spin_pair", "qvrt", LockPair<QvSpinLock>);
//     Add("spin_pair", "pthread_spin", LockPair<PthreadSpinLock>);
//     Aim("spin_pair", "pthread_spin", 1.2);
//   }
//
// The name of a benchmark is group/who/arguments. Benchmarks of one group and the same arguments do the
// same work; who is "qvrt" for us, else the peer. At the end the main program prints, for each group,
// the median ns per operation of every side and the ratio ours/peer, beside the aim if there is one.
//
// Time is the processor time of the thread, so that a busy machine disturbs little; a benchmark with
// several threads asks for UseRealTime(), one that measures by itself for UseManualTime().
#pragma once

#include <benchmark/benchmark.h>

#include <string>
#include <utility>

namespace qvbench {

void Setup();  // defined by each program: registers its benchmarks

// True in the short run that ctest makes: leave out large sizes.
bool Smoke();

template <class Body>
benchmark::internal::Benchmark* Add(const std::string& group, const std::string& who, Body&& body) {
  return benchmark::RegisterBenchmark((group + "/" + who).c_str(), std::forward<Body>(body));
}

// What one iteration of the loop did, if it was not one operation. Per thread.
void SetOperationsPerIteration(benchmark::State& state, double count);

// The aims that the table shows: ours at most `ratio` times the peer's, or at most so many ns. A group
// stands for itself with all arguments ("malloc_batch") or for one of them ("malloc_batch/64").
void Aim(const std::string& group, const std::string& peer, double ratio);
void AimNanoseconds(const std::string& group, double nanoseconds);

// Installs the stand-in host and starts the library, for the programs that measure neither.
void StartHost();

// The functions of a peer's shared object, kept apart from the process's own of the same name. Null,
// with a line on standard error, if the machine does not have it.
void* OpenPeer(const char* sharedObject);
void* FindInPeer(void* peer, const char* symbol);

}  // namespace qvbench

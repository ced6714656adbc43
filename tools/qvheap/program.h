// Whether a collector can be preloaded into a program: found as a shell would find it, and examined,
// for the loader says nothing when it cannot.
#pragma once

#include <string>

namespace qvheap {

// As env, nice and the shells have it.
inline constexpr int kOwnFailure = 125;
inline constexpr int kCannotRun = 126;
inline constexpr int kNotFound = 127;

struct Failure {
  int status;
  std::string message;
};

// The file that execvp would run. Throws Failure.
std::string FindProgram(const std::string& name);
// Follows scripts to their interpreters. Throws Failure if the program is not executable, statically
// linked, not of this machine's kind, or runs with other rights than ours (the loader then ignores
// preloading).
void CheckProgram(const std::string& path);

}  // namespace qvheap

// One fresh process per case. The library's state is process-wide and a death is data, so a test forks
// a child before anything of the library has run, lets it work in a folder of its own, and looks at how
// it ended, what it printed and what files it left.
//
//   const ChildResult child = RunChild([] { __QvRtStartup(); CHECK_EQ(1, __qvRtStarted); });
//   EXPECT_TRUE(child.Ok()) << child.err;
//   EXPECT_NE(child.Read("qvlog.log").find("OUT_OF_MEMORY"), std::string::npos);
#pragma once

#include <functional>
#include <sstream>
#include <string>

namespace qvtest {

inline constexpr int kCheckFailedStatus = 99;

struct ChildResult {
  int status = -1;  // the exit status, or 128 + the signal that ended it
  std::string out, err;
  std::string folder;  // its working folder, kept until the test program ends

  bool Ok() const { return status == 0; }
  std::string Read(const std::string& fileName) const;  // "" if there is none
};

// Runs body in a child; the child ends with status 0 when it returns, with kCheckFailedStatus when a
// CHECK fails. A child that runs longer than the limit is killed (status 128 + SIGKILL).
ChildResult RunChild(const std::function<void()>& body, unsigned limitSeconds = 120);

[[noreturn]] void FailCheck(const char* file, int line, const std::string& what);

template <class A, class B>
void CheckEqual(const A& a, const B& b, const char* text, const char* file, int line) {
  if (a == b) return;
  std::ostringstream what;
  what << text << ": " << +a << " against " << +b;
  FailCheck(file, line, what.str());
}

}  // namespace qvtest

// For use inside a child, on any of its threads: print and end the child.
#define CHECK(condition) ((condition) ? (void)0 : ::qvtest::FailCheck(__FILE__, __LINE__, #condition))
#define CHECK_EQ(a, b) ::qvtest::CheckEqual((a), (b), #a " == " #b, __FILE__, __LINE__)

// What tests put between the library and the system. In a test program that refers to any of this, the
// functions named here replace libc's; a child changes their behaviour for itself.
#pragma once

#include <cstdint>
#include <functional>

namespace qvtest {

// sched_yield: counted per thread. With g_onYield set it calls that instead of the system.
extern thread_local uint32_t t_yields;
extern std::function<void()> g_onYield;

// sysconf: with g_sysconf set, answers its result.
extern long (*g_sysconf)(int name);

}  // namespace qvtest

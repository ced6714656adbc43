// Sampling: draws and weights. Design: collectors/qvheap/sampling.h. All of it is on slow paths, and
// its own exponential and logarithm spare every program the mathematics library.
#include "collectors/qvheap/sampling.h"

#include <string.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

namespace qvheap {
namespace {

// The finalizer of splitmix64: every bit of the result depends on every bit of the argument.
uint64_t Mix(uint64_t bits) {
  bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9;
  bits = (bits ^ bits >> 27) * 0x94D049BB133111EB;
  return bits ^ bits >> 31;
}

uint64_t NextRandom(uint64_t& state) {
  state += 0x9E3779B97F4A7C15;
  return Mix(state);
}

// The system may have none so early after boot; the clock will do then.
uint64_t SystemRandom() {
  uint64_t bits = 0;
  if (getrandom(&bits, sizeof bits, GRND_NONBLOCK) == ssize_t{sizeof bits}) return bits;
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return Mix(uint64_t(now.tv_nsec) << 20 ^ uint64_t(now.tv_sec)) ^ uint64_t(getpid());
}

// 1 - exp(-x) for x >= 0: its series where x is small, and from x/2 to x by
// 1 - e^-2y = (1 - e^-y) * (2 - (1 - e^-y)), which loses no digits.
double OneLessExp(double x) {
  uint32_t halvings = 0;
  for (; x > 0.03125 && halvings < 12; halvings++) x /= 2;
  if (x > 0.03125) return 1;  // it was above 128
  double sum = 0, term = x;
  for (int i = 2; i < 9; i++) {
    sum += term;
    term *= -x / i;
  }
  for (; halvings > 0; halvings--) sum *= 2 - sum;
  return sum;
}

// Natural logarithm of a positive normal number: the exponent, and 2 artanh((m - 1) / (m + 1)) of the
// rest.
double Logarithm(double value) {
  uint64_t bits;
  memcpy(&bits, &value, sizeof bits);
  const int64_t exponent = int64_t(bits >> 52) - 1023;
  bits = (bits & 0xFFFFFFFFFFFFF) | uint64_t{1023} << 52;
  double rest;  // in [1, 2)
  memcpy(&rest, &bits, sizeof rest);
  const double z = (rest - 1) / (rest + 1);
  double sum = 0, power = z;
  for (int i = 1; i < 40; i += 2) {
    sum += power / i;
    power *= z * z;
  }
  return double(exponent) * 0.69314718055994530942 + 2 * sum;
}

}  // namespace

Weight SampledWeight(uint64_t bytes, uint32_t intervalBytes) {
  const double probability = OneLessExp(double(bytes) / double(intervalBytes));
  if (!(probability > 0)) return ExactWeight(bytes);
  return {uint64_t(double(uint64_t{1} << kBlocksShift) / probability + 0.5),
          uint64_t(double(bytes) * double(1 << kBytesShift) / probability + 0.5)};
}

uint64_t SeedFor(uint64_t seed, uint32_t threadOrdinal) {
  const uint64_t bits = Mix(Mix(seed != 0 ? seed : SystemRandom()) + threadOrdinal);
  return bits != 0 ? bits : 1;
}

int64_t DrawCountdown(uint64_t& random, uint32_t intervalBytes) {
  // Uniform in (0, 1], in steps of 2^-53.
  const double uniform = (double(NextRandom(random) >> 11) + 1) / 9007199254740992.0;
  return int64_t(-Logarithm(uniform) * double(intervalBytes)) + 1;
}

}  // namespace qvheap

// Figures from files: reading them strictly, adding them without overflow. A damaged file may claim
// anything; sums then stop at the largest number.
#pragma once

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

namespace qvheap {

inline int64_t Sum(int64_t a, int64_t b) {
  int64_t sum;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return a < 0 ? INT64_MIN : INT64_MAX;
}

inline int64_t Difference(int64_t a, int64_t b) {
  int64_t difference;
  if (!__builtin_sub_overflow(a, b, &difference)) return difference;
  return a < 0 ? INT64_MIN : INT64_MAX;
}

// Percent of a whole, 0 of nothing.
inline double Share(int64_t part, int64_t whole) {
  return whole == 0 ? 0 : 100.0 * double(part) / double(whole);
}

// False if the text is anything but one decimal number, negative ones included.
inline bool ParseDecimal(const std::string& text, int64_t& value) {
  char* end = nullptr;
  errno = 0;
  value = strtoll(text.c_str(), &end, 10);
  const bool begins = !text.empty() && (text[0] == '-' || (text[0] >= '0' && text[0] <= '9'));
  return begins && errno == 0 && end == text.c_str() + text.size();
}

// False if the text is anything but hexadecimal digits that fit.
inline bool ParseAddress(const std::string& text, uint64_t& value) {
  char* end = nullptr;
  const bool digits = text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
  value = strtoull(text.c_str(), &end, 16);
  return digits && !text.empty() && text.size() <= 16;
}

}  // namespace qvheap

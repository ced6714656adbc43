// The end of a failed assertion. Design: runtime/checks.h.
#include "runtime/checks.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

void qv::CheckFailed(const char* file, int line, const char* what) {
  char text[512];
  const int length =
      snprintf(text, sizeof text, "libqvrt12: internal check failed: %s (%s:%d)\n", what, file, line);
  const size_t bytes = length < int{sizeof text} ? size_t(length) : sizeof text - 1;
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, bytes);
  abort();
}

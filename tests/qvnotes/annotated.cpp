// A program with annotations of each kind. It prints the address of each annotated instruction as it
// runs past it (the label stands right before the annotation), relative to its own start.
#include <stdio.h>

#include "qvrt_annotate.h"

extern "C" char __executable_start;

#define HERE(number)                                                   \
  __asm__ volatile("lea " #number "0f(%%rip), %0\n" : "=r"(here));     \
  printf("%lx\n", (unsigned long)((char*)here - &__executable_start)); \
  __asm__ volatile(#number "0:\n")

inline __attribute__((noinline)) long Twice(long x) {
  QV_ANNOTATE_REGISTER("twice.x", x);
  return x * 2;
}

int main(int argc, char**) {
  void* here;
  HERE(7);
  QV_ANNOTATE("main.begin");
  const long sum = Twice(argc) + 1;
  HERE(8);
  QV_ANNOTATE_LITERAL("phase", 31);
  return sum == 3 ? 0 : 1;
}

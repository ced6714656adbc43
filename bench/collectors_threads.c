/* Two threads that allocate all the time, each at places of its own: where a profiler has them wait for
 * one another, it takes more time than processor time. Each keeps some hundred blocks, and the outcome
 * is the same in every run. */
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kThreads = 2, kBlocks = 512, kSteps = 2000000 };

typedef struct Worker {
  void* (*make)(uint64_t size);
  void* blocks[kBlocks];
  uint64_t random, sum;
} Worker;

static uint64_t Next(Worker* w) {
  w->random = w->random * 6364136223846793005u + 1442695040888963407u;
  return w->random >> 33;
}

/* Places: a few call chains for each thread. */
#define PLACE(name, inner)                                            \
  static __attribute__((noinline)) void* name(uint64_t size) {        \
    char* const block = inner(size);                                  \
    if (block != NULL) memset(block, (int)size, size < 8 ? size : 8); \
    return block;                                                     \
  }
PLACE(LeafA, malloc)
PLACE(LeafB, malloc)
PLACE(UpperA, LeafA)
PLACE(UpperB, LeafB)
PLACE(TopA, UpperA)
PLACE(TopB, UpperB)

static void* MakeA(uint64_t size) {
  return size % 3 == 0 ? TopA(size) : size % 3 == 1 ? UpperA(size) : LeafA(size);
}
static void* MakeB(uint64_t size) {
  return size % 3 == 0 ? TopB(size) : size % 3 == 1 ? UpperB(size) : LeafB(size);
}

static void* Work(void* argument) {
  Worker* const w = argument;
  for (int i = 0; i < kSteps; i++) {
    void** const block = &w->blocks[Next(w) % kBlocks];
    const uint64_t size = 8 + Next(w) % (i % 16 == 0 ? 4000 : 200);
    if (*block != NULL) w->sum += *(unsigned char*)*block;
    free(*block);
    *block = w->make(size);
  }
  for (int i = 0; i < kBlocks; i++) free(w->blocks[i]);
  return NULL;
}

int main(void) {
  static Worker workers[kThreads] = {{.make = MakeA, .random = 1}, {.make = MakeB, .random = 2}};
  pthread_t threads[kThreads];
  for (int i = 0; i < kThreads; i++) pthread_create(&threads[i], NULL, Work, &workers[i]);
  for (int i = 0; i < kThreads; i++) pthread_join(threads[i], NULL);
  printf("%lu %lu\n", workers[0].sum, workers[1].sum);
  return 0;
}

/* A program that allocates at known places and keeps a log of its own of what each of them allocated,
 * released, held, and held when the process held most. It leaves the log in sites.txt in the current
 * directory, one line a place:
 *
 *   name address allocations releases bytesAllocated bytesReleased liveBytes peakBytes liveAtPeakBytes
 *
 * What it must not do on the way is have libc allocate: the peak of the process is the peak of its log. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

enum { kSites = 10, kBlocks = 400 };

typedef struct Place {
  uint64_t allocations, releases, bytesAllocated, bytesReleased, peak, atPeak;
} Place;

typedef struct Block {
  void* address;
  size_t bytes;
  int place;
} Block;

static Place g_places[kSites + 1]; /* the last one resizes */
static Block g_blocks[kBlocks];
static uint64_t g_live, g_peak, g_random;
static volatile int g_count; /* keeps calls from becoming jumps */

#define SITE(n)                                                  \
  __attribute__((noinline)) static void* Site##n(size_t bytes) { \
    void* const block = malloc(bytes);                           \
    g_count += n;                                                \
    return block;                                                \
  }
SITE(0);
SITE(1);
SITE(2);
SITE(3);
SITE(4);
SITE(5);
SITE(6);
SITE(7);
SITE(8);
SITE(9);

static void* (*const kSite[kSites])(size_t) = {Site0, Site1, Site2, Site3, Site4,
                                               Site5, Site6, Site7, Site8, Site9};

__attribute__((noinline)) static void* Resize(void* block, size_t bytes) {
  void* const moved = realloc(block, bytes);
  g_count++;
  return moved;
}

static void Check(int condition, const char* what) {
  if (condition) return;
  (void)!write(2, what, strlen(what));
  abort();
}

static uint64_t Random(uint64_t below) {
  g_random = g_random * 6364136223846793005u + 1442695040888963407u;
  return (g_random >> 33) % below;
}

static uint64_t LiveOf(const Place* place) { return place->bytesAllocated - place->bytesReleased; }

static void Allocated(int number, size_t bytes) {
  Place* const place = &g_places[number];
  place->allocations++;
  place->bytesAllocated += bytes;
  if (LiveOf(place) > place->peak) place->peak = LiveOf(place);
  g_live += bytes;
  if (g_live <= g_peak) return;
  g_peak = g_live;
  for (int i = 0; i <= kSites; i++) g_places[i].atPeak = LiveOf(&g_places[i]);
}

static void Released(int number, size_t bytes) {
  g_places[number].releases++;
  g_places[number].bytesReleased += bytes;
  g_live -= bytes;
}

static void* AllocateAt(int number, size_t bytes) {
  void* const block = kSite[number](bytes);
  Check(block != NULL, "no block");
  Allocated(number, bytes);
  return block;
}

static void WriteLog(void) {
  const int file = open("sites.txt", O_CREAT | O_TRUNC | O_WRONLY, 0666);
  for (int i = 0; i <= kSites; i++) {
    const Place* const p = &g_places[i];
    char line[300];
    const int length =
        snprintf(line, sizeof line, "%d %lx %lu %lu %lu %lu %lu %lu %lu\n", i,
                 i < kSites ? (uintptr_t)kSite[i] : (uintptr_t)Resize, p->allocations, p->releases,
                 p->bytesAllocated, p->bytesReleased, LiveOf(p), p->peak, p->atPeak);
    (void)!write(file, line, (size_t)length);
  }
  close(file);
}

/* ---- Random work */

static size_t RandomSize(void) {
  switch (Random(6)) {
    case 0: return 20 + Random(40); /* where libc gives a step more */
    case 1: return 55 + Random(4);  /* the borders between the ways to keep a block */
    case 2: return 142 + Random(4);
    case 3: return Random(5000);
    case 4: return 200000 + Random(100000);
    default: return Random(300);
  }
}

static void Step(void) {
  Block* const block = &g_blocks[Random(kBlocks)];
  if (block->address == NULL) {
    *block = (Block){NULL, RandomSize(), (int)Random(kSites)};
    block->address = AllocateAt(block->place, block->bytes);
  } else if (Random(4) == 0) {
    const size_t bytes = RandomSize() + 1;
    block->address = Resize(block->address, bytes);
    Check(block->address != NULL, "no block");
    Released(block->place, block->bytes);
    *block = (Block){block->address, bytes, kSites};
    Allocated(kSites, bytes);
  } else if (Random(20) == 0) {
    volatile size_t tooMuch = SIZE_MAX / 2 + 2;
    Check(realloc(block->address, tooMuch) == NULL, "realloc to too much");
  } else {
    free(block->address);
    Released(block->place, block->bytes);
    block->address = NULL;
  }
}

static void RunKnown(uint64_t seed) {
  g_random = seed;
  for (int i = 0; i < 30000; i++) Step();
}

/* Blocks of one size at each place, from 10 bytes to 5,000; every third is kept for a while. */
static const size_t kSize[kSites] = {10, 24, 40, 64, 100, 250, 600, 1000, 2000, 5000};

static void RunSampled(void) {
  static void* kept[3000];
  for (int round = 0; round < 3000; round++) {
    for (int i = 0; i < kSites; i++) {
      void* const block = AllocateAt(i, kSize[i]);
      if (i == round % kSites && round % 3 == 0) {
        kept[round] = block;
      } else {
        free(block);
        Released(i, kSize[i]);
      }
    }
  }
  g_count += kept[0] != NULL;
}

/* ---- Lifetimes */

static void Sleep(long milliseconds) {
  const struct timespec time = {milliseconds / 1000, milliseconds % 1000 * 1000000};
  nanosleep(&time, NULL);
}

static void HoldAt(int number, int count, long milliseconds) {
  void* blocks[32];
  for (int i = 0; i < count; i++) blocks[i] = AllocateAt(number, 100);
  Sleep(milliseconds);
  for (int i = 0; i < count; i++) free(blocks[i]), Released(number, 100);
}

static void RunLifetimes(void) {
  for (int i = 0; i < 1000; i++) free(AllocateAt(0, 30)), Released(0, 30);
  HoldAt(1, 20, 30);
  HoldAt(2, 5, 1100);
  for (int i = 0; i < 7; i++) g_blocks[i].address = AllocateAt(3, 64);
}

/* ---- Threads */

static void* RunThread(void* argument) {
  const int number = (int)(intptr_t)argument;
  char line[64];
  for (int i = 0; i < 100 * (number + 1); i++) free(kSite[9]((size_t)(20 + number)));
  for (int i = 0; i < 50; i++) free(kSite[number](300));
  const int file = open("threads.txt", O_CREAT | O_APPEND | O_WRONLY, 0666);
  const int length = snprintf(line, sizeof line, "%d %d\n", number, gettid());
  (void)!write(file, line, (size_t)length);
  close(file);
  return NULL;
}

static void RunThreads(void) {
  pthread_t threads[3];
  for (intptr_t i = 0; i < 3; i++) pthread_create(&threads[i], NULL, RunThread, (void*)i);
  for (int i = 0; i < 3; i++) pthread_join(threads[i], NULL);
}

/* ---- Images: each is opened where the one before was */

static void UseImage(const char* path) {
  void* const image = dlopen(path, RTLD_NOW);
  Check(image != NULL, "dlopen");
  void* (*allocate)(size_t);
  *(void**)&allocate = dlsym(image, "PluginAllocate");
  for (int i = 0; i < 10; i++) free(allocate(1000));
  dlclose(image);
}

/* ---- Stacks, as libc's backtrace sees them: each goes into stacks.txt without its innermost frame */

static void WriteStack(void* const* frames, int count) {
  char line[1000];
  int used = 0;
  for (int i = 1; i < count; i++)
    used += snprintf(line + used, sizeof line - (size_t)used, "%lx ", (uintptr_t)frames[i]);
  line[used - 1] = '\n';
  const int file = open("stacks.txt", O_CREAT | O_APPEND | O_WRONLY, 0666);
  (void)!write(file, line, (size_t)used);
  close(file);
}

__attribute__((noinline)) static void Leaf(void) {
  void* frames[18];
  free(malloc(50));
  WriteStack(frames, backtrace(frames, 18));
  g_count++;
}

__attribute__((noinline)) static void Recursive(int depth) {
  if (depth == 0) {
    Leaf();
  } else {
    Recursive(depth - 1);
  }
  g_count++;
}

__attribute__((noinline)) static void WithVariableFrame(size_t bytes) {
  volatile char* const room = __builtin_alloca(bytes);
  room[0] = 1;
  Recursive(2);
  g_count += room[0];
}

/* Room of both kinds, so that another register leads to the caller's frame. */
__attribute__((noinline)) static void WithAlignedFrame(size_t bytes) {
  volatile char room[64] __attribute__((aligned(64)));
  volatile char* const more = __builtin_alloca(bytes);
  room[0] = more[0] = 1;
  WithVariableFrame(bytes);
  g_count += room[0] + more[0];
}

static int CompareAndAllocate(const void* a, const void* b) {
  if (g_count++ >= 0) WithAlignedFrame(100);
  return *(const int*)a - *(const int*)b;
}

static void Handle(int number) {
  (void)number;
  Recursive(1);
  g_count++;
}

static void* RunStacksOnThread(void* argument) {
  Recursive(3);
  return argument;
}

static void RunStacks(void) {
  int numbers[] = {5, 3, 8, 1, 9, 2};
  void* frames[2];
  pthread_t thread;
  backtrace(frames, 2); /* it loads what it needs */
  Leaf();
  Recursive(5);
  qsort(numbers, 6, sizeof numbers[0], CompareAndAllocate);
  signal(SIGUSR1, Handle);
  raise(SIGUSR1);
  pthread_create(&thread, NULL, RunStacksOnThread, NULL);
  pthread_join(thread, NULL);
}

/* ---- A coroutine whose stack begins, as of some it does, with a word that is no address */

static ucontext_t g_main, g_coroutine;

static void AllocateAndLeave(void) {
  for (int i = 0; i < 1000; i++) free(Site0(40));
  setcontext(&g_main);
}

static void RunCoroutine(void) {
  static char stack[1 << 16];
  getcontext(&g_coroutine);
  g_coroutine.uc_stack.ss_sp = stack;
  g_coroutine.uc_stack.ss_size = sizeof stack;
  makecontext(&g_coroutine, AllocateAndLeave, 0);
  *(uint64_t*)g_coroutine.uc_mcontext.gregs[REG_RSP] = 0xDEADDEADDEADDEAD;
  swapcontext(&g_main, &g_coroutine);
}

/* ---- A site for each way down a tree of calls */

__attribute__((noinline)) static void Branch(int depth) {
  if (depth == 0) {
    free(malloc(40));
  } else {
    Branch(depth - 1);
    g_count++;
    Branch(depth - 1);
  }
  g_count++;
}

int main(int count, char** arguments) {
  const char* const mode = count > 1 ? arguments[1] : "none";
  if (strcmp(mode, "known") == 0) RunKnown(strtoul(arguments[2], NULL, 10));
  if (strcmp(mode, "sampled") == 0) RunSampled();
  if (strcmp(mode, "lifetimes") == 0) RunLifetimes();
  if (strcmp(mode, "threads") == 0) RunThreads();
  if (strcmp(mode, "stacks") == 0) RunStacks();
  if (strcmp(mode, "coroutine") == 0) RunCoroutine();
  if (strcmp(mode, "branches") == 0) Branch(16);
  for (int i = 2; strcmp(mode, "images") == 0 && i < count; i++) UseImage(arguments[i]);
  WriteLog();
  return 0;
}

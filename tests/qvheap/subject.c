/* A program with known allocations, to be counted by qvheap. It keeps its own account of what it asked
 * for, independent of the collector, and leaves it in expected.<id> in the current directory (the id is
 * that of the process, or of the thread): one "name value" a line. What it must not do on the way is
 * have libc allocate: no stdio, no threads but where the mode says so. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

enum { kBlocks = 300, kBuckets = 49 };

typedef struct Account {
  uint64_t allocations, releases, reallocations, bytesAllocated, bytesReleased, failed, unknown, peak;
  uint64_t sizes[kBuckets];
} Account;

typedef struct Block {
  unsigned char* address;
  size_t bytes;
  unsigned char fill;
} Block;

typedef struct Subject {
  Account account;
  Block blocks[kBlocks];
  uint64_t random;
} Subject;

static void Check(int condition, const char* what) {
  if (condition) return;
  (void)!write(2, what, strlen(what));
  (void)!write(2, "\n", 1);
  abort();
}

static uint64_t Random(Subject* s, uint64_t below) {
  s->random = s->random * 6364136223846793005u + 1442695040888963407u;
  return (s->random >> 33) % below;
}

static size_t RandomSize(Subject* s) {
  switch (Random(s, 8)) {
    case 0: return Random(s, 2) + 247; /* the border between short and long sizes */
    case 1: return Random(s, 5000);
    case 2: return Random(s, 400000); /* mapped by themselves */
    default: return Random(s, 200);
  }
}

static void Allocated(Account* a, size_t bytes) {
  int width = 0;
  for (size_t rest = bytes; rest != 0; rest >>= 1) width++;
  a->sizes[width]++;
  a->allocations++;
  a->bytesAllocated += bytes;
  if (a->bytesAllocated > a->bytesReleased && a->bytesAllocated - a->bytesReleased > a->peak) {
    a->peak = a->bytesAllocated - a->bytesReleased;
  }
}

static void Released(Account* a, size_t bytes) {
  a->releases++;
  a->bytesReleased += bytes;
}

static void Fill(Block* block, unsigned char fill) {
  block->fill = fill;
  memset(block->address, fill, block->bytes);
}

static void CheckFill(const Block* block, size_t bytes) {
  for (size_t i = 0; i < bytes; i++)
    Check(block->address[i] == block->fill, "a block lost its contents");
}

static void CheckAligned(const void* address, size_t alignment) {
  Check((uintptr_t)address % alignment == 0, "a block is not aligned");
}

static void Make(Subject* s, Block* block) {
  const size_t bytes = RandomSize(s);
  void* address = NULL;
  block->bytes = bytes;
  switch (Random(s, 10)) {
    case 0:
      address = calloc(bytes / 8 + 1, 8);
      block->bytes = (bytes / 8 + 1) * 8;
      for (size_t i = 0; i < block->bytes; i++) Check(((char*)address)[i] == 0, "calloc did not clear");
      break;
    case 1: CheckAligned(address = memalign(256, bytes), 256); break;
    case 2: CheckAligned(address = aligned_alloc(64, bytes), 64); break;
    case 3:
      Check(posix_memalign(&address, 4096, bytes) == 0, "posix_memalign");
      CheckAligned(address, 4096);
      break;
    case 4: CheckAligned(address = valloc(bytes), 4096); break;
    case 5: CheckAligned(address = pvalloc(bytes), 4096); break;
    case 6:
      address = strdup("seventeen letters");
      block->bytes = 18;
      break;
    case 7: address = realloc(NULL, bytes); break;
    case 8:
      address = reallocarray(NULL, bytes / 4 + 1, 4);
      block->bytes = (bytes / 4 + 1) * 4;
      break;
    default: address = malloc(bytes); break;
  }
  Check(address != NULL && malloc_usable_size(address) >= block->bytes, "no block");
  block->address = address;
  Fill(block, (unsigned char)Random(s, 256));
  Allocated(&s->account, block->bytes);
}

static void Resize(Subject* s, Block* block) {
  const size_t bytes = RandomSize(s) + 1;
  const size_t kept = bytes < block->bytes ? bytes : block->bytes;
  block->address =
      Random(s, 2) ? realloc(block->address, bytes) : reallocarray(block->address, 1, bytes);
  Check(block->address != NULL, "realloc");
  CheckFill(block, kept);
  Released(&s->account, block->bytes);
  Allocated(&s->account, bytes);
  s->account.reallocations++;
  block->bytes = bytes;
  Fill(block, block->fill);
}

static void Drop(Subject* s, Block* block) {
  CheckFill(block, block->bytes);
  if (Random(s, 8) == 0) {
    Check(realloc(block->address, 0) == NULL, "realloc to nothing");
  } else {
    free(block->address);
  }
  Released(&s->account, block->bytes);
  block->address = NULL;
}

/* Requests that must fail, each with ENOMEM, and leave everything as it was. */
static void FailOnPurpose(Subject* s, Block* block) {
  volatile size_t tooMuch = SIZE_MAX / 2 + 2;
  errno = 0;
  Check(malloc(tooMuch) == NULL && errno == ENOMEM, "malloc of too much");
  errno = 0;
  Check(calloc(tooMuch, 16) == NULL && errno == ENOMEM, "calloc of too much");
  errno = 0;
  Check(reallocarray(block->address, tooMuch, 16) == NULL && errno == ENOMEM,
        "reallocarray of too much");
  Check(realloc(block->address, tooMuch) == NULL, "realloc to too much");
  CheckFill(block, block->bytes);
  free(NULL);
  s->account.failed += 4;
}

static void Step(Subject* s) {
  Block* block = &s->blocks[Random(s, kBlocks)];
  if (block->address == NULL) {
    Make(s, block);
  } else if (Random(s, 3) == 0) {
    Resize(s, block);
  } else if (Random(s, 50) == 0) {
    FailOnPurpose(s, block);
  } else {
    Drop(s, block);
  }
}

static void WriteLine(int file, const char* name, uint64_t value) {
  char text[64];
  const int length = snprintf(text, sizeof text, "%s %lu\n", name, value);
  (void)!write(file, text, (size_t)length);
}

static void WriteAccount(const Account* a, int id) {
  char name[64];
  snprintf(name, sizeof name, "expected.%d", id);
  const int file = open(name, O_CREAT | O_TRUNC | O_WRONLY, 0666);
  WriteLine(file, "allocations", a->allocations);
  WriteLine(file, "releases", a->releases);
  WriteLine(file, "reallocations", a->reallocations);
  WriteLine(file, "bytesAllocated", a->bytesAllocated);
  WriteLine(file, "bytesReleased", a->bytesReleased);
  WriteLine(file, "failedRequests", a->failed);
  WriteLine(file, "unknownReleases", a->unknown);
  WriteLine(file, "unrecorded", 0);
  WriteLine(file, "peakBytes", a->peak);
  for (int i = 0; i < kBuckets; i++) {
    if (a->sizes[i] != 0) {
      snprintf(name, sizeof name, "size%lu", i == 0 ? 0 : (uint64_t)1 << (i - 1));
      WriteLine(file, name, a->sizes[i]);
    }
  }
  close(file);
}

static Subject g_main;

static void RunRandom(uint64_t seed, int steps) {
  g_main.random = seed;
  for (int i = 0; i < steps; i++) Step(&g_main);
  WriteAccount(&g_main.account, getpid());
}

/* ---- Threads: one releases what another made, and destructors of thread storage go on counting. */

enum { kThreads = 4 };
static Subject g_subjects[kThreads];
static pthread_key_t g_key;
static void* g_handedOver[kThreads];

static void TearDown(void* argument) {
  Subject* s = argument;
  for (int i = 0; i < 20; i++) Step(s);
  s->random |= 1;
  if (Random(s, 2)) Check(pthread_setspecific(g_key, s) == 0, "another round");
  WriteAccount(&s->account, gettid());
}

static void* RunThread(void* argument) {
  Subject* s = argument;
  Check(pthread_setspecific(g_key, s) == 0, "setspecific");
  for (int i = 0; i < 5000; i++) Step(s);
  for (int i = 0; i < kThreads; i++) { /* 1000 bytes that somebody else allocated */
    void* block = __atomic_exchange_n(&g_handedOver[i], NULL, __ATOMIC_SEQ_CST);
    if (block == NULL) continue;
    free(block);
    Released(&s->account, 1000);
    break;
  }
  return NULL;
}

static void RunThreads(uint64_t seed) {
  pthread_t threads[kThreads];
  pthread_key_create(&g_key, TearDown);
  for (int i = 0; i < kThreads; i++) {
    g_handedOver[i] = malloc(1000);
    g_subjects[i].random = seed + (uint64_t)i;
  }
  for (int i = 0; i < kThreads; i++) pthread_create(&threads[i], NULL, RunThread, &g_subjects[i]);
  for (int i = 0; i < kThreads; i++) pthread_join(threads[i], NULL);
}

static void* AllocateOnce(void* argument) {
  free(malloc(100));
  return argument;
}

static void* AllocateMuch(void* argument) {
  void** block = argument;
  *block = malloc(1000000);
  return NULL;
}

/* And at last one leaves a large block behind, to be released by another that has allocated more. */
static void RunManyThreads(int count) {
  for (int i = 0; i < count; i++) {
    pthread_t thread;
    pthread_create(&thread, NULL, AllocateOnce, NULL);
    pthread_join(thread, NULL);
  }
  pthread_t thread;
  void* block;
  pthread_create(&thread, NULL, AllocateMuch, &block);
  pthread_join(thread, NULL);
  free(malloc(500000));
  free(block);
}

/* Threads that allocate at their very end, in the destructor of a key that is younger than any
 * collector's; all of it is released by the first thread. */
static pthread_key_t g_lateKey;
static void* g_late[1000];
static int g_lateCount;

static void AllocateLate(void* argument) {
  (void)argument;
  g_late[g_lateCount++] = malloc(7000); /* one thread at a time */
}

static void* SetLateKey(void* argument) {
  pthread_setspecific(g_lateKey, g_late);
  return AllocateOnce(argument);
}

static void RunLateThreads(int count) {
  pthread_key_create(&g_lateKey, AllocateLate);
  for (int i = 0; i < count; i++) {
    pthread_t thread;
    pthread_create(&thread, NULL, SetLateKey, NULL);
    pthread_join(thread, NULL);
  }
  for (int i = 0; i < g_lateCount; i++) free(g_late[i]);
}

/* ---- Fork */

static int StatusOf(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}

static void RunFork(uint64_t seed) {
  void* inherited[40];
  for (int i = 0; i < 40; i++)
    Allocated(&g_main.account, 100 + (size_t)i), inherited[i] = malloc(100 + (size_t)i);
  const pid_t child = fork();
  if (child == 0) {
    g_main.account = (Account){0};
    for (int i = 0; i < 39; i++) free(inherited[i]);
    Check((inherited[39] = realloc(inherited[39], 500)) != NULL, "realloc");
    g_main.account.unknown = 40;
    g_main.account.reallocations = 1;
    Allocated(&g_main.account, 500);
    RunRandom(seed + 1, 3000);
    exit(5);
  }
  Check(StatusOf(child) == 5 << 8, "the child's status");
  RunRandom(seed, 3000);
}

static volatile int g_stop;

static void* AllocateUntilStopped(void* argument) {
  while (!g_stop) free(malloc(200000)), free(malloc(20));
  return argument;
}

static void* OneMoreThread(void* argument) { return malloc(10), argument; }

static void RunForksAmongThreads(int count) {
  pthread_t threads[2];
  for (int i = 0; i < 2; i++) pthread_create(&threads[i], NULL, AllocateUntilStopped, NULL);
  for (int i = 0; i < count; i++) {
    const pid_t child = fork();
    if (child == 0) {
      pthread_t thread;
      alarm(20);
      for (int k = 0; k < 5; k++) free(malloc((size_t)1 << (4 * k)));
      pthread_create(&thread, NULL, OneMoreThread, NULL);
      pthread_join(thread, NULL);
      exit(0);
    }
    Check(StatusOf(child) == 0, "a child among threads");
  }
  g_stop = 1;
  for (int i = 0; i < 2; i++) pthread_join(threads[i], NULL);
}

/* ---- A storm of forks: most children are gone at once, one in a hundred lives to its report. */

enum { kStormThreads = 2, kStormBlocks = 64, kStormReports = 100 };

static void* AllocateInStorm(void* argument) {
  Subject* s = argument;
  while (!g_stop) {
    Block* block = &s->blocks[Random(s, kStormBlocks)];
    if (block->address == NULL) {
      Make(s, block);
    } else if (Random(s, 3) == 0) {
      Resize(s, block);
    } else {
      Drop(s, block);
    }
  }
  WriteAccount(&s->account, gettid());
  return NULL;
}

static void LiveInStorm(int number) {
  alarm(20);
  for (int k = 0; k < 5; k++) free(malloc((size_t)1 << (4 * k)));
  if (number % kStormReports != 0) _exit(0);
  pthread_t thread;
  pthread_create(&thread, NULL, OneMoreThread, NULL);
  pthread_join(thread, NULL);
  exit(0);
}

static void RunStorm(int count) {
  pthread_t threads[kStormThreads];
  pid_t before = 0;
  alarm(100);
  for (int i = 0; i < kStormThreads; i++) {
    g_subjects[i].random = (uint64_t)i + 1;
    pthread_create(&threads[i], NULL, AllocateInStorm, &g_subjects[i]);
  }
  for (int i = 0; i < count; i++) { /* two children at a time */
    const pid_t child = fork();
    if (child == 0) LiveInStorm(i);
    if (before != 0) Check(StatusOf(before) == 0, "a child in the storm");
    before = child;
  }
  Check(StatusOf(before) == 0, "the last child");
  g_stop = 1;
  for (int i = 0; i < kStormThreads; i++) pthread_join(threads[i], NULL);
}

/* ---- Descriptors, exits */

static void RunClosed(void) {
  for (int i = 0; i < 1024; i++) close(i);
  for (int i = 0; i < 100; i++) {
    char name[32];
    snprintf(name, sizeof name, "own.%d", i);
    Check(open(name, O_CREAT | O_TRUNC | O_WRONLY, 0666) == i, "the numbers of descriptors");
    (void)!write(i, "mine\n", 5);
  }
  free(malloc(10));
}

static void ExitFromHandler(int signal) {
  (void)signal;
  exit(3);
}

static void RunInterrupted(void) {
  static const struct timespec kShort = {0, 300000};
  struct sigevent event = {.sigev_notify = SIGEV_SIGNAL, .sigev_signo = SIGALRM};
  const struct itimerspec when = {.it_value = kShort};
  timer_t timer;
  signal(SIGALRM, ExitFromHandler);
  timer_create(CLOCK_MONOTONIC, &event, &timer);
  timer_settime(timer, 0, &when, NULL);
  for (;;) free(malloc(100000)), free(malloc(300000));
}

int main(int count, char** arguments) {
  const char* mode = count > 1 ? arguments[1] : "none";
  const uint64_t seed = count > 2 ? strtoul(arguments[2], NULL, 10) : 1;
  if (strcmp(mode, "random") == 0) RunRandom(seed, 20000);
  if (strcmp(mode, "threads") == 0) RunThreads(seed);
  if (strcmp(mode, "many") == 0) RunManyThreads((int)seed);
  if (strcmp(mode, "late") == 0) RunLateThreads((int)seed);
  if (strcmp(mode, "fork") == 0) RunFork(seed);
  if (strcmp(mode, "forks") == 0) RunForksAmongThreads((int)seed);
  if (strcmp(mode, "storm") == 0) RunStorm((int)seed);
  if (strcmp(mode, "closed") == 0) RunClosed();
  if (strcmp(mode, "interrupted") == 0) RunInterrupted();
  if (strcmp(mode, "_exit") == 0) _exit(9);
  if (strcmp(mode, "signal") == 0) raise(SIGTERM);
  if (strcmp(mode, "exec") == 0) {
    free(malloc(77));
    execl("/proc/self/exe", "subject", "random", arguments[2], (char*)NULL);
  }
  return 0;
}

/* A program that wanders through calls at random and allocates wherever it comes to. It asks libc's
 * unwinder for the stack of each allocation, and leaves in stacks.txt how often it came by each, one
 * line a stack, of 22 frames at most and without the innermost one:
 *
 *   count address address ...
 *
 * From one allocation to the next few of the outer frames change, and in every way that they can:
 * another function at the same place, another place in the same function, frames of other sizes, frames
 * found by rbp, a signal handler's on this or another stack, a coroutine's, all left by a jump. */
#define _GNU_SOURCE
#include <execinfo.h>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <ucontext.h>

enum { kMostFrames = 21, kStacks = 1 << 16, kDeepest = 8, kStackBytes = 1 << 16 };

typedef struct Stack {
  uint64_t hits;
  int depth;
  void* frames[kMostFrames];
} Stack;

static Stack g_stacks[kStacks];
static uint64_t g_random;
static volatile int g_count; /* keeps calls from becoming jumps */
static jmp_buf g_way;
static int g_mayJump;
static ucontext_t g_main, g_other;
static char g_otherStack[kStackBytes], g_signalStack[kStackBytes];

static uint64_t Random(uint64_t below) {
  g_random = g_random * 6364136223846793005u + 1442695040888963407u;
  return (g_random >> 33) % below;
}

static void Note(void* const* frames, int depth) {
  uint64_t hash = 0;
  for (int i = 0; i < depth; i++) hash = (hash ^ (uint64_t)(uintptr_t)frames[i]) * 0x9E3779B97F4A7C15u;
  for (uint64_t at = hash >> 48;; at = (at + 1) % kStacks) {
    Stack* const stack = &g_stacks[at];
    if (stack->hits == 0) {
      stack->depth = depth;
      memcpy(stack->frames, frames, (size_t)depth * sizeof frames[0]);
    }
    if (stack->depth != depth || memcmp(stack->frames, frames, (size_t)depth * sizeof frames[0]) != 0)
      continue;
    stack->hits++;
    return;
  }
}

/* The innermost frame is found by rsp, or by rbp. */
#define ALLOCATE(name, room)                              \
  __attribute__((noinline)) static void name(void) {      \
    void* frames[kMostFrames + 1];                        \
    volatile char* const more = room;                     \
    const int depth = backtrace(frames, kMostFrames + 1); \
    free(malloc(Random(500)));                            \
    Note(frames + 1, depth - 1);                          \
    g_count += more != NULL;                              \
  }
ALLOCATE(Allocate, NULL)
ALLOCATE(AllocateInVariableFrame, __builtin_alloca(16 + Random(3) * 16))

static void Wander(int depth);

#define PLAIN(name, words)                                          \
  __attribute__((noinline)) static void name(int depth) {           \
    volatile uint64_t room[words];                                  \
    room[0] = (uint64_t)depth;                                      \
    if (Random(2) == 0) Wander(depth + 1), g_count += (int)room[0]; \
    Wander(depth + 1);                                              \
    g_count++;                                                      \
  }
PLAIN(Small, 2)
PLAIN(SmallToo, 2)
/* One of these is as large as two others, and what they left on the stack is still there. */
PLAIN(Large, 6)
PLAIN(Larger, 8)
PLAIN(Larger2, 10)
PLAIN(Larger3, 12)
PLAIN(Larger4, 14)
PLAIN(Larger5, 16)
PLAIN(Larger6, 18)

static void (*const kLarge[])(int) = {Large, Larger, Larger2, Larger3, Larger4, Larger5, Larger6};

__attribute__((noinline)) static void OfVariableSize(int depth) {
  volatile char* const room = __builtin_alloca(16 + Random(3) * 16);
  room[0] = 1;
  Wander(depth + 1);
  g_count += room[0];
}

__attribute__((noinline)) static void Aligned(int depth) {
  volatile char room[64] __attribute__((aligned(64)));
  volatile char* const more = __builtin_alloca(16 + Random(2) * 16);
  room[0] = more[0] = 1;
  Wander(depth + 1);
  g_count += room[0] + more[0];
}

/* Deeper than what is kept of a stack: what is kept is the same from many depths. */
__attribute__((noinline)) static void Deep(int depth) {
  Allocate();
  if (depth > 0) Deep(depth - 1);
  if (Random(2) == 0) Allocate();
  g_count++;
}

static void Handle(int number) {
  g_count += number;
  Wander(kDeepest - 2);
  g_count++;
}

__attribute__((noinline)) static void Raise(int number) {
  raise(number);
  g_count++;
}

static void Other(void) {
  Wander(kDeepest - 3);
  g_count++;
}

__attribute__((noinline)) static void Switch(void) {
  getcontext(&g_other);
  g_other.uc_stack.ss_sp = g_otherStack;
  g_other.uc_stack.ss_size = sizeof g_otherStack;
  g_other.uc_link = &g_main;
  makecontext(&g_other, Other, 0);
  const int mayJump = g_mayJump;
  g_mayJump = 0;
  swapcontext(&g_main, &g_other);
  g_mayJump = mayJump;
}

/* Signals and coroutines from the middle alone: there is one stack for each. */
static void Wander(int depth) {
  switch (Random(8)) {
    case 0: AllocateInVariableFrame(); break;
    case 1:
    case 2: break;
    default: Allocate(); break;
  }
  if (depth >= kDeepest) return;
  switch (Random(depth == 3 ? 11 : 7)) {
    case 0:
    case 1: Small(depth); break;
    case 2: SmallToo(depth); break;
    case 3: kLarge[Random(sizeof kLarge / sizeof kLarge[0])](depth); break;
    case 4: OfVariableSize(depth); break;
    case 5: Aligned(depth); break;
    case 6:
      if (g_mayJump && Random(4) == 0) longjmp(g_way, 1);
      break;
    case 7: Raise(SIGUSR1); break;
    case 8: Raise(SIGUSR2); break;
    case 9: Deep((int)Random(40)); break;
    default: Switch(); break;
  }
  g_count++;
}

static void* Begin(void* argument) {
  const stack_t signalStack = {.ss_sp = g_signalStack, .ss_size = sizeof g_signalStack};
  sigaltstack(&signalStack, NULL);
  for (int i = 0; i < 500; i++) {
    g_mayJump = 1;
    if (setjmp(g_way) == 0) Wander(0);
  }
  g_mayJump = 0;
  return argument;
}

static void WriteStacks(void) {
  FILE* const file = fopen("stacks.txt", "w");
  for (int i = 0; i < kStacks; i++) {
    if (g_stacks[i].hits == 0) continue;
    fprintf(file, "%lu", g_stacks[i].hits);
    for (int k = 0; k < g_stacks[i].depth; k++) fprintf(file, " %lx", (uintptr_t)g_stacks[i].frames[k]);
    fprintf(file, "\n");
  }
  fclose(file);
}

int main(int count, char** arguments) {
  void* frames[2];
  pthread_t thread;
  struct sigaction action = {.sa_handler = Handle, .sa_flags = SA_NODEFER};
  g_random = count > 1 ? strtoul(arguments[1], NULL, 10) : 1;
  sigaction(SIGUSR1, &action, NULL);
  action.sa_flags |= SA_ONSTACK;
  sigaction(SIGUSR2, &action, NULL);
  backtrace(frames, 2); /* it loads what it needs */
  Begin(NULL);
  pthread_create(&thread, NULL, Begin, NULL);
  pthread_join(thread, NULL);
  WriteStacks();
  return 0;
}

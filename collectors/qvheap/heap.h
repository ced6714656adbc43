// The allocator underneath, and the arena for what libc allocates on the collector's own behalf.
//
// The real functions (those that have nothing to do with memory: table.h, log.h, ends.cpp) are the
// next ones in the loader's search order: libc's, or those of another allocator that the program
// brings. Finding them may itself allocate, and so may the collector's calls into libc (streams for
// its files, exit handlers). Such memory comes from a fixed arena: it is not the program's and must
// not be counted, and a report must be possible even when the program called exit in a signal handler
// that interrupted malloc. Blocks of the arena are known by their address; some outlive us (libc keeps
// its exit handlers), so every free and realloc of an unknown address looks.
#pragma once

#include <stdio.h>

#include "collectors/qvheap/words.h"

namespace qvheap {

struct RealFunctions {
  void* (*malloc)(size_t);
  void* (*calloc)(size_t, size_t);
  void* (*realloc)(void*, size_t);
  void (*free)(void*);
  void* (*memalign)(size_t, size_t);
  void* (*alignedAlloc)(size_t, size_t);
  int (*posixMemalign)(void**, size_t, size_t);
  void* (*valloc)(size_t);
  void* (*pvalloc)(size_t);
  int (*fclose)(FILE*);
  int (*dlclose)(void*);
  FILE* (*fopen)(const char*, const char*);
  void (*exit)(int);  // _exit
  void (*quickExit)(int);
  int (*daemon)(int, int);
  int (*unshare)(int);
  int (*setns)(int, int);
  int (*execve)(const char*, char* const*, char* const*);
  int (*execvpe)(const char*, char* const*, char* const*);
  int (*fexecve)(int, char* const*, char* const*);
  int (*execveat)(int, const char*, char* const*, char* const*, int);
};
extern QVHEAP_OURS RealFunctions g_real;

void FindRealFunctions();  // the calling thread must be inside the collector

// Aligned to 16 bytes and cleared; null when the arena is full.
void* ArenaAllocate(size_t bytes);
void ArenaFree(void* block);
size_t ArenaBytesOf(const void* block);
bool IsInArena(const void* block);
extern QV_SPIN_LOCK g_arenaLock;  // held across fork

}  // namespace qvheap

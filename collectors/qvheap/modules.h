// The images that stacks lead through, and when they were there.
//
// A return address means something only with the image that was mapped at its time. So time is cut into
// epochs, of which one ends when an image is found to have been unloaded; a stack belongs to an epoch,
// and an image to those from its first to its last.
//
// An image is noticed when a stack of a new site leads through it. The loader tells which one holds an
// address without a lock (_dl_find_object), so nothing here waits for a thread that is inside dlopen,
// and a child process finds no lock that its parent's threads held. An image whose place in the table
// is taken by another, or by nothing, is gone: asked after each dlclose of the program, and whenever a
// new site leads to an image that the table does not have.
//
// Frames in no image (code made at run time) lie in a region of the process's map. Regions are kept in
// a range table, so that each is looked up in the map once.
#pragma once

#include "collectors/qvheap/words.h"

namespace qvheap {

struct Module {
  Module* next;  // in the order in which they were noticed, newest first
  uint64_t start, end, bias;
  uint32_t from, to;  // epochs
  bool isThere;       // `to` means something only if not
  uint64_t fileBytes, modifiedNanoseconds;
  const unsigned char* identity;  // the loader's own record of it
  uint32_t buildIdBytes;
  unsigned char buildId[32];
  char path[1];  // as long as it needs
};

struct Region {
  Region* next;
  uint64_t start, end;
};

extern QVHEAP_OURS uint32_t g_epoch;

void InstallModules();  // the library can allocate
// Notices the images that the frames lie in. False if their epoch is over. The caller is Looking,
// without signals.
bool NoticeModules(void* const* frames, uint32_t depth, uint32_t epoch);
void NoticeUnloads();  // the program has closed something; the caller as above
void ForgetRegions();  // in a child process

// For the report: everything up to now, newest first. Records are never changed but for `isThere` and
// `to`.
const Module* FirstModule();
const Region* FirstRegion();

}  // namespace qvheap

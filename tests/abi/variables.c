/* Exported variables seen from an executable. A position-dependent one holds them itself (the dynamic
 * linker copies them into it), so a library that reached its own by a shorter way would write where
 * nobody reads, and read where nobody writes. Built with and without -pie; ends with 0 if all is seen.
 */
#include <qvrt.h>
#include <stdio.h>
#include <sys/sysinfo.h>

static int g_failures = 0;

static void Expect(int holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "not so: %s\n", what);
  g_failures++;
}
#define EXPECT(fact) Expect(fact, #fact)

static uint64_t Eleven(void) { return 11; }
static uint64_t Twelve(void) { return 12; }
static uint32_t AllocSlot(void) { return 13; }
static uint32_t FreeSlot(uint32_t slot) { return slot + 1; }
static void* GetSlot(uint32_t slot) { return (void*)(uintptr_t)slot; }
static uint32_t SetSlot(uint32_t slot, void* value) { return slot + (uint32_t)(uintptr_t)value; }

static void StartUpIsSeen(void) {
  EXPECT(__qvRtStarted == 0 && __qvNumberOfProcessors == 1);
  EXPECT(QVLOG_MSG_ABNORMAL_TERMINATE == 0 && QVLOG_MSG_FAIL_READ_FILE_VERBOSE == 0);
  EXPECT(__QvRtStartup() == QV_STARTUP_RESULT);
  EXPECT(__qvRtStarted == 1 && __qvNumberOfProcessors == get_nprocs());
}

static void MessageIdsAreSeen(void) {
  const uint32_t ids[] = {
      QVLOG_MSG_ABNORMAL_TERMINATE, QVLOG_MSG_OUT_OF_MEMORY,         QVLOG_MSG_COLLECT_MEMORY,
      QVLOG_MSG_MEMORY_IS_TIGHT,    QVLOG_MSG_FREEING_RESERVES,      QVLOG_MSG_BAD_OPTION,
      QVLOG_MSG_BAD_ARGUMENT,       QVLOG_MSG_FAIL_CONVERT_FILENAME, QVLOG_MSG_FAIL_OPEN_FILE,
      QVLOG_MSG_FAIL_SEEK_FILE,     QVLOG_MSG_FAIL_READ_FILE,        QVLOG_MSG_FAIL_READ_FILE_VERBOSE};
  for (uint32_t i = 0; i < 12; i++) EXPECT(ids[i] == i + 2);
}

static void HooksSetByTheLibraryAreSeen(void) {
  __QvSetGetCurrentThreadIdProc(Eleven);
  __QvSetGetNativeThreadIdProc(Twelve);
  __QvSetGetNativeParentThreadIdProc(Eleven);
  __QvSetTlsAllocProc(AllocSlot);
  __QvSetTlsFreeProc(FreeSlot);
  __QvSetTlsGetValueProc(GetSlot);
  __QvSetTlsSetValueProc(SetSlot);
  EXPECT(__qvGetCurrentThreadIdProc == Eleven && __qvGetNativeThreadIdProc == Twelve);
  EXPECT(__qvGetNativeParentThreadIdProc == Eleven);
  EXPECT(__qvTlsAllocProc == AllocSlot && __qvTlsFreeProc == FreeSlot);
  EXPECT(__qvTlsGetValueProc == GetSlot && __qvTlsSetValueProc == SetSlot);
}

static void HooksWrittenHereReachTheLibrary(void) {
  __qvGetCurrentThreadIdProc = Twelve;
  __qvGetNativeThreadIdProc = Eleven;
  __qvGetNativeParentThreadIdProc = Twelve;
  EXPECT(__QvGetCurrentThreadId() == 12 && __QvGetNativeThreadId() == 11);
  EXPECT(__QvGetNativeParentThreadId() == 12);
  EXPECT(__QvTlsAlloc() == 13 && __QvTlsFree(20) == 21);
  __qvTlsAllocProc = NULL;
  __qvTlsFreeProc = NULL;
  __qvTlsGetValueProc = NULL;
  __qvTlsSetValueProc = NULL;
  EXPECT(__QvTlsAlloc() == 0xFFFFFFFFu && __QvTlsFree(20) == 0);
  EXPECT(__QvTlsGetValue(20) == NULL && __QvTlsSetValue(20, NULL) == 0);

  QV_SPIN_LOCK lock = {0, 0, 0, 0}; /* its owner comes from the pointer above */
  __QvAcquireSpinLock(&lock);
  EXPECT(lock.owner == 11);
  __QvReleaseSpinLock(&lock);
}

int main(void) {
  StartUpIsSeen();
  MessageIdsAreSeen();
  HooksSetByTheLibraryAreSeen();
  HooksWrittenHereReachTheLibrary();
  return g_failures == 0 ? 0 : 1;
}

// Thread ids and thread-local slots of the stand-in host. Contract: host/qvhost.h.
//
// Every lock of the library asks for the thread id, so the usual answer is two loads and a comparison:
// the id is cached per thread beside the generation of the process it was learnt in. The generation
// sits in a page that the kernel itself clears in every new process (MADV_WIPEONFORK), so no way of
// forking escapes; where the kernel cannot, the fork handler clears it.
//
// Invariants
//  (1) g_forkPage.generation is 0 until somebody asks, then a number that no former generation of this
//      process's ancestors had: g_lastGeneration is inherited, not cleared.
//  (2) A fresh thread's generation is kNeverLearnt, which the page never holds.
//  (3) A slot is in use while its generation is odd. A thread's value counts only if it was stored in the
//      slot's present generation, so a reused slot is null everywhere without visiting the threads.
#include <sys/mman.h>
#include <unistd.h>

#include "host/parts.h"

namespace qvhost {
namespace {

using qv::LoadRelaxed;
using qv::StoreRelaxed;

constexpr uint32_t kNeverLearnt = 0xFFFFFFFF;
constexpr uint32_t kSlots = 64;
constexpr size_t kPageBytes = 4096;

struct alignas(kPageBytes) ForkPage {
  uint32_t generation;
};

struct Identity {
  uint32_t generation;
  uint32_t id;
};

struct Slots {
  void* value[kSlots];
  uint32_t generation[kSlots];
};

constinit ForkPage g_forkPage = {};
constinit uint32_t g_lastGeneration = 0;
constinit uint32_t g_slotGeneration[kSlots] = {};
constinit thread_local Identity t_identity = {kNeverLearnt, 0};
constinit thread_local Slots t_slots = {};

uint32_t PresentGeneration() {
  const uint32_t found = LoadRelaxed(g_forkPage.generation);
  if (found != 0) return found;
  const uint32_t fresh = qv::Increment(g_lastGeneration);
  const uint32_t raced = qv::CompareExchange(g_forkPage.generation, fresh, 0);
  return raced == 0 ? fresh : raced;
}

// The id is stored first: a signal handler in between learns it once more.
QV_COLD uint64_t LearnThreadId() {
  const uint32_t generation = PresentGeneration();
  const uint32_t id = uint32_t(gettid());
  StoreRelaxed(t_identity.id, id);
  qv::StoreRelease(t_identity.generation, generation);
  return id;
}

uint64_t ThreadId() {
  if (QV_UNLIKELY(LoadRelaxed(t_identity.generation) != LoadRelaxed(g_forkPage.generation))) {
    return LearnThreadId();
  }
  return LoadRelaxed(t_identity.id);
}

uint32_t ProcessId() { return uint32_t(getpid()); }

// The slot's generation, odd; 0 if the slot is not in use.
uint32_t UseOf(uint32_t slot) {
  const uint32_t generation = slot < kSlots ? qv::LoadAcquire(g_slotGeneration[slot]) : 0;
  return (generation & 1) != 0 ? generation : 0;
}

uint32_t AllocateSlot() {
  for (uint32_t slot = 0; slot < kSlots; slot++) {
    const uint32_t generation = LoadRelaxed(g_slotGeneration[slot]);
    if ((generation & 1) == 0 && qv::TryExchange(g_slotGeneration[slot], generation + 1, generation)) {
      return slot;
    }
  }
  return qv::kNone;
}

uint32_t FreeSlot(uint32_t slot) {
  const uint32_t use = UseOf(slot);
  return use != 0 && qv::TryExchange(g_slotGeneration[slot], use + 1, use) ? 1 : 0;
}

void* GetSlot(uint32_t slot) {
  const uint32_t use = UseOf(slot);
  return use != 0 && t_slots.generation[slot] == use ? t_slots.value[slot] : nullptr;
}

uint32_t SetSlot(uint32_t slot, void* value) {
  const uint32_t use = UseOf(slot);
  if (use == 0) return 0;
  t_slots.value[slot] = value;
  t_slots.generation[slot] = use;
  return 1;
}

}  // namespace

void ForgetIdentities() { StoreRelaxed(g_forkPage.generation, 0u); }

void InstallIdentity() {
  madvise(&g_forkPage, sizeof g_forkPage, MADV_WIPEONFORK);
  __QvSetGetNativeThreadIdProc(ThreadId);
  __QvSetGetCurrentThreadIdProc(ThreadId);
  __QvSetGetPidProc(ProcessId);
  __QvSetTlsAllocProc(AllocateSlot);
  __QvSetTlsFreeProc(FreeSlot);
  __QvSetTlsGetValueProc(GetSlot);
  __QvSetTlsSetValueProc(SetSlot);
}

}  // namespace qvhost

// Module table: loads, unloads, look-ups. Design: modules/module_table.h.
#include "modules/module_table.h"

#include <stdlib.h>
#include <string.h>

#include "memory/allocate.h"

static_assert(offsetof(ModuleRecord, start) == 8 && offsetof(ModuleRecord, forward) == 24);

namespace qv {
namespace {

constexpr int32_t kTopLevelLimit = 10;
constexpr int kRaiseAtMost = 0x0CCCCCCB;  // a draw of rand() up to this raises: one in ten
constexpr uint32_t kFirstCapacity = 64;

// Process-wide state.
constinit ModuleRecord* g_moduleList = nullptr;  // the sentinel
constinit int32_t g_topLevel = 0;
struct Index {
  uint64_t* starts;
  ModuleRecord** records;
  uint32_t count;
  uint32_t capacity;
};
constinit Index g_index = {};

struct Predecessors {
  ModuleRecord* level[kTopLevelLimit + 1];
};

ModuleRecord* NewRecord(int32_t height) {
  const size_t bytes = offsetof(ModuleRecord, forward) + size_t(height) * sizeof(ModuleRecord*);
  return static_cast<ModuleRecord*>(Allocate(kMisc, uint32_t(bytes)));
}

void CreateList() {
  ModuleRecord* const sentinel = NewRecord(kTopLevelLimit + 1);
  sentinel->handle = sentinel->start = sentinel->end = 0;
  for (int32_t i = 0; i <= kTopLevelLimit; i++) sentinel->forward[i] = sentinel;
  g_topLevel = 0;
  g_moduleList = sentinel;
}

// On each level in use, the last record whose start is below `start`.
Predecessors FindPredecessors(uint64_t start) {
  Predecessors found;
  ModuleRecord* record = g_moduleList;
  for (int32_t level = g_topLevel; level >= 0; level--) {
    for (ModuleRecord* next = record->forward[level]; next != g_moduleList && next->start < start;
         next = record->forward[level]) {
      record = next;
    }
    found.level[level] = record;
  }
  return found;
}

bool IsAt(const ModuleRecord* record, uint64_t start) {
  return record != g_moduleList && record->start == start;
}

// The number of starts below `key`. `probe` is a step forward or none: a conditional move.
QV_INLINE uint32_t CountStartsBelow(uint64_t key) {
  const uint64_t* base = g_index.starts;
  uint32_t length = g_index.count;
  if (length == 0) return 0;
  while (length > 1) {
    const uint32_t half = length / 2;
    const uint64_t* const probe = base + half;
    base = probe[-1] < key ? probe : base;
    length -= half;
  }
  return uint32_t(base - g_index.starts) + (*base < key);
}

template <class T>
T* Grown(T* former, uint32_t count, uint32_t capacity) {
  T* const grown = static_cast<T*>(Allocate(kMisc, uint32_t(capacity * sizeof(T))));
  if (count != 0) memcpy(grown, former, count * sizeof(T));
  Release(former);
  return grown;
}

void InsertIntoIndex(ModuleRecord* record) {
  Index& index = g_index;
  if (index.count == index.capacity) {
    index.capacity = index.capacity == 0 ? kFirstCapacity : index.capacity * 2;
    index.starts = Grown(index.starts, index.count, index.capacity);
    index.records = Grown(index.records, index.count, index.capacity);
  }
  const uint32_t at = CountStartsBelow(record->start);
  const uint32_t behind = index.count - at;
  memmove(index.starts + at + 1, index.starts + at, behind * sizeof(uint64_t));
  memmove(index.records + at + 1, index.records + at, behind * sizeof(ModuleRecord*));
  index.starts[at] = record->start;
  index.records[at] = record;
  index.count++;
}

void RemoveFromIndex(uint64_t start) {
  Index& index = g_index;
  const uint32_t at = CountStartsBelow(start);
  const uint32_t behind = index.count - at - 1;
  memmove(index.starts + at, index.starts + at + 1, behind * sizeof(uint64_t));
  memmove(index.records + at, index.records + at + 1, behind * sizeof(ModuleRecord*));
  index.count--;
}

// One time in ten, while there is a level left, the list grows by one.
void MaybeRaiseTopLevel(Predecessors& predecessors) {
  if (g_topLevel >= kTopLevelLimit || rand() > kRaiseAtMost) return;
  predecessors.level[++g_topLevel] = g_moduleList;
}

}  // namespace

const char* ValidateModuleTable() {
  if (g_moduleList == nullptr) return g_index.count == 0 ? nullptr : "an index without a list";
  uint32_t count = 0;
  for (const ModuleRecord* r = g_moduleList->forward[0]; r != g_moduleList; r = r->forward[0]) {
    if (count >= g_index.count || g_index.records[count] != r) return "index and list differ";
    if (g_index.starts[count] != r->start) return "the index holds another start";
    if (count > 0 && g_index.starts[count - 1] >= r->start) return "the order is wrong";
    count++;
  }
  if (count != g_index.count) return "the index is longer than the list";
  for (int32_t level = 1; level <= kTopLevelLimit; level++) {
    const ModuleRecord* r = g_moduleList->forward[level];
    if (level > g_topLevel && r != g_moduleList) return "a record is above the top level";
    for (; r != g_moduleList; r = r->forward[level]) {
      const ModuleRecord* const next = r->forward[level];
      if (next != g_moduleList && next->start <= r->start) return "an upper level is out of order";
    }
  }
  if (g_topLevel > 0 && g_moduleList->forward[g_topLevel] == g_moduleList) {
    return "the top level is empty";
  }
  return nullptr;
}

}  // namespace qv

ModuleRecord* __QvLoadModule(uint64_t handle, uint64_t start, uint64_t end) {
  if (qv::g_moduleList == nullptr) qv::CreateList();
  qv::Predecessors predecessors = qv::FindPredecessors(start);
  if (qv::IsAt(predecessors.level[0]->forward[0], start)) return qv::g_moduleList;
  qv::MaybeRaiseTopLevel(predecessors);
  ModuleRecord* const record = qv::NewRecord(qv::g_topLevel + 1);
  record->handle = handle;
  record->start = start;
  record->end = end;
  for (int32_t level = 0; level <= qv::g_topLevel; level++) {
    record->forward[level] = predecessors.level[level]->forward[level];
    predecessors.level[level]->forward[level] = record;
  }
  qv::InsertIntoIndex(record);
  return record;
}

void __QvUnloadModule(uint64_t, uint64_t start) {
  if (qv::g_moduleList == nullptr) return;
  const qv::Predecessors predecessors = qv::FindPredecessors(start);
  ModuleRecord* const record = predecessors.level[0]->forward[0];
  if (!qv::IsAt(record, start)) return;
  for (int32_t level = 0; level <= qv::g_topLevel; level++) {
    ModuleRecord* const predecessor = predecessors.level[level];
    if (predecessor->forward[level] != record) break;
    predecessor->forward[level] = record->forward[level];
  }
  qv::RemoveFromIndex(start);
  qv::Release(record);
  const ModuleRecord* const sentinel = qv::g_moduleList;
  while (qv::g_topLevel > 0 && sentinel->forward[qv::g_topLevel] == sentinel) qv::g_topLevel--;
}

uint64_t __QvGetModuleForVariable(uint64_t address, uint64_t* handleOut) {
  const uint32_t below = qv::CountStartsBelow(address);
  if (below == 0) return 0;
  const ModuleRecord* const module = qv::g_index.records[below - 1];
  if (address >= module->end) return 0;
  if (handleOut != nullptr) *handleOut = module->handle;
  return module->start;
}

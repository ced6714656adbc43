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
constexpr uint32_t kNode = 8;             // starts that are compared at once: a cache line
constexpr uint32_t kIndexLevels = 11;
constexpr uint32_t kFirstCapacity = kNode * kNode;

// Process-wide state.
constinit ModuleRecord* g_moduleList = nullptr;  // the sentinel
constinit int32_t g_topLevel = 0;
struct Module {
  uint64_t end, handle;
};
struct Index {
  uint64_t* block;                 // all of it
  uint64_t* levels[kIndexLevels];  // 0: the starts; above: every eighth of the level below
  Module* modules;                 // what a look-up answers, beside the starts
  uint32_t count;                  // of modules
  uint32_t capacity;               // of level 0, in whole nodes, as are the levels above
  uint32_t top;                    // the first level of at most two nodes
  bool topIsWide;                  // it has two
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

constexpr uint32_t NodesFor(uint32_t count) { return count / kNode + (count % kNode != 0); }

// Comparisons that do not wait for each other, each an add of the carry.
QV_INLINE uint32_t CountBelow(const uint64_t* node, uint64_t key) {
  uint32_t even = 0, odd = 0;
#pragma GCC unroll 4
  for (uint32_t i = 0; i < kNode; i += 2) {
    even += node[i] < key;
    odd += node[i + 1] < key;
  }
  return even + odd;
}

// The number of starts below `key`. On each level it is found within one node: the level above told
// that the node's first start is below the key and the next node's is not.
QV_INLINE uint32_t CountStartsBelow(uint64_t key) {
  const Index& index = g_index;
  if (QV_UNLIKELY(index.count == 0)) return 0;
  uint32_t level = index.top;
  uint32_t below = CountBelow(index.levels[level], key);
  if (index.topIsWide) below += CountBelow(index.levels[level] + kNode, key);
  if (below == 0) return 0;
  while (level-- != 0) {
    const uint32_t first = (below - 1) * kNode;
    below = first + CountBelow(index.levels[level] + first, key);
  }
  return below;
}

// Makes room for more: twice as many, or for the first. One block, aligned for the nodes.
void GrowIndex() {
  Index& index = g_index;
  const Index former = index;
  index.capacity = former.capacity == 0 ? kFirstCapacity : former.capacity * 2;
  size_t words = 0;
  size_t offsets[kIndexLevels];
  uint32_t capacity = index.capacity;
  for (uint32_t level = 0; level < kIndexLevels; level++) {
    offsets[level] = words;
    words += capacity;
    capacity = NodesFor(NodesFor(capacity)) * kNode;
  }
  const size_t bytes = (words + kNode) * sizeof(uint64_t) + index.capacity * sizeof(Module);
  index.block = static_cast<uint64_t*>(Allocate(kMisc, uint32_t(bytes)));
  uint64_t* const first = index.block + kNode - reinterpret_cast<uintptr_t>(index.block) / 8 % kNode;
  for (uint32_t level = 0; level < kIndexLevels; level++) index.levels[level] = first + offsets[level];
  index.modules = reinterpret_cast<Module*>(first + words);
  if (former.count == 0) return;  // only the first time
  memcpy(index.levels[0], former.levels[0], former.count * sizeof(uint64_t));
  memcpy(index.modules, former.modules, former.count * sizeof(Module));
  Release(former.block);
}

// Works the levels above out anew, and fills the last nodes with starts that are below nothing.
void BuildUpperLevels() {
  Index& index = g_index;
  uint32_t count = index.count;
  for (uint32_t level = 0;; level++) {
    uint64_t* const starts = index.levels[level];
    for (uint32_t i = count; i % kNode != 0; i++) starts[i] = UINT64_MAX;
    if (count <= 2 * kNode) {
      index.top = level;
      index.topIsWide = count > kNode;
      return;
    }
    count = NodesFor(count);
    for (uint32_t i = 0; i < count; i++) index.levels[level + 1][i] = starts[i * kNode];
  }
}

void InsertIntoIndex(const ModuleRecord* record) {
  Index& index = g_index;
  const uint32_t at = CountStartsBelow(record->start);
  if (index.count == index.capacity) GrowIndex();
  uint64_t* const starts = index.levels[0];
  const uint32_t behind = index.count - at;
  memmove(starts + at + 1, starts + at, behind * sizeof(uint64_t));
  memmove(index.modules + at + 1, index.modules + at, behind * sizeof(Module));
  starts[at] = record->start;
  index.modules[at] = {record->end, record->handle};
  index.count++;
  BuildUpperLevels();
}

void RemoveFromIndex(uint64_t start) {
  Index& index = g_index;
  uint64_t* const starts = index.levels[0];
  const uint32_t at = CountStartsBelow(start);
  const uint32_t behind = index.count - at - 1;
  memmove(starts + at, starts + at + 1, behind * sizeof(uint64_t));
  memmove(index.modules + at, index.modules + at + 1, behind * sizeof(Module));
  index.count--;
  BuildUpperLevels();
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
    if (count >= g_index.count) return "the index is shorter than the list";
    const Module& module = g_index.modules[count];
    if (module.end != r->end || module.handle != r->handle) return "the index holds another module";
    if (g_index.levels[0][count] != r->start) return "the index holds another start";
    if (count > 0 && g_index.levels[0][count - 1] >= r->start) return "the order is wrong";
    if (CountStartsBelow(r->start) != count) return "the index does not lead to a start";
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
  const qv::Module& module = qv::g_index.modules[below - 1];
  if (address >= module.end) return 0;
  if (handleOut != nullptr) *handleOut = module.handle;
  return qv::g_index.levels[0][below - 1];
}

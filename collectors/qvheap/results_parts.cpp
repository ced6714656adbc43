// The results file: images, timeline, sites, memory. Design: collectors/qvheap/results_parts.h.
#include "collectors/qvheap/results_parts.h"

#include <stdio.h>
#include <string.h>

#include "collectors/qvheap/modules.h"
#include "collectors/qvheap/profile.h"
#include "collectors/qvheap/room.h"
#include "collectors/qvheap/sites.h"
#include "collectors/qvheap/tallies.h"
#include "collectors/qvheap/timeline.h"
#include "host/qvhost.h"

namespace qvheap {
namespace {

constexpr uint32_t kSlabsForEntry = 3;

void WriteHexAttribute(QV_XML_FILE* file, const char* name, uint64_t value) {
  char text[24];
  snprintf(text, sizeof text, "%lx", value);
  __QvXMLWriteStringAttribute(file, name, text);
}

// ---- Images ----------------------------------------------------------------------------------------

void WriteBuildId(QV_XML_FILE* file, const Module& module) {
  char text[2 * sizeof module.buildId + 1] = {};
  for (uint32_t i = 0; i < module.buildIdBytes; i++)
    snprintf(text + 2 * i, 3, "%02x", module.buildId[i]);
  __QvXMLWriteStringAttribute(file, "buildId", text);
}

void WriteModule(QV_XML_FILE* file, const Module& module) {
  __QvXMLStartWritingOpeningTag(file, "module");
  WriteHexAttribute(file, "start", module.start);
  WriteHexAttribute(file, "end", module.end);
  WriteHexAttribute(file, "bias", module.bias);
  WriteAttribute(file, "from", module.from);
  if (!module.isThere) WriteAttribute(file, "to", module.to);
  WriteAttribute(file, "bytes", module.fileBytes);
  WriteAttribute(file, "modified", module.modifiedNanoseconds);
  if (module.buildIdBytes != 0) WriteBuildId(file, module);
  __QvXMLFinishWritingOpeningTag(file);
  __QvXMLWriteStringValue(file, CleanText(module.path));
  __QvXMLAppendClosingTag(file, "module");
}

void WriteRegion(QV_XML_FILE* file, const Region& region) {
  __QvXMLStartWritingOpeningTag(file, "region");
  WriteHexAttribute(file, "start", region.start);
  WriteHexAttribute(file, "end", region.end);
  __QvXMLFinishWritingOpeningTag(file);
  __QvXMLAppendClosingTag(file, "region");
}

// ---- Sites -----------------------------------------------------------------------------------------

// Threads by ordinal, for the time of the report. Without memory it is null or lacks some, whose
// tallies are not written.
QV_HASH_TABLE* MakeThreadTableLocked() {
  const Provision provision(kSlabsForEntry);
  if (!provision.Granted()) return nullptr;
  QV_HASH_TABLE* table = __QvCreateHashTable(QV_HASH_TABLE_NO_LOCKING, nullptr, 1, nullptr, nullptr,
                                             LibraryCategory(kRoomReport), 0);
  return table;
}

void FillThreadTableLocked(QV_HASH_TABLE* table) {
  VisitThreadsLocked(
      [](const ThreadRecord& record, bool, void* context) {
        const Provision provision(kSlabsForEntry);
        if (!provision.Granted()) return;
        __QvInsertHashTableEntry(static_cast<QV_HASH_TABLE*>(context), record.ordinal,
                                 const_cast<ThreadRecord*>(&record));
      },
      table);
}

struct SiteThreads {
  QV_XML_FILE* file;
  QV_HASH_TABLE* threads;
  uint32_t site;
};

// Of a thread whose record is gone nobody knows more than that it was there.
void WriteSiteThread(const SiteThreads& site, uint32_t ordinal, const Weight* weight) {
  const ThreadRecord* const record =
      static_cast<const ThreadRecord*>(__QvLookupHashTable(site.threads, ordinal));
  if (record == nullptr || (weight == nullptr && site.site >= kTalliedSites)) return;
  const uint32_t index = 2 * site.site;
  const Weight tally = weight != nullptr ? *weight
                                         : Weight{__QvGetVectorElement(record->tallies, index),
                                                  __QvGetVectorElement(record->tallies, index + 1)};
  __QvXMLStartWritingOpeningTag(site.file, "thread");
  WriteAttribute(site.file, "id", record->threadId);
  WriteAttribute(site.file, "allocations", WholeBlocks(tally.blocks));
  WriteAttribute(site.file, "bytes", WholeBytes(tally.bytes));
  __QvXMLFinishWritingOpeningTag(site.file);
  __QvXMLAppendClosingTag(site.file, "thread");
}

void WriteOtherThread(uint32_t ordinal, uint64_t context) {
  WriteSiteThread(*reinterpret_cast<const SiteThreads*>(context), ordinal, nullptr);
}

void WriteSiteThreads(QV_XML_FILE* file, QV_HASH_TABLE* threads, const Site& site,
                      const SiteFigures& figures) {
  const SiteThreads context = {file, threads, site.number};
  const Weight byFirst = {figures.allocations - figures.byOthers.blocks,
                          figures.bytesAllocated - figures.byOthers.bytes};
  const SpinGuard guard(g_sitesLock);
  __QvXMLStartWritingOpeningTag(file, "threads");
  WriteAttribute(file, "count", site.otherThreads.count + (site.firstThread != 0 ? 1u : 0u));
  __QvXMLFinishWritingOpeningTag(file);
  WriteSiteThread(context, site.firstThread, &byFirst);
  __QvScanSet(&site.otherThreads, WriteOtherThread, reinterpret_cast<uint64_t>(&context));
  __QvXMLWriteClosingTag(file, "threads");
}

void WriteStack(QV_XML_FILE* file, const PackedStack* stack) {
  char text[kMostKept * 17 + 1] = {};
  uint32_t used = 0;
  for (uint32_t i = 0; stack != nullptr && i < stack->depth; i++) {
    used +=
        uint32_t(snprintf(text + used, sizeof text - used, i == 0 ? "%lx" : " %lx", stack->Frame(i)));
  }
  __QvXMLWriteStringElement(file, "stack", text);
}

void WriteSiteFigures(QV_XML_FILE* file, const SiteFigures& figures) {
  WriteNumber(file, "samples", figures.samples);
  WriteNumber(file, "allocations", WholeBlocks(figures.allocations));
  WriteNumber(file, "releases", WholeBlocks(figures.releases));
  WriteNumber(file, "bytesAllocated", WholeBytes(figures.bytesAllocated));
  WriteNumber(file, "bytesReleased", WholeBytes(figures.bytesReleased));
  WriteNumber(file, "liveBlocks", WholeBlocks(figures.LiveBlocks()));
  WriteNumber(file, "liveBytes", WholeBytes(figures.LiveBytes()));
  WriteNumber(file, "peakBytes", WholeBytes(figures.peakBytes));
  WriteNumber(file, "liveAtPeakBytes", WholeBytes(figures.liveAtPeakBytes));
  __QvXMLStartWritingOpeningTag(file, "lifetimes");
  WriteAttribute(file, "within1ms", WholeBlocks(figures.lifetimes[kWithin1ms]));
  WriteAttribute(file, "within1s", WholeBlocks(figures.lifetimes[kWithin1s]));
  WriteAttribute(
      file, "longer",
      WholeBlocks(figures.releases - figures.lifetimes[kWithin1ms] - figures.lifetimes[kWithin1s]));
  WriteAttribute(file, "never", WholeBlocks(figures.LiveBlocks()));
  __QvXMLFinishWritingOpeningTag(file);
  __QvXMLAppendClosingTag(file, "lifetimes");
}

void WriteSite(QV_XML_FILE* file, QV_HASH_TABLE* threads, Site& site) {
  __QvXMLStartWritingOpeningTag(file, "site");
  WriteAttribute(file, "id", site.number);
  WriteAttribute(file, "epoch", site.stack != nullptr ? site.stack->epoch : 0);
  __QvXMLFinishWritingOpeningTag(file);
  WriteStack(file, site.stack);
  const SiteFigures figures = ReadSite(site);
  WriteSiteFigures(file, figures);
  WriteSiteThreads(file, threads, site, figures);
  __QvXMLWriteClosingTag(file, "site");
}

// A site that has something to tell: not folded away, and not the one of folded sites without any.
bool IsWritten(const Site& site) { return site.stack != nullptr || site.figures.samples != 0; }

// By live bytes at the peak; null if there is no memory for all of them.
QV_RED_BLACK_TREE* OrderSites(uint32_t count) {
  QV_RED_BLACK_TREE* tree = nullptr;
  for (uint32_t number = 1; number <= count; number++) {
    const Provision provision(kSlabsForEntry);
    if (!provision.Granted()) {
      __QvDestroyRedBlackTree(tree);
      return nullptr;
    }
    if (tree == nullptr) {
      tree = __QvCreateRedBlackTree(LibraryCategory(kRoomReport), nullptr, nullptr, nullptr);
    }
    Site& site = SiteOf(number);
    if (!IsWritten(site)) continue;
    __QvInsertRedBlackEntry(tree, ReadSite(site).liveAtPeakBytes, reinterpret_cast<uint64_t>(&site));
  }
  return tree;
}

void WriteOrdered(QV_XML_FILE* file, QV_HASH_TABLE* threads, QV_RED_BLACK_TREE* tree) {
  const QV_RED_BLACK_NODE* node = __QvGetRedBlackRangeEnd(tree, ~uint64_t{0});
  for (uint64_t site; __QvGetRedBlackItem(node, &site) != 0; node = __QvGetRedBlackRangePrev(node, 0)) {
    WriteSite(file, threads, *reinterpret_cast<Site*>(site));
  }
}

uint32_t CountWritten(uint32_t count) {
  uint32_t written = 0;
  for (uint32_t number = 1; number <= count; number++) written += IsWritten(SiteOf(number)) ? 1 : 0;
  return written;
}

// ---- Memory ----------------------------------------------------------------------------------------

void WriteCategory(QV_XML_FILE* file, const char* name, uint64_t bytes) {
  __QvXMLStartWritingOpeningTag(file, "category");
  __QvXMLWriteStringAttribute(file, "name", name);
  WriteAttribute(file, "bytes", bytes);
  __QvXMLFinishWritingOpeningTag(file);
  __QvXMLAppendClosingTag(file, "category");
}

uint64_t CategoryBytes(const QV_MEMORY_CATEGORY_INFO& info, uint32_t libraryCategory) {
  uint64_t bytes = uint64_t(info.bytesAllocated);
  for (uint32_t i = 0; i < kRoomCategories; i++) {
    if (LibraryCategory(Category(i)) == libraryCategory) bytes += LargeBytes(Category(i));
  }
  return bytes;
}

}  // namespace

void WriteModulesLocked(QV_XML_FILE* file) {
  __QvXMLWriteOpeningTag(file, "modules");
  for (const Module* module = FirstModule(); module != nullptr; module = module->next) {
    WriteModule(file, *module);
  }
  __QvXMLWriteClosingTag(file, "modules");
  __QvXMLWriteOpeningTag(file, "regions");
  for (const Region* region = FirstRegion(); region != nullptr; region = region->next) {
    WriteRegion(file, *region);
  }
  __QvXMLWriteClosingTag(file, "regions");
}

void WriteTimelineLocked(QV_XML_FILE* file) {
  __QvXMLWriteOpeningTag(file, "timeline");
  for (uint32_t i = 0; i < PointCountLocked(); i++) {
    const TimelinePoint& point = PointAtLocked(i);
    __QvXMLStartWritingOpeningTag(file, "point");
    WriteAttribute(file, "time", point.milliseconds);
    WriteAttribute(file, "bytesAllocated", point.bytesAllocated);
    WriteAttribute(file, "liveBytes", uint64_t(point.liveBytes));
    WriteAttribute(file, "liveBlocks", point.liveBlocks);
    __QvXMLFinishWritingOpeningTag(file);
    __QvXMLAppendClosingTag(file, "point");
  }
  __QvXMLWriteClosingTag(file, "timeline");
}

void WriteSitesLocked(QV_XML_FILE* file) {
  const SitesStay stay;
  const uint32_t count = SiteCount();
  QV_HASH_TABLE* const threads = MakeThreadTableLocked();
  FillThreadTableLocked(threads);
  QV_RED_BLACK_TREE* const tree = OrderSites(count);
  __QvXMLStartWritingOpeningTag(file, "sites");
  WriteAttribute(file, "count", tree != nullptr ? tree->count : CountWritten(count));
  WriteAttribute(file, "folded", FoldedSiteCount());
  WriteAttribute(file, "missed", MissedLooks());
  __QvXMLFinishWritingOpeningTag(file);
  WriteOrdered(file, threads, tree);
  for (uint32_t number = 1; tree == nullptr && number <= count; number++) {
    if (IsWritten(SiteOf(number))) WriteSite(file, threads, SiteOf(number));
  }
  __QvXMLWriteClosingTag(file, "sites");
  __QvDestroyRedBlackTree(tree);
  __QvDestroyHashTable(threads, nullptr);
}

void WriteMemoryLocked(QV_XML_FILE* file) {
  constexpr uint64_t kSizeClassBytes =
      uint64_t{QV_MEMORY_CATEGORIES} * QV_SIZE_CLASSES * sizeof(QV_SIZE_CLASS);
  __QvXMLWriteOpeningTag(file, "memory");
  WriteCategory(file, "sizeClasses", kSizeClassBytes);
  QV_MEMORY_CATEGORY_INFO info;
  for (uint32_t i = 0; __QvGetMemoryInfoByCategory(i, &info) != 0; i++) {
    WriteCategory(file, info.name, CategoryBytes(info, i));
  }
  __QvXMLWriteClosingTag(file, "memory");
  WriteNumber(file, "collectorBytes", QvHostBytesInUse());
}

}  // namespace qvheap

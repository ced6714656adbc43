// The collector's state on the dump channels. Design: collectors/qvheap/state_dump.h.
#include "collectors/qvheap/state_dump.h"

#include "collectors/qvheap/life.h"
#include "collectors/qvheap/log.h"
#include "collectors/qvheap/modules.h"
#include "collectors/qvheap/pause.h"
#include "collectors/qvheap/profile.h"
#include "collectors/qvheap/sites.h"

namespace qvheap {
namespace {

void DumpModules() {
  __QvDbgMessageDumpInternal(kDumpModules, "epoch %u", Load(g_epoch));
  for (const Module* module = FirstModule(); module != nullptr; module = module->next) {
    __QvDbgMessageDumpInternal(kDumpModules, "%lx to %lx, from epoch %u%s: %s", module->start,
                               module->end, module->from, module->isThere ? "" : ", gone",
                               module->path);
  }
}

void DumpSampling() {
  const Options& options = g_process.options;
  __QvDbgMessageDumpInternal(kDumpSampling, "one sample in %u bytes, %lu missed; paused for %lu ms",
                             options.exact ? 1 : options.intervalBytes, MissedLooks(),
                             PausedMillisecondsLocked());
}

}  // namespace

void DumpStateLocked() {
  if (!g_dumping) return;
  const LogSession session;
  if (!session.IsOpen()) return;
  __QvDbgMessageDumpInternal(kDumpSites, "%u sites, %lu of them folded", SiteCount(),
                             FoldedSiteCount());
  DumpModules();
  DumpSampling();
}

}  // namespace qvheap

// The collector's log, qvlog.<pid>.xml: the library's message log on a file that nobody holds open.
//
// No descriptor is held while the program runs. It may close all it has, or open files of its own on
// any number; and the numbers it gets are those it would get without us. So the log's stream exists
// for as long as the process, but has a descriptor only inside a LogSession, which opens the file and
// closes it again. Outside one, nothing that the library logs can reach a descriptor of the program's.
//
//   BeginLogLocked     a new file: root element, who is counted, the options in force
//   LogSession         entries
//   EndLogLocked       the root element is closed
//
// All of it is inside the collector, under the census lock. A file that cannot be written is given up:
// the program has become somebody else, or has locked itself in elsewhere, and must not hear of it.
#pragma once

#include <stdio.h>

#include "collectors/qvheap/debug.h"
#include "collectors/qvheap/options.h"
#include "collectors/qvheap/words.h"

namespace qvheap {

void SetUpLogLocked();  // once in the process's image, and before any entry
void BeginLogLocked();
void EndLogLocked();

// The log can be written to while it lives, if IsOpen. Sessions nest.
class LogSession : NonCopyable {
 public:
  LogSession();
  ~LogSession();
  bool IsOpen() const;

 private:
  const bool nested_;
};

extern bool g_dumping;  // -dump selected something

}  // namespace qvheap

// A line on a dump channel. Nothing is opened, and no argument looked at, unless -dump was given.
#define QVHEAP_DUMP_LOCKED(channel, ...)                                      \
  do {                                                                        \
    if (QVHEAP_UNLIKELY(qvheap::g_dumping)) {                                 \
      const qvheap::LogSession session;                                       \
      if (session.IsOpen()) __QvDbgMessageDumpInternal(channel, __VA_ARGS__); \
    }                                                                         \
  } while (0)

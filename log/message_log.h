// The message log, inside view: one XML file per process into which every entry goes whole.
//
//   tab  <msg id='7' source='qvrt'>            id: sequence number of elements, comments take none
//   tab tab  <type>BAD_OPTION</type>
//   tab tab  <severity>ERROR</severity>
//   tab tab  <timestamp>Tue Nov 24 14:41:50 2026</timestamp>
//   tab tab  <arg name='option'>-x</arg>       or one comment, for free text
//   tab  </msg>
//
// Invariants
//  (1) The logger is published only when its root element has been written; until then its record
//      belongs to the thread that holds the creation guard.
//  (2) Whoever holds the creation guard allocates nothing and takes no ranked lock but that of a former
//      log, whose holder waits for nobody; so it never waits for a thread that wants to log while it
//      holds a lock of the memory manager. The record and the name are taken before the guard; what
//      the memory manager itself reports opens the log in a record of the image's.
//  (3) An entry is written under the file's spin lock (rank kLog) and flushed before that is released.
//      Writing allocates nothing from this library and calls nothing that logs.
//  (4) The sequence number and the cached time text change under the lock of the present logger. A new
//      logger is published under the lock of the former one, and who has waited for a lock looks again
//      whether it is still the logger's: one thread at a time is inside the log, whichever file it has.
//  (5) stdio allocates when a stream is opened, and may when it formats. A collector that wraps malloc can
//      thus come back from inside, on the same thread, with an entry of its own (its pool needs a slab,
//      which has its periodic dump). There is no place to write it to, and no use in waiting: it is
//      dropped. Without a thread-id hook such a call cannot be told apart.
#pragma once

#include <time.h>

#include "runtime/base.h"

namespace qv {

bool LoggerExists();

using TimeText = char[26];  // what asctime_r fills

// The local time in asctime's form without its newline; "" if the system cannot say.
void FormatTime(time_t now, TimeText& text);

// For the only thread of a child after fork: another thread of the parent may have been inside the log.
// Drops its half-written entry from the child's copy of the buffer (the parent writes it) and frees the
// locks it held. Unconditionally: memory is copied page by page while the others run, so the lock's
// word need not agree with what it guards. From here on entries carry the time that the parent
// formatted: the C library's time-zone lock may have been held too, and nobody can free that one.
void ResetLogAfterFork(const TimeText& timeOfFork);

}  // namespace qv

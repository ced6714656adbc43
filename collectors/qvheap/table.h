// The table on standard error, printed when the program ends: by the launched process alone, never by
// one that came of it, and only where the launcher's standard error still is. The program may have
// closed its own or put a file of its own in that place.
//
// Many programs close their standard error as their last act, by fclose in an exit function, before our
// turn comes. So fclose is wrapped: it keeps a duplicate for us, on a high number, from then to the
// end.
#pragma once

#include "collectors/qvheap/census.h"

namespace qvheap {

void PrintTableLocked(const Totals& totals, const char* path, bool written);
void KeepStandardError();  // the program is about to close it
void DropStandardError();  // in a child process: the parent's reader waits for the end of the stream

}  // namespace qvheap

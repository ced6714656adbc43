// What the collector writes: qvlog.<pid>.xml from the start, qvheap.<pid>.xml and the table at exit.
//
// No descriptor is held while the program runs. It may close all it has, or open files of its own on
// any number; and the numbers it gets are those it would get without us. So the log is begun with its
// root element and closed, and continued by the message log at exit.
#pragma once

namespace qvheap {

// Both are called inside the collector. A file that cannot be written is given up: the program has
// become somebody else, or has locked itself in elsewhere, and must not hear of it.
void BeginLogLocked();
void ReportOnce();

}  // namespace qvheap

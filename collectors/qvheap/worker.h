// The thread that serves the command channel. The library creates and runs it through the
// thread services that a tool installs; these are the collector's own.
//
// The thread is inside the collector from its first instruction to its last: what it does is not
// counted, it is no thread of the census, and no signal handler of the program's runs on it. Nobody
// waits for it, hence it is detached: whoever ends the channel may be a signal handler's exit, amid
// whatever that thread was doing.
//
// A wait on a semaphore ends whenever a signal is looked at: after a stop (Ctrl-Z), under a debugger,
// when the program changes its user id and libc tells every thread. The library's worker then ends by
// contract, so here it begins again as long as the channel is open.
//
// It has a table of descriptors of its own (close_range with CLOSE_RANGE_UNSHARE), in which the lock
// file stays open and in which snapshots, log and series are opened. So the program can neither meet
// our descriptors nor close them or put a file of its own in their place, while we write least of all;
// and its children inherit none.
#pragma once

namespace qvheap {

void InstallWorkerServices();
bool WorkerExists();
void AwaitWorkersEnd();  // until the system knows the thread no more; at most a second
void ForgetWorker();     // in a child process: there is none, and its channel is detached

}  // namespace qvheap

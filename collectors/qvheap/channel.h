// The command channel of a process, in DIR/<pid>/: when it is opened and how it goes. What the commands
// do: collectors/qvheap/steering.h.
//
//            kOff --------------------------------- -nochannel, could not be opened, or was stopped
//   start -> kDue -- opened ----> kOpen -- exit, _exit, exec, the main thread ends --> kOff or kDue
//              '------- fork: the child -------'
//
// The launched process opens its channel at start. Any other one is most often gone before anybody
// could ask for it: it does so when it is kDueAfterMilliseconds old, on its way through the slow path
// of an allocation. Only the main thread opens, since its end must be noticed: a process whose last
// thread has ended exits, so a worker that stayed would keep it alive.
//
// Invariants
//  (1) The program must find every descriptor number free: what the channel needs is in the worker's
//      own table (worker.h).
//  (2) What the channel is made of is removed by whoever ends it, without waiting for the worker: the
//      semaphore's removal wakes it, and it finds the state changed. It alone detaches the area, so
//      that it never looks at an area that is gone; or the end of the process does.
//  (3) A child process forgets what it inherited, a child of vfork (not g_process.pid) touches nothing.
//  (4) A process that was killed, or ran another image, left its objects behind. The next channel of
//      that process id removes them first. So does `qvctl DIR/<pid> clean`.
// All state is under the census lock, which is held across fork.
#pragma once

#include "collectors/qvheap/words.h"

namespace qvheap {

enum class ChannelState : uint32_t { kOff, kDue, kOpen };
extern QVHEAP_OURS ChannelState g_channelState;

inline constexpr uint64_t kDueAfterMilliseconds = 100;

// All are called inside the collector but for OpenChannelIfDue, which does nothing there.
void StartChannelLocked();            // at start
QVHEAP_COLD void OpenChannelIfDue();  // of a thread that is in the slow path of an allocation
void CloseChannelLocked(ChannelState next);
void RestartChannelLocked();  // in a child process

}  // namespace qvheap

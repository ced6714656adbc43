// Command channel: how a controlling process steers the tool.
//
//   lock file "obkcmds.dat"    | shared-memory id | semaphore key |        flock guards the area
//   shared memory              | ready | pending | record 0 ... record 4 |  21,868 bytes
//   semaphore                  wake-ups that the worker has not consumed
//
//   controller: flock, append records, raise pending, unlock, post the semaphore
//   worker:     wait on the semaphore (with the heartbeat's time-out), try the flock, copy the records,
//               pending = 0, unlock, hand the copies to the callback
//
// Invariants
//  (1) The lock file is locked exclusively from before the segment exists until the area is zeroed and
//      marked ready; afterwards the tool holds the lock only while it takes records, and never waits.
//  (2) The callback runs on the worker, one call at a time, without the lock, on private copies. One
//      worker serves a registration; one of an earlier registration passes its wake-up on and ends.
//  (3) What the area holds is another process's word: counts are read once and clamped.
//  (4) The worker does not look at the channel before set-up is over: g_setUp moves from kRunning to
//      kDone or kFailed with release order, and the worker waits for that with acquire.
//  (5) A channel is taken from, and taken away, under one process-wide guard: a worker never finds the area
//      detached or the lock file closed amid its taking. No callback runs and nothing waits under it. The
//      child of a fork takes it over from a thread of its parent's.
#pragma once

#include "runtime/atomics.h"

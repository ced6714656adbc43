// The controller's end of a command channel: what is found through a lock file, and the duties towards
// the tool: the flock for every look and change, records appended from the pending count on, one post
// for each batch after the lock is released.
#pragma once

#include <sys/types.h>

#include <string>

#include "include/qvrt.h"

namespace qvctl {

// Also the program's exit statuses.
enum Status : int {
  kOk = 0,
  kUsage = 1,
  kNoChannel = 2,     // no lock file in the directory
  kStaleFile = 3,     // a lock file that leads to no area or no semaphore
  kDeadTool = 4,      // an area that no living tool uses
  kNotReady = 5,      // the tool has not finished setting it up
  kAreaFull = 6,      // no room within the time limit
  kTimedOut = 7,      // the tool has not taken the records within the time limit
  kTooLong = 8,       // a payload beyond 4,352 bytes
  kNoPermission = 9,  // another user's
  kAlive = 10,        // clean: the tool is alive, so nothing was removed
  kSystem = 11        // anything else the system refused
};

struct Failure {
  Status status;
  std::string message;
};

struct Facts {
  int segmentId = -1;
  int semaphoreId = -1;
  key_t semaphoreKey = 0;
  bool ready = false;
  int pending = 0;
  pid_t creator = 0;
  bool creatorAlive = false;
  unsigned long attached = 0;  // this program not counted
  bool Alive() const { return creatorAlive && attached > 0; }
};

// An attached channel. Everything throws Failure.
class Channel {
 public:
  explicit Channel(const std::string& directory);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  Facts Look() const;
  // Appends one record and posts the semaphore. Waits for the lock and for room until the limit.
  void Send(const CommandRecord& record, double limitSeconds);
  // Returns when the tool has taken all records.
  void AwaitTaken(double limitSeconds) const;

 private:
  bool TryAppend(const CommandRecord& record);
  void Post() const;

  std::string path_;
  int file_ = -1;
  int segmentId_ = -1;
  key_t key_ = 0;
  int semaphoreId_ = -1;
  CommandArea* area_ = nullptr;
};

// Removes what a dead tool left in the directory. Throws kAlive if the tool is alive.
void Clean(const std::string& directory);

// Returns when the tool has removed its channel.
void AwaitRemoval(const std::string& directory, double limitSeconds);

}  // namespace qvctl

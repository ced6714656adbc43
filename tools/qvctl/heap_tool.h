// The commands of qvheap by name (collectors/qvheap/commands.h), each done when the call returns: the
// tool empties the area before it calls back, so a second command is sent behind the first; once that is
// taken, the first is done.
#pragma once

#include <map>
#include <string>

namespace qvctl {

extern const std::map<std::string, int> kHeapCommands;  // but for the one that does nothing

// Throws Failure. Prints the file's name after a snapshot.
void DoHeapCommand(const std::string& directory, const std::string& command, double limitSeconds);

}  // namespace qvctl

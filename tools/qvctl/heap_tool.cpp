// The commands of qvheap. Design: tools/qvctl/heap_tool.h.
#include "tools/qvctl/heap_tool.h"

#include <stdio.h>

#include <filesystem>
#include <regex>
#include <set>

#include "collectors/qvheap/commands.h"
#include "tools/qvctl/channel.h"

namespace qvctl {
namespace {

namespace fs = std::filesystem;

void SendCode(Channel& channel, int code, double limitSeconds) {
  CommandRecord record = {};
  record.arguments[0] = code;
  channel.Send(record, limitSeconds);
  channel.AwaitTaken(limitSeconds);
}

// The snapshots of the process, whose channel is in DIR/<pid>, are beside that folder.
std::set<fs::path> Snapshots(const fs::path& directory) try {
  const fs::path folder = fs::canonical(directory);
  const std::regex name("qvheap\\." + folder.filename().string() + "\\.[0-9]+\\.xml");
  std::set<fs::path> found;
  for (const auto& entry : fs::directory_iterator(folder.parent_path())) {
    if (std::regex_match(entry.path().filename().string(), name)) found.insert(entry.path());
  }
  return found;
} catch (const fs::filesystem_error& error) {
  throw Failure{kSystem, error.what()};
}

}  // namespace

const std::map<std::string, int> kHeapCommands = {{"snapshot", qvheap::kCommandSnapshot},
                                                  {"pause", qvheap::kCommandPause},
                                                  {"resume", qvheap::kCommandResume},
                                                  {"reset-peak", qvheap::kCommandResetPeak},
                                                  {"stop", qvheap::kCommandStop}};

void DoHeapCommand(const std::string& directory, const std::string& command, double limitSeconds) {
  Channel channel(directory);
  const int code = kHeapCommands.at(command);
  if (code == qvheap::kCommandStop) {
    SendCode(channel, code, limitSeconds);
    return AwaitRemoval(directory, limitSeconds);
  }
  const std::set<fs::path> before = Snapshots(directory);
  SendCode(channel, code, limitSeconds);
  SendCode(channel, qvheap::kCommandNothing, limitSeconds);
  if (code != qvheap::kCommandSnapshot) return;
  for (const fs::path& file : Snapshots(directory)) {
    if (before.count(file) == 0) return void(puts(file.c_str()));
  }
  throw Failure{kSystem, "the snapshot could not be written; the tool's log says why"};
}

}  // namespace qvctl

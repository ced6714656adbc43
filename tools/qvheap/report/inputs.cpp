// Finding results files. Design: tools/qvheap/report/inputs.h.
#include "tools/qvheap/report/inputs.h"

#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <tuple>

namespace qvheap {
namespace {

namespace fs = std::filesystem;

struct ResultsFile {
  long pid;
  long number;  // of a snapshot; the end comes after all of them
  std::string name;
  bool operator<(const ResultsFile& other) const {
    return std::tie(pid, number) < std::tie(other.pid, other.number);
  }
};

struct Listing {
  std::vector<ResultsFile> results;
  std::set<long> logs;          // processes that have a log
  std::set<std::string> parts;  // files that are being written, or that a killed process left
};

Listing List(const std::string& directory, std::error_code& error) {
  static const std::regex kResults("qvheap\\.([0-9]{1,10})(?:\\.([0-9]{1,10}))?\\.xml(\\.part)?");
  static const std::regex kLog("qvlog\\.([0-9]{1,10})\\.xml");
  Listing listing;
  fs::directory_iterator entry(directory, error), end;
  for (; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename();
    std::smatch found;
    if (std::regex_match(name, found, kResults)) {
      if (found[3].matched) {
        listing.parts.insert(name);
      } else {
        const long number = found[2].matched ? std::stol(found[2]) : INT64_MAX;
        listing.results.push_back({std::stol(found[1]), number, name});
      }
    } else if (std::regex_match(name, found, kLog)) {
      listing.logs.insert(std::stol(found[1]));
    }
  }
  std::sort(listing.results.begin(), listing.results.end());
  return listing;
}

// EPERM means that it is there.
bool IsRunning(long pid) { return kill(pid_t(pid), 0) == 0 || errno == EPERM; }

std::string StillRunning(long pid) {
  return "process " + std::to_string(pid) +
         " is still running; its results come at its end (`qvctl DIR/" + std::to_string(pid) +
         " snapshot` makes a snapshot)";
}

// A process that left only a log: running still, or gone without an end of its own.
std::vector<std::string> NotesOn(const std::string& directory, const Listing& listing) {
  std::vector<std::string> notes;
  for (const std::string& part : listing.parts) {
    notes.push_back(directory + "/" + part +
                    ": not complete: being written, or its process was killed");
  }
  for (const long pid : listing.logs) {
    const bool ended = std::any_of(
        listing.results.begin(), listing.results.end(),
        [pid](const ResultsFile& file) { return file.pid == pid && file.number == INT64_MAX; });
    if (!ended && IsRunning(pid)) notes.push_back(directory + ": " + StillRunning(pid));
  }
  return notes;
}

void AddDirectory(const std::string& path, Inputs& inputs) {
  std::error_code error;
  const Listing listing = List(path, error);
  if (error) return inputs.problems.push_back(path + ": " + error.message());
  for (const ResultsFile& file : listing.results) inputs.files.push_back(path + "/" + file.name);
  const std::vector<std::string> notes = NotesOn(path, listing);
  inputs.notes.insert(inputs.notes.end(), notes.begin(), notes.end());
  if (!listing.results.empty()) return;
  const bool hasLog = !listing.logs.empty();
  inputs.problems.push_back(
      path + ": holds no results file of qvheap" +
      (hasLog && notes.empty() ? "; the processes with a log there ended without one" : ""));
}

// Why a file that was named is not there.
std::string ExplainMissing(const std::string& path, int error) {
  const fs::path file(path);
  const std::string name = file.filename();
  const std::string directory = file.has_parent_path() ? file.parent_path().string() : ".";
  std::smatch found;
  struct stat status;
  const std::regex results("qvheap\\.([0-9]{1,10})(?:\\.[0-9]+)?\\.xml");
  if (error != ENOENT || !std::regex_match(name, found, results)) return strerror(error);
  if (stat((path + ".part").c_str(), &status) == 0) {
    return "is not complete yet: only " + name +
           ".part is there, being written or left by a killed process";
  }
  const std::string log = directory + "/qvlog." + found[1].str() + ".xml";
  if (stat(log.c_str(), &status) != 0) return strerror(error);
  if (IsRunning(std::stol(found[1]))) return "is not there yet: " + StillRunning(std::stol(found[1]));
  return "is not there: the process ended without results (killed, or by _exit)";
}

}  // namespace

Inputs FindInputs(const std::vector<std::string>& paths) {
  Inputs inputs;
  for (const std::string& path : paths) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
      inputs.problems.push_back(path + ": " + ExplainMissing(path, errno));
    } else if (S_ISDIR(status.st_mode)) {
      AddDirectory(path, inputs);
    } else {
      inputs.files.push_back(path);
    }
  }
  return inputs;
}

}  // namespace qvheap

// Finding and examining a program. Design: tools/qvheap/program.h.
#include "tools/qvheap/program.h"

#include <elf.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <vector>

namespace qvheap {
namespace {

constexpr int kDeepestScript = 5;  // as the kernel has it
constexpr size_t kFirstLineBytes = 256;

[[noreturn]] void Fail(int status, const std::string& message) { throw Failure{status, message}; }

bool IsRegularFile(const std::string& path, struct stat& status) {
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string FirstBytes(std::ifstream& stream, size_t count) {
  std::string bytes(count, '\0');
  stream.read(bytes.data(), std::streamsize(count));
  bytes.resize(size_t(stream.gcount()));
  stream.clear();
  return bytes;
}

// The interpreter that "#!" names; "" if the line does not.
std::string InterpreterOf(const std::string& firstBytes) {
  std::istringstream line(firstBytes.substr(2, firstBytes.find('\n') - 2));
  std::string interpreter;
  line >> interpreter;
  return interpreter;
}

bool HasProgramHeader(std::ifstream& stream, const Elf64_Ehdr& header, uint32_t type) {
  for (uint32_t i = 0; i < header.e_phnum; i++) {
    Elf64_Phdr entry = {};
    stream.seekg(std::streamoff(header.e_phoff + uint64_t{i} * header.e_phentsize));
    if (!stream.read(reinterpret_cast<char*>(&entry), sizeof entry)) return false;
    if (entry.p_type == type) return true;
  }
  return false;
}

void CheckElf(std::ifstream& stream, const std::string& path, const std::string& firstBytes) {
  Elf64_Ehdr header = {};
  memcpy(&header, firstBytes.data(), std::min(firstBytes.size(), sizeof header));
  if (header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_machine != EM_X86_64) {
    Fail(kCannotRun, path + " is no program for 64-bit x86");
  }
  if (!HasProgramHeader(stream, header, PT_INTERP)) {
    Fail(kCannotRun, path + " is statically linked; only dynamically linked programs can be counted");
  }
}

// The loader drops preloaded libraries when a program runs with rights that its caller has not.
void CheckRights(const std::string& path, const struct stat& status) {
  const bool otherUser = (status.st_mode & S_ISUID) != 0 && status.st_uid != getuid();
  const bool otherGroup = (status.st_mode & S_ISGID) != 0 && status.st_gid != getgid();
  if (otherUser || otherGroup) {
    Fail(kCannotRun, path + " runs with the rights of another user; nothing can be preloaded into it");
  }
}

void CheckFile(const std::string& path, int depth) {
  struct stat status;
  if (!IsRegularFile(path, status)) Fail(kNotFound, path + ": not found");
  if (access(path.c_str(), X_OK) != 0) Fail(kCannotRun, path + " is not executable");
  std::ifstream stream(path, std::ios::binary);
  const std::string firstBytes = FirstBytes(stream, kFirstLineBytes);
  if (!stream.is_open()) Fail(kCannotRun, path + " cannot be read to see what it is");
  if (firstBytes.compare(0, SELFMAG, ELFMAG) == 0) {
    CheckElf(stream, path, firstBytes);
    return CheckRights(path, status);
  }
  if (depth == kDeepestScript) Fail(kCannotRun, path + ": too many interpreters");
  // Anything else is a script; without a first line of that kind, of the shell, as execvp has it.
  const bool named = firstBytes.compare(0, 2, "#!") == 0;
  CheckFile(named ? InterpreterOf(firstBytes) : "/bin/sh", depth + 1);
}

std::vector<std::string> SearchPath() {
  const char* const variable = getenv("PATH");
  std::istringstream list(variable != nullptr ? variable : "/bin:/usr/bin");
  std::vector<std::string> directories;
  for (std::string directory; std::getline(list, directory, ':');) {
    directories.push_back(directory.empty() ? "." : directory);
  }
  return directories;
}

}  // namespace

std::string FindProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  std::string present;  // but not executable
  for (const std::string& directory : SearchPath()) {
    const std::string path = directory + "/" + name;
    struct stat status;
    if (!IsRegularFile(path, status)) continue;
    if (access(path.c_str(), X_OK) == 0) return path;
    if (present.empty()) present = path;
  }
  if (present.empty()) Fail(kNotFound, name + ": not found");
  Fail(kCannotRun, present + " is not executable");
}

void CheckProgram(const std::string& path) { CheckFile(path, 0); }

}  // namespace qvheap

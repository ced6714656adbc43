// Lines of shell and their files. Contract: tests/qvheap/shell.h.
#include "tests/qvheap/shell.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

namespace qvtest {

ChildResult Shell(const std::string& line) {
  return RunChild([&] {
    unshare(
        CLONE_NEWIPC);  // what a killed program leaves goes with its namespace, where we may have one
    execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
    _exit(97);
  });
}

std::vector<std::string> FilesLike(const ChildResult& child, const std::string& pattern) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(child.folder)) {
    const std::string name = entry.path().filename();
    if (std::regex_match(name, std::regex(pattern))) names.push_back(name);
  }
  return names;
}

std::string OnlyFileLike(const ChildResult& child, const std::string& pattern) {
  const std::vector<std::string> names = FilesLike(child, pattern);
  EXPECT_EQ(names.size(), 1u) << pattern;
  return names.empty() ? "" : names.front();
}

std::string WhatIsOpen(const std::string& text) {
  std::vector<std::string> open;
  const std::regex tag("<(/?)([A-Za-z]+)[^<>]*>");
  for (std::sregex_iterator at(text.begin(), text.end(), tag), end; at != end; ++at) {
    if ((*at)[1].length() == 0) {
      open.push_back((*at)[2]);
    } else if (open.empty() || open.back() != (*at)[2]) {
      return "/" + (*at)[2].str();
    } else {
      open.pop_back();
    }
  }
  return open.empty() ? "" : open.back();
}

}  // namespace qvtest

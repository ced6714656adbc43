// What the tests of qvheap share: lines of shell in a folder of their own, and the files they leave.
#pragma once

#include <string>
#include <vector>

#include "tests/support/child.h"

namespace qvtest {

// Runs a line of shell in a new folder.
ChildResult Shell(const std::string& line);

std::vector<std::string> FilesLike(const ChildResult& child, const std::string& pattern);
std::string OnlyFileLike(const ChildResult& child, const std::string& pattern);

// "" if every element is closed in its place; else the first that is not.
std::string WhatIsOpen(const std::string& text);

}  // namespace qvtest

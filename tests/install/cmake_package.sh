#!/usr/bin/env bash
# Builds programs outside the tree against an installed prefix by find_package.
#   cmake_package.sh <prefix> <its library folder>
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

cmake -S "$here/consumer" -B . -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build .
runs_as_it_should

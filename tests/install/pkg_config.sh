#!/usr/bin/env bash
# Builds programs outside the tree against an installed prefix by pkg-config.
#   pkg_config.sh <prefix> <its library folder>
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

build() {  # <package> <program>
  cc -Wall -Werror "$here/$2.c" -o "$2" $(pkg-config --cflags --libs "$1")
}
build qvrt library
build qvhost hosted
runs_as_it_should

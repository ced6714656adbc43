# Sourced by the tests of an installed prefix: works in a folder of its own, outside the tree.
set -euo pipefail
prefix=$1 libraries=$1/$2
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export PKG_CONFIG_PATH=$libraries/pkgconfig LD_LIBRARY_PATH=$libraries

runs_as_it_should() {
  [[ $(./library) == "the library works" ]]
  [[ $(./hosted) == "the host works" ]]
}

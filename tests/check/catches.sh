#!/usr/bin/env bash
# The scripts of this folder see what they are there for: each line below spoils a copy of the tree in one
# way, and the script must fail on it.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT

failed=0
catches() {  # <script> <command that spoils the copy>
  rm -rf "${copy:?}"/*
  (cd "$root" && cp -r $(git ls-files 2>/dev/null | sed 's|/.*||' | sort -u) "$copy")
  if ! "$root/tests/check/$1" "$copy" >/dev/null 2>&1; then
    echo "$1 fails on the tree as it is" && exit 1
  fi
  (cd "$copy" && eval "$2")
  if "$root/tests/check/$1" "$copy" >/dev/null 2>&1; then
    echo "$1 does not see: $2"
    failed=1
  fi
}

include() { echo "mkdir -p ${1%/*} && echo '#include \"$2\"' >>$1"; }

catches includes.sh "$(include runtime/base.h log/report.h)"
catches includes.sh "$(include memory/allocate.h memory/allocator.h)"
catches includes.sh "$(include memory/allocator.h xml/xml_file.h)"
catches includes.sh "$(include xml/xml_file.cpp log/message_log.h)"
catches includes.sh "$(include runtime/files.cpp memory/allocator.h)"
catches includes.sh "$(include options/planted.cpp containers/planted.h)"
catches includes.sh "$(include containers/planted.cpp log/message_log.h)"
catches includes.sh "$(include collectors/planted/planted.c runtime/base.h)"
catches includes.sh "echo '#include <runtime/base.h>' >>host/planted.cpp"
catches includes.sh "$(include xml/one.h xml/two.h) && $(include xml/two.h xml/one.h)"
catches header.sh "sed -i /^__QvMalloc$/d abi/exports.txt"
catches header.sh "echo __QvPlanted >>abi/exports.txt"
catches header.sh "echo __QvMalloc >>abi/exports.txt"
catches header.sh "sed -i 's/^QV_API void __QvFree(.*//' include/qvrt.h"
catches header.sh "sed -i 's/^extern QV_API int32_t __qvRtStarted;//' include/qvrt.h"
catches header.sh "sed -i 's/QV_STRING/QVSTRING/g' tests/abi/layout.h"
catches documents.sh "echo '[planted](docs/planted.md)' >>README.md"
catches documents.sh "echo 'see \`memory/planted.h\`' >>docs/memory.md"
exit $failed

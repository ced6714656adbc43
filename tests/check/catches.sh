#!/usr/bin/env bash
# The scripts of this folder see what they are there for: each line below spoils a file or two in a copy of
# the tree, and the script must fail on that.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
cd "$here/../.."
cp -r $(find . -mindepth 1 -maxdepth 1 ! -name build ! -name .git) "$copy"
cd "$copy"

for script in includes header documents; do "$here/$script.sh" "$copy"; done

failed=0
catches() {  # <script> <the files> <command that spoils them>
  local file
  for file in $2; do [[ ! -e $file ]] || cp "$file" "$file.saved"; done
  eval "$3"
  if "$here/$1" "$copy" >/dev/null 2>&1; then
    echo "$1 does not see: $3"
    failed=1
  fi
  for file in $2; do [[ -e $file.saved ]] && mv "$file.saved" "$file" || rm "$file"; done
}

include() {  # <file> <what it then includes>
  mkdir -p "${1%/*}"
  catches includes.sh "$1" "echo '#include $2' >>$1"
}

include runtime/base.h '"log/report.h"'
include memory/allocate.h '"memory/allocator.h"'
include memory/allocator.h '"xml/xml_file.h"'
include xml/xml_file.cpp '"log/message_log.h"'
include runtime/files.cpp '"memory/allocator.h"'
include options/planted.cpp '"containers/planted.h"'
include containers/planted.cpp '"log/message_log.h"'
include collectors/planted/planted.c '"runtime/base.h"'
include tools/qvctl/planted.cpp '"collectors/qvheap/options.h"'
include host/planted.cpp '<runtime/base.h>'
catches includes.sh "xml/one.h xml/two.h" \
  "echo '#include \"xml/two.h\"' >xml/one.h; echo '#include \"xml/one.h\"' >xml/two.h"

catches header.sh abi/exports.txt "sed -i '/^__QvMalloc$/d' abi/exports.txt"
catches header.sh abi/exports.txt "sed -i '/^_ZN/d' abi/exports.txt"
catches header.sh abi/exports.txt "echo __QvPlanted >>abi/exports.txt"
catches header.sh abi/exports.txt "echo __QvMalloc >>abi/exports.txt"
catches header.sh include/qvrt.h "sed -i '/^QV_API void __QvFree(/d' include/qvrt.h"
catches header.sh include/qvrt.h "sed -i '/^extern QV_API int32_t __qvRtStarted;/d' include/qvrt.h"
catches header.sh tests/abi/layout.h "sed -i '/QV_STRING/d' tests/abi/layout.h"

catches documents.sh README.md "echo '[planted](docs/planted.md)' >>README.md"
catches documents.sh docs/memory.md "echo 'see \`memory/planted.h\`' >>docs/memory.md"
exit $failed

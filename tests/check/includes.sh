#!/usr/bin/env bash
# Holds the include directions of the tree; prints each include that goes the wrong way and fails.
#
#   floor       runtime/{base,checks,atomics,hooks,waiter,…}   include/ and the floor
#   ports       memory/allocate.h, log/report.h, and the other two that the core may look up to:
#               log/message_log.h, runtime/startup.h            include/ and the floor
#   core        runtime, memory, xml, log                       floor, ports, its own folder; log uses xml
#   offered     containers, options, command, annotations,      floor, the two ports, its own folder
#               modules
#   outside     host, collectors, tools                         include/, host/, its own folder
#
# The core calls itself in circles (the allocator reports, the log allocates); these rules are what keeps
# its headers free of them, which is checked too.  includes.sh [root of the tree]
set -euo pipefail
cd "${1:-$(dirname "${BASH_SOURCE[0]}")/../..}"

floor='runtime/(base|checks|atomics|hooks|waiter|spin_lock|shared_lock|lock_order)'
ports='(memory/allocate|log/report)\.h'
lookups='(log/message_log|runtime/startup)\.h'
below="include/.*|$floor\.h"

# What a file may include, as one expression.
allowed() {
  local folder=${1%%/*}
  if [[ $1 =~ ^$floor\.(h|cpp)$ || $1 =~ ^($ports|$lookups)$ ]]; then
    echo "$below"
  else
    case $folder in
      runtime) echo "$below|$ports|$lookups|runtime/.*" ;;
      memory | xml) echo "$below|$ports|$folder/.*" ;;
      log) echo "$below|$ports|$lookups|log/.*|xml/xml_file\.h" ;;
      containers | options | command | annotations | modules) echo "$below|$ports|$folder/.*" ;;
      host | collectors | tools) echo "(include/)?qvrt\.h|(host/)?qvhost\.h|$folder/.*" ;;
    esac
  fi
}

# Lines "file included", for the includes in quotes; what stands in <> is the system's, unless it names a
# file of ours.
list_includes() {
  local folders
  mapfile -t folders < <(compgen -G '*/' | grep -xE \
    '(runtime|memory|xml|log|containers|options|command|annotations|modules|host|collectors|tools)/')
  grep -rE --include='*.h' --include='*.c' --include='*.cpp' '^[[:space:]]*#[[:space:]]*include' \
    "${folders[@]}" | sed -E 's|^([^:]*):.*include[[:space:]]*(["<])([^">]*).*|\1 \2 \3|' |
    while read -r file quote included; do
      if [[ $quote == '"' || -e $included ]]; then echo "${file//\/\//\/} $included"; fi
    done
}

failed=0
includes=$(list_includes)
while read -r file included; do
  if ! grep -qxE "$(allowed "$file")" <<<"$included"; then
    echo "$file must not include $included"
    failed=1
  fi
done <<<"$includes"

# tsort reports every circle on standard error.
if ! circle=$(grep -E '^[^ ]+\.h [^ ]+\.h$' <<<"$includes" | tsort 2>&1 >/dev/null); then
  echo "headers include each other in a circle: $circle"
  failed=1
fi
[[ $failed -eq 0 ]] && echo "Include directions: $(wc -l <<<"$includes") includes hold to the tree's rules."
exit $failed

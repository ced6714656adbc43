#!/usr/bin/env bash
# Holds the include directions of the tree; prints each include that goes the wrong way and fails.
#
#   floor       runtime/{base,checks,atomics,hooks,waiter,…}   include/ and the floor
#   ports       memory/allocate.h, log/report.h, and the other two that the core may look up to:
#               log/message_log.h, runtime/startup.h            include/ and the floor
#   core        runtime, memory, xml, log                       floor, ports, its own folder; log uses xml
#   offered     containers, options, command, annotations,      floor, the two ports, its own folder
#               modules
#   outside     collectors, tools                               include/, host/qvhost.h, its own folder; a tool
#                                                               also the collector of its name, and any
#                                                               collector's command codes
#               host                                            include/, runtime/atomics.h (inlines alone)
#
# The core calls itself in circles (the allocator reports, the log allocates); these rules are what keeps
# its headers free of them, which is checked too.  includes.sh [root of the tree]
set -euo pipefail
cd "${1:-$(dirname "${BASH_SOURCE[0]}")/../..}"


mapfile -t folders < <(compgen -G '*/' | grep -xE \
  '(runtime|memory|xml|log|containers|options|command|annotations|modules|host|collectors|tools)/')

# Lines "file included", for the includes in quotes, and for those in <> that name a file of ours.
includes=$(grep -rE --include='*.h' --include='*.c' --include='*.cpp' '^[[:space:]]*#[[:space:]]*include' \
  "${folders[@]}" | sed -E 's|//+|/|; s|^([^:]*):.*include[[:space:]]*(["<])([^">]*).*|\1 \2 \3|' |
  while read -r file quote included; do
    if [[ $quote == '"' || -f $included ]]; then echo "$file $included"; fi
  done)

wrong=$(awk '
  BEGIN {
    floor = "runtime/(base|checks|atomics|hooks|waiter|processor|spin_lock|shared_lock|lock_order)"
    ports = "memory/allocate\\.h|log/report\\.h"
    lookups = "log/message_log\\.h|runtime/startup\\.h"
    below = "include/.*|" floor "\\.h"
    own["runtime"] = own["memory"] = own["xml"] = below "|" ports
    own["runtime"] = own["runtime"] "|" lookups
    own["log"] = below "|" ports "|" lookups "|xml/xml_file\\.h"
    own["containers"] = own["options"] = own["command"] = own["annotations"] = own["modules"] = own["memory"]
    own["collectors"] = own["tools"] = "include/.*|host/qvhost\\.h"
    own["tools"] = own["tools"] "|collectors/[a-z]+/commands\\.h"
    own["host"] = "include/.*|runtime/atomics\\.h"
  }
  function allowed(file,  folder, part) {
    if (file ~ "^" floor "\\.(h|cpp)$" || file ~ "^(" ports "|" lookups ")$") return below
    folder = file
    sub("/.*", "", folder)
    if (split(file, part, "/") > 2 && folder == "tools") folder = "(tools|collectors)/" part[2]
    return own[part[1]] "|" folder "/.*"
  }
  $2 !~ "^(" allowed($1) ")$" { print $1 " must not include " $2 }' <<<"$includes")

# tsort names every circle on standard error.
circle=$(awk '$1 ~ /\.h$/ && $2 ~ /\.h$/' <<<"$includes" | tsort 2>&1 >/dev/null) ||
  wrong+=$'\n'"headers include each other in a circle: $circle"

if [[ -n $wrong ]]; then
  echo "$wrong"
  exit 1
fi
echo "Include directions: $(wc -l <<<"$includes") includes hold to the tree's rules."

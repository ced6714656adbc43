#!/usr/bin/env bash
# The completions offer each option and command that the tools' help names, and what fits in its place.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/options.sh"
for tool in qvheap qvctl qvnotes; do source "$here/../../completions/$tool"; done
compopt() { :; }  # it works in a completion alone
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir folder
touch file.xml
failed=0

# offers <words…>: what is offered for the last of them.
offers() {
  COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
  "_$1" "$1" "${!#}" "${COMP_WORDS[COMP_CWORD - 1]}" || true
  printf '%s\n' "${COMPREPLY[@]:-}" | sort -u
}

# expect <what> <words…>: that, one a line in order, and nothing else.
expect() {
  local found
  found=$(offers "${@:2}")
  [[ $found == "$(tr ' ' '\n' <<<"$1")" ]] && return
  echo "for '${*:2}' it offers '$found' instead of '$1'"
  failed=1
}

includes() {  # <options> <words…>
  local option found
  found=$(offers "${@:2}")
  for option in $1; do
    grep -qxe "$option" <<<"$found" && continue
    echo "for '${*:2}' it does not offer $option"
    failed=1
  done
}

single() { options_of "$1" | grep -v '^--'; }  # qvheap's own spelling

includes "$(single "$heap_help")" qvheap -
includes "$(single "$report_help")" qvheap report -
includes "$(single "$diff_help")" qvheap diff -
includes "$(options_of "$control_help")" qvctl -
includes "$(commands_of "$control_help")" qvctl folder ""
[[ -z $QVNOTES ]] || includes "$(options_of "$notes_help")" qvnotes -

includes "report diff" qvheap ""
expect report qvheap report
expect "-quiet" qvheap -q
expect "folder" qvheap -out fo
expect "" qvheap -interval ""
expect "callgrind" qvheap report -format c
expect "json text" qvheap diff -format ""
expect "allocated count live peak" qvheap report -sort ""
expect "file.xml" qvheap report fi
expect "file.xml" qvheap report -top 3 fi
expect "" qvheap report -top ""
expect "-lines" qvheap diff -l
expect "" qvheap report -l
expect "sort" qvheap -out folder -- sort
expect "file.xml" qvheap -quiet sort fi
expect "" qvheap -quiet sort -q
expect "" qvheap -- report -f
expect "snapshot" qvctl folder sn
expect "folder" qvctl fo
expect "pause" qvctl --timeout 5 folder pa
expect "file.xml" qvctl folder send 1 --payload-file fi
expect "" qvctl folder status s
expect "file.xml" qvnotes --definitions fi
exit $failed

#!/usr/bin/env bash
# The man pages are sound, and each option and command that a tool's help names has its entry in them.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/options.sh"
pages=$here/../../docs/man
failed=0

if command -v mandoc >/dev/null; then
  mandoc -T lint -W warning "$pages"/*.1 || failed=1
else
  echo "mandoc is missing: the pages' form is not checked"
fi

# has <page> <its text> <macro> <word>: an entry of a list is about the word.
has() {
  grep -qE "^\.It $3 $4( |\$)" <<<"$2" && return
  echo "$1 has no entry for $4"
  failed=1
}

check_options() {  # <page> <help text>
  local option text count=0
  text=$(<"$pages/$1")
  for option in $(options_of "$2"); do
    [[ $option == -- ]] || has "$1" "$text" Fl "${option#-}"
    count=$((count + 1))
  done
  ((count >= ${3:-1})) || { echo "the help of $1 names only $count options"; failed=1; }
}

check_options qvheap.1 "$heap_help" 3
check_options qvheap.1 "$report_help" 5
check_options qvheap.1 "$diff_help" 6
check_options qvctl.1 "$control_help" 3
[[ -z $QVNOTES ]] || check_options qvnotes.1 "$notes_help"
for command in $(commands_of "$control_help"); do
  has qvctl.1 "$(<"$pages/qvctl.1")" Cm "$command"
done
exit $failed

#!/usr/bin/env bash
# What the hottest exported functions do in machine code: their calls, locked operations, stores and ways
# out, in the order of the code, without addresses and registers (r). Stores to the stack are left out.
#
#   hot_code.sh <libqvrt12.so>            prints it
#   hot_code.sh <libqvrt12.so> <golden>   compares it with the golden file and shows the difference
#
# The golden file is made from the release preset and g++ 12. After a change that is meant:
#   tests/abi/hot_code.sh build/release/libqvrt12.so >tests/abi/hot_code.golden
set -euo pipefail

functions=(__QvAcquireSpinLock __QvReleaseSpinLock __QvAcquireSharedLock __QvReleaseSharedLock
  __QvAcquireExclusiveLock __QvReleaseExclusiveLock __QvMalloc __QvFree)

# One instruction a line: mnemonic and operands, the last of which is the destination.
describe() {
  sed -nE 's/^ +[0-9a-f]+:\t//p' | awk -v self="$1" '
    function target() { return match($0, /<[^+>]*/) ? substr($0, RSTART + 1, RLENGTH - 1) : "r" }
    function destination(  place) {  # "" if it is no place in memory
      if ($0 ~ / # /) return target()
      if (!match($0, /(-?0x[0-9a-f]+)?\([^()]*\)$/)) return ""
      place = substr($0, RSTART)
      gsub(/%[a-z0-9]+/, "r", place)
      return place
    }
    /^(cmp|test|bt|lea|nop|cs nop|push|pop|ret)/ || /\(%rsp\)$/ { next }
    /^call/ { print "  call", ($2 ~ /^\*/ ? "*r" : target()); next }
    /^j/ { if (target() != self) print "  leave for", target(); next }
    /^lock/ { print "  lock", $2, destination(); next }
    /^xchg/ { if (/\(/) print "  xchg"; next }
    /,[^,]*\([^()]*\)$|,[^,(]*\(%rip\) |^(inc|dec|neg|not).*\(/ { print "  store", destination() }'
}

print_all() {
  local function
  for function in "${functions[@]}"; do
    echo "$function"
    objdump -d -C --no-show-raw-insn --disassemble="$function" "$1" | describe "$function"
  done
}

if [[ $# -eq 1 ]]; then
  print_all "$1"
elif ! diff -u --label golden --label built "$2" <(print_all "$1"); then
  echo "The machine code of a hot function changed. If that is meant, look at it and regenerate:"
  sed -n '/regenerate\|^#   tests/s/^# *//p' "$0"
  exit 1
fi

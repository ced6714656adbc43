#!/usr/bin/env bash
# Compares include/qvrt.h with abi/exports.txt, both ways, and with tests/abi/layout.h: every exported
# symbol is declared, every declaration marked QV_API is exported, every record has its layout asserted.
# A class counts by its name: its members' symbols are mangled.  header.sh [root of the tree]
set -euo pipefail
cd "${1:-$(dirname "${BASH_SOURCE[0]}")/../..}"

# The header without comments, on one line.
header=$(g++ -fpreprocessed -E -P -x c++ include/qvrt.h | grep -v '^#' | tr '\n' ' ')

# The name before the first parenthesis, or the last one of a variable or class.
declared() {
  grep -oE 'QV_API [^;{]*' <<<"$header" | grep -v '^QV_API __attribute__' |
    sed -E 's/ *\(.*//; s/[ :].*public.*//; s/ *$//; s/.*[ *]//' | sort -u
}

exported() {
  grep -vE '^(#|$)' abi/exports.txt | c++filt | sed -E 's/::.*//; s/\(.*//' | sort -u
}

records() { grep -oE 'typedef struct \w+|class QV_API \w+' <<<"$header" | sed 's/.* //' | sort -u; }

failed=0
complain() {  # <list of names> <what is wrong with them>
  [[ -z $1 ]] && return
  sed "s/\$/: $2/" <<<"$1"
  failed=1
}

complain "$(comm -23 <(declared) <(exported))" "declared in include\/qvrt.h, missing in abi\/exports.txt"
complain "$(comm -13 <(declared) <(exported))" "in abi\/exports.txt, not declared in include\/qvrt.h"
complain "$(grep -vE '^(#|$)' abi/exports.txt | sort | uniq -d)" "twice in abi\/exports.txt"
complain "$(comm -23 <(records) <(grep -oE '\w+' tests/abi/layout.h | sort -u))" \
  "a record without assertions in tests\/abi\/layout.h"
[[ $failed -eq 0 ]] && echo "Header: $(declared | wc -l) names as exported, $(records | wc -l) records laid out."
exit $failed

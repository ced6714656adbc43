#!/usr/bin/env bash
# The README's collector compiles as it stands, by the README's own command, and finds what `ls` looks up in
# its environment.  readme.sh <prefix> <its library folder>
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
readme=$here/../../README.md

# The first C block, and the command that begins with "cc".
sed -n '/^```c$/,/^```$/{/^```/d;p}' "$readme" >lookups.c
command=$(grep -m1 '^cc .*lookups' "$readme")
eval "${command/#cc/cc -Wall -Wextra -Werror}"

unset LS_COLORS
TIME_STYLE=iso LD_PRELOAD=./lookups.so ls -l --color=always >listing 2>errors
[[ ! -s errors ]]
grep -q lookups.so listing
report=$(echo lookups.*.xml)
grep -q '<set>TIME_STYLE</set>' "$report"
grep -q '<unset>LS_COLORS</unset>' "$report"
[[ $(tail -c 10 "$report") == "</lookups>" ]]

#!/usr/bin/env bash
# Every relative link of a Markdown document, and every path it names between backticks, exists.
#   documents.sh [root of the tree]
set -euo pipefail
cd "${1:-$(dirname "${BASH_SOURCE[0]}")/../..}"

links() { grep -oE '\]\([^)#]+' "$1" | sed 's/^](//' | grep -vE '^(https?|mailto):' || true; }

# `folder/file.ext` or `folder/`, beginning with a folder of the tree; patterns and build results pass.
paths() {
  grep -oE '`[A-Za-z_.][A-Za-z0-9_.-]*/[A-Za-z0-9_./-]*`' "$1" | tr -d '`' | grep -vE '^(build|\.\.?)/' || true
}

failed=0 count=0
missing() {  # <document> <what it names>
  echo "$1 names $2, which does not exist"
  failed=1
}

for document in *.md docs/*.md; do
  while read -r link; do
    count=$((count + 1))
    [[ -e $(dirname "$document")/$link ]] || missing "$document" "$link"
  done < <(links "$document")
  while read -r path; do
    count=$((count + 1))
    [[ -e $path ]] || missing "$document" "$path"
  done < <(paths "$document")
done
[[ $failed -eq 0 ]] && echo "Documents: $count links and paths resolve."
exit $failed

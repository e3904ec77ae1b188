#!/bin/sh
# check_exports.sh LIBRARY DIR: the dynamic symbols that LIBRARY defines must
# be exactly the demangled names listed in DIR/*.syms (one per line, '#'
# starts a comment). Prints what is missing and what is extra.
set -eu
lib=$1
dir=$2
expected=$(mktemp)
actual=$(mktemp)
trap 'rm -f "$expected" "$actual"' EXIT
cat "$dir"/*.syms 2>/dev/null | sed -e 's/#.*//' -e 's/[[:space:]]*$//' | grep -v '^$' | LC_ALL=C sort -u >"$expected" || true
nm -D --defined-only -C --format=just-symbols "$lib" | LC_ALL=C sort -u >"$actual"
if ! cmp -s "$expected" "$actual"; then
    echo "exports of $lib differ from $dir/*.syms (< listed only, > exported only):"
    diff "$expected" "$actual" | grep '^[<>]' || true
    exit 1
fi
echo "$(wc -l <"$actual") exported symbols as listed"

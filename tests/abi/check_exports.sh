#!/bin/sh
# Compares what the library exports with the committed list: check_exports.sh LIBRARY LIST
# After an intended change: check_exports.sh LIBRARY /dev/null, and take its lines that begin with +.
set -eu
export LC_ALL=C
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
nm -D --defined-only -C "$1" | cut -d ' ' -f 3- | sort -u > "$actual"
if ! diff -u --label "expected ($2)" "$2" --label "exported by $1" "$actual"; then
  echo "the exported names differ: + is new, - is gone" >&2
  exit 1
fi

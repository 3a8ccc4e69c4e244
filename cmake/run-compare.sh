#!/bin/sh
# Runs a Windows program under Wine and compares what it prints with the
# expected text (line ends and trailing blanks ignored).
#   run-compare.sh <arch> <prefix> <expected output file> <program> [arguments...]
arch=$1
prefix=$2
expected=$3
shift 3
out=$(mktemp)
"$(dirname "$0")/wine-run.sh" "$arch" "$prefix" "$@" >"$out" 2>&1
rc=$?
sed -i -e 's/\r$//' -e 's/[ \t]*$//' "$out"
cat "$out"
if [ $rc -ne 0 ]; then
  echo "$1 exited with $rc"
elif ! diff -u "$expected" "$out"; then
  echo "output of $1 differs from $expected"
  rc=1
fi
rm -f "$out"
[ $rc -eq 0 ]

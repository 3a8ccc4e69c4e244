#!/bin/sh
# Runs a Windows program under Wine and compares what it prints with the
# expected text (line ends and trailing blanks ignored).
#   run-compare.sh <prefix> <expected output file> <program.exe> [arguments...]
prefix=$1
expected=$2
shift 2
out=$(mktemp)
"$(dirname "$0")/wine-run.sh" "$prefix" "$@" >"$out" 2>&1
rc=$?
sed -i -e 's/\r$//' -e 's/[ \t]*$//' "$out"
cat "$out"
if [ $rc -ne 0 ]; then
  echo "$1 exited with $rc"
  rm -f "$out"
  exit 1
fi
if ! diff -u "$expected" "$out"; then
  echo "output of $1 differs from $expected"
  rm -f "$out"
  exit 1
fi
rm -f "$out"

#!/bin/sh
# Runs a JScript or VBScript sample under Wine's script host and compares
# what it prints with the expected text (line ends and trailing blanks of the
# output are ignored).
#   run-script.sh <prefix> <script> <expected output file>
prefix=$1
script=$2
expected=$3
out=$(mktemp)
# The script host wants a Windows path; Wine maps the Unix root to Z:.
WINEPREFIX=$prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" \
  wine cscript //nologo "Z:$(echo "$script" | sed 's#/#\\#g')" </dev/null >"$out" 2>&1
rc=$?
sed -i -e 's/\r$//' -e 's/[ \t]*$//' "$out"
if [ $rc -ne 0 ]; then
  cat "$out"
  echo "script exited with $rc"
  rm -f "$out"
  exit 1
fi
if ! diff -u "$expected" "$out"; then
  echo "output of $script differs from $expected"
  rm -f "$out"
  exit 1
fi
cat "$out"
rm -f "$out"

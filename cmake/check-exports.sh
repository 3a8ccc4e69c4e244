#!/bin/sh
# Checks that a DLL exports exactly the five entry points, undecorated.
#   check-exports.sh <objdump> <dll>
objdump=$1
dll=$2
expected="DllCanUnloadNow DllGetClassObject DllRegisterServer DllUnregisterServer DoVerbW"
actual=$("$objdump" -p "$dll" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | grep '\[' | grep -v Ordinal |
  sed 's/.*\] //' | sort | tr '\n' ' ' | sed 's/ $//')
echo "exports of $dll: $actual"
[ "$actual" = "$expected" ] || { echo "expected: $expected"; exit 1; }

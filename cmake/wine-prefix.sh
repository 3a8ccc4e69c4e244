#!/bin/sh
# Creates the private Wine prefix of a build (once) and registers kyutils.dll
# in it. Never touches the user's own prefix.
#   wine-prefix.sh <prefix> <kyutils.dll>
set -e
prefix=$1
dll=$2
export WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
if [ ! -f "$prefix/system.reg" ]; then
  echo "Creating Wine prefix $prefix"
  mkdir -p "$prefix"
  wineboot -i </dev/null >"$prefix.boot.log" 2>&1
  wineserver -w
fi
wine regsvr32 /s "$dll" </dev/null >"$prefix.regsvr32.log" 2>&1 || {
  rc=$?
  cat "$prefix.regsvr32.log"
  echo "regsvr32 failed with exit code $rc"
  exit 1
}
echo "Registered $dll in $prefix"

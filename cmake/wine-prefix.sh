#!/bin/sh
# Creates a private Wine prefix (once) laid out as a 64-bit Windows, with
# the 32-bit programs beside the 64-bit ones, and registers each given DLL
# in it through the loader of the DLL's own architecture. Never touches the
# user's own prefix.
#   wine-prefix.sh <prefix> <kyutils.dll>...
set -e
here=$(dirname "$0")
prefix=$1
shift
# A prefix made before the 32-bit Wine was installed has no 32-bit half, and
# 32-bit programs cannot start in it: make it again.
if [ -f "$prefix/system.reg" ] && [ ! -d "$prefix/drive_c/windows/syswow64" ]; then
  echo "Wine prefix $prefix has no 32-bit programs; making it again"
  rm -rf "$prefix"
fi
if [ ! -f "$prefix/system.reg" ]; then
  echo "Creating Wine prefix $prefix"
  mkdir -p "$prefix"
  "$here/wine-run.sh" x86_64 "$prefix" wineboot -i >"$prefix.boot.log" 2>&1
  WINEPREFIX=$prefix /usr/lib/wine/wineserver64 -w
fi
for dll in "$@"; do
  arch=$("$here/pe-arch.sh" "$dll")
  "$here/wine-run.sh" "$arch" "$prefix" regsvr32 /s "$dll" >"$prefix.regsvr32.log" 2>&1 || {
    rc=$?
    cat "$prefix.regsvr32.log"
    echo "regsvr32 ($arch) of $dll failed with exit code $rc"
    exit 1
  }
  echo "Registered $dll ($arch) in $prefix"
done

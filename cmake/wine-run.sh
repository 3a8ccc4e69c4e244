#!/bin/sh
# Runs a Windows program under Wine in the given prefix, through the loader of
# the given architecture, and prints what it printed. The one place that maps
# an architecture to its Wine loader: with both Wines installed, plain `wine`
# picks by the executable's bitness, but starts built-in programs (cscript,
# regsvr32, reg, rundll32) as 32-bit ones, so every run names its loader.
# Output goes through a file and stdin comes from /dev/null: Wine's helper
# processes would otherwise inherit ctest's pipes and hold them open.
#   wine-run.sh <x86_64|i686> <prefix> <program> [arguments...]
arch=$1
prefix=$(realpath -m "$2")
shift 2
case $arch in
  x86_64) loader=/usr/lib/wine/wine64 ;;
  i686) loader=/usr/lib/wine/wine ;;
  *) echo "wine-run.sh: unknown architecture '$arch'" >&2; exit 2 ;;
esac
if [ ! -x "$loader" ]; then
  echo "wine-run.sh: no Wine loader for $arch ($loader is missing); scripts/deps.sh installs it" >&2
  exit 2
fi
# No debugger on an unhandled exception: Wine's would report it and let the
# process end with exit code 0, so a crash would pass for success.
log=$(mktemp)
WINEPREFIX=$prefix WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES="mscoree,mshtml=;winedbg.exe=d" \
  "$loader" "$@" </dev/null >"$log" 2>&1
rc=$?
cat "$log"
rm -f "$log"
exit $rc

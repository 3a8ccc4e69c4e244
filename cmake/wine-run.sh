#!/bin/sh
# Runs a Windows program under Wine in the given prefix and prints what it
# printed. Output goes through a file and stdin comes from /dev/null: Wine's
# helper processes would otherwise inherit ctest's pipes and hold them open.
#   wine-run.sh <prefix> <program.exe> [arguments...]
prefix=$1
shift
log=$(mktemp)
WINEPREFIX=$prefix WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES="mscoree,mshtml=" wine "$@" </dev/null >"$log" 2>&1
rc=$?
cat "$log"
rm -f "$log"
exit $rc

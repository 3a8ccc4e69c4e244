#!/bin/sh
# Runs the peer program's multi-process stress and kill runs under Wine, then
# opens the compound files they leave with an independent reader (Debian's
# python3-olefile) and checks every element.
#   olefile-check.sh <wine prefix> <wine-run.sh> <sharedconfig_peer.exe> <work folder>
prefix=$1
run=$2
peer=$3
work=$4
here=$(dirname "$0")
python=/usr/bin/python3
[ -x "$python" ] || python=python3
"$python" -c 'import olefile' || { echo "python3-olefile is missing"; exit 1; }
mkdir -p "$work"
stress=$work/stress.stg
kills=$work/kills.stg
rm -f "$stress" "$kills"
windows() { echo "Z:$1" | tr / '\\'; }

out=$("$run" "$prefix" "$peer" stress "$(windows "$stress")" 6 40)
rc=$?
echo "$out"
[ $rc -eq 0 ] || { echo "the stress run failed ($rc)"; exit 1; }
failures=$(echo "$out" | sed -n 's/^stress:.* failures=\([0-9]*\) .*/\1/p')

out=$("$run" "$prefix" "$peer" killrun "$(windows "$kills")" 30)
rc=$?
echo "$out"
[ $rc -eq 0 ] || { echo "the kill run failed ($rc)"; exit 1; }

"$python" "$here/check_olefile.py" "$stress" --failures "${failures:-0}" || exit 1
"$python" "$here/check_olefile.py" "$kills" --after-kills || exit 1

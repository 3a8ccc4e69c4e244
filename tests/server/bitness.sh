#!/bin/sh
# Both builds registered side by side in one prefix, as on a 64-bit Windows:
# clients and script hosts of each architecture reach their own build, and
# unregistering one build leaves the other working.
#   bitness.sh <prefix> <x86_64 dll> <i686 dll> <x86_64 probe> <i686 probe> <script> <expected output>
set -e
prefix=$1 dll_x86_64=$2 dll_i686=$3 probe_x86_64=$4 probe_i686=$5 script=$6 expected=$7
cmake=$(dirname "$0")/../../cmake

# check <arch> served|unregistered: the probe, and where served the script sample too
check() {
  eval exe=\$probe_$1
  "$cmake/wine-run.sh" "$1" "$prefix" "$exe" "$2"
  if [ "$2" = served ]; then "$cmake/run-script.sh" "$1" "$prefix" "$script" "$expected" >/dev/null; echo "$1: script sample ok"; fi
}
regsvr() {  # regsvr <arch> [/u]
  eval dll=\$dll_$1
  "$cmake/wine-run.sh" "$1" "$prefix" regsvr32 /s $2 "$dll"
}

echo "== both registered"
"$cmake/wine-prefix.sh" "$prefix" "$dll_x86_64" "$dll_i686"
check x86_64 served; check i686 served
echo "== the i686 build unregistered"
regsvr i686 /u
check x86_64 served; check i686 unregistered
echo "== the i686 build registered again, the x86_64 build unregistered"
regsvr i686; regsvr x86_64 /u
check i686 served; check x86_64 unregistered
echo "== both registered again"
regsvr x86_64
check x86_64 served; check i686 served

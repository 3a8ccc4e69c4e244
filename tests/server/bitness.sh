#!/bin/sh
# Both builds registered side by side in one prefix, as on a 64-bit Windows:
# clients and script hosts of each architecture reach their own build, and
# unregistering one build leaves the other working.
#   bitness.sh <prefix> <x86_64 dll> <i686 dll> <x86_64 probe> <i686 probe> <script> <expected output>
set -e
prefix=$1 dll64=$2 dll32=$3 probe64=$4 probe32=$5 script=$6 expected=$7
cmake=$(dirname "$0")/../../cmake

step() { echo "== $*"; }
probe() {  # probe <arch> served|unregistered
  if [ "$1" = x86_64 ]; then exe=$probe64; else exe=$probe32; fi
  "$cmake/wine-run.sh" "$1" "$prefix" "$exe" "$2"
}
sample() { "$cmake/run-script.sh" "$1" "$prefix" "$script" "$expected" >/dev/null && echo "$1: script sample ok"; }
regsvr() {  # regsvr <arch> [/u]
  if [ "$1" = x86_64 ]; then dll=$dll64; else dll=$dll32; fi
  "$cmake/wine-run.sh" "$1" "$prefix" regsvr32 /s $2 "$dll"
}

step "both registered"
"$cmake/wine-prefix.sh" "$prefix" "$dll64" "$dll32"
probe x86_64 served; probe i686 served
sample x86_64; sample i686

step "the i686 build unregistered"
regsvr i686 /u
probe x86_64 served; probe i686 unregistered
sample x86_64

step "the i686 build registered again, the x86_64 build unregistered"
regsvr i686
regsvr x86_64 /u
probe i686 served; probe x86_64 unregistered
sample i686

step "both registered again"
regsvr x86_64
probe x86_64 served; probe i686 served

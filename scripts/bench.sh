#!/bin/sh
# Builds and runs every benchmark under Wine in the test prefix.
set -e
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh
prefix="$PWD/build/x64/wineprefix"
cmake/wine-prefix.sh "$prefix" "$PWD/build/x64/server/kyutils.dll" >/dev/null
for bench in $(find build/x64/bench -name '*.exe' | sort); do
  echo "== $(basename "$bench" .exe)"
  cmake/wine-run.sh "$prefix" "$bench" "$@"
done

#!/bin/sh
# Builds and runs every benchmark under Wine in the test prefix of one
# architecture (ARCH=x86_64, the default, or ARCH=i686).
set -e
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh
arch=${ARCH:-x86_64}
if [ "$arch" = i686 ]; then dir=x86; else dir=x64; fi
prefix="$PWD/build/$dir/wineprefix"
cmake/wine-prefix.sh "$prefix" "$PWD/build/$dir/server/kyutils.dll" >/dev/null
for bench in $(find "build/$dir/bench" -name '*.exe' | sort); do
  echo "== $(basename "$bench" .exe) ($arch)"
  cmake/wine-run.sh "$arch" "$prefix" "$bench" "$@"
done

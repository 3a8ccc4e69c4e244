#!/bin/sh
# The main job: installs what is missing, builds both architectures,
# registers both builds of kyutils.dll side by side in a private Wine prefix
# (build/demo-prefix) and runs the tour, a client of every service, once as
# a 64-bit and once as a 32-bit program.
set -e
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh
prefix="$PWD/build/demo-prefix"
cmake/wine-prefix.sh "$prefix" "$PWD/build/x64/server/kyutils.dll" "$PWD/build/x86/server/kyutils.dll"
for tree in x64:x86_64 x86:i686; do
  dir=${tree%%:*} arch=${tree#*:}
  echo
  echo "==== The tour, $arch build"
  cmake/wine-run.sh "$arch" "$prefix" "build/$dir/examples/tour.exe" "$@"
done

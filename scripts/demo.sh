#!/bin/sh
# The main job: installs what is missing, builds, registers kyutils.dll in a
# private Wine prefix (build/demo-prefix) and runs the demo client.
set -e
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh
prefix="$PWD/build/demo-prefix"
cmake/wine-prefix.sh "$prefix" "$PWD/build/x64/server/kyutils.dll"
cmake/wine-run.sh "$prefix" build/x64/examples/tour.exe "$@"

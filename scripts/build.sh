#!/bin/sh
# Builds kyutils.dll, the test programs, samples and benchmarks for both
# architectures: build/x86 (i686) and build/x64 (x86_64), the latter knowing
# the former for the tests of both builds registered side by side.
set -e
cd "$(dirname "$0")/.."
jobs=${JOBS:-2}
cmake --preset x86 >/dev/null
cmake --build --preset x86 -j"$jobs"
cmake --preset x64 -DKY_I686_BUILD_DIR="$PWD/build/x86" >/dev/null
cmake --build --preset x64 -j"$jobs"

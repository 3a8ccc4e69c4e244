#!/bin/sh
# Builds kyutils.dll for i686 (export table checked by the tests) and the
# x86_64 DLL with the test programs, samples and benchmarks.
set -e
cd "$(dirname "$0")/.."
jobs=${JOBS:-2}
# With a 32-bit Wine the whole suite runs on the i686 build too.
if [ -d /usr/lib/i386-linux-gnu/wine ]; then i686_tests=ON; else i686_tests=OFF; fi
cmake --preset x86 -DKY_BUILD_TESTS=$i686_tests >/dev/null
cmake --build --preset x86 -j"$jobs"
cmake --preset x64 -DKY_I686_DLL="$PWD/build/x86/server/kyutils.dll" >/dev/null
cmake --build --preset x64 -j"$jobs"

#!/bin/sh
# Size of the test suite against the product: non-blank lines of the tracked
# C/C++ and script files under tests/ (the npm lock file is no test code)
# over non-blank lines of the C/C++/IDL files outside tests/, bench/ and
# examples/.
cd "$(dirname "$0")/.." || exit 1
count() { xargs -r cat | grep -cv '^[[:space:]]*$'; }
tests=$(git ls-files tests | grep -E '\.(c|cc|cpp|h|hpp|js|vbs|sh|py)$' | grep -v 'package-lock.json' | count)
code=$(git ls-files | grep -vE '^(tests|bench|examples)/' | grep -E '\.(c|cc|cpp|h|hpp|idl)$' | count)
echo "test lines: $tests"
echo "code lines: $code"
awk -v t="$tests" -v c="$code" 'BEGIN { printf "ratio: %.2f\n", t / c }'

#!/bin/sh
# The writer's output read by independent parsers: the sample program writes
# OPML files (under Wine, to a Z: path), xmllint checks that each is
# well-formed XML, and the "opml" package from the npm registry reads each
# back with the same outline tree.
#   interop.sh <arch> <wine prefix> <opml_samples.exe> <work folder> <this folder>
set -e
arch=$1 prefix=$2 program=$3 work=$4 here=$5

# The npm package, installed from the lock file into the build tree once.
npm_dir="$work/npm"
mkdir -p "$npm_dir"
if ! cmp -s "$here/package-lock.json" "$npm_dir/node_modules/.installed-lock.json"; then
  cp "$here/package.json" "$here/package-lock.json" "$npm_dir/"
  (cd "$npm_dir" && npm ci --no-audit --no-fund --loglevel=error >npm.log 2>&1) || { cat "$npm_dir/npm.log"; exit 1; }
  cp "$here/package-lock.json" "$npm_dir/node_modules/.installed-lock.json"
fi

samples="$work/samples"
rm -rf "$samples" && mkdir -p "$samples"
OPML_SAMPLES_DIR="Z:$(echo "$samples" | sed 's#/#\\#g')" "$here/../../cmake/wine-run.sh" "$arch" "$prefix" "$program"

count=0
for file in "$samples"/*.opml; do
  xmllint --noout "$file"
  NODE_PATH="$npm_dir/node_modules" node "$here/check_opml.js" "$file" "${file%.opml}.txt"
  count=$((count + 1))
done
[ "$count" -ge 3 ] || { echo "expected at least 3 samples, found $count"; exit 1; }
echo "$count samples well-formed and read back the same by an independent parser"

#!/bin/sh
# The release as a user meets it, in fresh Wine prefixes: installed, repaired
# and upgraded, the registry is the DLLs' own registration; both script hosts
# run the samples; uninstalling leaves nothing of ours.
#   test-package.sh [dist folder]
set -e
root=$(cd "$(dirname "$0")/../.." && pwd)
dist=$(realpath "${1:-$root/dist}") work=$root/build/release-test
msi=$(ls "$dist"/KyUtils-*.msi) && version=$(basename "$msi" .msi | sed 's/^KyUtils-//')
rm -rf "$work" && mkdir -p "$work" && unzip -q "$dist/KyUtils-$version-sdk.zip" -d "$work/sdk"
run() { "$root/cmake/wine-run.sh" "$@"; }
fail() { echo "FAIL: $*"; exit 1; }
snapshot() { WINEPREFIX=$work/$1 /usr/lib/wine/wineserver64 -w; cp "$work/$1/system.reg" "$work/$2.reg"; }
dir64='C:\Program Files\KyUtils' dir32='C:\Program Files (x86)\KyUtils'
# The class keys and values that differ between two snapshots, the install folders shown as <DIR>.
keys() { python3 "$root/installer/harvest.py" keys "$work/$1.reg" "$work/$2.reg" "$dir64" "$dir32"; }
same_keys() { keys "$1" "$2" >"$work/$2.keys"; diff -u "$work/$3" "$work/$2.keys" || fail "$4"; }
msiexec() { run x86_64 "$work/msi" msiexec "$@" /qn || fail "msiexec $* exited with $?"; }
installed() {  # installed <version>: one product of ours, of that version, and both DLLs of the SDK
  snapshot msi products
  # The version of each product whose uninstall entry bears our name.
  shown=$(awk '/^\[/ { if (ours) print v; ours = 0; v = ""; arp = index($0, "CurrentVersion\\\\Uninstall\\\\") }
    arp && /^"DisplayName"="KyUtils"$/ { ours = 1 } /^"DisplayVersion"=/ { v = $0 } END { if (ours) print v }' \
    "$work/products.reg" | sed 's/.*="\(.*\)"/\1/')
  found=$(echo "$shown" | grep -c .)
  [ "$found" = 1 ] && [ "$shown" = "$1" ] || fail "installed products: $found, version '$shown', not one of $1"
  cmp "$work/msi/drive_c/Program Files/KyUtils/kyutils.dll" "$work/sdk/bin/x64/kyutils.dll"
  cmp "$work/msi/drive_c/Program Files (x86)/KyUtils/kyutils.dll" "$work/sdk/bin/x86/kyutils.dll"
}
# step <name> <version> <what it showed>: the registry is regsvr32's and the product is installed.
step() { snapshot msi "msi.$1"; same_keys msi.0 "msi.$1" regsvr32.keys "$1: registry not as regsvr32 writes it"
  installed "$2"; echo "$1: $3"; }

for prefix in msi regsvr32; do "$root/cmake/wine-prefix.sh" "$work/$prefix" >/dev/null & done; wait

# What regsvr32 writes, both DLLs where the package puts them, against what the package writes.
snapshot regsvr32 regsvr32.0
for arch in x86_64:x64: i686:x86:' (x86)'; do
  cpu=${arch%%:*} bin=${arch#*:} folder="Program Files${arch##*:}/KyUtils"
  mkdir -p "$work/regsvr32/drive_c/$folder" && cp "$work/sdk/bin/${bin%%:*}/kyutils.dll" "$work/regsvr32/drive_c/$folder"
  run "$cpu" "$work/regsvr32" regsvr32 /s "C:\\$(echo "$folder" | tr / '\\')\\kyutils.dll"
done
snapshot regsvr32 regsvr32.1
keys regsvr32.0 regsvr32.1 >"$work/regsvr32.keys"
snapshot msi msi.0
msiexec /i "Z:$msi"
step install "$version" "$(grep -c '^\[' "$work/regsvr32.keys") class keys, as regsvr32 writes them (- regsvr32, + package)"

rm "$work/msi/drive_c/Program Files (x86)/KyUtils/kyutils.dll"
run x86_64 "$work/msi" reg delete 'HKCR\KyUtils.KyStrings' /f >/dev/null
# Wine's msiexec repairs through a reinstall of the package (its /f wants a product code, which it does not take).
msiexec /i "Z:$msi" REINSTALL=ALL REINSTALLMODE=amus
step repair "$version" "the deleted DLL and ProgID are back"

# A newer version built from the SDK's installer sources, as a team that ships KyUtils would.
next=$(echo "$version" | awk -F. '{ print $1 "." $2 "." $3 + 1 }')
code() { python3 -c 'import sys, uuid; print("{%s}" % str(uuid.uuid5(uuid.NAMESPACE_URL, sys.argv[1])).upper())' "$1"; }
(cd "$work/sdk" && wixl -a x64 -D Version="$next" -D ProductCode="$(code "test:$next")" -D KyUtilsSdk=. \
  -o "$work/next.msi" wix/KyUtils.wxs wix/KyUtils-x64.wxs wix/KyUtils-x86.wxs 2>/dev/null)
msiexec /i "Z:$work/next.msi"
step upgrade "$next" "$version replaced by $next, one product installed"

for script in $(cd "$work/sdk/samples" && find . -name '*.js' -o -name '*.vbs' | sort); do
  for arch in x86_64 i686; do  # the OPML sample's dates are written for New York
    TZ=America/New_York "$root/cmake/run-script.sh" "$arch" "$work/msi" "$work/sdk/samples/$script" \
      "$work/sdk/samples/${script%.*}.expected" >"$work/sample.log" 2>&1 ||
      { cat "$work/sample.log"; fail "$script ($arch)"; }
  done
  echo "sample $script: as expected from the 64-bit and the 32-bit script host"
done

msiexec /x "Z:$work/next.msi"
snapshot msi msi.removed
# The script hosts have registered their own type libraries meanwhile: ours are the keys that name
# our GUIDs and ProgIDs. Nothing that was there before may be gone either.
sed -n 's/^\[.*\({[0-9A-F-]*}\).*/\1/p; t; s/^\[Software\\Classes\\\(Wow6432Node\\\)\{0,1\}\([^]\\]*\).*/\2/p' \
  "$work/regsvr32.keys" | sort -u >"$work/ours"
keys msi.0 msi.removed | grep '^\[\|^removed' | grep -iF -f "$work/ours" -e removed >"$work/left.keys" || true
[ ! -s "$work/left.keys" ] || { cat "$work/left.keys"; fail "class keys of ours left after uninstalling"; }
left=$(cd "$work/msi/drive_c" && find "Program Files/KyUtils" "Program Files (x86)/KyUtils" 2>/dev/null || true)
[ -z "$left" ] || fail "files left after uninstalling: $left"
echo "uninstall: no class key and no file of ours left"

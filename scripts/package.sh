#!/bin/sh
# The release: builds both architectures optimised (build/release-x64,
# build/release-x86), splits each DLL's debug information off into a file of
# its own, harvests each DLL's registration into the installer's registry
# tables, and writes to dist/:
#   KyUtils-<version>.msi          both DLLs, registered by the installer
#   KyUtils-<version>-sdk.zip      DLLs, type libraries, headers, reference,
#                                  samples, README and the installer's sources
#   KyUtils-<version>-symbols.zip  the debug information of both DLLs
# The same commit gives the same DLLs and type libraries in any folder.
set -e
cd "$(dirname "$0")/.."
scripts/deps.sh
jobs=${JOBS:-2}
version=$(sed -n 's/^project(KyUtils VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
# Every time stamp that ends up in a package is the last commit's.
stamp=$(git log -1 --format=%cd --date=format:'%Y-%m-%d %H:%M:%S' 2>/dev/null || echo "2000-01-01 00:00:00")
work=$PWD/build/release
sdk=$work/sdk
symbols=$work/symbols
rm -rf "$work" dist
mkdir -p "$sdk/wix" "$symbols" dist

for tree in x64:x86_64 x86:i686; do
  arch=${tree%%:*} cpu=${tree#*:}
  echo "==== Building the $cpu release (build/release-$arch)"
  cmake --preset "release-$arch" >/dev/null
  cmake --build --preset "release-$arch" -j"$jobs"
  cmake --install "build/release-$arch" --prefix "$sdk" >/dev/null
  # The shipped DLL keeps no debug information and no symbol table; a
  # debugger finds them through its .gnu_debuglink (name and CRC). objcopy
  # stamps the PE header with the time unless told one: zero, as the linker.
  objcopy="env SOURCE_DATE_EPOCH=0 $cpu-w64-mingw32-objcopy"
  mkdir -p "$symbols/$arch"
  $objcopy --only-keep-debug "$sdk/bin/$arch/kyutils.dll" "$symbols/$arch/kyutils.dll.debug"
  (cd "$symbols/$arch" && $objcopy --strip-all --add-gnu-debuglink=kyutils.dll.debug "$sdk/bin/$arch/kyutils.dll")
  echo "kyutils.dll ($arch): $(wc -c <"$sdk/bin/$arch/kyutils.dll") bytes," \
    "sha256 $(sha256sum "$sdk/bin/$arch/kyutils.dll" | cut -d' ' -f1)"
done

# Each DLL registers itself into a fresh prefix of its own; what it wrote
# becomes its component's registry table.
echo "==== Harvesting the registration of each DLL"
for arch in x64 x86; do cmake/wine-prefix.sh "$work/harvest-$arch" >/dev/null & done
wait
for tree in x64:x86_64 x86:i686; do
  arch=${tree%%:*} cpu=${tree#*:}
  prefix=$work/harvest-$arch
  mkdir -p "$prefix/drive_c/KyHarvest"
  cp "$sdk/bin/$arch/kyutils.dll" "$prefix/drive_c/KyHarvest/"
  cp "$prefix/system.reg" "$work/harvest-$arch.before.reg"
  cmake/wine-run.sh "$cpu" "$prefix" regsvr32 /s 'C:\KyHarvest\kyutils.dll'
  WINEPREFIX=$prefix /usr/lib/wine/wineserver64 -w
  python3 installer/harvest.py wix "$work/harvest-$arch.before.reg" "$prefix/system.reg" "$arch" \
    'C:\KyHarvest\kyutils.dll' "$sdk/wix/KyUtils-$arch.wxs"
  echo "KyUtils-$arch.wxs: $(grep -c '<RegistryValue' "$sdk/wix/KyUtils-$arch.wxs") registry values"
done
cp installer/KyUtils.wxs "$sdk/wix/"

echo "==== Packing dist/"
# The product code follows from the version: every version is a product of
# its own (a major upgrade), and a rebuild of one is the same product.
guid() { python3 -c 'import sys, uuid; print("{%s}" % str(uuid.uuid5(uuid.NAMESPACE_URL, sys.argv[1])).upper())' "$1"; }
# wixl takes sources relative to the folder it runs in.
(cd "$sdk" && TZ=UTC faketime -f "$stamp" wixl -a x64 -D Version="$version" \
  -D ProductCode="$(guid "kyutils:product:$version")" -D KyUtilsSdk=. -o "$OLDPWD/dist/KyUtils-$version.msi" \
  wix/KyUtils.wxs wix/KyUtils-x64.wxs wix/KyUtils-x86.wxs)
pack() {  # pack <folder> <zip>: sorted, with the commit's time on every entry
  find "$1" -exec touch -h -d "$stamp UTC" {} +
  (cd "$1" && find . -mindepth 1 | LC_ALL=C sort | TZ=UTC zip -q -X -D "$2" -@)
}
pack "$sdk" "$PWD/dist/KyUtils-$version-sdk.zip"
pack "$symbols" "$PWD/dist/KyUtils-$version-symbols.zip"
ls -l dist

#!/bin/sh
# Installs the Debian packages the build and the tests need, when missing.
set -e
packages="cmake make g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix mingw-w64-tools binutils-mingw-w64-x86-64
binutils-mingw-w64-i686 wine wine64 libwine-dev googletest xvfb xauth python3 python3-olefile libxml2-utils"
missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing="$missing $p"
done
# Node.js may come from elsewhere than Debian (its npm then comes with it).
command -v npm >/dev/null 2>&1 || missing="$missing nodejs npm"
[ -z "$missing" ] && exit 0
echo "Installing:$missing"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends $missing

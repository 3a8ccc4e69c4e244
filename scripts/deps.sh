#!/bin/sh
# Installs the Debian packages the build and the tests need, when missing:
# the MinGW-w64 compilers, both Wines (64-bit and 32-bit, the 32-bit one from
# the i386 architecture), the checking tools and what the release is made
# with (a frozen clock for widl, wixl for the installer, zip).
set -e
packages="cmake make g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix mingw-w64-tools binutils-mingw-w64-x86-64
binutils-mingw-w64-i686 wine wine64 wine32:i386 libwine-dev googletest xvfb xauth python3 python3-olefile
libxml2-utils faketime wixl msitools zip unzip"
# Installed together so that apt lines up the two architectures' libraries.
wines="wine64 wine32:i386 libwine-dev"

missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing="$missing $p"
done
# Node.js may come from elsewhere than Debian (its npm then comes with it).
command -v npm >/dev/null 2>&1 || missing="$missing nodejs npm"
[ -z "$missing" ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
apt="$sudo env DEBIAN_FRONTEND=noninteractive apt-get -y -qq --no-install-recommends"

if ! dpkg --print-foreign-architectures | grep -qx i386; then
  echo "Adding the i386 architecture for the 32-bit Wine"
  $sudo dpkg --add-architecture i386
fi

echo "Installing:$missing"
# A mirror caught mid-sync fails the update on one index; what is needed may
# still be installable, so carry on and let the install decide.
$apt update || echo "apt-get update failed; trying the install with the package lists there are"
# shellcheck disable=SC2086
$apt install $missing && exit 0

# The usual failure is multiarch skew: the security suite's i386 index lags
# behind amd64, so an amd64 library and its i386 twin cannot be had at one
# version. Retry with the security suite left out for this install only.
echo "The install failed; retrying with the security suite left out"
main_only=$(mktemp -d)
trap 'rm -rf "$main_only"' EXIT
for f in /etc/apt/sources.list.d/*.sources; do
  [ -f "$f" ] || continue
  # deb822 files: keep every stanza that does not name a security suite.
  awk 'BEGIN { RS = ""; ORS = "\n\n" } !/-security/' "$f" >"$main_only/$(basename "$f")"
done
for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
  [ -f "$f" ] || continue
  grep -v -e '-security' -e '^[[:space:]]*#' "$f" >"$main_only/$(basename "$f" .list).list" || true
done
mkdir -p "$main_only/parts"
mv "$main_only"/*.sources "$main_only"/*.list "$main_only/parts/" 2>/dev/null || true
opts="-o Dir::Etc::SourceList=/dev/null -o Dir::Etc::SourceParts=$main_only/parts"
# shellcheck disable=SC2086
$apt $opts update || echo "apt-get update (main suites only) failed; trying the install anyway"
others=""
for p in $missing; do
  case " $wines " in *" $p "*) ;; *) others="$others $p" ;; esac
done
# shellcheck disable=SC2086
[ -z "$others" ] || $apt install $others || $apt $opts install $others
# shellcheck disable=SC2086
$apt $opts install $wines

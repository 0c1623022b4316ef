#!/usr/bin/env bash
# Installs the cross toolchains (32- and 64-bit), Wine (with its 32-bit part) and CMake from
# Debian's packages, Xvfb for the tests that need a display (a message
# box), and what makes the release: widl (mingw-w64-tools) with the IDL files
# of Wine's headers (libwine-dev) for the developer kit, wixl and msitools
# for the installer packages. Idempotent: does nothing when everything is present.
set -euo pipefail

packages=(wine wine32:i386 wine64 libwine-dev gcc-mingw-w64-i686 g++-mingw-w64-i686
          g++-mingw-w64-i686-win32 g++-mingw-w64-i686-posix binutils-mingw-w64-i686
          g++-mingw-w64-x86-64-win32 g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
          mingw-w64-tools cmake googletest wixl msitools
          python3 xvfb xauth)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive

if ! dpkg --print-foreign-architectures | grep -qx i386; then
    $sudo dpkg --add-architecture i386
fi

# The i386 security index has been seen broken on the mirror; keep the
# security suite below the main suite so a stale index cannot skew versions.
pin=/etc/apt/preferences.d/vxtypes32-security
if [ ! -f "$pin" ]; then
    printf 'Package: *\nPin: release l=Debian-Security\nPin-Priority: 100\n' | $sudo tee "$pin" >/dev/null
fi

log=$(mktemp)
trap 'rm -f "$log"' EXIT
# A failing index must not stop us: what did download is enough to install.
$sudo apt-get update -q >"$log" 2>&1 || true
if ! $sudo apt-get install -y -q --no-install-recommends "${missing[@]}" >>"$log" 2>&1; then
    cat "$log" >&2
    echo "setup: could not install: ${missing[*]}" >&2
    exit 1
fi

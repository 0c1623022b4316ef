#!/bin/sh
# Which platforms this host builds, and where each build tree lives: a line
# each, "x86 <tree>" for the 32-bit DLL (build/, or $VXTYPES32_BUILD) and
# "x64 <tree>" for the 64-bit one (its x64/ folder). VXTYPES32_PLATFORMS
# picks some ("x86", "x64"; both by default).
#   platforms.sh             the platforms to build, each with its tree
#   platforms.sh --tree P    the tree of platform P, whether built here or not
#   platforms.sh --left-out  what this host leaves out, and why; nothing if none
# Some hosts run no 32-bit code at all (a kernel without IA-32 emulation):
# Wine's 32-bit loader cannot start there, so neither the 32-bit tree's
# build-time tools (the type library writer) nor any 32-bit client can run.
# Such a host builds x64 alone, and asking it for x86 fails with the reason.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VXTYPES32_BUILD:-$root/build}
no_32_bit="this host runs no 32-bit code (IA-32 emulation is off)"

tree() {
    case $1 in
        x86) echo "$build" ;;
        x64) echo "$build/x64" ;;
        *) echo "unknown platform $1" >&2; exit 2 ;;
    esac
}
runs_32_bit() { wine --version >/dev/null 2>&1; }

case ${1:-} in
    --tree) tree "$2"; exit 0 ;;
    --left-out) runs_32_bit || echo "x86: $no_32_bit"; exit 0 ;;
esac
default="x86 x64"
runs_32_bit || default=x64
for platform in ${VXTYPES32_PLATFORMS:-$default}; do
    if [ "$platform" = x86 ] && ! runs_32_bit; then
        echo "x86 cannot be built or run here: $no_32_bit" >&2
        exit 1
    fi
    path=$(tree "$platform")
    echo "$platform $path"
done

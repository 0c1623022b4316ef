#!/usr/bin/env bash
# Builds both DLLs and runs every test of each through CTest: the 32-bit
# tree in its 32-bit prefix, then the 64-bit tree in its 64-bit prefix,
# where both DLLs also meet on one registry. A host that runs no 32-bit code
# builds and tests the 64-bit tree only.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VXTYPES32_BUILD:-$root/build}
"$root/scripts/build.sh"
if "$root/scripts/runs-32-bit.sh"; then
    platforms=${VXTYPES32_PLATFORMS:-x86 x64}
else
    platforms=${VXTYPES32_PLATFORMS:-x64}
    echo "== x86: not built or run: this host runs no 32-bit code (IA-32 emulation is off)"
fi
status=0
for platform in $platforms; do
    tree=$build
    [ "$platform" = x64 ] && tree=$build/x64
    echo "== $platform: $tree"
    ctest --test-dir "$tree" --output-on-failure -j "$(nproc)" || status=$?
    for prefix in "$tree/wineprefix" "$tree/wineprefix-display"; do
        WINEPREFIX=$prefix wineserver -k 2>/dev/null || true
    done
done
exit $status

#!/usr/bin/env bash
# Builds the DLL of every platform that scripts/platforms.sh names and runs
# every test of each tree through CTest, each in its own Wine prefix; the
# 64-bit tree's prefix also has both DLLs meet on one registry.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/build.sh"
"$root/scripts/platforms.sh" --left-out | sed 's/: /: not built or run: /; s/^/== /'
status=0
while read -r platform tree; do
    echo "== $platform: $tree"
    ctest --test-dir "$tree" --output-on-failure -j "$(nproc)" </dev/null || status=$?
    for prefix in "$tree/wineprefix" "$tree/wineprefix-display"; do
        WINEPREFIX=$prefix wineserver -k 2>/dev/null || true
    done
done < <("$root/scripts/platforms.sh")
exit $status

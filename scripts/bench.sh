#!/usr/bin/env bash
# Builds everything and runs the benchmark programs; they print figures.
# The dispatcher's figures come from each tree built (each bitness), the
# rest from the 32-bit tree, or the 64-bit one on a host that runs no
# 32-bit code.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VXTYPES32_BUILD:-$root/build}
"$root/scripts/build.sh"
trees=$build/x64
"$root/scripts/runs-32-bit.sh" && trees="$build $build/x64"
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
for tree in $trees; do
    (cd "$tree/bin" && "$tree/wine-run" bench_dispatch.exe)
done
tree=${trees%% *}
(cd "$tree/bin" && "$tree/wine-run" bench_resample.exe)
"$tree/cscript" "$root/bench/late_bound.vbs"
(cd "$tree/bin" && "$tree/wine-run" bench_sort.exe)
"$tree/vxscript" "$root/bench/sort_events.vbs"
for tree in $trees; do
    WINEPREFIX=$tree/wineprefix wineserver -k 2>/dev/null || true
done

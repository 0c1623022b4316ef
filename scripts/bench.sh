#!/usr/bin/env bash
# Builds everything and runs the benchmark programs; they print figures.
# The dispatcher's figures come from each tree built (each bitness), the
# rest from the first platform that scripts/platforms.sh names.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/build.sh"
trees=$("$root/scripts/platforms.sh" | cut -d' ' -f2-)
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
while read -r tree; do
    (cd "$tree/bin" && "$tree/wine-run" bench_dispatch.exe)
done <<<"$trees"
tree=$(head -n 1 <<<"$trees")
(cd "$tree/bin" && "$tree/wine-run" bench_resample.exe)
"$tree/cscript" "$root/bench/late_bound.vbs"
(cd "$tree/bin" && "$tree/wine-run" bench_sort.exe)
"$tree/vxscript" "$root/bench/sort_events.vbs"
while read -r tree; do
    WINEPREFIX=$tree/wineprefix wineserver -k 2>/dev/null || true
done <<<"$trees"

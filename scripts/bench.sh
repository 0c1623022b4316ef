#!/usr/bin/env bash
# Builds everything and runs the benchmark programs of the first platform
# that scripts/platforms.sh names; they print figures.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/build.sh"
tree=$("$root/scripts/platforms.sh" | sed -n '1s/^[^ ]* //p')
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
(cd "$tree/bin" && "$tree/wine-run" bench_dispatch.exe)
(cd "$tree/bin" && "$tree/wine-run" bench_resample.exe)
"$tree/cscript" "$root/bench/late_bound.vbs"
(cd "$tree/bin" && "$tree/wine-run" bench_sort.exe)
"$tree/vxscript" "$root/bench/sort_events.vbs"
WINEPREFIX=$tree/wineprefix wineserver -k 2>/dev/null || true

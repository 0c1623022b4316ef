#!/usr/bin/env bash
# Builds everything and runs the benchmark programs; they print figures.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VXTYPES32_BUILD:-$root/build}
"$root/scripts/build.sh"
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
(cd "$build/bin" && "$build/wine-run" bench_dispatch.exe)
(cd "$build/bin" && "$build/wine-run" bench_resample.exe)
"$build/cscript" "$root/bench/late_bound.vbs"
(cd "$build/bin" && "$build/wine-run" bench_sort.exe)
"$build/vxscript" "$root/bench/sort_events.vbs"
WINEPREFIX=$build/wineprefix wineserver -k 2>/dev/null || true

#!/usr/bin/env bash
# Builds everything, registers the DLL in the build tree's own Wine prefix
# and shows every class at work through a real script client.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VXTYPES32_BUILD:-$root/build}
"$root/scripts/build.sh"
wine_run=$build/wine-run
"$wine_run" regsvr32 /s "$build/bin/vxTypes32.dll" || { echo "registration failed" >&2; exit 1; }
# Every class through the example scripts, as a script client uses them.
for example in user_info complex_numbers registry_walk dib_section; do
    "$build/cscript" "$root/examples/$example.vbs"
done
# Events need a host that sinks them: the project's own.
"$build/vxscript" "$root/examples/quick_sort.vbs"
# cDIBSection's pictures, written by the demonstration's own program.
mkdir -p "$build/demo"
echo "Pictures        a drawn picture and two resampled versions, as BMP files:"
"$wine_run" "$build/bin/imaging_demo.exe" "Z:$(printf '%s' "$build/demo" | tr / '\\')"
WINEPREFIX=$build/wineprefix wineserver -k 2>/dev/null || true

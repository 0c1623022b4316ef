#!/usr/bin/env bash
# Builds both DLLs, registers them side by side in the 64-bit tree's own Wine
# prefix (the 64-bit DLL in the 64-bit registry view, the 32-bit one under
# WoW64) and shows every class at work through a 64-bit and a 32-bit script
# host (the 64-bit ones only, on a host that runs no 32-bit code).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VXTYPES32_BUILD:-$root/build}
x64=$build/x64
"$root/scripts/build.sh"
wine_run=$x64/wine-run
winpath() { printf 'Z:%s' "$1" | tr / '\\'; }
runs_32_bit=yes
"$root/scripts/runs-32-bit.sh" || runs_32_bit=
"$wine_run" regsvr32 /s "$(winpath "$x64/bin/vxTypes32.dll")" ||
    { echo "registration failed" >&2; exit 1; }
if [ -n "$runs_32_bit" ]; then
    "$wine_run" 'C:\windows\syswow64\regsvr32.exe' /s "$(winpath "$build/bin/vxTypes32.dll")" ||
        { echo "registration failed" >&2; exit 1; }
fi

# cscript host, vxscript program, DLL shown
demo_through() {
    local cscript=$1 vxscript=$2
    # Every class through the example scripts, as a script client uses them.
    for example in user_info complex_numbers registry_walk dib_section; do
        "$cscript" "$root/examples/$example.vbs"
    done
    # Events need a host that sinks them: the project's own.
    "$wine_run" "$vxscript" "$(winpath "$root/examples/quick_sort.vbs")"
}
echo "== 64-bit hosts (cscript in system32, vxscript.exe for x64) with x64/vxTypes32.dll"
demo_through "$x64/cscript" "$x64/bin/vxscript.exe"
echo
if [ -n "$runs_32_bit" ]; then
    echo "== 32-bit hosts (cscript in syswow64, vxscript.exe for x86) with x86/vxTypes32.dll"
    demo_through "$x64/cscript32" "$build/bin/vxscript.exe"
else
    echo "== 32-bit hosts: not shown, this host runs no 32-bit code (IA-32 emulation is off)"
fi
echo
# cDIBSection's pictures, written by the demonstration's own program.
mkdir -p "$build/demo"
echo "Pictures        a drawn picture and two resampled versions, as BMP files:"
"$wine_run" "$x64/bin/imaging_demo.exe" "$(winpath "$build/demo")"
WINEPREFIX=$x64/wineprefix wineserver -k 2>/dev/null || true

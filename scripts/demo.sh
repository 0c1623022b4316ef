#!/usr/bin/env bash
# Builds the DLLs, registers them side by side in a 64-bit Wine prefix of the
# demonstration's own (the 64-bit DLL in the 64-bit registry view, the
# 32-bit one under WoW64; the tests' prefixes stay as the tests leave them)
# and shows every class at work through a 64-bit and a 32-bit script host
# (the 64-bit ones only, where scripts/platforms.sh leaves x86 out).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
platforms=$("$root/scripts/platforms.sh")
x64=$(sed -n 's/^x64 //p' <<<"$platforms")
x86=$(sed -n 's/^x86 //p' <<<"$platforms")
[ -n "$x64" ] || { echo "the demonstration runs in the x64 tree: VXTYPES32_PLATFORMS must name x64" >&2; exit 1; }
"$root/scripts/build.sh"
# The tree's wrappers (wine-run, cscript, cscript32) run in this prefix.
export VXTYPES32_WINEPREFIX=$x64/wineprefix-demo
wine_run=$x64/wine-run
winpath() { printf 'Z:%s' "$1" | tr / '\\'; }
"$wine_run" regsvr32 /s "$(winpath "$x64/bin/vxTypes32.dll")" ||
    { echo "registration failed" >&2; exit 1; }
if [ -n "$x86" ]; then
    "$wine_run" 'C:\windows\syswow64\regsvr32.exe' /s "$(winpath "$x86/bin/vxTypes32.dll")" ||
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
if [ -n "$x86" ]; then
    echo "== 32-bit hosts (cscript in syswow64, vxscript.exe for x86) with x86/vxTypes32.dll"
    demo_through "$x64/cscript32" "$x86/bin/vxscript.exe"
else
    "$root/scripts/platforms.sh" --left-out | sed 's/^x86: /== 32-bit hosts: not shown, /'
fi
echo
# cDIBSection's pictures, written by the demonstration's own program.
pictures=$("$root/scripts/platforms.sh" --tree x86)/demo
mkdir -p "$pictures"
echo "Pictures        a drawn picture and two resampled versions, as BMP files:"
"$wine_run" "$x64/bin/imaging_demo.exe" "$(winpath "$pictures")"
WINEPREFIX=$VXTYPES32_WINEPREFIX wineserver -k 2>/dev/null || true

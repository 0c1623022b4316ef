#!/usr/bin/env bash
# Both DLLs registered on one 64-bit registry, machine-wide and per user: each process bitness gets its own
# DLL for every ProgID; unregistering either leaves the other as if registered alone (classes, interface keys
# in both views, path, folder as HELPDIR). Leaves the 64-bit DLL registered alone, as it found it. Judges
# what each client printed: Wine's cscript ends 0 even when a script stopped at an error.
# Usage: side_by_side.sh WINE_RUN X86_DLL X64_DLL X86_CLIENT X64_CLIENT LIBRARY.types CSCRIPT32
#                        EVERY_CLASS.vbs CLASS_NAMES (by their Windows path, for the script)
set -u
run=$1 x86_dll=$2 x64_dll=$3 x86_client=$4 x64_client=$5 cscript32=$7 every_class=$8 class_names=$9
read -r _ _ libid version _ < <(grep '^library ' "$6")
# Every interface the library registers: the dual ones, the events and the earlier IID kept as an alias.
iids=$(grep -ho -E '^(interface|events|alias) .*\{[0-9A-Fa-f-]+\}' "$(dirname "$6")"/../*/*.types | grep -o '{[^}]*}$')
version_key="TypeLib\\$libid\\$version"
winpath() { printf 'Z:%s' "$1" | tr / '\\'; }
regsvr32_x86() { "$run" 'C:\windows\syswow64\regsvr32.exe' /s "$@" "$(winpath "$x86_dll")"; }
regsvr32_x64() { "$run" regsvr32 /s "$@" "$(winpath "$x64_dll")"; }
# Each check prints what it saw, then its answer as its last line.
answer() { if "$@"; then echo yes; else echo no; fi; }
# creates x86|x64: that client creates every class by ProgID and calls it from another apartment;
# yes: every class came from its own DLL, no: none did.
creates() {
    local client=${1}_client dll=${1}_dll out; out=$("$run" "${!client}" "$(winpath "${!dll}")" 2>&1)
    echo "$out"
    case $(grep -o ' ok \| FAIL ' <<<"$out" | sort -u | tr -d ' \n') in ok) echo yes ;; FAIL) echo no ;; esac
}
scripted() { local out; out=$("$@" 2>&1); echo "$out"; answer grep -q '^PASS: ' <<<"$out"; }
query() { "$run" reg query "$@" 2>/dev/null; }
upper() { tr -d '\r' | tr a-z A-Z; }
# value_is KEY VALUE [OPTION]: the key's default value, in any case.
value_is() { [ "$(query "$1" /ve "${@:3}" | sed -n 's/.*REG_SZ[[:space:]]*//p' | upper)" = "$(printf %s "$2" | upper)" ]; }
expect() {  # expect yes|no WHAT COMMAND...: the answer COMMAND ends with
    local out; out=$("${@:3}" 2>&1)
    [ "$(tail -n 1 <<<"$out")" = "$1" ] || { failures=$((failures + 1)); printf 'FAILED: %s\n%s\n' "$2" "$out"; }
}
# expect_alone machine|user x86|x64: that DLL's library registration is as if it had been registered alone.
expect_alone() {
    local root=HKCR dll=$x86_dll platform=win32 gone=win64 iid view
    [ "$1" = user ] && root='HKCU\Software\Classes'
    [ "$2" = x64 ] && dll=$x64_dll platform=win64 gone=win32
    expect yes "$1, $2 alone: its path" answer value_is "$root\\$version_key\\0\\$platform" "$(winpath "$dll")"
    expect no "$1, $2 alone: no other path" answer query "$root\\$version_key\\0\\$gone"
    expect yes "$1, $2 alone: its folder as HELPDIR" answer value_is "$root\\$version_key\\HELPDIR" "$(winpath "${dll%/*}")"
    for iid in $iids; do for view in 32 64; do
        expect yes "$1, $2 alone: interface $iid in the $view-bit view" \
            answer value_is "$root\\Interface\\$iid\\TypeLib" "$libid" /reg:$view
    done; done
}

failures=0
regsvr32_x86 && regsvr32_x64 || { echo "registration failed"; exit 1; }
expect yes "a 64-bit process creates every class from the 64-bit DLL" creates x64
expect yes "a 32-bit process creates every class from the 32-bit DLL" creates x86
# The same bits from both: resampled pixels, complex results and text.
x64_print=$(creates x64 | grep '^fingerprint') x86_print=$(creates x86 | grep '^fingerprint')
expect yes "both DLLs compute the same bits ($x64_print, $x86_print)" \
    answer test -n "$x64_print" -a "$x64_print" = "$x86_print"
expect yes "the 32-bit cscript uses every class of the 32-bit DLL" scripted "$cscript32" "$every_class" "$class_names"
# Either order: the one registered last goes first, then the other.
regsvr32_x64 /u
expect yes "the 32-bit DLL stays registered without the 64-bit one" creates x86
expect_alone machine x86
regsvr32_x64; regsvr32_x86; regsvr32_x86 /u
expect yes "the 64-bit DLL stays registered without the 32-bit one" creates x64
expect no "the 32-bit DLL is gone from the 32-bit view" creates x86
expect_alone machine x64
# Per user (DllInstall): each platform's path under the shared library key.
regsvr32_x86 /n /i:user; regsvr32_x64 /n /i:user; regsvr32_x64 /u /n /i:user
expect_alone user x86
regsvr32_x64 /n /i:user; regsvr32_x86 /u /n /i:user
expect_alone user x64
expect yes "the per-user ProgIDs stay for the 64-bit DLL" answer query "HKCU\\Software\\Classes\\vxTypes32.UserInfo\\Clsid"
regsvr32_x64 /u /n /i:user
expect no "nothing of the library stays per user" answer query "HKCU\\Software\\Classes\\TypeLib\\$libid"
expect no "no per-user ProgID stays" answer query "HKCU\\Software\\Classes\\vxTypes32.UserInfo"
regsvr32_x64
[ $failures -eq 0 ] && echo "PASS: side_by_side, both DLLs on one registry"
exit $failures

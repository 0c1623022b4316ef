#!/usr/bin/env bash
# Both platforms' packages in one fresh 64-bit prefix (where 32-bit code runs): each bitness's script host and
# C++ client use every class of its own package's DLL; removing either package, in either order, leaves the
# other working; removing both leaves registry and files as before.
# Usage: msi_side_by_side.sh TREE X86_MSI X64_MSI CSCRIPT32 CSCRIPT64 EVERY_CLASS.vbs CLASS_NAMES X86_CLIENT X64_CLIENT
set -u
tree=$1 x86_msi=$2 x64_msi=$3 cscript32=$4 cscript64=$5 every_class=$6 class_names=$7 x86_client=$8 x64_client=$9
work=$1/installer-tests
. "$(dirname "$0")/msi_support.sh"
# works 32|64: that bitness's clients use the DLL of its own package.
works() {
    local cscript=$cscript64 client=$x64_client dll='C:\Program Files\vxTypes32\vxTypes32.dll' out
    [ "$1" = 32 ] && cscript=$cscript32 client=$x86_client dll='C:\Program Files (x86)\vxTypes32\vxTypes32.dll'
    scripted "$2: the $1-bit cscript" "$cscript" "$every_class" "$class_names"
    out=$(run "$client" "$dll" 2>&1)
    grep -q ' ok ' <<<"$out" && ! grep -q ' FAIL ' <<<"$out" || fail "$2: the $1-bit C++ client: $out"
}
fresh_prefix both
# The script hosts register their own library when they first run.
"$cscript32" "$every_class" >/dev/null 2>&1; "$cscript64" "$every_class" >/dev/null 2>&1
snapshot b0
msiexec i "$x86_msi"; msiexec i "$x64_msi"
works 32 "both installed"; works 64 "both installed"
msiexec x "$x64_msi"; works 32 "the 64-bit package removed"
msiexec i "$x64_msi"; msiexec x "$x86_msi"
works 64 "the 32-bit package removed"
msiexec x "$x64_msi"; snapshot b1
same_as b0 b1 "both removed"
finish msi_side_by_side

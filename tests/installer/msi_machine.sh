#!/usr/bin/env bash
# The package installed quietly for the machine into a fresh prefix: it
# writes what the DLL's own registration writes (msi_reference.sh), the
# 64-bit cscript creates every class by ProgID and runs a class's worked
# example; the next revision's package replaces it (one product, the same
# keys); uninstalling that leaves the registry and the files as before.
# Usage: msi_machine.sh TREE MSI NEXT_MSI CSCRIPT EVERY_CLASS.vbs CLASS_NAMES EXAMPLE.vbs
set -u
tree=$1 msi=$2 next=$3 cscript=$4 every_class=$5 class_names=$6 example=$7 work=$1/installer-tests
. "$(dirname "$0")/msi_support.sh"
fresh_prefix machine
# The script host registers its own library when it first runs.
"$cscript" "$every_class" >/dev/null 2>&1
snapshot m0
run msiexec /i "$(winpath "$msi")" /qn || fail "msiexec /i"
snapshot m1
folder='C:\Program Files\vxTypes32'
changes m0 m1 machine --as "$folder\\vxTypes32.dll=<DLL>" --as "$folder=<DIR>" >"$work/package.machine"
like_registration "$work/package.machine" "$work/reference.machine" "installed for the machine"
grep -q 'Classes\\Wow6432Node\\vxTypes32\.UserInfo\\Clsid | ' "$work/package.machine" ||
    fail "no ProgIDs in the 32-bit view"
[ -z "$(changes m0 m1 user)" ] || fail "a machine-wide installation wrote the user's classes"
scripted "the 64-bit cscript creates every class" "$cscript" "$every_class" "$class_names"
scripted "a worked example" "$cscript" "$example"

run msiexec /i "$(winpath "$next")" /qn || fail "msiexec /i of the next revision"
snapshot m2
[ -z "$(changes m1 m2 machine | grep -Ev "$installer_values")" ] ||
    fail "the upgrade changed the registration: $(changes m1 m2 machine | grep -Ev "$installer_values" | head)"
products=$(changes m0 m2 products | grep -c '| DisplayName = "vxTypes32')
next_version=$(msiinfo export "$next" Property | tr -d '\r' | awk -F'\t' '$1 == "ProductVersion" {print $2}')
[ "$products" = 1 ] && changes m0 m2 products | grep -q "| DisplayVersion = \"$next_version\"" ||
    fail "after the upgrade to $next_version, $products products: $(changes m0 m2 products)"
scripted "the 64-bit cscript after the upgrade" "$cscript" "$every_class" "$class_names"

run msiexec /x "$(winpath "$next")" /qn || fail "msiexec /x"
snapshot m3
same_as m0 m3 "uninstalled"
stop_prefix
[ $failures -eq 0 ] && echo "PASS: msi_machine"
exit $failures

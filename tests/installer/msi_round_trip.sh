#!/usr/bin/env bash
# This tree's package under Wine's msiexec, each step in a fresh prefix: installed quietly for the machine,
# and for the user ("ALLUSERS=": Wine hands quotes on to msiexec as \"), it writes what regsvr32 (/n /i:user)
# writes, paths aside; cscript uses every class (per user only keys and files: Wine activates no per-user
# class); the next revision replaces it; uninstalling leaves registry and files as before.
# Usage: msi_round_trip.sh TREE DLL MSI NEXT_MSI CSCRIPT EVERY_CLASS.vbs CLASS_NAMES EXAMPLE.vbs
set -u
tree=$1 dll=$2 msi=$3 next=$4 cscript=$5 every_class=$6 class_names=$7 example=$8 work=$1/installer-tests
. "$(dirname "$0")/msi_support.sh"
mkdir -p "$work"

# like_registration PART BEFORE AFTER FOLDER WHAT: the package (its DLL in FOLDER) wrote what registration
# writes, and besides only the installer's bookkeeping and the ProgIDs of the 32-bit view (the shared component's).
like_registration() {
    local own; own=$(changes "$2" "$3" "$1" "$4\\vxTypes32.dll=<DLL>" "$4=<DIR>" |
          grep -Ev -e "$installer_values" -e 'Classes\\Wow6432Node\\vxTypes32\.')
    [ "$own" = "$(cat "$work/reference.$1")" ] ||
        fail "$5: not what registration writes: $(diff <(echo "$own") "$work/reference.$1" | head -20)"
}

fresh_prefix regsvr32; snapshot r0
run regsvr32 /s "$(winpath "$dll")" && snapshot r1 && run regsvr32 /s /u "$(winpath "$dll")" || fail "regsvr32"
run regsvr32 /s /n /i:user "$(winpath "$dll")" && snapshot r2 || fail "regsvr32 /n /i:user"
for part in machine:r1 user:r2; do
    changes r0 "${part#*:}" "${part%:*}" "$(winpath "$dll")=<DLL>" "$(winpath "$(dirname "$dll")")=<DIR>" \
        >"$work/reference.${part%:*}"
done

fresh_prefix machine
"$cscript" "$every_class" >/dev/null 2>&1; snapshot m0  # the script host registers its own library at its first run
msiexec i "$msi"; snapshot m1
like_registration machine m0 m1 'C:\Program Files\vxTypes32' "installed for the machine"
[[ $msi != *-x64.msi ]] || changes m0 m1 machine | grep -q 'Classes\\Wow6432Node\\vxTypes32\.UserInfo\\Clsid | ' ||
    fail "no ProgIDs in the 32-bit view"
[ -z "$(changes m0 m1 user)" ] || fail "a machine-wide installation wrote the user's classes"
scripted "every class from cscript" "$cscript" "$every_class" "$class_names"
scripted "a worked example" "$cscript" "$example"
msiexec i "$next"; snapshot m2
[ -z "$(changes m1 m2 machine | grep -Ev "$installer_values")" ] ||
    fail "the upgrade changed the registration: $(changes m1 m2 machine | grep -Ev "$installer_values" | head)"
next_version=$(msiinfo export "$next" Property | tr -d '\r' | awk -F'\t' '$1 == "ProductVersion" {print $2}')
products=$(changes m0 m2 products | grep -c '| DisplayName = "vxTypes32')
[ "$products" = 1 ] && changes m0 m2 products | grep -q "| DisplayVersion = \"$next_version\"" ||
    fail "after the upgrade to $next_version, $products products: $(changes m0 m2 products)"
scripted "every class from cscript after the upgrade" "$cscript" "$every_class" "$class_names"
msiexec x "$next"; snapshot m3
same_as m0 m3 "uninstalled"

fresh_prefix user; snapshot u0
msiexec i "$msi" ALLUSERS=; snapshot u1
added=$(comm -13 "$work/u0.files" "$work/u1.files")
dll_file=$(grep -x 'users/[^/]*/AppData/Local/Programs/vxTypes32/vxTypes32.dll' <<<"$added")
[ -n "$dll_file" ] && ! grep -qv '^users/' <<<"$added" || fail "not in the user's programs folder: $added"
like_registration user u0 u1 "$(winpath "/$(dirname "$dll_file")" | sed 's/^Z:/C:/')" "installed for the user"
[ -z "$(changes u0 u1 machine)" ] || fail "a per-user installation wrote the machine's classes"
msiexec x "$msi" ALLUSERS=; snapshot u2
same_as u0 u2 "uninstalled for the user"
finish msi_round_trip

#!/usr/bin/env bash
# The package installed quietly for the current user (ALLUSERS empty: given
# as ALLUSERS=, since Wine passes quotes on as \" to msiexec) into a
# fresh prefix: it writes under HKEY_CURRENT_USER\Software\Classes what
# DllInstall("user") writes (msi_reference.sh) and nothing of the machine's,
# puts its files in the user's own programs folder, and uninstalling leaves
# the registry and the files as before. (Wine activates no class registered
# for the user alone: the keys and files are what is checked here.)
# Usage: msi_per_user.sh TREE MSI
set -u
tree=$1 msi=$2 work=$1/installer-tests
. "$(dirname "$0")/msi_support.sh"
fresh_prefix user
snapshot u0
run msiexec /i "$(winpath "$msi")" /qn ALLUSERS= || fail "msiexec /i for the user"
snapshot u1
dll=$(comm -13 "$work/u0.files" "$work/u1.files" | grep -x 'users/[^/]*/AppData/Local/Programs/vxTypes32/vxTypes32.dll')
[ -n "$dll" ] || fail "no DLL in the user's programs folder: $(comm -13 "$work/u0.files" "$work/u1.files")"
[ -z "$(comm -13 "$work/u0.files" "$work/u1.files" | grep -v '^users/')" ] || fail "files outside the user's profile"
folder=$(winpath "/$(dirname "$dll")" | sed 's/^Z:/C:/')
changes u0 u1 user --as "$folder\\vxTypes32.dll=<DLL>" --as "$folder=<DIR>" >"$work/package.user"
like_registration "$work/package.user" "$work/reference.user" "installed for the user"
[ -z "$(changes u0 u1 machine)" ] || fail "a per-user installation wrote the machine's classes: $(changes u0 u1 machine | head)"

run msiexec /x "$(winpath "$msi")" /qn ALLUSERS= || fail "msiexec /x for the user"
snapshot u2
same_as u0 u2 "uninstalled for the user"
stop_prefix
[ $failures -eq 0 ] && echo "PASS: msi_per_user"
exit $failures

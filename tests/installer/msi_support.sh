# Shared by the installer tests, sourced with $tree (the build tree) and $work (their folder) set: fresh
# prefixes, snapshots of the registry and the files, and checks that count failures.
run() { "$tree/wine-run" "$@"; }
winpath() { printf 'Z:%s' "$1" | tr / '\\'; }
failures=0
fail() { failures=$((failures + 1)); printf 'FAILED: %s\n' "$*"; }
# msiexec i|x PACKAGE [PROPERTY=VALUE ...]: quietly, a failure counted.
msiexec() { run msiexec "/$1" "$(winpath "$2")" /qn "${@:3}" || fail "msiexec /$1 $2 $3"; }
finish() { WINEPREFIX=$VXTYPES32_WINEPREFIX wineserver -k 2>/dev/null; [ $failures -eq 0 ] && echo "PASS: $1"; exit $failures; }

# fresh_prefix NAME: a new 64-bit prefix, the current one from now on.
fresh_prefix() {
    export VXTYPES32_WINEPREFIX=$work/$1
    WINEPREFIX=$VXTYPES32_WINEPREFIX wineserver -k 2>/dev/null
    rm -rf "$VXTYPES32_WINEPREFIX" && run cmd /c ver >/dev/null
}

# snapshot NAME: the machine's and the user's classes and the installed products (NAME.PART.reg),
# the files of Program Files and of the users' own programs (NAME.files).
snapshot() {
    local part key file
    for part in 'machine HKLM\Software\Classes' 'user HKCU\Software\Classes' \
                'products HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall'; do
        key=${part#* } file=$work/$1.${part%% *}.reg
        # No such key yet: an export of nothing.
        run reg query "$key" >/dev/null 2>&1 ||
            { printf 'Windows Registry Editor Version 5.00\n' | iconv -t UTF-16 >"$file"; continue; }
        run reg export "$key" "$(winpath "$file")" /y >/dev/null || fail "cannot export $key"
    done
    (cd "$VXTYPES32_WINEPREFIX/drive_c" &&
        { find 'Program Files' 'Program Files (x86)'; find users/*/AppData/Local/Programs -mindepth 1; } 2>/dev/null |
        sort) >"$work/$1.files"
}

# changes BEFORE AFTER PART [PATH=NAME ...]: what AFTER's PART (machine,
# user, products) adds to BEFORE's and takes from it.
changes() { python3 "$(dirname "${BASH_SOURCE[0]}")/registry_changes.py" "$work/$1.$3.reg" "$work/$2.$3.reg" "${@:4}"; }

# The installer's own bookkeeping: its keys, which stay, and its values.
installer_keys='Classes\\Installer(\\[^|]*)?$'
installer_values='Classes\\Installer(\\| |$)'

# same_as BEFORE AFTER WHAT: the registry and the files as they were.
same_as() {
    local part left
    for part in machine user products; do
        left=$(changes "$1" "$2" $part | grep -Ev "$installer_keys") &&
            fail "$3: the $part keys are not as before: $(head -5 <<<"$left")"
    done
    cmp -s "$work/$1.files" "$work/$2.files" || fail "$3: files are not as before: $(diff "$work/$1.files" "$work/$2.files")"
}

# scripted WHAT COMMAND...: a script client that must print its PASS line.
scripted() { local out; out=$("${@:2}" 2>&1); grep -q '^PASS: ' <<<"$out" && ! grep -q FAILED <<<"$out" || fail "$1: $out"; }

#!/usr/bin/env bash
# Installs what is missing, configures and builds the DLL of every platform
# that scripts/platforms.sh names, each in its own tree: everything or just
# $VXTYPES32_TARGETS. Quiet unless something fails.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
platforms=$("$root/scripts/platforms.sh")

# tree toolchain [extra cmake options]
build_tree() {
    local tree=$1 toolchain=$2
    shift 2
    local log=$tree/build.log
    mkdir -p "$tree"
    {
        if [ ! -f "$tree/CMakeCache.txt" ]; then
            cmake -S "$root" -B "$tree" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/$toolchain" \
                  -DCMAKE_BUILD_TYPE=Release "$@"
        fi
        # shellcheck disable=SC2086
        cmake --build "$tree" -j "$(nproc)" ${VXTYPES32_TARGETS:+--target $VXTYPES32_TARGETS}
    } >"$log" 2>&1 </dev/null || { cat "$log" >&2; echo "build failed; the log is $log" >&2; return 1; }
}

while read -r platform tree; do
    case $platform in
        x86) build_tree "$tree" toolchain-mingw32.cmake ;;
        x64) build_tree "$tree" toolchain-mingw64.cmake -DVX_X86_BUILD="$("$root/scripts/platforms.sh" --tree x86)" ;;
    esac
done <<<"$platforms"

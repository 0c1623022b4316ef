#!/usr/bin/env bash
# Installs what is missing, configures and builds both DLLs: the 32-bit one
# into build/ (or $VXTYPES32_BUILD) and the 64-bit one into its x64/ folder,
# everything or just $VXTYPES32_TARGETS. VXTYPES32_PLATFORMS="x86" (or "x64")
# builds one only. Quiet unless something fails.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VXTYPES32_BUILD:-$root/build}

"$root/scripts/setup.sh"
# A host that runs no 32-bit code cannot run the 32-bit tree's build-time
# tools (the type library writer): there the 64-bit tree alone is built.
if "$root/scripts/runs-32-bit.sh"; then
    platforms=${VXTYPES32_PLATFORMS:-x86 x64}
else
    platforms=${VXTYPES32_PLATFORMS:-x64}
fi

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
    } >"$log" 2>&1 || { cat "$log" >&2; echo "build failed; the log is $log" >&2; return 1; }
}

for platform in $platforms; do
    case $platform in
        x86) "$root/scripts/runs-32-bit.sh" ||
                 { echo "this host runs no 32-bit code: the 32-bit tree cannot be built here" >&2; exit 1; }
             build_tree "$build" toolchain-mingw32.cmake ;;
        x64) build_tree "$build/x64" toolchain-mingw64.cmake -DVX_X86_BUILD="$build" ;;
        *) echo "unknown platform $platform" >&2; exit 2 ;;
    esac
done

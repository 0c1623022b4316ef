#!/usr/bin/env bash
# Runs the dispatch fuzzer long, on demand: about a million calls by default
# (80,000 rounds over every class); other arguments go to the fuzzer, e.g.
# `scripts/fuzz.sh --seed 7 --seconds 600`. Uses the 32-bit tree unless
# VXTYPES32_PLATFORMS=x64 or the host runs no 32-bit code. Exits with the
# number of failures.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VXTYPES32_BUILD:-$root/build}
tree=$build
platform=x86
"$root/scripts/runs-32-bit.sh" || platform=x64
[ "${VXTYPES32_PLATFORMS:-$platform}" = x64 ] && tree=$build/x64
cmake --build "$tree" --target fuzz_dispatch
[ $# -gt 0 ] || set -- --calls 80000
"$tree/wine-run" "$tree/bin/fuzz_dispatch.exe" "$@"

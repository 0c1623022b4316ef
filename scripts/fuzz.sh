#!/usr/bin/env bash
# Runs the dispatch fuzzer long, on demand: 560,000 calls by default
# (80,000 rounds of one call to each class); other arguments go to the fuzzer, e.g.
# `scripts/fuzz.sh --seed 7 --seconds 600`. Uses the tree of the first
# platform that scripts/platforms.sh names. Exits with the number of failures.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
tree=$("$root/scripts/platforms.sh" | sed -n '1s/^[^ ]* //p')
cmake --build "$tree" --target fuzz_dispatch
[ $# -gt 0 ] || set -- --calls 80000
"$tree/wine-run" "$tree/bin/fuzz_dispatch.exe" "$@"

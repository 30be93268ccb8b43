#!/usr/bin/env bash
# Builds zelk with its test suites and runs them all with ctest.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${ZELK_BUILD_DIR:-$root/build}"
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo ${ZELK_CMAKE_ARGS:-} >/dev/null
cmake --build "$build" -j"$(nproc)"
cd "$build" && ctest --output-on-failure -j"$(nproc)" ${ZELK_CTEST_ARGS:-}

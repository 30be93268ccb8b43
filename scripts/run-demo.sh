#!/usr/bin/env bash
# Builds zelk and runs the main job: the demo host on a scratch database in
# ./demo-scratch (created beside the repository's build folder).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" -j"$(nproc)" --target zelk-demo
mkdir -p "$root/demo-scratch"
cd "$root" && "$root/build/tools/zelk-demo" "$root/demo-scratch"

#!/usr/bin/env bash
# Builds zelk and runs the main job: `zelkctl demo`, which writes a few small
# programs into ./demo-scratch, takes an inventory, loads the example policy
# from examples/ and replays the example trace in log-only mode and in
# lockdown, printing every verdict with its reason.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" -j"$(nproc)" --target zelkctl
cd "$root" && "$root/build/tools/zelkctl/zelkctl" demo --dir "$root/demo-scratch"

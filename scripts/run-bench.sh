#!/usr/bin/env bash
# Builds zelk in Release (build-bench), runs every benchmark program and the
# scan comparison, and prints one table of ratios: each figure against a
# baseline measured in the same run, with min/median/max over the
# repetitions (ZELK_BENCH_REPS, default 5).  Options go through to the
# benchmark programs, e.g. --benchmark_filter=...
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${ZELK_BENCH_BUILD_DIR:-$root/build-bench}"
reps="${ZELK_BENCH_REPS:-5}"
export ZELK_BENCH_REPS="$reps"
"$root/scripts/install-deps.sh"
for tool in bc sqlite3; do
    command -v "$tool" >/dev/null || { echo "run-bench: $tool is needed" >&2; exit 1; }
done
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DZELK_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"

log="$build/bench-scratch/run.log"
mkdir -p "$(dirname "$log")"
: > "$log"
for program in bench_cache_hit bench_inventory_lookup bench_inventory_growth bench_trust_rules \
               bench_ruleset_import bench_threads bench_memory; do
    echo "== $program" | tee -a "$log"
    "$build/bench/$program" "$@" 2>>"$log" | tee -a "$log"
done
echo "== scan" | tee -a "$log"
"$root/bench/scan_bench.sh" "$build" "$reps" 2>>"$log" | tee -a "$log"

echo
echo "Ratios over $reps repetitions (CPU time; thread scaling and scan: wall clock)"
printf '%-62s %8s %8s %8s  %-9s %s\n' figure min median max target verdict
grep '^ZELK_RATIO' "$log" | while IFS=$'\t' read -r _ label min med max target verdict n; do
    printf '%-62s %8s %8s %8s  %-9s %s\n' "$label" "$min" "$med" "$max" "$target" "$verdict"
done

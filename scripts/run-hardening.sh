#!/usr/bin/env bash
# Hardening checks, run by CI after the plain test suite:
#   asan     the whole suite under AddressSanitizer + UBSan
#   tsan     the concurrency and stress tests under ThreadSanitizer
#   fuzz     every fuzz target on its seed corpus (regression), then fuzzing
#            for ZELK_FUZZ_SECONDS each (default 60; 0 runs the seeds only)
#   memcheck the C-interface suites under valgrind memcheck
#   huge     the ten-million-element ruleset (also run by asan: it is a test)
# Give the steps to run as arguments (default: all four of asan tsan fuzz
# memcheck).  Build folders are build-asan, build-tsan, build-fuzz below
# ZELK_HARDEN_ROOT (default the source tree); memcheck uses the plain build in
# ZELK_BUILD_DIR (default build/) made by scripts/run-tests.sh.  Any failure
# ends the script with a non-zero status.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
out="${ZELK_HARDEN_ROOT:-$root}"
jobs="$(nproc)"
fuzz_seconds="${ZELK_FUZZ_SECONDS:-60}"
steps=("$@")
[ ${#steps[@]} -eq 0 ] && steps=(asan tsan fuzz memcheck)

"$root/scripts/install-deps.sh"

step() { echo; echo "=== hardening: $* ==="; }

configure() {  # folder, cmake arguments...
    local dir="$1"; shift
    cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZELK_BUILD_BENCH=OFF "$@" >/dev/null
}

# The concurrency tests are the ones whose names say so, and the stress test.
concurrency_tests='Concurren|Stress|AtomicImport.Readers|ManyThreads|ThreadsKeep'

run_asan() {
    step "AddressSanitizer + UBSan, whole suite"
    configure "$out/build-asan" -DZELK_SANITIZE=address
    cmake --build "$out/build-asan" -j"$jobs"
    ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1" \
    UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
        ctest --test-dir "$out/build-asan" --output-on-failure -j"$jobs"
}

run_tsan() {
    step "ThreadSanitizer, concurrency tests"
    configure "$out/build-tsan" -DZELK_SANITIZE=thread
    cmake --build "$out/build-tsan" -j"$jobs" --target test_caches test_drift test_e2e test_query \
        test_stress test_atomic_import test_decision_path
    TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1" \
        ctest --test-dir "$out/build-tsan" --output-on-failure -j"$jobs" -R "$concurrency_tests"
}

run_fuzz() {
    step "fuzz targets: seed corpora, then ${fuzz_seconds}s each"
    CC=clang CXX=clang++ configure "$out/build-fuzz" -DZELK_FUZZ=ON -DZELK_BUILD_TESTS=OFF
    cmake --build "$out/build-fuzz" -j"$jobs" --target zelk_fuzzers
    local artifacts="$out/build-fuzz/artifacts" work="$out/build-fuzz/corpus"
    mkdir -p "$artifacts"
    for corpus in "$root"/fuzz/corpus/*/; do
        local name; name="$(basename "$corpus")"
        local bin="$out/build-fuzz/fuzz/fuzz_$name"
        # Each seed once: a seed that crashes is a regression.
        "$bin" -runs=0 -artifact_prefix="$artifacts/$name-" "$corpus"
        if [ "$fuzz_seconds" -gt 0 ]; then
            # New inputs go to a scratch copy, never into the tracked corpus.
            rm -rf "${work:?}/$name" && mkdir -p "$work/$name"
            "$bin" -max_total_time="$fuzz_seconds" -timeout=30 -rss_limit_mb=2048 \
                -print_final_stats=1 -artifact_prefix="$artifacts/$name-" "$work/$name" "$corpus"
        fi
    done
}

run_memcheck() {
    step "valgrind memcheck, C-interface suites"
    local build="${ZELK_BUILD_DIR:-$root/build}"
    if [ ! -x "$build/tests/test_c_interface" ]; then
        configure "$build"
    fi
    cmake --build "$build" -j"$jobs" --target test_c_interface test_exports test_e2e
    local failed=0
    for suite in test_c_interface test_exports test_e2e; do
        # One process per test case, as ctest runs them.
        for test in $("$build/tests/$suite" --gtest_list_tests |
                      awk '/^[^ ]/ {s=$1} /^  / {print s $1}'); do
            case "$test" in *Concurren*) continue ;; esac  # covered by TSan
            if ! (cd "$build/tests" && valgrind -q --error-exitcode=99 --leak-check=full \
                    --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect \
                    "./$suite" --gtest_filter="$test" >"$build/memcheck.log" 2>&1); then
                echo "memcheck failed: $suite $test"; cat "$build/memcheck.log"; failed=1
            fi
        done
    done
    [ "$failed" -eq 0 ]
}

for s in "${steps[@]}"; do
    case "$s" in
        asan) run_asan ;;
        tsan) run_tsan ;;
        fuzz) run_fuzz ;;
        memcheck) run_memcheck ;;
        *) echo "unknown step $s (asan, tsan, fuzz, memcheck)" >&2; exit 2 ;;
    esac
done
echo "hardening: all passed"

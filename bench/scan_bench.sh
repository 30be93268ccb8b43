#!/usr/bin/env bash
# zelkctl scan of 2,000 files (200 MB) against md5sum, sha1sum and sha256sum
# over the same files one after another.  Both read from the page cache (the
# files are read once before timing).  Prints each repetition and a
# ZELK_RATIO line as the benchmark programs do.
#   bench/scan_bench.sh BUILD_DIR [REPETITIONS]
set -euo pipefail
build="$(cd "${1:?build directory}" && pwd)"
reps="${2:-5}"
zelkctl="$build/tools/zelkctl/zelkctl"
scratch="$build/bench-scratch/scan"
files="$scratch/files"

if [ "$(find "$files" -type f 2>/dev/null | wc -l)" -ne 2000 ]; then
    rm -rf "$files"
    mkdir -p "$files"
    # 2,000 files of 100 KiB = 200 MiB spread over 20 folders, as executables.
    for d in $(seq -w 0 19); do
        mkdir -p "$files/d$d"
        for f in $(seq -w 0 99); do
            head -c 102400 /dev/urandom > "$files/d$d/tool-$f"
        done
    done
    chmod 755 "$files"/d*/*
fi
cat "$files"/d*/* > /dev/null

now() { date +%s.%N; }
ratios=()
for r in $(seq 1 "$reps"); do
    db="$scratch/ac-$r.db"
    rm -f "$db" "$db".*
    t0=$(now)
    "$zelkctl" --log-level error scan --db "$db" "$files" > /dev/null 2>&1
    t1=$(now)
    find "$files" -type f -print0 | sort -z > "$scratch/list"
    xargs -0 md5sum < "$scratch/list" > /dev/null
    xargs -0 sha1sum < "$scratch/list" > /dev/null
    xargs -0 sha256sum < "$scratch/list" > /dev/null
    t2=$(now)
    rows=$(sqlite3 "$db" "SELECT count(*) FROM InventoryItems" 2>/dev/null || echo "?")
    ratio=$(echo "($t1 - $t0) / ($t2 - $t1)" | bc -l)
    printf 'repetition %d: zelkctl scan %.3f s (%s rows), md5sum+sha1sum+sha256sum %.3f s, ratio %.3f\n' \
        "$r" "$(echo "$t1 - $t0" | bc -l)" "$rows" "$(echo "$t2 - $t1" | bc -l)" "$ratio"
    ratios+=("$ratio")
done
printf '%s\n' "${ratios[@]}" | sort -g | awk -v n="$reps" '
    { v[NR] = $1 }
    END {
        med = (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
        verdict = (med <= 0.6) ? "met" : "MISSED"
        printf "ZELK_RATIO\tzelkctl scan 2000 files 200 MB / md5sum+sha1sum+sha256sum\t%.3f\t%.3f\t%.3f\t<= 0.60\t%s\t%d\n", v[1], med, v[NR], verdict, NR > "/dev/stderr"
    }'

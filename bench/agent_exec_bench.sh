#!/usr/bin/env bash
# Exec overhead of zelk-agent: runs a small allow-listed program EXECS times
# with and without the agent watching its folder (in lockdown, with the
# manifest applied, so every exec is decided and enforced), in ROUNDS
# alternating rounds, and reports the with/without time ratio as
# min/median/max.  Needs root and a kernel with fanotify permission events.
#
#   bench/agent_exec_bench.sh [BUILD_DIR] [ROUNDS] [EXECS]
set -euo pipefail

BUILD=$(cd "${1:-build}" && pwd)
ROUNDS=${2:-7}
EXECS=${3:-2000}
AGENT=$BUILD/tools/agent/zelk-agent
WORK=$BUILD/bench-agent-exec

[ -x "$AGENT" ] || { echo "no $AGENT; build the zelk-agent target" >&2; exit 2; }
rm -rf "$WORK"
mkdir -p "$WORK/bin"
cp /bin/true "$WORK/bin/allowed"
chmod 755 "$WORK/bin/allowed"
sha=$(sha256sum "$WORK/bin/allowed" | cut -d' ' -f1)
size=$(stat -c %s "$WORK/bin/allowed")
printf '{"rules":[{"sha256":"%s","size":%s,"action":"allow","fileName":"allowed"}]}\n' \
    "$sha" "$size" >"$WORK/rules.json"
echo '{"rules":[]}' >"$WORK/manifest.json"

# A spawner without a shell in the loop: posix_spawn and wait, EXECS times,
# printing the elapsed nanoseconds.  Any failed start fails the benchmark.
cat >"$WORK/spawn.c" <<'C'
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
extern char** environ;
int main(int argc, char** argv) {
    long n = atol(argv[2]);
    char* args[] = {argv[1], NULL};
    struct timespec a, b;
    clock_gettime(CLOCK_MONOTONIC, &a);
    for (long i = 0; i < n; ++i) {
        pid_t pid;
        int status;
        if (posix_spawn(&pid, argv[1], NULL, NULL, args, environ) != 0 ||
            waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            fprintf(stderr, "start %ld of %s failed\n", i, argv[1]);
            return 1;
        }
    }
    clock_gettime(CLOCK_MONOTONIC, &b);
    printf("%lld\n", (long long)(b.tv_sec - a.tv_sec) * 1000000000LL + (b.tv_nsec - a.tv_nsec));
    return 0;
}
C
cc -O2 -o "$WORK/spawn" "$WORK/spawn.c"

AGENT_PID=
start_agent() {
    : >"$WORK/agent.log"
    "$AGENT" --db "$WORK/ac.db" --watch "$WORK/bin" --lockdown \
        --ruleset "$WORK/rules.json:bench" --ruleset "$WORK/manifest.json:agent_manifest" \
        --log-file "$WORK/agent.log" 2>>"$WORK/agent.err" &
    AGENT_PID=$!
    until grep -q "ready:" "$WORK/agent.log"; do
        kill -0 "$AGENT_PID" 2>/dev/null || { echo "zelk-agent did not start" >&2; exit 1; }
        sleep 0.05
    done
}
stop_agent() {
    kill -TERM "$AGENT_PID"
    wait "$AGENT_PID"
}

ratios=()
for ((r = 1; r <= ROUNDS; ++r)); do
    "$WORK/spawn" "$WORK/bin/allowed" 200 >/dev/null  # warm the caches
    if ((r % 2)); then
        base=$("$WORK/spawn" "$WORK/bin/allowed" "$EXECS")
        start_agent
        with=$("$WORK/spawn" "$WORK/bin/allowed" "$EXECS")
        stop_agent
    else
        start_agent
        with=$("$WORK/spawn" "$WORK/bin/allowed" "$EXECS")
        stop_agent
        base=$("$WORK/spawn" "$WORK/bin/allowed" "$EXECS")
    fi
    ratio=$(awk -v w="$with" -v b="$base" 'BEGIN { printf "%.3f", w / b }')
    ratios+=("$ratio")
    awk -v r="$r" -v w="$with" -v b="$base" -v n="$EXECS" -v q="$ratio" 'BEGIN {
        printf "round %d: without %.3f ms/exec, with %.3f ms/exec, ratio %s\n",
               r, b / n / 1e6, w / n / 1e6, q }'
done
printf '%s\n' "${ratios[@]}" | sort -n | awk '
    { v[NR] = $1 }
    END { printf "ratio with/without agent over %d rounds: min %.3f median %.3f max %.3f\n",
                 NR, v[1], (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2), v[NR] }'
grep -h "decision time" "$WORK/agent.err" | tail -1 | sed 's/^ */last agent run: /'

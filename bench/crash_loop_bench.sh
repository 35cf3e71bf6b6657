#!/usr/bin/env bash
# Whole-system benchmark of one crash-looping base service that does not
# report (a plain program that crashes LIFETIME_MS after its start, restart
# "on-forever"): the time from each death to the start of the next
# incarnation, from the probe's own records (CLOCK_BOOTTIME), as p50/p95/max.
# Every restart opens a pipe to the service, so this shows what that open
# costs the check pass.
#
# Usage: bench/crash_loop_bench.sh [SECONDS]      (default 20)
# Environment: STAVIK_BUILD_DIR (default: build), LIFETIME_MS (default 50),
#              BENCH_KEEP=1 keeps the sandbox.
# Builds nothing: it expects the daemon and tests/probe_child in the build folder.
set -euo pipefail
cd "$(dirname "$0")/.."

. bench/bench_env.sh
daemon_bin="$build/stavik-daemon"
probe_bin="$build/tests/probe_child"
seconds="${1:-20}"
lifetime_ms="${LIFETIME_MS:-50}"
require_programs crash_loop_bench "$daemon_bin" "$probe_bin"

root="$(new_sandbox crash-bench)"
cat > "$root/etc/base.yaml" <<YAML
apps:
  - name: crasher
    bin_path: "$probe_bin"
    restart: on-forever
    args: ["--out-dir", "$root/out", "--after-ms", "$lifetime_ms", "--no-core", "--signal", "11"]
YAML

STAVIK_SYSROOT="$root" STAVIK_LOG_STDERR=1 TUBIX_DIR="$root/run/tubix" \
  setsid "$daemon_bin" "$root/etc/base.yaml" 2> "$root/daemon.log" &
daemon_pid=$!
trap 'kill -KILL -- "-$daemon_pid" 2>/dev/null || true; wait "$daemon_pid" 2>/dev/null || true' EXIT
sleep "$seconds"

# Each record: its start and, written just before the crash, its death.
for record in "$root"/out/*; do
  start=$(sed -n 's/^boottime_ns=//p' "$record")
  death=$(sed -n 's/^exit_boottime_ns=//p' "$record")
  echo "$start ${death:-0}"
done | sort -n | awk '
  { if (NR > 1 && previous_death > 0) print ($1 - previous_death) / 1e6; previous_death = $2 }' |
  sort -n | awk -v secs="$seconds" -v life="$lifetime_ms" '
  { gap[NR] = $1 }
  END {
    if (NR == 0) { print "crash_loop_bench: no restart seen"; exit 1 }
    p50 = gap[int((NR - 1) * 0.50) + 1]; p95 = gap[int((NR - 1) * 0.95) + 1]
    printf "lifetime %d ms, %d s: %d restarts; death -> next start p50 %.1f ms, p95 %.1f ms, max %.1f ms\n",
           life, secs, NR, p50, p95, gap[NR]
  }'
[ "${BENCH_KEEP:-0}" = 1 ] && echo "sandbox kept in $root" || rm -rf "$root"

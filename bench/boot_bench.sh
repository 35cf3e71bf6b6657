#!/usr/bin/env bash
# Whole-system benchmark of the base start, against the built daemon in a
# throw-away sandbox root: N non-reporting base services of one plain binary
# that stamps its start (CLOCK_BOOTTIME, as the log stamps) and lives on, no
# dependencies between them.
#   boot:  from the daemon's "InitBaseApplication begin" to the start of the
#          last service (its own stamp), and to "InitBaseApplication end"
#          (the last fork);
#   the daemon's CPU time and peak RSS (VmHWM) once it has seen all run;
#   beside a plain loop of fork, exec and wait of the same binary with the
#   same arguments that exits at once, N times, in the same run.
#
# Usage: bench/boot_bench.sh [N [RUNS]]        (default: 1000 3)
# Environment: STAVIK_BUILD_DIR (default: build), BENCH_KEEP=1 keeps the sandboxes.
# Builds nothing: it expects the daemon and tests/probe_child in the build folder.
set -euo pipefail
cd "$(dirname "$0")/.."

. bench/bench_env.sh
daemon_bin="$build/stavik-daemon"
probe_bin="$build/tests/probe_child"
count="${1:-1000}"
runs="${2:-3}"

require_programs boot_bench "$daemon_bin" "$probe_bin"

daemon_pid="" root=""
stop_daemon() {
  if [ -n "$daemon_pid" ]; then
    kill -KILL -- "-$daemon_pid" 2>/dev/null || true
    wait "$daemon_pid" 2>/dev/null || true
    daemon_pid=""
  fi
  if [ -n "$root" ] && [ "${BENCH_KEEP:-0}" != 1 ]; then rm -rf "$root"; fi
}
trap stop_daemon EXIT INT TERM

write_manifest() {
  local i
  {
    echo "apps:"
    for ((i = 0; i < count; i++)); do
      mkdir -p "$root/out/$i"
      printf '  - name: bench_%05d\n    bin_path: "%s"\n    args: ["--out-dir", "%s"]\n' "$i" "$probe_bin" \
        "$root/out/$i"
    done
  } > "$root/etc/base.yaml"
}

running_count() { grep -cs 'STARTING to RUNNING' "$root/daemon.log" || true; }
all_running() { [ "$(running_count)" -ge "$count" ]; }

# Seconds of the boot stamp "[123.456789s]" of the first (or last) log line holding TEXT.
stamp_of() {
  local which=$1 text=$2
  grep -F "$text" "$root/daemon.log" | { if [ "$which" = first ]; then head -n1; else tail -n1; fi; } |
    sed -E 's/^.*\] <[0-9]> \[([0-9]+\.[0-9]+)s\].*$/\1/'
}
span_ms() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.0f", (b - a) * 1000 }'; }
cpu_ms() { cat /proc/"$daemon_pid"/task/*/schedstat | awk '{ sum += $1 } END { printf "%.0f\n", sum / 1e6 }'; }
peak_rss_kb() { awk '/^VmHWM:/ { print $2 }' "/proc/$daemon_pid/status"; }

# Seconds of the latest start stamp of the services.
last_start() {
  find "$root/out" -type f -regex '.*/[0-9]+' -print0 | xargs -0 -r sed -n 's/^boottime_ns=//p' |
    sort -n | tail -n1 | awk '{ printf "%.6f", $1 / 1e9 }'
}

plain_loop_ms() {
  local i t0 t1
  root="$(new_sandbox boot-bench)"
  t0=$(date +%s%N)
  for ((i = 0; i < count; i++)); do "$probe_bin" --out-dir "$root/out" --exit 0; done
  t1=$(date +%s%N)
  rm -rf "$root"
  echo $(((t1 - t0) / 1000000))
}

echo "boot_bench: N=$count, $(nproc) CPUs, $(uname -r)"
printf "%-4s | %-14s %-14s %-9s %-9s | %-16s %-6s\n" "run" "begin->started" "begin->end" "cpu" "peak RSS" \
  "fork+exec+wait" "ratio"
for ((run = 1; run <= runs; run++)); do
  root="$(new_sandbox boot-bench)"
  write_manifest
  STAVIK_SYSROOT="$root" STAVIK_LOG_STDERR=1 TUBIX_DIR="$root/run/tubix" \
    setsid "$daemon_bin" "$root/etc/base.yaml" 2> "$root/daemon.log" &
  daemon_pid=$!
  wait_for 300 all_running || { echo "boot_bench: not all RUNNING" >&2; exit 1; }
  begin=$(stamp_of first ' InitBaseApplication begin')
  running_ms=$(span_ms "$begin" "$(last_start)")
  end_ms=$(span_ms "$begin" "$(stamp_of first ' InitBaseApplication end')")
  cpu="$(cpu_ms) ms"
  rss="$(peak_rss_kb) kB"
  stop_daemon
  loop_ms=$(plain_loop_ms)
  ratio=$(awk -v a="$running_ms" -v b="$loop_ms" 'BEGIN { printf "%.2f", a / b }')
  printf "%-4s | %-14s %-14s %-9s %-9s | %-16s %-6s\n" "$run" "$running_ms ms" "$end_ms ms" "$cpu" "$rss" \
    "$loop_ms ms" "$ratio"
done

#!/usr/bin/env bash
# Whole-system benchmark of the control channel, against the built daemon in a
# throw-away sandbox root. An owner (the stavik-owner tool, listening under the
# name of a reporting base service whose own binary only sleeps) starts N
# general applications in start lists of L names, waits until all run, then
# terminates them in term lists of L. A second tool plays "zulmgr", which
# hears of every change as well.
#   start: from the daemon's receipt of the first START_APP to its last
#          RUNNING_NORMAL_START report to the owner (stamps of its log);
#   term:  from the first TERM_APP to the last TERMINATED_NORMAL_EXIT report;
#   the daemon's CPU time in each phase and its peak RSS (VmHWM);
#   beside a plain loop of fork, exec and wait of the same binary, N times,
#   and a plain loop that forks and execs all N without waiting in between,
#   then reaps them (the start's yardstick), in the same run.
#
# Usage: bench/owner_bench.sh [N [L]]          (default: 1000 100)
# Environment: STAVIK_BUILD_DIR (default: build), BENCH_KEEP=1 keeps the sandbox.
# Builds nothing: it expects the daemon, client/stavik-owner and tests/probe_child.
set -euo pipefail
cd "$(dirname "$0")/.."

. bench/bench_env.sh
daemon_bin="$build/stavik-daemon"
owner_bin="$build/client/stavik-owner"
probe_bin="$build/tests/probe_child"
count="${1:-1000}"
list="${2:-100}"
phase_timeout_s=120

require_programs owner_bench "$daemon_bin" "$owner_bin" "$probe_bin"

root="$(new_sandbox owner-bench)"
export STAVIK_SYSROOT="$root" STAVIK_LOG_STDERR=1 TUBIX_DIR="$root/run/tubix"

daemon_pid="" owner_pid="" zul_pid=""
cleanup() {
  exec 3>&- 2>/dev/null || true
  [ -z "$daemon_pid" ] || kill -KILL -- "-$daemon_pid" 2>/dev/null || true
  for pid in $owner_pid $zul_pid; do kill -TERM "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  [ "${BENCH_KEEP:-0}" = 1 ] || rm -rf "$root"
}
trap cleanup EXIT INT TERM

app_name() { printf "bench_%05d" "$1"; }

write_manifests() {
  local i
  {
    echo "apps:"
    for ((i = 0; i < count; i++)); do
      echo "  - name: $(app_name "$i")"
      echo "    bin_path: \"$probe_bin\""
    done
  } > "$root/etc/owner_startup.yaml"
  cat > "$root/etc/base.yaml" <<EOF
apps:
  - name: bench_owner
    bin_path: "$probe_bin"
    reporting: true
    startup_entry_path: "$root/etc/owner_startup.yaml"
  - name: zulmgr
    bin_path: "$probe_bin"
    reporting: true
EOF
}

# request_lists TYPE: the N names as JSON requests of L names each, one a line.
request_lists() {
  local type=$1 i
  for ((i = 0; i < count; i++)); do
    if ((i % list == 0)); then printf '{"type":"%s","apps":[' "$type"; fi
    if [ "$type" = start ]; then printf '{"name":"%s"}' "$(app_name "$i")"; else printf '"%s"' "$(app_name "$i")"; fi
    if ((i % list == list - 1 || i == count - 1)); then printf ']}\n'; else printf ','; fi
  done
}

reported() { grep -o "\"appName\":\"bench_[0-9]*\",\"pid\":[0-9]*,\"gid\":[0-9]*,\"state\":$1," "$root/owner.jsonl" | wc -l; }
all_reported() { [ "$(reported "$1")" -ge "$count" ]; }
booted() { grep -qs ' InitBaseApplication end' "$root/daemon.log"; }
loaded() { grep -qs '"event":"response","request":"load","text":"0"' "$root/owner.jsonl"; }

# Seconds of the boot stamp "[123.456789s]" of the first (or last) log line holding TEXT.
stamp_of() {
  local which=$1 text=$2
  grep -F "$text" "$root/daemon.log" | { if [ "$which" = first ]; then head -n1; else tail -n1; fi; } |
    sed -E 's/^.*\] <[0-9]> \[([0-9]+\.[0-9]+)s\].*$/\1/'
}
span_ms() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.0f", (b - a) * 1000 }'; }
# Run time of all the daemon's threads in nanoseconds.
cpu_ns() { cat /proc/"$daemon_pid"/task/*/schedstat | awk '{ sum += $1 } END { printf "%d\n", sum }'; }
peak_rss_kb() { awk '/^VmHWM:/ { print $2 }' "/proc/$daemon_pid/status"; }

write_manifests
mkfifo "$root/owner.fifo"
"$owner_bin" --name zulmgr --request '{"type":"state","state":"RUNNING"}' > "$root/zul.jsonl" &
zul_pid=$!
"$owner_bin" --name bench_owner --stdin < "$root/owner.fifo" > "$root/owner.jsonl" &
owner_pid=$!
exec 3> "$root/owner.fifo"
echo '{"type":"state","state":"RUNNING"}' >&3
# The tools play services whose manifest entries are dummies: they must hold
# the names before the daemon starts those dummies, which would take them.
listening() { grep -qs '"event":"listening"' "$root/zul.jsonl" && grep -qs '"event":"listening"' "$root/owner.jsonl"; }
wait_for 10 listening || { echo "owner_bench: the owner tools are not listening" >&2; exit 1; }
setsid "$daemon_bin" "$root/etc/base.yaml" 2> "$root/daemon.log" &
daemon_pid=$!
wait_for 60 booted || { echo "owner_bench: the boot did not end" >&2; exit 1; }
echo '{"type":"load","path":"'"$root/etc/owner_startup.yaml"'"}' >&3
wait_for 30 loaded || { echo "owner_bench: the start-up file was not loaded" >&2; exit 1; }

c0=$(cpu_ns); t0=$(date +%s%N)
request_lists start >&3
wait_for "$phase_timeout_s" all_reported 0 || { echo "owner_bench: not all RUNNING" >&2; exit 1; }
t1=$(date +%s%N); c1=$(cpu_ns)
request_lists term >&3
wait_for "$phase_timeout_s" all_reported 3 || { echo "owner_bench: not all TERMINATED" >&2; exit 1; }
t2=$(date +%s%N); c2=$(cpu_ns)
rss=$(peak_rss_kb)

start_ms=$(span_ms "$(stamp_of first 'SK receive START_APP msg from bench_owner')" \
  "$(stamp_of last 'SK report appState to bench_owner, appState=RUNNING_NORMAL_START')")
term_ms=$(span_ms "$(stamp_of first 'SK receive TERM_APP msg from bench_owner')" \
  "$(stamp_of last 'SK report appState to bench_owner, appState=TERMINATED_NORMAL_EXIT')")
zul_seen=$(grep -o '"appName":"bench_[0-9]*"' "$root/zul.jsonl" | wc -l)

l0=$(date +%s%N)
for ((i = 0; i < count; i++)); do "$probe_bin" --exit 0; done
l1=$(date +%s%N)
# All N forked and exec'd without waiting in between, then reaped.
pids=()
for ((i = 0; i < count; i++)); do "$probe_bin" --exit 0 & pids+=($!); done
wait "${pids[@]}"
l2=$(date +%s%N)

ms() { awk -v n="$1" 'BEGIN { printf "%.0f", n / 1e6 }'; }
echo "owner_bench: N=$count in lists of $list, $(nproc) CPUs, $(uname -r)"
printf "%-34s %8s ms  (seen by the owner: %s ms; daemon CPU %s ms)\n" "start -> last RUNNING report" \
  "$start_ms" "$(ms $((t1 - t0)))" "$(ms $((c1 - c0)))"
printf "%-34s %8s ms  (seen by the owner: %s ms; daemon CPU %s ms)\n" "term -> last TERMINATED report" \
  "$term_ms" "$(ms $((t2 - t1)))" "$(ms $((c2 - c1)))"
printf "%-34s %8s kB\n" "daemon peak RSS (VmHWM)" "$rss"
printf "%-34s %8s    (2 x N expected)\n" "entries heard by zulmgr" "$zul_seen"
printf "%-34s %8s ms\n" "plain fork+exec+wait loop, N times" "$(ms $((l1 - l0)))"
printf "%-34s %8s ms  (start / this: %s)\n" "plain fork+exec of N, then reap" "$(ms $((l2 - l1)))" \
  "$(awk -v a="$start_ms" -v b=$(((l2 - l1) / 1000000)) 'BEGIN { printf "%.2f", a / b }')"

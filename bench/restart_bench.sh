#!/usr/bin/env bash
# Whole-system benchmark of the supervision loop, run against the built daemon
# in a throw-away sandbox root. For each N it runs the daemon twice:
#   rest:  N base services ("on-forever") that live on; the daemon's CPU time
#          per check pass with N records, over an idle interval;
#   churn: N base services ("on-forever") that crash with SIGSEGV after a
#          lifetime spread from 10*N to 30*N ms over the services, so that
#          restarts run all the time at about the same rate (~50/s) whatever N
#          is; the time from each death to the daemon's fork of the next
#          incarnation (log stamp) and to the new child running (its record).
# Both runs report the daemon's peak RSS (VmHWM). With BENCH_CGROUPS=1 the
# sandbox has a cgroup tree of plain files and every service joins a resource
# group and the control cpuset and is bound to the control CPUs, so that each
# start also makes its tasks appends and its affinity call.
#
# Usage: bench/restart_bench.sh [N ...]        (default: 100 1000)
# Environment: STAVIK_BUILD_DIR (default: build), BENCH_IDLE_S (default 10),
#              BENCH_CHURN_S (default: 10 s past the longest lifetime),
#              BENCH_KEEP=1 keeps the sandboxes, BENCH_CGROUPS=1 (see above).
# Builds nothing: it expects the daemon and tests/probe_child in the build folder.
set -euo pipefail
cd "$(dirname "$0")/.."

. bench/bench_env.sh
daemon_bin="$build/stavik-daemon"
probe_bin="$build/tests/probe_child"
idle_s="${BENCH_IDLE_S:-10}"
check_period_ms=30
cgroups="${BENCH_CGROUPS:-0}"
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(100 1000)

require_programs restart_bench "$daemon_bin" "$probe_bin"

daemon_pid=""
stop_daemon() {
  if [ -n "$daemon_pid" ]; then
    kill -KILL -- "-$daemon_pid" 2>/dev/null || true
    wait "$daemon_pid" 2>/dev/null || true
    daemon_pid=""
  fi
}
trap stop_daemon EXIT INT TERM


# manifest ROOT N MODE: MODE "rest" lives on, "churn" crashes after a spread delay.
write_manifest() {
  local root=$1 n=$2 mode=$3 i name delay
  {
    echo "apps:"
    for ((i = 0; i < n; i++)); do
      name=$(printf "bench_%05d" "$i")
      echo "  - name: $name"
      echo "    bin_path: \"$probe_bin\""
      echo "    restart: on-forever"
      if [ "$cgroups" = 1 ]; then
        printf '    res_group: bench\n    cpuset: CtrlCPU\n'
      fi
      if [ "$mode" = rest ]; then
        echo "    args: []"
      else
        delay=$((10 * n + i * 20))
        mkdir -p "$root/out/$name"
        echo "    args: [\"--out-dir\", \"$root/out/$name\", \"--after-ms\", \"$delay\", \"--no-core\", \"--signal\", \"11\"]"
      fi
    done
  } > "$root/etc/base.yaml"
  [ "$cgroups" != 1 ] || cgroup_tree "$root"
}

# cgroup_tree ROOT: the groups of the services and the daemon, CPU lists of
# the CPUs this shell may use.
cgroup_tree() {
  local cg="$1/sys/fs/cgroup" group
  for group in cpu/OTHER memory/OTHER cpu/bench memory/bench cpuset/CtrlCPU cpuset/QXCPU; do
    mkdir -p "$cg/$group"
    : > "$cg/$group/tasks"
  done
  sed -n 's/^Cpus_allowed_list:[[:space:]]*//p' /proc/self/status > "$cg/cpuset/CtrlCPU/cpuset.cpus"
  echo > "$cg/cpuset/QXCPU/cpuset.cpus"
}

start_daemon() {
  local root=$1
  STAVIK_SYSROOT="$root" STAVIK_LOG_STDERR=1 TUBIX_DIR="$root/run/tubix" \
    setsid "$daemon_bin" "$root/etc/base.yaml" 2> "$root/daemon.log" &
  daemon_pid=$!
}

booted() { grep -qs ' InitBaseApplication end' "$1/daemon.log"; }
all_running() { [ "$(grep -cs 'STARTING to RUNNING' "$1/daemon.log")" -ge "$2" ]; }

cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$daemon_pid/stat"; }
# Run time of all threads in nanoseconds: finer than the ticks of utime and stime.
cpu_ns() { cat /proc/"$daemon_pid"/task/*/schedstat | awk '{ sum += $1 } END { printf "%.0f\n", sum }'; }
peak_rss_kb() { awk '/^VmHWM:/ { print $2 }' "/proc/$daemon_pid/status"; }

# percentiles FILE: "p50 p95 p99 max" of one number per line, in ms with one decimal.
percentiles() {
  sort -n "$1" | awk '{ v[NR] = $1 } END {
    if (NR == 0) { print "- - - -"; exit }
    p50 = v[int((NR - 1) * 0.50) + 1]; p95 = v[int((NR - 1) * 0.95) + 1]; p99 = v[int((NR - 1) * 0.99) + 1]
    printf "%.1f %.1f %.1f %.1f\n", p50 / 1e6, p95 / 1e6, p99 / 1e6, v[NR] / 1e6 }'
}

run_rest() {
  local n=$1 root t0 c0 n0 t1 c1 n1 passes
  root="$(new_sandbox bench)"
  write_manifest "$root" "$n" rest
  start_daemon "$root"
  wait_for 300 booted "$root" || { echo "rest N=$n: boot did not end" >&2; return 1; }
  wait_for 60 all_running "$root" "$n" || { echo "rest N=$n: not all RUNNING" >&2; return 1; }
  t0=$(date +%s%N); c0=$(cpu_ticks); n0=$(cpu_ns)
  sleep "$idle_s"
  t1=$(date +%s%N); c1=$(cpu_ticks); n1=$(cpu_ns)
  passes=$(( (t1 - t0) / 1000000 / check_period_ms ))
  rest_ticks_per_pass=$(awk -v c=$((c1 - c0)) -v p="$passes" -v hz="$(getconf CLK_TCK)" \
    'BEGIN { printf "%.1f", c * 1e6 / hz / p }')
  rest_ns_per_pass=$(awk -v c=$((n1 - n0)) -v p="$passes" 'BEGIN { printf "%.1f", c / 1000 / p }')
  rest_rss=$(peak_rss_kb)
  stop_daemon
  [ "${BENCH_KEEP:-0}" = 1 ] || rm -rf "$root"
}

# Pairs each death (a record's exit stamp) with the next incarnation of the
# same service: its fork stamp in the log and its own start stamp.
churn_latencies() {
  local root=$1
  awk '/Start baseApp success appName=/ {
         stamp = $0; sub(/^.*\] <[0-9]> \[/, "", stamp); sub(/s\].*$/, "", stamp)
         name = $0; sub(/^.*appName=/, "", name); sub(/,.*$/, "", name)
         pid = $0; sub(/^.*, pid=/, "", pid); sub(/,.*$/, "", pid)
         split(stamp, part, ".")
         printf "fork %s %s %s%s\n", name, pid, part[1], substr(part[2] "000000", 1, 6) "000" }' \
    "$root/daemon.log" > "$root/forks.txt"
  find "$root/out" -type f -regex '.*/[0-9]+' -print0 | xargs -0 -r awk '
      FNR == 1 { if (pid != "") print "rec", name, pid, start, death
                 n = split(FILENAME, part, "/"); name = part[n - 1]; pid = part[n]; start = ""; death = "-" }
      /^boottime_ns=/ { start = substr($0, 13) }
      /^exit_boottime_ns=/ { death = substr($0, 18) }
      END { if (pid != "") print "rec", name, pid, start, death }' > "$root/records.txt"
  awk -v forkOut="$root/to_fork.txt" -v runOut="$root/to_run.txt" '
      $1 == "fork" { fork[$2 " " $3] = $4; next }
      $1 == "rec" { n = ++count[$2]; pid[$2, n] = $3; start[$2, n] = $4; death[$2, n] = $5 }
      END {
        for (name in count) {
          # incarnations of one service in start order (insertion sort; a few per service)
          m = count[name]
          for (i = 1; i <= m; i++) order[i] = i
          for (i = 2; i <= m; i++) for (j = i; j > 1 && start[name, order[j]] < start[name, order[j - 1]]; j--) {
            t = order[j]; order[j] = order[j - 1]; order[j - 1] = t }
          for (i = 1; i < m; i++) {
            a = order[i]; b = order[i + 1]
            if (death[name, a] == "-") continue
            key = name " " pid[name, b]
            if (key in fork) print fork[key] - death[name, a] > forkOut
            print start[name, b] - death[name, a] > runOut
          }
        }
      }' "$root/forks.txt" "$root/records.txt"
  touch "$root/to_fork.txt" "$root/to_run.txt"
}

run_churn() {
  local n=$1 root c0 c1 t0 t1 churn_s
  churn_s="${BENCH_CHURN_S:-$((30 * n / 1000 + 10))}"
  root="$(new_sandbox bench)"
  write_manifest "$root" "$n" churn
  start_daemon "$root"
  wait_for 300 booted "$root" || { echo "churn N=$n: boot did not end" >&2; return 1; }
  churn_load=$(cut -d' ' -f1 /proc/loadavg)
  t0=$(date +%s%N); c0=$(cpu_ns)
  sleep "$churn_s"
  t1=$(date +%s%N); c1=$(cpu_ns)
  churn_rss=$(peak_rss_kb)
  churn_cpu=$(awk -v c=$((c1 - c0)) -v t=$((t1 - t0)) 'BEGIN { printf "%.1f", 100 * c / t }')
  stop_daemon
  churn_latencies "$root"
  churn_restarts=$(wc -l < "$root/to_run.txt")
  churn_rate=$(awk -v r="$churn_restarts" -v s="$churn_s" 'BEGIN { printf "%.0f", r / s }')
  read -r fork_p50 fork_p95 fork_p99 fork_max < <(percentiles "$root/to_fork.txt")
  read -r run_p50 run_p95 run_p99 run_max < <(percentiles "$root/to_run.txt")
  churn_unmatched=$(grep -c 'can not find app' "$root/daemon.log" || true)
  [ "${BENCH_KEEP:-0}" = 1 ] || rm -rf "$root"
}

row() { printf "%-5s | %-11s %-11s | %-10s %-9s %-7s %-9s | %-23s | %-23s | %-8s\n" "$@"; }
row "N" "rest us/pass" "" "restarts/s" "daemon" "load" "unmatched" "death->fork ms" "death->child ms" "peak RSS"
row "" "(ticks)" "(schedstat)" "" "cpu %" "1 min" "deaths" "p50/p95/p99/max" "p50/p95/p99/max" "kB"
for n in "${sizes[@]}"; do
  run_rest "$n"
  run_churn "$n"
  row "$n" "$rest_ticks_per_pass" "$rest_ns_per_pass" "$churn_rate" "$churn_cpu" "$churn_load" "$churn_unmatched" \
    "$fork_p50/$fork_p95/$fork_p99/$fork_max" "$run_p50/$run_p95/$run_p99/$run_max" "$(( rest_rss > churn_rss ? rest_rss : churn_rss ))"
done

#!/usr/bin/env bash
# Stavik beside three other process supervisors (supervisord, s6, runit), the
# same workloads under each, in one run, all with the same service program
# (bench/peers/peer_stamp, which appends its start and its exit on
# CLOCK_MONOTONIC to a file of its service):
#   respawn: N services that exit LIFETIME ms after their start, restarted
#            for ever, for S seconds: death -> next start p50/p99/max, the
#            restarts per service, the supervisor's CPU;
#   idle:    M services that live on: the time from the supervisor's launch
#            to the last first start (cold start), then over S seconds the
#            CPU of all the supervisor's processes and their PSS
#            (smaps_rollup); its services' processes are not counted.
# Each supervisor runs its own tree in the foreground on a generated
# configuration, set up as fast as its documentation allows:
#   stavik:      stavik-daemon on a manifest of base services, "restart:
#                on-forever" (restarts without a limit; the check pass of 30 ms
#                is fixed); its log goes to a file;
#   supervisord: supervisord -n, one program with numprocs, autorestart=true,
#                startsecs=0 (a service that lives 50 ms is running, not a
#                failed start that ends in FATAL after startretries), output
#                discarded, loglevel=warn;
#   s6:          s6-svscan on a scan directory, one service directory each;
#   runit:       runsvdir on a service directory (at most 1000 services).
# s6 and runit run the same ./run, an execline script (no shell) that execs
# the program. Both wait a second before they start again a ./run that lived
# less than a second; neither has a setting for it.
# The supervisor runs under the stamp program's reaper, which records its
# launch and reaps whatever is left when it is killed. The packages supervisor,
# s6, runit and execline are installed with apt-get when missing.
#
# Usage: bench/peers.sh
# Environment: STAVIK_BUILD_DIR (default: build), PEERS (default: "stavik
#   supervisord s6 runit"), PEERS_RESPAWN_N (100), PEERS_LIFETIME_MS (50),
#   PEERS_RESPAWN_S (60), PEERS_IDLE_N (1000), PEERS_IDLE_S (60),
#   BENCH_KEEP=1 keeps the sandboxes.
# Builds nothing: it expects the daemon and bench/peer_stamp in the build folder.
set -euo pipefail
cd "$(dirname "$0")/.."

. bench/bench_env.sh
daemon_bin="$build/stavik-daemon"
stamp_bin="$build/bench/peer_stamp"
read -r -a peers <<< "${PEERS:-stavik supervisord s6 runit}"
respawn_n="${PEERS_RESPAWN_N:-100}"
lifetime_ms="${PEERS_LIFETIME_MS:-50}"
respawn_s="${PEERS_RESPAWN_S:-60}"
idle_n="${PEERS_IDLE_N:-1000}"
idle_s="${PEERS_IDLE_S:-60}"
settle_s=2
start_timeout_s=300

require_programs peers "$daemon_bin" "$stamp_bin"

# install_peers: the Debian packages of the chosen peers that are missing.
install_peers() {
  local packages=() missing=() peer package
  for peer in "${peers[@]}"; do
    case $peer in
      supervisord) packages+=(supervisor) ;;
      s6) packages+=(s6 execline) ;;
      runit) packages+=(runit execline) ;;
    esac
  done
  for package in "${packages[@]}"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "peers: installing ${missing[*]}" >&2
  DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}" > /dev/null
}

service_name() { printf "svc_%05d" "$1"; }

# write_stavik ROOT N MS: base services that restart for ever.
write_stavik() {
  local root=$1 n=$2 ms=$3 i name
  {
    echo "apps:"
    for ((i = 0; i < n; i++)); do
      name=$(service_name "$i")
      echo "  - name: $name"
      echo "    bin_path: \"$stamp_bin\""
      echo "    args: [\"$root/out/$name\", \"$ms\"]"
      echo "    restart: on-forever"
    done
  } > "$root/etc/base.yaml"
}

write_supervisord() {
  local root=$1 n=$2 ms=$3
  mkdir -p "$root/childlog"
  cat > "$root/supervisord.conf" <<EOF
[supervisord]
nodaemon=true
logfile=$root/supervisord.log
pidfile=$root/supervisord.pid
childlogdir=$root/childlog
loglevel=warn
minfds=$((4 * n + 64))

[program:svc]
numprocs=$n
numprocs_start=0
process_name=svc_%(process_num)05d
command=$stamp_bin $root/out/svc_%(process_num)05d $ms
autostart=true
autorestart=true
startsecs=0
redirect_stderr=true
stdout_logfile=NONE
EOF
}

# write_service_dirs DIR ROOT N MS: one directory with an execline ./run each.
write_service_dirs() {
  local dir=$1 root=$2 n=$3 ms=$4 i name
  for ((i = 0; i < n; i++)); do
    name=$(service_name "$i")
    mkdir -p "$dir/$name"
    printf '#!/usr/bin/execlineb -P\n%s %s %s\n' "$stamp_bin" "$root/out/$name" "$ms" > "$dir/$name/run"
    chmod +x "$dir/$name/run"
  done
}

write_s6() { write_service_dirs "$1/scan" "$@"; }
write_runit() { write_service_dirs "$1/service" "$@"; }

# launch PEER ROOT: starts the supervisor under the reaper.
launch() {
  local peer=$1 root=$2 command
  case $peer in
    stavik) command=(env STAVIK_SYSROOT="$root" STAVIK_LOG_STDERR=1 TUBIX_DIR="$root/run/tubix"
                     "$daemon_bin" "$root/etc/base.yaml") ;;
    supervisord) command=(supervisord -n -c "$root/supervisord.conf") ;;
    s6) command=(s6-svscan -c $((2 * idle_n + 16)) "$root/scan") ;;
    runit) command=(runsvdir "$root/service") ;;
  esac
  "$stamp_bin" --reap "$root/launch" "${command[@]}" > "$root/supervisor.log" 2>&1 &
  reaper_pid=$!
  wait_for 10 test -s "$root/launch" || { echo "peers: $peer did not launch" >&2; return 1; }
  read -r _ supervisor_pid launch_ns < "$root/launch"
}

# supervisor_pids: the supervisor and its descendants, not its services' programs.
supervisor_pids() {
  ps -e -o pid=,ppid=,comm= | awk -v root="$supervisor_pid" '
    { parent[$1] = $2; name[$1] = $3 }
    END {
      for (p in parent) {
        q = p
        while (q != root && q > 1) q = parent[q]
        if (q == root && name[p] != "peer_stamp") print p
      }
    }'
}

# cpu_ns PID...: run time of all their threads in nanoseconds.
cpu_ns() {
  local files=() pid
  for pid in "$@"; do files+=(/proc/"$pid"/task/*/schedstat); done
  # A process that has gone since the list was taken (a child between fork and exec) is skipped.
  { cat "${files[@]}" 2> /dev/null || true; } | awk '{ sum += $1 } END { printf "%.0f\n", sum }'
}

# pss_kb PID...: the sum of their PSS.
pss_kb() {
  local files=() pid
  for pid in "$@"; do files+=(/proc/"$pid"/smaps_rollup); done
  { cat "${files[@]}" 2> /dev/null || true; } | awk '/^Pss:/ { sum += $2 } END { printf "%.0f\n", sum }'
}

# reaper_done: kills the reaper's children, true once the reaper has ended.
reaper_done() {
  local pids
  pids=$(ps -o pid= --ppid "$reaper_pid" || true)
  [ -z "$pids" ] || kill -KILL $pids 2> /dev/null || true
  # Ended, it stays a zombie until this shell waits for it.
  [[ "$(ps -o stat= -p "$reaper_pid" || true)" != [^Z]* ]]
}

# stop: kills the supervisor's processes, then whatever is left under the reaper.
stop() {
  [ -n "${reaper_pid:-}" ] || return 0
  local pids
  pids=$(supervisor_pids)
  [ -z "$pids" ] || kill -KILL $pids 2> /dev/null || true
  wait_for 30 reaper_done || echo "peers: processes left under $reaper_pid" >&2
  wait "$reaper_pid" 2> /dev/null || true
  reaper_pid=""
}
trap stop EXIT INT TERM

# A service's file appears at its first start. Polls slowly, beside the supervisor.
all_started() { [ "$(ls "$1/out" | wc -l)" -ge "$2" ] || { sleep 0.2; false; }; }

# percentiles FILE: "p50 p99 max" in ms of one value in ns a line.
percentiles() {
  sort -n "$1" | awk '{ v[NR] = $1 } END {
    if (NR == 0) { print "- - -"; exit }
    printf "%.1f %.1f %.1f\n", v[int((NR - 1) * 0.50) + 1] / 1e6, v[int((NR - 1) * 0.99) + 1] / 1e6, v[NR] / 1e6 }'
}

percent() { awk -v c="$1" -v t="$2" 'BEGIN { printf "%.2f", 100 * c / t }'; }

run_respawn() {
  local peer=$1 root pids c0 c1 t0 t1
  root="$(new_sandbox "peers-$peer")"
  "write_$peer" "$root" "$respawn_n" "$lifetime_ms"
  launch "$peer" "$root"
  wait_for "$start_timeout_s" all_started "$root" "$respawn_n" || { echo "peers: $peer did not start all" >&2; return 1; }
  pids=$(supervisor_pids)
  t0=$(date +%s%N); c0=$(cpu_ns $pids)
  sleep "$respawn_s"
  t1=$(date +%s%N); c1=$(cpu_ns $pids)
  r_load[$peer]=$(cut -d' ' -f1 /proc/loadavg)
  stop
  # Each death paired with the next start of the same service.
  awk '$1 == "exit" { death[FILENAME] = $3 }
       $1 == "start" && (FILENAME in death) { print $3 - death[FILENAME]; delete death[FILENAME] }' \
    "$root"/out/* > "$root/latency.txt"
  read -r r_p50[$peer] r_p99[$peer] r_max[$peer] < <(percentiles "$root/latency.txt")
  r_per_service[$peer]=$(awk -v n="$respawn_n" 'END { printf "%.1f", NR / n }' "$root/latency.txt")
  r_cpu[$peer]=$(percent $((c1 - c0)) $((t1 - t0)))
  [ "${BENCH_KEEP:-0}" = 1 ] || rm -rf "$root"
}

run_idle() {
  local peer=$1 root pids c0 c1 t0 t1 last_ns
  root="$(new_sandbox "peers-$peer")"
  "write_$peer" "$root" "$idle_n" -1
  launch "$peer" "$root"
  wait_for "$start_timeout_s" all_started "$root" "$idle_n" || { echo "peers: $peer did not start all" >&2; return 1; }
  last_ns=$(awk '$1 == "start" && $3 > last { last = $3 } END { printf "%.0f", last }' "$root"/out/*)
  i_cold[$peer]=$(awk -v a="$launch_ns" -v b="$last_ns" 'BEGIN { printf "%.2f", (b - a) / 1e9 }')
  sleep "$settle_s"
  pids=$(supervisor_pids)
  i_procs[$peer]=$(wc -w <<< "$pids")
  t0=$(date +%s%N); c0=$(cpu_ns $pids)
  sleep "$idle_s"
  t1=$(date +%s%N); c1=$(cpu_ns $pids)
  i_load[$peer]=$(cut -d' ' -f1 /proc/loadavg)
  i_cpu[$peer]=$(percent $((c1 - c0)) $((t1 - t0)))
  i_pss[$peer]=$(awk -v kb="$(pss_kb $pids)" 'BEGIN { printf "%.1f", kb / 1024 }')
  stop
  [ "${BENCH_KEEP:-0}" = 1 ] || rm -rf "$root"
}

version() {
  case $1 in
    stavik) git describe --always --dirty 2> /dev/null || echo "?" ;;
    supervisord) dpkg-query -W -f '${Version}' supervisor ;;
    *) dpkg-query -W -f '${Version}' "$1" ;;
  esac
}

# row LABEL ARRAY: the value of each peer, with its ratio to Stavik's.
row() {
  local label=$1 peer value base
  local -n values=$2
  base="${values[stavik]:-}"
  printf "%-34s" "$label"
  for peer in "${peers[@]}"; do
    value="${values[$peer]}"
    if [ "$peer" = stavik ] || [ -z "$base" ]; then
      printf " %18s" "$value"
    else
      printf " %18s" "$value ($(awk -v a="$value" -v b="$base" 'BEGIN { if (b == 0) print "-"; else printf "%.2fx", a / b }'))"
    fi
  done
  printf "\n"
}

declare -A r_p50 r_p99 r_max r_per_service r_cpu r_load i_cold i_procs i_cpu i_pss i_load
install_peers
for peer in "${peers[@]}"; do
  run_respawn "$peer"
  run_idle "$peer"
done

echo "peers: $(nproc) CPUs, $(lscpu | sed -n 's/^Model name:[[:space:]]*//p'), kernel $(uname -r)"
for peer in "${peers[@]}"; do printf "  %s %s\n" "$peer" "$(version "$peer")"; done
echo "respawn: $respawn_n services living $lifetime_ms ms, $respawn_s s; idle: $idle_n services, $idle_s s"
echo "(in brackets: the ratio to stavik)"
printf "%-34s" "measure"
for peer in "${peers[@]}"; do printf " %18s" "$peer"; done
printf "\n"
row "death -> next start p50 ms" r_p50
row "death -> next start p99 ms" r_p99
row "death -> next start max ms" r_max
row "restarts per service" r_per_service
row "CPU while respawning %" r_cpu
row "cold start of $idle_n, s" i_cold
row "idle CPU %" i_cpu
row "idle PSS MB" i_pss
row "supervisor processes" i_procs
row "load (1 min), end of respawn" r_load
row "load (1 min), end of idle" i_load

#!/usr/bin/env bash
# Whole-system benchmark of the digest check: what a listed binary pays at each
# start. Against the built daemon in a throw-away sandbox root, an owner (the
# stavik-owner tool, playing a reporting base service) starts and terminates
# two general applications R times each, one request at a time: "listed",
# whose 10 MB binary is in the digest list with its right digest, and
# "plain", a copy of the same binary that is not listed. From the daemon's
# log stamps, per start:
#   fork:    receipt of the START_APP to "Start generalApp success" (the
#            checks before the fork, the digest among them, and the fork);
#   running: receipt to the RUNNING_NORMAL_START report to the owner (the
#            check thread's next 30 ms pass comes on top).
# Medians and means over the R rounds, and beside them the same shell line
# run R times by hand.
#
# Usage: bench/digest_bench.sh [R]          (default: 20)
# Environment: STAVIK_BUILD_DIR (default: build), BENCH_KEEP=1 keeps the sandbox.
# Builds nothing: it expects the daemon, client/stavik-owner and tests/probe_child.
set -euo pipefail
cd "$(dirname "$0")/.."

. bench/bench_env.sh
daemon_bin="$build/stavik-daemon"
owner_bin="$build/client/stavik-owner"
probe_bin="$build/tests/probe_child"
rounds="${1:-20}"
size=10M

require_programs digest_bench "$daemon_bin" "$owner_bin" "$probe_bin"

root="$(new_sandbox digest-bench)"
export STAVIK_SYSROOT="$root" STAVIK_LOG_STDERR=1 TUBIX_DIR="$root/run/tubix"

daemon_pid="" owner_pid=""
cleanup() {
  exec 3>&- 2>/dev/null || true
  [ -z "$daemon_pid" ] || kill -KILL -- "-$daemon_pid" 2>/dev/null || true
  [ -z "$owner_pid" ] || kill -TERM "$owner_pid" 2>/dev/null || true
  wait 2>/dev/null || true
  [ "${BENCH_KEEP:-0}" = 1 ] || rm -rf "$root"
}
trap cleanup EXIT INT TERM

# An ELF file runs the same with zeros behind it.
mkdir -p "$root/bin" "$root/etc/qel/base-plat/stavik-daemon"
for app in listed plain; do
  cp "$probe_bin" "$root/bin/big_$app"
  truncate -s "$size" "$root/bin/big_$app"
done
echo "big_listed=$(sha256sum "$root/bin/big_listed" | cut -d' ' -f1)" \
  > "$root/etc/qel/base-plat/stavik-daemon/bin_hash.cfg"
cat > "$root/etc/owner_startup.yaml" <<EOF2
apps:
  - name: listed
    bin_path: "$root/bin/big_listed"
  - name: plain
    bin_path: "$root/bin/big_plain"
EOF2
cat > "$root/etc/base.yaml" <<EOF2
apps:
  - name: bench_owner
    bin_path: "$probe_bin"
    reporting: true
    startup_entry_path: "$root/etc/owner_startup.yaml"
EOF2

count() { grep -c -- "$1" "$root/daemon.log" || true; }
at_least() { [ "$(count "$1")" -ge "$2" ]; }
booted() { grep -qs ' InitBaseApplication end' "$root/daemon.log"; }
loaded() { grep -qs '"event":"response","request":"load","text":"0"' "$root/owner.jsonl"; }
listening() { grep -qs '"event":"listening"' "$root/owner.jsonl"; }

mkfifo "$root/owner.fifo"
"$owner_bin" --name bench_owner --stdin < "$root/owner.fifo" > "$root/owner.jsonl" &
owner_pid=$!
exec 3> "$root/owner.fifo"
echo '{"type":"state","state":"RUNNING"}' >&3
wait_for 10 listening || { echo "digest_bench: the owner tool is not listening" >&2; exit 1; }
setsid "$daemon_bin" "$root/etc/base.yaml" 2> "$root/daemon.log" &
daemon_pid=$!
wait_for 60 booted || { echo "digest_bench: the boot did not end" >&2; exit 1; }
echo '{"type":"load","path":"'"$root/etc/owner_startup.yaml"'"}' >&3
wait_for 30 loaded || { echo "digest_bench: the start-up file was not loaded" >&2; exit 1; }

for ((i = 1; i <= rounds; i++)); do
  for app in listed plain; do
    echo '{"type":"start","apps":[{"name":"'"$app"'"}]}' >&3
    wait_for 30 at_least "appState=RUNNING_NORMAL_START, appName=$app," "$i" ||
      { echo "digest_bench: $app did not run in round $i" >&2; exit 1; }
    echo '{"type":"term","apps":["'"$app"'"]}' >&3
    wait_for 30 at_least "appState=TERMINATED_[A-Z_]*, appName=$app," "$i" ||
      { echo "digest_bench: $app did not end in round $i" >&2; exit 1; }
  done
done

# Seconds of the boot stamps of the lines holding TEXT, in log order.
stamps() { grep -- "$1" "$root/daemon.log" | sed -E 's/^.*\] <[0-9]> \[([0-9]+\.[0-9]+)s\].*$/\1/'; }
# Median and mean in ms of the differences between two stamp lists.
spans() {
  paste <(stamps "$1") <(stamps "$2") | awk '{ print ($2 - $1) * 1000 }' | sort -n |
    awk '{ v[NR] = $1; sum += $1 } END { printf "median %6.2f ms  mean %6.2f ms", v[int((NR + 1) / 2)], sum / NR }'
}

by_hand() {
  local i t0 t1
  for ((i = 0; i < rounds; i++)); do
    t0=$(date +%s%N)
    sh -c "sha256sum $root/bin/big_listed|cut -d' ' -f1" > /dev/null
    t1=$(date +%s%N)
    echo $(((t1 - t0) / 1000))
  done | sort -n | awk '{ v[NR] = $1 / 1000; sum += $1 / 1000 } END {
    printf "median %6.2f ms  mean %6.2f ms", v[int((NR + 1) / 2)], sum / NR }'
}

echo "digest_bench: $rounds starts each of a $size binary, $(nproc) CPUs, $(uname -r)"
for app in listed plain; do
  received="SK receive START_APP msg from bench_owner, appList=$app,"
  printf "%-8s fork:    %s\n" "$app" "$(spans "$received" "Start generalApp success appName=$app,")"
  printf "%-8s running: %s\n" "$app" \
    "$(spans "$received" "appState=RUNNING_NORMAL_START, appName=$app,")"
done
printf "%-8s by hand: %s\n" "tool" "$(by_hand)"

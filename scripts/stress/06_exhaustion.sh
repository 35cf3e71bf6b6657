#!/usr/bin/env bash
# Resource exhaustion: the daemon runs as an unprivileged user (nobody)
# (root ignores RLIMIT_NPROC), with a service that lives, one that dies every
# 200 ms (restart "on-forever") and an owner that starts and terminates its
# applications in a loop. From outside, `prlimit --pid` first sets
# RLIMIT_NPROC to 1, below the tasks the user has, so that no fork or thread
# can follow, for HOLD seconds, during which the living service is killed; then
# lifts it; then sets RLIMIT_NOFILE to the descriptors the daemon holds, for
# HOLD seconds; then lifts it. Properties: the daemon survives and
# logs the failures; it reaps and reports what dies meanwhile; after each lift
# the dead service runs again, the crashing one restarts again and the
# owner's starts succeed again; no zombie lasts.
#
# Usage: scripts/stress/06_exhaustion.sh
# Environment: STAVIK_BUILD (default build), HOLD (10), STRESS_UID (65534: the
#   children need a user of the passwd file), STRESS_KEEP=1.
set -euo pipefail
cd "$(dirname "$0")/../.."
. scripts/stress/stress_env.sh

hold="${HOLD:-10}"
uid="${STRESS_UID:-65534}"

stress_begin exhaustion
# A service runs only a binary its own user (or group) may execute: copies of the user's.
mkdir -p "$root/bin"
cp "$owner_bin" "$load_owner_bin" "$probe_bin" "$root/bin/"
owner_bin="$root/bin/stavik-owner" load_owner_bin="$root/bin/load_owner" probe_bin="$root/bin/probe_child"
cat > "$root/etc/base.yaml" <<YAML
apps:
$(zulmgr_entry)
    uid: $uid
    gid: $uid
  - name: owner
    bin_path: "$load_owner_bin"
    args: [--startup, "$root/etc/owner_startup.yaml", --apps, "3", --out, "$root/out/owner",
           --stop-file, "$root/stop", --lenient, --report-timeout-ms, "5000"]
    reporting: true
    depends: [zulmgr]
    startup_entry_path: "$root/etc/owner_startup.yaml"
    uid: $uid
    gid: $uid
  - name: keeper
    bin_path: "$probe_bin"
    args: [--sleep-forever]
    restart: on-forever
    uid: $uid
    gid: $uid
  - name: crasher
    bin_path: "$probe_bin"
    args: [--after-ms, "200", --exit, "1"]
    restart: on-forever
    uid: $uid
    gid: $uid
YAML
printf 'apps:\n' > "$root/etc/owner_startup.yaml"
for i in 0 1 2; do printf '  - name: owner_a%d\n    bin_path: "%s"\n    uid: %s\n    gid: %s\n' "$i" "$probe_bin" "$uid" "$uid"; done >> "$root/etc/owner_startup.yaml"
chown -R "$uid:$uid" "$root"
chmod 755 "$root"

# The user keeps the right to change the identity of its children, not the
# right to pass resource limits (neither CAP_SYS_RESOURCE nor CAP_SYS_ADMIN).
user_runner=(setpriv --reuid="$uid" --regid="$uid" --clear-groups)
as_user() { "${user_runner[@]}" "$@"; }
start_daemon "$root/etc/base.yaml" "${user_runner[@]}" --inh-caps=+setuid,+setgid --ambient-caps=+setuid,+setgid
wait_for 120 booted || { fail "the boot did not end"; finish; }
ran_rounds() { grep -hs '^rounds=' "$root/out/owner" | cut -d= -f2; }
figure_of() { grep -hs "^$1=" "$root/out/owner" | cut -d= -f2; }
has_round() { [ "$(ran_rounds)" -ge 1 ] 2>/dev/null; }
wait_for 60 has_round || fail "the owner made no round before the limits"
keeper_pid() { ps -o pid=,args= --ppid "$daemon_pid" 2>/dev/null | awk '/--sleep-forever/ { print $1; exit }'; }
restarts() { log_count 'restart success'; }
clean_round_after() { [ "$(ran_rounds)" -gt "$1" ] && [ "$(figure_of last_round_clean)" = 1 ]; }
restarts_grow() { [ "$(restarts)" -gt "$1" ]; }
zombie_samples=0

# phase NAME LIMIT LIFT: holds the limit, kills the keeper, lifts it, checks recovery.
phase() {
  local name=$1 limit=$2 lift=$3 keeper lines_before rounds_then restarts_then
  keeper=$(keeper_pid)
  lines_before=$(wc -l < "$root/daemon.log")
  as_user prlimit --pid "$daemon_pid" "$limit"
  sleep 1
  restarts_then=$(restarts)
  [ -n "$keeper" ] && kill -KILL "$keeper"
  reaped() { grep -qs "SetExitStatus keeper, pid=$keeper" "$root/daemon.log"; }
  wait_for "$hold" reaped || fail "$name: the killed service was not reaped under the limit"
  sleep "$hold"
  [ "$(lasting_zombies)" -eq 0 ] || zombie_samples=$((zombie_samples + 1))
  daemon_alive || { fail "$name: the daemon died under the limit"; return; }
  local refused_under=$(figure_of refused) failed_under
  failed_under=$(tail -n +"$lines_before" "$root/daemon.log" | grep -cE 'failed|errno=(11|24)' || true)
  restarts_under=$(( $(restarts) - restarts_then ))
  rounds_then=$(ran_rounds)
  restarts_then=$(restarts)
  as_user prlimit --pid "$daemon_pid" "$lift"
  back() { [ -n "$(keeper_pid)" ] && [ "$(keeper_pid)" != "$keeper" ]; }
  wait_for 30 back || fail "$name: the killed service did not come back after the lift"
  wait_for 30 restarts_grow "$restarts_then" || fail "$name: no restart after the lift"
  wait_for 60 clean_round_after "$rounds_then" || fail "$name: the owner's starts did not all succeed again after the lift"
  figure "$name: failure lines under the limit" "$failed_under"
  figure "$name: restarts under the limit" "$restarts_under"
  figure "$name: owner's refused starts so far" "$refused_under"
  [ "$failed_under" -gt 0 ] || fail "$name: nothing logged under the limit"
}

# Only soft limits change: raising a hard one back would need CAP_SYS_RESOURCE.
soft_limit() { as_user prlimit --pid "$daemon_pid" "--$1" --noheadings --raw -o SOFT; }
tasks=$(ps -L -u "$uid" --no-headers | wc -l)
phase nproc "--nproc=1:" "--nproc=$(soft_limit nproc):"
fds=$(fd_count)
phase nofile "--nofile=$fds:" "--nofile=$(soft_limit nofile):"

touch "$root/stop"
final_seen() { grep -qs '^state=final' "$root/out/owner"; }
wait_for 60 final_seen || fail "the owner's last round did not end"
echo "exhaustion: uid $uid, hold $hold s, build $build"
figure "tasks of the user under an nproc limit of 1" "$tasks"
figure "nofile limit: the descriptors open" "$fds"
figure "owner: rounds / refused / missing" "$(ran_rounds) / $(figure_of refused) / $(figure_of missing)"
figure "owner's last round" "$(figure_of final_ok)"
figure "samples with a lasting zombie" "$zombie_samples"
[ "$(figure_of final_ok)" = 1 ] || fail "the owner's last round did not end in its reports"
[ "$zombie_samples" -eq 0 ] || fail "a zombie lasted"
finish

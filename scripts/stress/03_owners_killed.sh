#!/usr/bin/env bash
# Owners killed mid-request: OWNERS owner services loop over start and term of
# their applications while the script kills a random owner with SIGKILL every
# 20 to 100 ms, KILLS times. Half the owners restart "on-forever", half
# "on-failure" (killed at most 4 times each, so that the daemon restarts them).
# Each new incarnation first terminates what its predecessor left.
# Properties: the daemon survives; its descriptors after the run are those
# before it; no zombie lasts; once the killing stops every owner terminates
# its applications with TERMINATED_NORMAL_EXIT reports, and then no
# application runs (none was left unsupervised).
#
# Usage: scripts/stress/03_owners_killed.sh
# Environment: STAVIK_BUILD (default build), OWNERS (20), APPS (3), KILLS (500),
#   FD_GROWTH_MAX (0), STRESS_KEEP=1.
set -euo pipefail
cd "$(dirname "$0")/../.."
. scripts/stress/stress_env.sh

owners="${OWNERS:-20}"
apps="${APPS:-3}"
kills="${KILLS:-500}"
fd_growth_max="${FD_GROWTH_MAX:-0}"

stress_begin owners_killed
owner_name() { printf "victim_%02d" "$1"; }
owner_keys() {
  local policy=on-forever
  if (($1 % 2)); then policy=on-failure; fi
  cat <<YAML
    args: [--startup, "$root/etc/$2.yaml", --apps, "$apps", --stop-file, "$root/stop", --lenient,
           --out, "$root/out/$2", --report-timeout-ms, "5000"]
    restart: $policy
YAML
}
app_keys() { :; }
write_owners_manifest

start_daemon "$root/etc/base.yaml"
wait_for 300 booted || { fail "the boot did not end"; finish; }
fd_before=$(fd_count)

owner_pid() { ps -o pid=,args= --ppid "$daemon_pid" 2>/dev/null | awk -v out="$root/out/$1" '$0 ~ out { print $1; exit }'; }
declare -a killed_times
RANDOM=17
done_kills=0 sampled_at=0 zombie_samples=0 kill_start=$SECONDS
while [ "$done_kills" -lt "$kills" ] && daemon_alive; do
  i=$((RANDOM % owners))
  if ((i % 2)) && [ "${killed_times[$i]:-0}" -ge 4 ]; then continue; fi
  pid=$(owner_pid "$(owner_name "$i")")
  if [ -n "$pid" ]; then
    kill -KILL "$pid" 2>/dev/null && { done_kills=$((done_kills + 1)); killed_times[$i]=$((${killed_times[$i]:-0} + 1)); }
  fi
  sleep "0.0$((20 + RANDOM % 80))"
  if ((done_kills % 100 == 0 && done_kills != sampled_at)); then
    sampled_at=$done_kills
    [ "$(lasting_zombies)" -eq 0 ] || zombie_samples=$((zombie_samples + 1))
    echo "  kills=$done_kills fds=$(fd_count) rss=$(rss_kb)kB"
  fi
done
kill_s=$((SECONDS - kill_start))

touch "$root/stop"
finals() { grep -ls '^state=final' "$root"/out/victim_* 2>/dev/null | wc -l; }
wait_for 180 eval '[ "$(finals)" -ge "$owners" ]' || fail "only $(finals) of $owners owners ended"
# The owners' pipes are opened again by the restarts; give the last closes their pass.
settled() { [ "$(fd_count)" -le $((fd_before + fd_growth_max)) ]; }
wait_for 10 settled || true
fd_after=$(fd_count)
leftover=$(ps -o args= --ppid "$daemon_pid" 2>/dev/null | grep -c "$probe_bin" || true)
sum() { cat "$root"/out/victim_* 2>/dev/null | awk -F= -v k="$1" '$1 == k { s += $2 } END { print s + 0 }'; }

echo "owners_killed: $owners owners x $apps apps, $(nproc) CPUs, build $build"
figure "owners killed" "$done_kills in $kill_s s"
figure "owner restarts by the daemon" "$(log_count 'STAVIK : Restarting process victim_')"
figure "requests / reports of the last incarnations" "$(sum requests) / $(sum reports)"
figure "owners that ended their applications" "$(sum final_ok) of $owners"
figure "descriptors before / after" "$fd_before / $fd_after"
figure "samples with a lasting zombie" "$zombie_samples"
figure "applications left running" "$leftover"

[ "$done_kills" -ge "$kills" ] || fail "only $done_kills kills"
[ "$(sum final_ok)" -eq "$owners" ] || fail "not every owner could end its applications"
[ "$leftover" -eq 0 ] || fail "$leftover applications left running without their records"
[ "$fd_after" -le $((fd_before + fd_growth_max)) ] || fail "descriptors grew from $fd_before to $fd_after"
[ "$zombie_samples" -eq 0 ] || fail "a zombie lasted"
finish

#!/usr/bin/env bash
# Death storm: SERVICES base services with restart "on-forever" die every 10
# to 50 ms (half by exit 1, half by SIGKILL) until DEATHS deaths. Every few
# seconds it samples the daemon's descriptors, RSS and zombie children.
# Properties: every death is matched to its record (no "can not find app", and
# with the daemon frozen, started - reaped = children); no zombie is still
# there ZOMBIE_GRACE_S later (a check pass that restarts dozens of services
# holds the list the reaper needs, so reaping may lag by a pass); descriptors
# and RSS stay flat after a warm-up of a fifth of the deaths; an owner still
# gets its start and term reports after the storm.
#
# Usage: scripts/stress/01_death_storm.sh
# Environment: STAVIK_BUILD (default build), DEATHS (100000), SERVICES (100),
#   MAX_SECONDS (1800), FD_GROWTH_MAX (8), RSS_GROWTH_MAX_KB (32768),
#   ZOMBIE_GRACE_S (5), STRESS_KEEP=1.
set -euo pipefail
cd "$(dirname "$0")/../.."
. scripts/stress/stress_env.sh

deaths_target="${DEATHS:-100000}"
services="${SERVICES:-100}"
max_seconds="${MAX_SECONDS:-1800}"
fd_growth_max="${FD_GROWTH_MAX:-8}"
rss_growth_max_kb="${RSS_GROWTH_MAX_KB:-32768}"
zombie_grace_s="${ZOMBIE_GRACE_S:-5}"

stress_begin death_storm
write_owner_entries() {
  cat <<YAML
$(zulmgr_entry)
  - name: owner
    bin_path: "$load_owner_bin"
    args: [--startup, "$root/etc/owner_startup.yaml", --apps, "3", --out, "$root/out/owner",
           --stop-file, "$root/stop"]
    reporting: true
    depends: [zulmgr]
    startup_entry_path: "$root/etc/owner_startup.yaml"
YAML
}
{
  echo "apps:"
  write_owner_entries
  for ((i = 0; i < services; i++)); do
    if ((i % 2)); then death='"--exit", "1"'; else death='"--signal", "9"'; fi
    cat <<YAML
  - name: $(printf "storm_%03d" "$i")
    bin_path: "$probe_bin"
    restart: on-forever
    args: ["--after-ms", "$((10 + i * 41 / services))", $death, "--no-core"]
YAML
  done
} > "$root/etc/base.yaml"
printf 'apps:\n' > "$root/etc/owner_startup.yaml"
for i in 0 1 2; do printf '  - name: owner_a%d\n    bin_path: "%s"\n' "$i" "$probe_bin"; done >> "$root/etc/owner_startup.yaml"

start_daemon "$root/etc/base.yaml"
wait_for 120 booted || { fail "the boot did not end"; finish; }

deaths() { log_count 'SetExitStatus storm_'; }
# Storm children once the owner's are gone: dead ones wait as zombies, a
# child between fork and exec still bears the daemon's name.
storm_children() { ps -o comm= --ppid "$daemon_pid" 2>/dev/null | grep -cE '^(probe_child|stavik-daemon)$' || true; }

warm_fd="" warm_rss="" max_fd=0 end_rss=0 zombie_samples=0 samples=0 n=0
until [ "$n" -ge "$deaths_target" ] || [ $((SECONDS - started_s)) -ge "$max_seconds" ]; do
  daemon_alive || break
  n=$(deaths)
  fd=$(fd_count) rss=$(rss_kb)
  if [ -z "$warm_fd" ] && [ "$n" -ge $((deaths_target / 5)) ]; then warm_fd=$fd warm_rss=$rss; fi
  if [ -n "$warm_fd" ] && [ "$fd" -gt "$max_fd" ]; then max_fd=$fd; fi
  end_rss=$rss
  z=$(lasting_zombies "$zombie_grace_s")
  samples=$((samples + 1))
  if [ "$z" -gt 0 ]; then zombie_samples=$((zombie_samples + 1)); fi
  echo "  t=$((SECONDS - started_s))s deaths=$n fds=$fd rss=${rss}kB lasting_zombies=$z"
  sleep 2
done
storm_s=$((SECONDS - started_s))
touch "$root/stop"
final_seen() { grep -qs '^state=final' "$root/out/owner"; }
wait_for 120 final_seen || fail "the owner's last round did not end"

# Frozen, the daemon neither starts nor reaps: what it started and has not
# reaped must be exactly its storm children.
kill -STOP "$daemon_pid"
wait_for 10 grep -qs '^State:.*T' "/proc/$daemon_pid/status" || true
started=$(( $(log_count 'STAVIK : Restarting process storm_') + services ))
reaped=$(deaths)
children=$(storm_children)
kill -CONT "$daemon_pid"
unmatched=$(log_count 'can not find app')
restart_failed=$(log_count 'restart failed')

echo "death_storm: $services services, $(nproc) CPUs, build $build"
figure "deaths (reaped and matched)" "$reaped in $storm_s s ($((reaped / (storm_s > 0 ? storm_s : 1)))/s)"
figure "started - reaped - children alive" "$((started - reaped - children))"
figure "\"can not find app\" lines" "$unmatched"
figure "restarts failed" "$restart_failed"
figure "samples with a lasting zombie" "$zombie_samples of $samples"
figure "descriptors after warm-up / max" "${warm_fd:-?} / $max_fd"
figure "RSS after warm-up / at end" "${warm_rss:-?} kB / $end_rss kB"
figure "owner's last round" "$(grep -h '^final_ok=' "$root/out/owner" 2>/dev/null || echo none)"

[ "$reaped" -ge "$deaths_target" ] || fail "only $reaped deaths within $max_seconds s"
[ "$unmatched" -eq 0 ] || fail "$unmatched deaths not matched to a record"
[ "$restart_failed" -eq 0 ] || fail "$restart_failed restarts failed"
# A restart may be logged and not yet forked at the freeze.
diff=$((started - reaped - children))
[ "$diff" -ge 0 ] && [ "$diff" -le 1 ] || fail "started $started, reaped $reaped, children $children: deaths lost"
[ "$zombie_samples" -eq 0 ] || fail "a zombie lasted in $zombie_samples samples"
[ -z "$warm_fd" ] || [ "$max_fd" -le $((warm_fd + fd_growth_max)) ] || fail "descriptors grew from $warm_fd to $max_fd"
[ -z "$warm_rss" ] || [ "$end_rss" -le $((warm_rss + rss_growth_max_kb)) ] || fail "RSS grew from $warm_rss kB to $end_rss kB"
grep -qs '^final_ok=1' "$root/out/owner" || fail "the owner's last round did not end in its reports"
finish

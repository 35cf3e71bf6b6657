#!/usr/bin/env bash
# Owners under load: OWNERS owner services (reporting base services) each
# start and terminate their APPS general applications in one list, ROUNDS
# times, all at once. Properties: every start ends in RUNNING_NORMAL_START and
# every term in TERMINATED_NORMAL_EXIT for each name (no report missing within
# REPORT_TIMEOUT_MS, none of another state); all rounds end within
# MAX_SECONDS (no deadlock); no application is left running. Run it on the
# thread-sanitizer tree too: STAVIK_BUILD=build-tsan.
#
# Usage: scripts/stress/02_owners_load.sh
# Environment: STAVIK_BUILD (default build), OWNERS (100), APPS (5), ROUNDS (20),
#   REPORT_TIMEOUT_MS (30000), MAX_SECONDS (1200), TERM_TIMEOUT_MS (5000, the
#   applications' own; the thread-sanitizer tree is slow enough to need 60000),
#   STRESS_KEEP=1.
set -euo pipefail
cd "$(dirname "$0")/../.."
. scripts/stress/stress_env.sh

owners="${OWNERS:-100}"
apps="${APPS:-5}"
rounds="${ROUNDS:-20}"
report_timeout_ms="${REPORT_TIMEOUT_MS:-30000}"
max_seconds="${MAX_SECONDS:-1200}"
term_timeout_ms="${TERM_TIMEOUT_MS:-5000}"

stress_begin owners_load
owner_name() { printf "load_%03d" "$1"; }
owner_keys() {
  cat <<YAML
    args: [--startup, "$root/etc/$2.yaml", --apps, "$apps", --rounds, "$rounds", --go-file, "$root/go",
           --out, "$root/out/$2", --report-timeout-ms, "$report_timeout_ms"]
YAML
}
app_keys() { printf '    term_timeout_ms: %s\n' "$term_timeout_ms"; }
write_owners_manifest

start_daemon "$root/etc/base.yaml"
wait_for 300 booted || { fail "the boot did not end"; finish; }
boot_s=$((SECONDS - started_s))
fd_before=$(fd_count)
load_start=$SECONDS
touch "$root/go"

finals() { grep -ls '^state=final' "$root"/out/load_* 2>/dev/null | wc -l; }
all_final() { [ "$(finals)" -ge "$owners" ]; }
until all_final || [ $((SECONDS - load_start)) -ge "$max_seconds" ] || ! daemon_alive; do
  echo "  t=$((SECONDS - load_start))s owners done=$(finals) fds=$(fd_count) rss=$(rss_kb)kB"
  sleep 5
done
load_s=$((SECONDS - load_start))
all_final || fail "only $(finals) of $owners owners ended their rounds within $max_seconds s"

sum() { cat "$root"/out/load_* 2>/dev/null | awk -F= -v k="$1" '$1 == k { s += $2 } END { print s + 0 }'; }
max() { cat "$root"/out/load_* 2>/dev/null | awk -F= -v k="$1" '$1 == k && $2 > m { m = $2 } END { print m + 0 }'; }
requests=$(sum requests) reports=$(sum reports)
leftover=$(ps -o args= --ppid "$daemon_pid" 2>/dev/null | grep -c "$probe_bin" || true)

echo "owners_load: $owners owners x $apps apps x $rounds rounds, $(nproc) CPUs, build $build"
figure "boot of the owners" "$boot_s s"
figure "rounds done" "$(sum rounds) of $((owners * rounds))"
figure "requests / reports" "$requests / $reports in $load_s s"
figure "missing / unexpected / abandoned" "$(sum missing) / $(sum unexpected) / $(sum abandoned)"
figure "report latency mean / max" "$((reports > 0 ? $(sum sum_report_ms) / reports : 0)) / $(max max_report_ms) ms"
figure "descriptors before / after" "$fd_before / $(fd_count)"
figure "applications left running" "$leftover"

[ "$(sum loaded)" -eq "$owners" ] || fail "$((owners - $(sum loaded))) owners could not load their start-up file"
[ "$(sum rounds)" -eq $((owners * rounds)) ] || fail "rounds missing"
[ "$(sum missing)" -eq 0 ] || fail "$(sum missing) reports missing"
[ "$(sum unexpected)" -eq 0 ] || fail "$(sum unexpected) reports of another state"
[ "$(sum final_ok)" -eq "$owners" ] || fail "not every owner's applications ended"
[ "$leftover" -eq 0 ] || fail "$leftover applications left running"
finish

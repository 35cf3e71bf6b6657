#!/usr/bin/env bash
# Bad manifests: COUNT seeded mutations of the example manifests
# (scripts/stress/mutate_manifest.py: truncation, wrong types, random bytes,
# huge strings, deep nesting, duplicates, cycles, 10000 entries, broken
# syntax, garbage). Each is loaded as a start-up file by an owner of one
# long-lived daemon, and BOOTS of them are booted as the base manifest of a
# fresh daemon each. Properties: no crash and no sanitizer report; every load
# is answered within 10 s and every boot ends within BOOT_SECONDS (no hang);
# where the mutation is a fault, a log line names the file, and a cycle has
# its line; the long-lived daemon still serves an owner afterwards.
#
# Usage: scripts/stress/04_bad_manifests.sh
# Environment: STAVIK_BUILD (default build), COUNT (1000), BOOTS (COUNT),
#   SEED (1), BOOT_SECONDS (30), STRESS_KEEP=1.
set -euo pipefail
cd "$(dirname "$0")/../.."
. scripts/stress/stress_env.sh

count="${COUNT:-1000}"
boots="${BOOTS:-$count}"
seed="${SEED:-1}"
boot_seconds="${BOOT_SECONDS:-30}"

stress_begin bad_manifests
python3 "$stress_dir/mutate_manifest.py" "$seed" "$count" "$root/m"

# names_fault LOG FILE MUST: the line the mutation calls for is in LOG.
names_fault() {
  case $3 in
    fault) grep -qF "manifest $2" "$1" ;;
    cycle) grep -q 'cycle' "$1" ;;
    *) true ;;
  esac
}

# 1. Loads: an owner whose start-up file, the one every load reads, is
# replaced by each mutation in turn (bad_records.py loads).
startup="$root/etc/loader_startup.yaml"
cat > "$root/etc/base.yaml" <<YAML
apps:
  - name: loader
    bin_path: /usr/bin/python3
    args: ["$stress_dir/bad_records.py", loads, "$root/m/index.tsv", "$startup", "$root/daemon.log", "$root/out/loads"]
    reporting: true
    startup_entry_path: "$startup"
YAML
load_start=$SECONDS
start_daemon "$root/etc/base.yaml"
loads_done() { grep -qs '^done=1' "$root/out/loads"; }
wait_for $((count * 16 + 60)) loads_done || fail "the loads did not end"
load_s=$((SECONDS - load_start))
of_loads() { grep -hs "^$1=" "$root/out/loads" | cut -d= -f2; }
grep -h '^load:' "$root/daemon.log" | head -20 || true
check_daemon_health
kill -KILL -- "-$daemon_pid" 2>/dev/null || true
wait "$daemon_pid" 2>/dev/null || true
mv "$root/daemon.log" "$root/loads.log"

# 2. Boots: one fresh daemon per manifest, until its base start ends.
boot_done=0 boot_crashed=0 boot_hung=0 boot_unnamed=0 boot_max_s=0 boots_start=$SECONDS
while IFS=$'\t' read -r file kind must && [ "$boot_done" -lt "$boots" ]; do
  t0=$SECONDS
  start_daemon "$file"
  # A manifest that doesn't parse ends the base start at once, with its line.
  ended() { booted || grep -qs 'ParseYamlFile failed, Stavik return' "$root/daemon.log" || ! daemon_alive; }
  if ! wait_for "$boot_seconds" ended; then
    boot_hung=$((boot_hung + 1)); echo "  boot: $file ($kind) did not end"; cp "$root/daemon.log" "$file.log"
  elif ! daemon_alive; then
    boot_crashed=$((boot_crashed + 1)); echo "  boot: $file ($kind) ended the daemon"; cp "$root/daemon.log" "$file.log"
  elif ! names_fault "$root/daemon.log" "$file" "$must"; then
    boot_unnamed=$((boot_unnamed + 1)); echo "  boot: no $must line for $file ($kind)"; cp "$root/daemon.log" "$file.log"
  fi
  if grep -qE 'ERROR: (Address|Leak)Sanitizer|runtime error:|WARNING: ThreadSanitizer' "$root/daemon.log"; then
    fail "a sanitizer report booting $file"; cp "$root/daemon.log" "$file.log"
  fi
  kill -KILL -- "-$daemon_pid" 2>/dev/null || true
  wait "$daemon_pid" 2>/dev/null || true
  boot_done=$((boot_done + 1))
  [ $((SECONDS - t0)) -le "$boot_max_s" ] || boot_max_s=$((SECONDS - t0))
done < "$root/m/index.tsv"
boots_s=$((SECONDS - boots_start))
# The last boot's daemon is gone on purpose; the health check looks at the loads' daemon.
mv "$root/loads.log" "$root/daemon.log"

echo "bad_manifests: $count mutations (seed $seed), build $build"
figure "kinds" "$(cut -f2 "$root/m/index.tsv" | sort | uniq -c | awk '{ printf "%s %s, ", $1, $2 }')"
figure "loads answered" "$(of_loads answered) of $count in $load_s s"
figure "loads whose fault no line named" "$(of_loads unnamed)"
figure "owner served after the loads" "$(of_loads served)"
figure "boots ended / crashed / hung" "$((boot_done - boot_crashed - boot_hung)) / $boot_crashed / $boot_hung of $boot_done in $boots_s s (longest $boot_max_s s)"
figure "boots whose fault no line named" "$boot_unnamed"

[ "$(of_loads answered)" = "$count" ] || fail "$(of_loads unanswered) loads were not answered"
[ "$(of_loads unnamed)" = 0 ] || fail "$(of_loads unnamed) faulty start-up files had no line naming them"
[ "$(of_loads served)" = 1 ] || fail "the daemon did not serve the owner after the loads"
[ "$boot_crashed" -eq 0 ] || fail "$boot_crashed boots ended the daemon"
[ "$boot_hung" -eq 0 ] || fail "$boot_hung boots did not end"
[ "$boot_unnamed" -eq 0 ] || fail "$boot_unnamed faulty manifests had no line naming them"
daemon_pid=""
figure "duration" "$((SECONDS - started_s)) s"
[ "$failures" -eq 0 ] && { echo "bad_manifests: PASS"; exit 0; }
echo "bad_manifests: FAIL ($failures properties)"
exit 1

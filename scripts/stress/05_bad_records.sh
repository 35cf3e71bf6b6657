#!/usr/bin/env bash
# Bad records at every endpoint: COUNT seeded records each (mutated valid ones
# and random bytes, about one frame in six broken itself) on an owner pipe, to
# the upload server, to the system operator resource and to the heart-beat
# socket, from scripts/stress/bad_records.py. Properties: the daemon survives
# with no sanitizer report; it logs the bad input of each endpoint; its
# descriptors come back to where they were; afterwards an owner still gets its
# start and term reports, an announcement is still accepted and the system
# operator still answers.
#
# Usage: scripts/stress/05_bad_records.sh
# Environment: STAVIK_BUILD (default build), COUNT (5000 per endpoint), SEED (1),
#   STRESS_KEEP=1.
set -euo pipefail
cd "$(dirname "$0")/../.."
. scripts/stress/stress_env.sh

count="${COUNT:-5000}"
seed="${SEED:-1}"
sender="$stress_dir/bad_records.py"
upload_bin="$build/client/stavik-upload"
sysop_bin="$build/client/stavik-sysop"

stress_begin bad_records
require_programs bad_records "$upload_bin" "$sysop_bin"
mkdir -p "$root/etc/qel/base-plat/stavik-daemon" "$root/etc/sharepool"
printf 'watch_dog:\n  enable: false\nskupload:\n  enable: true\n' > "$root/etc/qel/base-plat/stavik-daemon/stavik_cfg.yaml"
printf 'sharepool_groups:\n  - G_A:\n      mem_size: 8\n  - G_B:\n      mem_size: 8\n' > "$root/etc/sharepool/stress.yaml"
{
  echo "apps:"
  for name in appA appB a b x n dp; do printf '  - name: %s\n    bin_path: "%s"\n' "$name" "$probe_bin"; done
} > "$root/etc/bad_owner_startup.yaml"
printf 'apps:\n' > "$root/etc/owner_startup.yaml"
for i in 0 1 2; do printf '  - name: owner_a%d\n    bin_path: "%s"\n' "$i" "$probe_bin"; done >> "$root/etc/owner_startup.yaml"
cat > "$root/etc/base.yaml" <<YAML
apps:
$(zulmgr_entry)
  - name: bad_owner
    bin_path: /usr/bin/python3
    args: ["$sender", owner, "$seed", "$count", "$root/out/bad_owner", "$root/etc/bad_owner_startup.yaml"]
    reporting: true
    depends: [zulmgr]
    startup_entry_path: "$root/etc/bad_owner_startup.yaml"
  - name: owner
    bin_path: "$load_owner_bin"
    args: [--startup, "$root/etc/owner_startup.yaml", --apps, "3", --out, "$root/out/owner",
           --stop-file, "$root/stop"]
    reporting: true
    depends: [zulmgr]
    startup_entry_path: "$root/etc/owner_startup.yaml"
YAML

# The process every pid and thread id of the records points at.
"$probe_bin" --sleep-forever &
target_pid=$!
start_daemon "$root/etc/base.yaml"
wait_for 120 booted || { fail "the boot did not end"; finish; }
resource_up() { [ -S "$TUBIX_DIR/res/res/stavik/sys_server" ]; }
wait_for 30 resource_up || fail "the system operator resource is not there"
fd_before=$(fd_count)

python3 "$sender" upload "$seed" "$count" "$target_pid" | tee "$root/out/upload"
python3 "$sender" sysop "$seed" "$count" "$target_pid" | tee "$root/out/sysop"
python3 "$sender" heartbeat "$seed" "$count" | tee "$root/out/heartbeat"
owner_done() { grep -qs '^done=1' "$root/out/bad_owner"; }
wait_for 300 owner_done || fail "the bad owner did not finish"
cat "$root/out/bad_owner" 2>/dev/null | tr '\n' ' '; echo

# The daemon serves each endpoint as before.
touch "$root/stop"
final_seen() { grep -qs '^state=final' "$root/out/owner"; }
wait_for 120 final_seen || fail "the owner's last round did not end"
grep -qs '^final_ok=1' "$root/out/owner" || fail "the owner's last round did not end in its reports"
"$upload_bin" --procName up_after --pid "$target_pid" > "$root/out/upload_after" || fail "a valid announcement was not accepted"
"$sysop_bin" grp-query groups > "$root/out/sysop_after" || fail "the system operator did not answer"
settled() { [ "$(fd_count)" -le "$fd_before" ]; }
wait_for 10 settled || fail "descriptors grew from $fd_before to $(fd_count)"
bad_names=$(ps -o args= --ppid "$daemon_pid" 2>/dev/null | grep -c "$probe_bin" || true)

owner_lines=$(log_count 'RequestMsgHandler size=')
frame_lines=$(log_count 'Tubix: drop packet')
upload_lines=$(grep -cE 'SkHandleRequest( failed)?: req|SkHandleRequest failed|is refused|duplicate' "$root/daemon.log" || true)
sysop_lines=$(grep -cE 'sysOperator server .*(not valid|invalid cmd|too long)|ZUL: .* shorter than its header' "$root/daemon.log" || true)
beat_lines=$(log_count 'HeartBeat: drop')
echo "bad_records: $count records per endpoint, seed $seed, build $build"
figure "owner pipe: size lines / frames dropped" "$owner_lines / $frame_lines (all endpoints)"
figure "upload server: refusal lines" "$upload_lines"
figure "system operator: refusal lines" "$sysop_lines"
figure "heart-beat: drop lines" "$beat_lines"
figure "descriptors before / after" "$fd_before / $(fd_count)"
figure "owner's and bad owner's applications left" "$bad_names"
figure "after: upload / sysop" "$(head -c 60 "$root/out/upload_after") / $(head -c 60 "$root/out/sysop_after")"

grep -qs '^loaded=0' "$root/out/bad_owner" || fail "the bad owner's start-up file was not loaded"
grep -qs '^pipe_closed=0' "$root/out/bad_owner" || fail "the daemon closed the bad owner's pipe"
for pair in "owner:$owner_lines" "frame:$frame_lines" "upload:$upload_lines" "sysop:$sysop_lines" "heart-beat:$beat_lines"; do
  [ "${pair#*:}" -gt 0 ] || fail "no log line for the bad input of the ${pair%%:*} endpoint"
done
finish

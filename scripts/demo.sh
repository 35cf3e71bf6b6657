#!/usr/bin/env bash
# Installs what is missing, builds, and runs the daemon on the bundled example
# manifest in a throw-away sandbox root, with its log on this terminal.
# STAVIK_DEMO_SECONDS sets how long it runs (default 30; 0 runs until Ctrl-C).
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh
# Only what the demo runs: the daemon, the demo service, the owner tool its
# manifest starts, and the tools this script calls. Tests build with test.sh.
./scripts/build.sh stavik-daemon stavik-demo-service stavik-demo-owner-link stavik-sysop stavik-upload

seconds="${STAVIK_DEMO_SECONDS:-30}"
root="$(mktemp -d /tmp/stavik-demo.XXXXXX)"
mkdir -p "$root/dev" "$root/etc" "$root/sys/fs/cgroup" "$root/run/tubix"
chmod 1777 "$root/run/tubix"
cp /etc/passwd "$root/etc/passwd"
cp -r examples "$root/examples"
mkdir -p "$root/etc/sharepool"
cp examples/sharepool.yaml "$root/etc/sharepool/demo.yaml"
# A cgroup v1 tree of plain files: the daemon appends ids to its tasks files.
cpus="$(sed -n 's/^Cpus_allowed_list:[[:space:]]*//p' /proc/self/status)"
first_cpu="${cpus%%[-,]*}"
cg="$root/sys/fs/cgroup"
for group in cpu/OTHER memory/OTHER cpuset/CtrlCPU cpuset/QXCPU cpu/demo_grp memory/demo_grp blkio; do
  mkdir -p "$cg/$group"
done
for group in cpu/OTHER memory/OTHER cpuset/CtrlCPU cpuset/QXCPU cpu/demo_grp memory/demo_grp; do
  : > "$cg/$group/tasks"
done
echo "$cpus" > "$cg/cpuset/CtrlCPU/cpuset.cpus"
echo > "$cg/cpuset/QXCPU/cpuset.cpus"
mkdir -p "$root/usr/bin/qel"
printf 'HOST_CPU_SWITCH=1\nHOST_CPU_SET=demo_grp:50\n' > "$root/usr/bin/qel/env.cfg"
# Boot inputs: a kernel command line, the daemon's own file, the locked-memory
# limit, and the demo service in the digest list, so every start of it is checked.
mkdir -p "$root/proc" "$root/etc/qel/base-plat/stavik-daemon"
echo "console=ttyAMA0 stavik=nowatchdog yrnmode=kernel_utils" > "$root/proc/cmdline"
printf 'watch_dog:\n  enable: true\n  timeout: "60"\nskupload:\n  enable: true\n' \
  > "$root/etc/qel/base-plat/stavik-daemon/stavik_cfg.yaml"
locked="$(ulimit -l)"
[ "$locked" = unlimited ] || locked=$((locked * 1024))
echo "MAX_LOCKED_MEMORY_LIMIT=$locked" > "$root/etc/ostrel_common_env.conf"
echo "stavik-demo-service=$(sha256sum build/examples/stavik-demo-service | cut -d' ' -f1)" \
  > "$root/etc/qel/base-plat/stavik-daemon/bin_hash.cfg"
sed -i "s|@BIN@|$PWD/build/examples|g; s|@EXAMPLES@|$root/examples|g; s|@CPU@|$first_cpu|g" "$root"/examples/*.yaml
chmod -R a+rX "$root"

# The memory check reads the host's own NUMA node files, copied in.
for file in /sys/devices/system/node/has_normal_memory /sys/devices/system/node/has_memory \
            /sys/devices/system/node/node*/meminfo; do
  if [ -r "$file" ]; then
    mkdir -p "$root$(dirname "$file")"
    cat "$file" > "$root$file"
  fi
done

# The boot-dot file and the serial console are pipes here, so that every boot
# mark shows as it is written; opened read-write, they never block the daemon.
watch_marks() {
  local line
  while read -r line; do
    echo "demo: boot mark in $1: $line"
  done 3<>"$root$1" <&3
}
mkdir -p "$root/proc/bootdot"
mkfifo "$root/proc/bootdot/setblk" "$root/dev/ttyAMA0"
watch_marks /proc/bootdot/setblk &
mark_watcher=$!
watch_marks /dev/ttyAMA0 &
console_watcher=$!
echo "demo: sandbox root $root; the daemon's log follows"
echo "demo: fault nodes live in $root/hal, one file per node and device"
export STAVIK_SYSROOT="$root" STAVIK_LOG_STDERR=1 TUBIX_DIR="$root/run/tubix"
export HAL_DEV_NUM=2 HAL_STATE_DIR="$root/hal"
setsid ./build/stavik-daemon "$root/examples/base_services.yaml" &
daemon=$!
# Who is in each tasks file, and the cores of each running demo service.
show_placement() {
  local file id
  echo "demo: cgroup placement (id name)"
  for file in "$cg"/*/*/tasks; do
    echo "  ${file#"$cg"/}:"
    sort -un "$file" | while read -r id; do
      echo "    $id $(cat "/proc/$id/comm" 2>/dev/null || echo gone)"
    done
  done
  echo "demo: cores of the running services"
  for id in $(pgrep -s "$daemon" -x stavik-demo-ser || true); do
    {
      echo "  $id $(tr '\0' '\n' < "/proc/$id/environ" | sed -n 's/^PROC_NAME=//p'):" \
        "cores $(sed -n 's/^Cpus_allowed_list:[[:space:]]*//p' "/proc/$id/status")"
    } 2>/dev/null || true
  done
}
# Prints every change of a fault node file, so raised and cleared faults show.
watch_faults() {
  declare -A seen
  while true; do
    for file in "$root"/hal/sensor_*; do
      [ -f "$file" ] || continue
      state="$(tr '\n' ' ' < "$file")"
      if [ "${seen[$file]:-}" != "$state" ]; then
        seen[$file]="$state"
        echo "demo: fault node $(basename "$file"): $state"
      fi
    done
    sleep 0.2
  done
}
watch_faults &
watcher=$!
# The sharepool groups and their members, asked through the daemon's service.
show_groups() {
  local group
  echo "demo: stavik-sysop grp-query groups"
  ./build/client/stavik-sysop grp-query groups || true
  for group in DEFAULT_MEM_GROUP DEMO_VIDEO DEMO_AUDIO; do
    echo "demo: stavik-sysop grp-query members $group"
    ./build/client/stavik-sysop grp-query members "$group" || true
  done
}
# A process the daemon did not start announces itself; "zulmgr" hears it
# running, and gone once it ends.
announce_foreign() {
  local tries=0 foreign
  # The upload server and the naming service's endpoint, then a moment for
  # the daemon's pipe to "zulmgr".
  while { [ ! -S "$TUBIX_DIR/STAVIK" ] || [ ! -S "$TUBIX_DIR/zulmgr" ]; } && [ "$tries" -lt 100 ]; do
    sleep 0.1
    tries=$((tries + 1))
  done
  sleep 1
  sleep 3 &
  foreign=$!
  echo "demo: stavik-upload --procName demo_foreign --pid $foreign --rw all --alloc DEMO_VIDEO"
  ./build/client/stavik-upload --procName demo_foreign --pid "$foreign" --rw all --alloc DEMO_VIDEO || true
  wait "$foreign" || true
  echo "demo: demo_foreign (pid $foreign) has ended"
}
announce_foreign &
announcer=$!
shown=""
stop() {
  kill "$watcher" "$announcer" "$mark_watcher" "$console_watcher" 2>/dev/null || true
  [ -n "$shown" ] || { show_placement; show_groups; }
  shown=1
  kill -KILL -- "-$daemon" 2>/dev/null || true
  wait "$daemon" 2>/dev/null || true
  echo "demo: stopped; sandbox left in $root"
}
trap stop EXIT INT TERM
if [ "$seconds" = "0" ]; then
  wait "$daemon"
else
  sleep "$seconds"
fi

#!/usr/bin/env bash
# Installs what is missing, builds, and runs the daemon on the bundled example
# manifest in a throw-away sandbox root, with its log on this terminal.
# STAVIK_DEMO_SECONDS sets how long it runs (default 30; 0 runs until Ctrl-C).
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh
./scripts/build.sh

seconds="${STAVIK_DEMO_SECONDS:-30}"
root="$(mktemp -d /tmp/stavik-demo.XXXXXX)"
mkdir -p "$root/dev" "$root/etc" "$root/sys/fs/cgroup" "$root/run/tubix"
chmod 1777 "$root/run/tubix"
cp /etc/passwd "$root/etc/passwd"
cp -r examples "$root/examples"
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
printf 'watch_dog:\n  enable: true\n  timeout: "60"\nskupload:\n  enable: false\n' \
  > "$root/etc/qel/base-plat/stavik-daemon/stavik_cfg.yaml"
locked="$(ulimit -l)"
[ "$locked" = unlimited ] || locked=$((locked * 1024))
echo "MAX_LOCKED_MEMORY_LIMIT=$locked" > "$root/etc/ostrel_common_env.conf"
echo "stavik-demo-service=$(sha256sum build/examples/stavik-demo-service | cut -d' ' -f1)" \
  > "$root/etc/qel/base-plat/stavik-daemon/bin_hash.cfg"
sed -i "s|@BIN@|$PWD/build/examples|g; s|@EXAMPLES@|$root/examples|g; s|@CPU@|$first_cpu|g" "$root"/examples/*.yaml
chmod -R a+rX "$root"

echo "demo: sandbox root $root; the daemon's log follows"
export STAVIK_SYSROOT="$root" STAVIK_LOG_STDERR=1 TUBIX_DIR="$root/run/tubix"
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
shown=""
stop() {
  [ -n "$shown" ] || show_placement
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

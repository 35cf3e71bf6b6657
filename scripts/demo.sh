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
sed -i "s|@BIN@|$PWD/build/examples|g; s|@EXAMPLES@|$root/examples|g" "$root"/examples/*.yaml
chmod -R a+rX "$root"

# The memory check reads the host's own NUMA node files, copied in.
for file in /sys/devices/system/node/has_normal_memory /sys/devices/system/node/has_memory \
            /sys/devices/system/node/node*/meminfo; do
  if [ -r "$file" ]; then
    mkdir -p "$root$(dirname "$file")"
    cat "$file" > "$root$file"
  fi
done

echo "demo: sandbox root $root; the daemon's log follows"
echo "demo: fault nodes live in $root/hal, one file per node and device"
export STAVIK_SYSROOT="$root" STAVIK_LOG_STDERR=1 TUBIX_DIR="$root/run/tubix"
export HAL_DEV_NUM=2 HAL_STATE_DIR="$root/hal"
setsid ./build/stavik-daemon "$root/examples/base_services.yaml" &
daemon=$!
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
stop() {
  kill "$watcher" 2>/dev/null || true
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

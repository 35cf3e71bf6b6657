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

echo "demo: sandbox root $root; the daemon's log follows"
export STAVIK_SYSROOT="$root" STAVIK_LOG_STDERR=1 TUBIX_DIR="$root/run/tubix"
setsid ./build/stavik-daemon "$root/examples/base_services.yaml" &
daemon=$!
stop() {
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
